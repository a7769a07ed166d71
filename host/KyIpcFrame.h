#ifndef HOST_KYIPCFRAME_H
#define HOST_KYIPCFRAME_H

#include <cstddef>

#include "platform/KyIpcMsgBuffer.h"

/// How a message travels in a stream of bytes.
///
/// A frame is a mark of four bytes, the length of its body as four bytes with the lowest first, the body, and
/// an end byte. The body is the message, with one byte put in behind the first three bytes of the mark
/// wherever they occur in it. So the whole mark stands nowhere but at the start of a frame, not even across
/// two fields: a reader that has lost the thread, because a writer died within its frame, finds it again at
/// the next mark, without a wait and without a guess. The end byte tells a frame that lacks its last bytes
/// from one that is followed by the next.
namespace ky_frame {

constexpr unsigned char MARK[] = {0xF4, 0x4B, 0x79, 0xA6};  // no text in UTF-8 holds the first two
constexpr size_t LEAD = sizeof MARK - 1;                    // length of what the stuffing byte breaks
constexpr unsigned char STUFFING = 0;
constexpr unsigned char END = 0xC1;
constexpr size_t LENGTH_SIZE = 4;
constexpr int MOST_BODY = 1024 * 1024;  // a longer length is damage

/// Writes the frame of a message of `count` bytes to `frame`, in the place of what that holds.
///
/// @return a KyIpcFifoSession::IpcStatus: IPC_OK, IPC_TOO_LARGE or IPC_NO_MEMORY
int Encode(const char* bytes, int count, KyIpcMsgBuffer& frame);

}  // namespace ky_frame

/// Finds the messages in a stream of frames that is fed to it in pieces of any size. The stream may hold
/// anything: what is no whole frame is skipped, and memory is taken only for bytes that have come, never for
/// a length that was claimed.
class KyIpcFrameDecoder {
public:
    /// Takes bytes up to the end of the next whole message, or all of them. The call after one that has found
    /// a message begins with the next.
    ///
    /// @return how many bytes it took; fewer than `count` only if a message is whole
    size_t Feed(const unsigned char* bytes, size_t count);

    /// Whether the last call of Feed() has ended with a whole message.
    bool IsWhole() const { return m_state == WHOLE; }

    /// The message, or as much of it as has come. Empty when nothing has.
    const KyIpcMsgBuffer& Message() const { return m_message; }

    /// How many bytes have been found to belong to no whole message since the last call. Bytes are known for
    /// that once a new frame begins behind them.
    size_t TakeSkipped();

private:
    enum State { HUNTING, LENGTH, BODY, TRAILER, WHOLE };

    size_t TakePlain(const unsigned char* bytes, size_t count);
    void Take(unsigned char byte);
    void TakeLength(unsigned char byte);
    void TakeBody(unsigned char byte, bool behindLead);
    void TakeEnd(unsigned char byte);
    void Begin();
    void Append(const unsigned char* bytes, size_t count);
    void Hunt();

    State m_state = HUNTING;
    size_t m_matched = 0;      // how much of a mark the last bytes are
    size_t m_lengthBytes = 0;  // of the length that have come
    unsigned int m_rest = 0;   // the length so far, then the bytes of the body that are to come
    size_t m_sinceMessage = 0;
    size_t m_skipped = 0;
    KyIpcMsgBuffer m_message{0};
};

#endif
