// A stream of whole, torn and damaged frames and garbage. It passes the decoder at once, the decoder in pieces,
// and the FIFO of a session; the messages must be the same.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iterator>
#include <vector>

#include "fuzz/Wire.h"
#include "host/KyHostIpc.h"

using fuzz::FrameOf;
using fuzz::Require;

namespace {

using Messages = std::vector<std::string>;

constexpr size_t kFifoUnit = 16;  // bytes; single bytes would spend all time in system calls
const std::string kLast = "the last";

/// A stream, and its undamaged messages.
struct Stream {
    explicit Stream(fuzz::Input& input) {
        while (!input.Empty() && bytes.size() < 200000)
            Add(input);
        AddWhole(kLast);
    }

    void Add(fuzz::Input& input) {
        const unsigned kind = input.Byte();
        const std::string text = input.Text(input.Byte() % 32);
        const std::string frame = FrameOf(text);
        const std::string mark(std::begin(ky_frame::kMark), std::end(ky_frame::kMark));
        switch (kind % 8) {
            case 0:
            case 1:
                return AddWhole(text);
            case 2: {
                std::string repeated;
                for (unsigned times = input.Byte() * 8; times > 0; --times)
                    repeated += text;
                return AddWhole(repeated);
            }
            case 3:
                return AddWhole(text + mark.substr(0, 1 + input.Byte() % 4) + text);
            case 4:
                bytes += frame.substr(0, input.Byte() % frame.size());
                return;
            case 5:
                bytes += frame;
                bytes[bytes.size() - 1 - input.Byte() % frame.size()] = static_cast<char>(input.Byte());
                return;
            case 6:
                bytes += mark.substr(0, input.Byte() % 5) + text;
                return;
            default:
                bytes += text;
        }
    }

    void AddWhole(const std::string& message) {
        whole.push_back(message);
        bytes += FrameOf(message);
    }

    std::string bytes;
    Messages whole;
};

struct Decoded {
    Messages messages;
    size_t skipped = 0;
};

/// Hands the stream to `take` in pieces. The bytes of `cuts` are their lengths minus 1, cyclically, in units of
/// `unit` bytes.
template <typename Take>
void InPieces(const std::string& stream, const std::string& cuts, size_t unit, Take take) {
    size_t cut = 0;
    for (size_t at = 0; at < stream.size();) {
        const size_t length = unit * (1 + static_cast<unsigned char>(cuts[cut++ % cuts.size()]));
        take(stream.substr(at, length));
        at += length;
    }
}

void Feed(KyIpcFrameDecoder& decoder, const std::string& piece, Decoded& decoded) {
    const std::vector<unsigned char> bytes(
        piece.begin(), piece.end());  // its allocation ends with the piece: sanitizers catch overreads
    for (size_t taken = 0; taken < bytes.size();) {
        const size_t step = decoder.Feed(bytes.data() + taken, bytes.size() - taken);
        Require(step > 0 && (decoder.IsWhole() || taken + step == bytes.size()),
                "the decoder takes all bytes up to the end of a message");
        taken += step;
        Require(decoder.Message().GetLength() <= ky_frame::kMaxBody,
                "a message is at most as large as the limit");
        if (decoder.IsWhole()) decoded.messages.push_back(fuzz::BytesOf(decoder.Message()));
    }
}

Decoded ThroughDecoder(const std::string& stream, const std::string& cuts) {
    KyIpcFrameDecoder decoder;
    Decoded decoded;
    if (cuts.empty()) Feed(decoder, stream, decoded);
    if (!cuts.empty())
        InPieces(stream, cuts, 1, [&](const std::string& piece) { Feed(decoder, piece, decoded); });
    decoded.skipped = decoder.TakeSkipped();
    return decoded;
}

/// Every byte belongs to a message or is counted as skipped. If damage removes the stuffing after a lead at the end
/// of a message, the decoder accepts the message.
void CheckSkipped(const Decoded& decoded, size_t size) {
    const std::string lead(ky_frame::kMark, ky_frame::kMark + ky_frame::kLead);
    size_t most = decoded.skipped;
    size_t unsure = 0;
    for (const std::string& message : decoded.messages) {
        most += FrameOf(message).size();
        if (message.size() >= lead.size() && message.substr(message.size() - lead.size()) == lead) ++unsure;
    }
    Require(size <= most && most <= size + unsure, "skipped bytes are counted");
}

/// All streams use one session: the rest of one stream must not affect the next.
Messages ThroughFifo(const std::string& stream, const std::string& cuts) {
    static KyIpcFifoSession& s_session =
        *new KyIpcFifoSession("fuzz", KyIpcFifoSession::IPC_CLOSE_NO_CONFIRM);
    static const bool s_open = s_session.OpenReadFifo("stream", 0600) == KyIpcFifoSession::IPC_OK;
    static const int s_fifo = open((ky_host::IpcDirectory() + "/stream").c_str(), O_WRONLY | O_NONBLOCK);
    Require(s_open && s_fifo >= 0, "the FIFO is open");
    Messages messages;
    KyIpcMsgBuffer message(0);
    InPieces(stream, cuts, kFifoUnit, [&](const std::string& piece) {
        Require(write(s_fifo, piece.data(), piece.size()) == static_cast<ssize_t>(piece.size()),
                "the FIFO has room");
        while (s_session.Read(&message, 0) == KyIpcFifoSession::IPC_OK)
            messages.push_back(fuzz::BytesOf(message));
    });
    return messages;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::RequireSandbox();
    fuzz::SilenceLog();
    setenv("KY_IPC_DIR", "/var/tmp/ipc", 1);
    return ky_host::CreateIpcDirectory();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input input(data, size);
    std::string cuts = input.Text(4);
    cuts.resize(4, '\xFF');
    const Stream stream(input);

    const Decoded atOnce = ThroughDecoder(stream.bytes, "");
    auto message = atOnce.messages.begin();
    for (const std::string& written : stream.whole) {
        message = std::find(message, atOnce.messages.end(), written);
        Require(message++ != atOnce.messages.end(), "a whole frame is decoded, whatever precedes it");
    }
    Require(atOnce.messages.back() == kLast, "no message follows the last frame");
    CheckSkipped(atOnce, stream.bytes.size());

    const Decoded inPieces = ThroughDecoder(stream.bytes, cuts);
    Require(inPieces.messages == atOnce.messages && inPieces.skipped == atOnce.skipped,
            "pieces give the same messages");
    Require(ThroughFifo(stream.bytes, cuts) == atOnce.messages, "the FIFO gives the same messages");
    return 0;
}
