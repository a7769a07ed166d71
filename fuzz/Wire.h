#ifndef FUZZ_WIRE_H
#define FUZZ_WIRE_H

#include <memory>
#include <string>

#include "fuzz/Fuzz.h"
#include "host/KyIpcFrame.h"
#include "messages/KyTferMsgFactory.h"
#include "platform/KyIpcFifoSession.h"

/// Conversions between messages, bytes and frames.
namespace fuzz {

using Message = std::unique_ptr<KyTferMsg>;

inline std::string Serialised(KyTferMsg& message) {
    KyIpcMsgBuffer buffer(0);
    message.Serialize(&buffer);
    return BytesOf(buffer);
}

/// Returns null if the bytes are not a message.
inline Message MessageIn(const std::string& bytes) {
    KyIpcMsgBuffer buffer(0);
    buffer.Append(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
    return Message(KyTferMsgFactory::CreateMsgFromBuffer(&buffer));
}

inline std::string FrameOf(const std::string& message) {
    KyIpcMsgBuffer frame(0);
    const int status = ky_frame::Encode(message.data(), static_cast<int>(message.size()), frame);
    Require(status == KyIpcFifoSession::IPC_OK, "a message has a frame");
    return BytesOf(frame);
}

}  // namespace fuzz

#endif
