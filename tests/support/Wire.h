#ifndef SUPPORT_WIRE_H
#define SUPPORT_WIRE_H

#include <gtest/gtest.h>

#include <string>

#include "host/KyIpcFrame.h"
#include "messages/KyTferMsg.h"
#include "platform/KyIpcFifoSession.h"
#include "platform/KyIpcMsgBuffer.h"

struct Session : KyIpcFifoSession {
    Session() : KyIpcFifoSession("test", IPC_CLOSE_NO_CONFIRM) {}
};

inline std::string BytesOf(const KyIpcMsgBuffer& buffer) {
    return {reinterpret_cast<const char*>(buffer.GetBuf()), static_cast<size_t>(buffer.GetLength())};
}

inline std::string BytesOf(KyTferMsg& message) {
    KyIpcMsgBuffer buffer(0);
    message.Serialize(&buffer);
    return BytesOf(buffer);
}

inline std::string FrameOf(const std::string& message) {
    KyIpcMsgBuffer frame(0);
    EXPECT_EQ(ky_frame::Encode(message.data(), static_cast<int>(message.size()), frame), 0);
    return BytesOf(frame);
}

#endif
