#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/KyIpcMsgBuffer.h"
#include "platform/KyIpcMsgUtil.h"

namespace {

size_t s_mostMemory = SIZE_MAX;  // larger allocations of the buffer fail
size_t s_largestRequest = 0;     // by the buffer since it was last set to 0

}  // namespace

extern "C" void* __real_realloc(void* old, size_t size);
extern "C" void* __wrap_realloc(void* old, size_t size);
extern "C" void* __wrap_realloc(void* old, size_t size) {
    s_largestRequest = std::max(s_largestRequest, size);
    return size > s_mostMemory ? nullptr : __real_realloc(old, size);
}

namespace {

using Bytes = std::basic_string<unsigned char>;
using std::string_literals::operator""s;

Bytes BytesOf(const KyIpcMsgBuffer& buffer) {
    return Bytes(buffer.GetBuf(), static_cast<size_t>(buffer.GetLength()));
}

int FirstBehind(const KyIpcMsgBuffer& buffer) {
    return KyIpcMsgUtil::ExtractInteger(buffer.GetBuf() + buffer.GetLength());
}

TEST(IpcBuffer, GoldenBytes) {
    const struct {
        const char* name;
        bool isString;
        int integer;
        std::string text;
        Bytes bytes;
    } rows[] = {
        {"lowest byte first", false, 0x12345678, "", {0x78, 0x56, 0x34, 0x12}},
        {"minus one", false, -1, "", {0xFF, 0xFF, 0xFF, 0xFF}},
        {"smallest", false, INT_MIN, "", {0, 0, 0, 0x80}},
        {"text", true, 0, "AB", {2, 0, 0, 0, 'A', 'B'}},
        {"empty text", true, 0, "", {0, 0, 0, 0}},
        {"any bytes", true, 0, "\0\n\xFF"s, {3, 0, 0, 0, 0, '\n', 0xFF}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        KyIpcMsgBuffer buffer(64);
        const int status = row.isString ? KyIpcMsgUtil::PutStringParam(&buffer, row.text)
                                        : KyIpcMsgUtil::PutInteger(&buffer, row.integer);
        EXPECT_EQ(status, 0);
        EXPECT_EQ(BytesOf(buffer), row.bytes);
        if (!row.isString) {
            EXPECT_EQ(KyIpcMsgUtil::ExtractInteger(row.bytes.data()), row.integer);
        }
    }
}

TEST(IpcBuffer, RoundTripsFromAnyHint) {
    const std::string texts[] = {"", "name", "\0\xFF\0"s, std::string(300'000, 'x')};
    for (const int hint : {INT_MIN, -1, 0, 1, 512, INT_MAX}) {
        SCOPED_TRACE(hint);
        s_largestRequest = 0;
        KyIpcMsgBuffer buffer(hint);
        EXPECT_EQ(FirstBehind(buffer), 0);
        for (const std::string& text : texts) {
            EXPECT_EQ(KyIpcMsgUtil::PutStringParam(&buffer, text), 0);
            EXPECT_EQ(FirstBehind(buffer), 0);
            EXPECT_EQ(KyIpcMsgUtil::PutInteger(&buffer, -7), 0);
            EXPECT_EQ(FirstBehind(buffer), 0);
        }
        for (const std::string& text : texts) {
            std::string value = "old";
            EXPECT_EQ(KyIpcMsgUtil::ExtractStringParam(&buffer, value), 0);
            EXPECT_EQ(value, text);
            EXPECT_EQ(KyIpcMsgUtil::ExtractInteger(&buffer), -7);
        }
        EXPECT_EQ(KyIpcMsgUtil::ExtractInteger(&buffer), 0);
        EXPECT_LT(s_largestRequest, 1'000'000u);
    }
}

TEST(IpcBuffer, EveryTruncationIsStickyAndBounded) {
    KyIpcMsgBuffer whole(0);
    KyIpcMsgUtil::PutInteger(&whole, 0x01010101);
    KyIpcMsgUtil::PutStringParam(&whole, "hello");
    KyIpcMsgUtil::PutInteger(&whole, 0x02020202);
    ASSERT_EQ(whole.GetLength(), 17);
    for (int length = 0; length <= whole.GetLength(); ++length) {
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
        const int seen = length < 4 ? (1 << 8 * length) - 1 : -1;  // the missing bytes are zero
        EXPECT_EQ(KyIpcMsgUtil::ExtractInteger(cut.GetBuf()), 0x01010101 & seen);
    }
}

TEST(IpcBuffer, FalseLengthsYieldNothing) {
    const struct {
        const char* name;
        int claimed;
        bool good;
    } rows[] = {{"just all that is there", 8, true},
                {"one too many", 9, false},
                {"huge", INT_MAX, false},
                {"minus one", -1, false},
                {"smallest", INT_MIN, false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        KyIpcMsgBuffer buffer(0);
        KyIpcMsgUtil::PutInteger(&buffer, row.claimed);
        KyIpcMsgUtil::PutInteger(&buffer, 1);
        KyIpcMsgUtil::PutInteger(&buffer, 2);
        std::string text = "old";
        EXPECT_EQ(KyIpcMsgUtil::ExtractStringParam(&buffer, text) == 0, row.good);
        EXPECT_EQ(text.size(), row.good ? 8u : 0u);
        EXPECT_LT(text.capacity(), 100u);
        EXPECT_EQ(KyIpcMsgUtil::ExtractInteger(&buffer), 0) << "not at the end";
    }
}

TEST(IpcBuffer, AFailedPutChangesNothing) {
    const Bytes more(1000, 'm');
    KyIpcMsgBuffer buffer(0);
    ASSERT_TRUE(buffer.Append(more.data(), 60));
    const Bytes before = BytesOf(buffer);
    EXPECT_FALSE(buffer.Append(more.data(), -1));
    EXPECT_FALSE(buffer.Append(more.data(), INT_MIN));
    EXPECT_FALSE(buffer.Append(more.data(), INT_MAX - 59));
    EXPECT_TRUE(buffer.Append(nullptr, 0));
    s_mostMemory = 100;
    const bool appended = buffer.Append(more.data(), 1000);
    const int put = KyIpcMsgUtil::PutStringParam(&buffer, std::string(85, 's'));
    const bool exactFit = buffer.Append(more.data(), 36);  // twice the room is refused, 96 + 4 bytes are not
    s_mostMemory = SIZE_MAX;
    EXPECT_FALSE(appended);
    EXPECT_NE(put, 0);
    EXPECT_TRUE(exactFit);
    EXPECT_EQ(BytesOf(buffer), before + more.substr(0, 36));
    EXPECT_EQ(FirstBehind(buffer), 0);
}

TEST(IpcBuffer, ClearStartsAnew) {
    KyIpcMsgBuffer buffer(0);
    KyIpcMsgUtil::PutInteger(&buffer, -1);
    EXPECT_EQ(KyIpcMsgUtil::ExtractInteger(&buffer), -1);
    buffer.Clear();
    EXPECT_EQ(buffer.GetLength(), 0);
    EXPECT_EQ(KyIpcMsgUtil::ExtractInteger(buffer.GetBuf()), 0);
    KyIpcMsgUtil::PutInteger(&buffer, 5);
    EXPECT_EQ(KyIpcMsgUtil::ExtractInteger(&buffer), 5);
}

}  // namespace
