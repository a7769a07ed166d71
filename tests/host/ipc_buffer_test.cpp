#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <string>

#include "platform/KyIpcMsgBuffer.h"
#include "platform/KyIpcMsgUtil.h"

static size_t s_mostMemory = std::string::npos;  // larger allocations of the buffer fail
static size_t s_largestRequest = 0;              // by the buffer since it was last set to 0

extern "C" void* __real_realloc(void* old, size_t size);
extern "C" void* __wrap_realloc(void* old, size_t size);
extern "C" void* __wrap_realloc(void* old, size_t size) {
    s_largestRequest = std::max(s_largestRequest, size);
    return size > s_mostMemory ? nullptr : __real_realloc(old, size);
}

namespace {

using Bytes = std::basic_string<unsigned char>;

/// The message, and the first number behind its end.
Bytes BytesOf(const KyIpcMsgBuffer& buffer) {
    return Bytes(buffer.GetBuf(), static_cast<size_t>(buffer.GetLength()) + 4);
}

TEST(IpcBuffer, GoldenBytes) {
    KyIpcMsgBuffer buffer(64);
    KyIpcMsgUtil::PutInteger(&buffer, 0x12345678);
    KyIpcMsgUtil::PutInteger(&buffer, -2);
    KyIpcMsgUtil::PutStringParam(&buffer, std::string("\0\n\xFF", 3));
    KyIpcMsgUtil::PutStringParam(&buffer, "");
    EXPECT_EQ(BytesOf(buffer), (Bytes{0x78, 0x56, 0x34, 0x12, 0xFE, 0xFF, 0xFF, 0xFF, 3, 0, 0, 0,
                                      0,    '\n', 0xFF, 0,    0,    0,    0,    0,    0, 0, 0}));
    buffer.Clear();
    EXPECT_EQ(BytesOf(buffer), Bytes(4, 0));
}

TEST(IpcBuffer, RoundTripsFromAnyHint) {
    const std::string text(300'000, 'x');
    for (const int hint : {INT_MIN, -1, 0, 1, 512, INT_MAX}) {
        s_largestRequest = 0;
        KyIpcMsgBuffer buffer(hint);
        EXPECT_EQ(KyIpcMsgUtil::PutStringParam(&buffer, text), 0) << hint;
        std::string value;
        EXPECT_EQ(KyIpcMsgUtil::ExtractStringParam(&buffer, value), 0) << hint;
        EXPECT_TRUE(value == text) << hint;
        EXPECT_LT(s_largestRequest, 1'000'000u) << hint;
    }
}

TEST(IpcBuffer, EveryTruncationIsStickyAndBounded) {
    KyIpcMsgBuffer whole(0);
    KyIpcMsgUtil::PutInteger(&whole, 0x01010101);
    KyIpcMsgUtil::PutStringParam(&whole, "hello");
    KyIpcMsgUtil::PutInteger(&whole, 0x02020202);
    for (int length = 0; length <= 17; ++length) {
        SCOPED_TRACE(length);
        KyIpcMsgBuffer cut(0);
        ASSERT_TRUE(cut.Append(whole.GetBuf(), length));
        std::string text = "old";
        EXPECT_EQ(KyIpcMsgUtil::ExtractInteger(&cut), length < 4 ? 0 : 0x01010101);
        EXPECT_EQ(KyIpcMsgUtil::ExtractStringParam(&cut, text) == 0, length >= 13);
        EXPECT_EQ(text, length < 13 ? "" : "hello");
        EXPECT_EQ(KyIpcMsgUtil::ExtractInteger(&cut), length < 17 ? 0 : 0x02020202);
        EXPECT_NE(KyIpcMsgUtil::ExtractStringParam(&cut, text), 0);
        EXPECT_EQ(text, "");
    }
}

TEST(IpcBuffer, FalseLengthsYieldNothing) {
    for (const int claimed : {4, 5, INT_MAX, -1, INT_MIN}) {
        KyIpcMsgBuffer buffer(0);
        KyIpcMsgUtil::PutInteger(&buffer, claimed);
        KyIpcMsgUtil::PutInteger(&buffer, 1);
        std::string text = "old";
        EXPECT_EQ(KyIpcMsgUtil::ExtractStringParam(&buffer, text) == 0, claimed == 4) << claimed;
        EXPECT_EQ(text.size(), claimed == 4 ? 4u : 0u) << claimed;
        EXPECT_EQ(KyIpcMsgUtil::ExtractInteger(&buffer), 0) << "not at the end";
    }
}

TEST(IpcBuffer, AFailedPutChangesNothing) {
    const Bytes more(1000, 'm');
    KyIpcMsgBuffer buffer(0);
    ASSERT_TRUE(buffer.Append(more.data(), 60));
    EXPECT_FALSE(buffer.Append(more.data(), -1) || buffer.Append(more.data(), INT_MAX - 59));
    s_mostMemory = 100;
    const bool appended = buffer.Append(more.data(), 1000);
    const bool exactFit = buffer.Append(more.data(), 36);  // twice the room is refused, 96 + 4 bytes are not
    s_mostMemory = std::string::npos;
    EXPECT_TRUE(exactFit && !appended);
    EXPECT_EQ(BytesOf(buffer), Bytes(96, 'm') + Bytes(4, 0));
}

}  // namespace
