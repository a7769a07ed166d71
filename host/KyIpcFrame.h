#ifndef HOST_KYIPCFRAME_H
#define HOST_KYIPCFRAME_H

#include <cstddef>

#include "platform/KyIpcMsgBuffer.h"

/// The framing of messages in a stream of bytes.
///
/// A frame is a mark of four bytes, the length of the body as four bytes in little-endian order, the body,
/// and an end byte. The body is the message, with a stuffing byte after each occurrence of the first three
/// bytes of the mark. So the mark occurs only at the start of a frame. If a writer dies within a frame, the reader
/// continues at the next mark. The end byte shows that the frame is complete.
namespace ky_frame {

constexpr unsigned char kMark[] = {0xF4, 0x4B, 0x79, 0xA6};  // the first two bytes are not valid UTF-8
constexpr size_t kLead = sizeof kMark - 1;  // the stuffing byte follows this many bytes of the mark
constexpr unsigned char kStuffing = 0;
constexpr unsigned char kEnd = 0xC1;
constexpr size_t kLengthSize = 4;
constexpr int kMaxBody = 1024 * 1024;  // the reader treats a longer length as damage

/// Replaces the content of `frame` by the frame of a message of `count` bytes.
///
/// @return a KyIpcFifoSession::IpcStatus: IPC_OK, IPC_TOO_LARGE or IPC_NO_MEMORY
int Encode(const char* bytes, int count, KyIpcMsgBuffer& frame);

}  // namespace ky_frame

/// Finds the messages in a stream of frames. Bytes that belong to no complete frame are skipped. Memory is
/// allocated for received bytes only, never for an announced length.
class KyIpcFrameDecoder {
public:
    /// Consumes bytes up to the end of the next message, or all of them. After a message, the next call
    /// starts a new one.
    ///
    /// @return number of consumed bytes; less than `count` only if a message is complete
    size_t Feed(const unsigned char* bytes, size_t count);

    /// Whether the last call of Feed() has completed a message.
    bool IsWhole() const { return m_state == WHOLE; }

    /// The message, or the part of it that has been received.
    const KyIpcMsgBuffer& Message() const { return m_message; }

    /// Number of bytes skipped since the last call. Bytes count as skipped once a new frame begins after
    /// them.
    size_t TakeSkipped();

private:
    enum State { HUNTING, LENGTH, BODY, TRAILER, WHOLE };

    size_t TakePlain(const unsigned char* bytes, size_t count);
    void Take(unsigned char byte);
    void TakeLength(unsigned char byte);
    void TakeBody(unsigned char byte, bool afterLead);
    void TakeEnd(unsigned char byte);
    void Begin();
    void Append(const unsigned char* bytes, size_t count);
    void Hunt();

    State m_state = HUNTING;
    size_t m_matched = 0;      // number of last bytes that match the start of the mark
    size_t m_lengthBytes = 0;  // received bytes of the length
    unsigned int m_rest = 0;   // the length so far, then the missing bytes of the body
    size_t m_sinceMessage = 0;
    size_t m_skipped = 0;
    KyIpcMsgBuffer m_message{0};
};

#endif
