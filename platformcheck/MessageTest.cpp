// KyIpcMsgBuffer and KyIpcMsgUtil.
#include <climits>
#include <cstring>

#include "platform/KyIpcMsgBuffer.h"
#include "platform/KyIpcMsgUtil.h"
#include "platformcheck/PlatformTest.h"

using namespace ky_platform_check;

namespace {

const unsigned char* Bytes(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

std::string Text(const KyIpcMsgBuffer& buffer) {
    return {reinterpret_cast<const char*>(buffer.GetBuf()), static_cast<size_t>(buffer.GetLength())};
}

/// Whether four zero bytes follow the last byte.
bool TailIsZero(const KyIpcMsgBuffer& buffer) {
    const unsigned char zeros[4] = {};
    return buffer.GetBuf() != nullptr && std::memcmp(buffer.GetBuf() + buffer.GetLength(), zeros, 4) == 0;
}

TEST(Buffer, GrowsWithAnyHint) {
    const std::string piece = Noise(997, 1);
    for (const int hint : {0, -5, INT_MIN, 10, INT_MAX}) {
        SCOPED_TRACE(hint);
        KyIpcMsgBuffer buffer(hint);
        std::string expected;
        EXPECT_EQ(buffer.GetLength(), 0);
        ASSERT_TRUE(TailIsZero(buffer));
        for (int count = 0; count < 997; ++count) {
            ASSERT_TRUE(buffer.Append(Bytes(piece), count)) << "after " << expected.size() << " bytes";
            expected.append(piece, 0, static_cast<size_t>(count));
            ASSERT_TRUE(TailIsZero(buffer)) << "after " << expected.size() << " bytes";
        }
        EXPECT_TRUE(Same(expected, Text(buffer)));
    }
}

TEST(Buffer, RefusesNegativeAndTooLargeCounts) {
    KyIpcMsgBuffer buffer(0);
    EXPECT_TRUE(buffer.Append(nullptr, 0));
    buffer.Append(Bytes("abc"), 3);
    for (const int count : {-1, INT_MIN, INT_MAX}) {
        EXPECT_FALSE(buffer.Append(Bytes("abc"), count)) << count;
        EXPECT_EQ(Text(buffer), "abc") << count;
        EXPECT_TRUE(TailIsZero(buffer)) << count;
    }
}

TEST(Buffer, ClearRemovesBytesAndResetsPosition) {
    KyIpcMsgBuffer buffer(0);
    KyIpcMsgUtil::PutInteger(&buffer, -1);
    KyIpcMsgUtil::PutInteger(&buffer, -1);
    KyIpcMsgUtil::ExtractInteger(&buffer);
    buffer.Clear();
    EXPECT_EQ(buffer.GetLength(), 0);
    EXPECT_TRUE(TailIsZero(buffer));
    EXPECT_EQ(KyIpcMsgUtil::ExtractInteger(&buffer), 0);
    KyIpcMsgUtil::PutInteger(&buffer, 7);
    EXPECT_EQ(KyIpcMsgUtil::ExtractInteger(&buffer), 7);
}

TEST(Message, IntegersAreLittleEndian) {
    const struct {
        int value;
        const char* wire;
    } rows[] = {{0, "\0\0\0\0"},
                {1, "\1\0\0\0"},
                {-1, "\xFF\xFF\xFF\xFF"},
                {0x12345678, "\x78\x56\x34\x12"},
                {INT_MAX, "\xFF\xFF\xFF\x7F"},
                {INT_MIN, "\0\0\0\x80"}};
    for (const auto& row : rows) {
        const std::string wire(row.wire, 4);
        KyIpcMsgBuffer buffer(0);
        EXPECT_EQ(KyIpcMsgUtil::PutInteger(&buffer, row.value), 0);
        EXPECT_EQ(Text(buffer), wire);
        EXPECT_EQ(KyIpcMsgUtil::ExtractInteger(&buffer), row.value);
        const std::string shifted = "x" + wire;  // puts the integer at an unaligned address
        EXPECT_EQ(KyIpcMsgUtil::ExtractInteger(Bytes(shifted) + 1), row.value);
    }
}

TEST(Message, StringsFollowTheirLength) {
    const std::string text("\0a\n\xFF", 4);
    KyIpcMsgBuffer buffer(0);
    EXPECT_EQ(KyIpcMsgUtil::PutStringParam(&buffer, text), 0);
    KyIpcMsgUtil::PutStringParam(&buffer, "");
    EXPECT_EQ(Text(buffer), std::string("\4\0\0\0", 4) + text + std::string(4, '\0'));
    for (const std::string& expected : {text, std::string()}) {
        std::string seen = "old";
        EXPECT_EQ(KyIpcMsgUtil::ExtractStringParam(&buffer, seen), 0);
        EXPECT_EQ(seen, expected);
    }
}

/// Extracts a string and an integer from bytes that hold neither.
void ExpectNothing(KyIpcMsgBuffer& buffer) {
    std::string seen = "old";
    EXPECT_NE(KyIpcMsgUtil::ExtractStringParam(&buffer, seen), 0);
    EXPECT_EQ(seen, "");
    EXPECT_EQ(KyIpcMsgUtil::ExtractInteger(&buffer), 0) << "after the string";
}

TEST(Message, TruncatedFieldsAreEmptyUntilTheEnd) {
    KyIpcMsgBuffer whole(0);
    KyIpcMsgUtil::PutStringParam(&whole, "abcdef");
    for (int length = 0; length < whole.GetLength(); ++length) {
        SCOPED_TRACE(length);
        KyIpcMsgBuffer buffer(0);
        buffer.Append(whole.GetBuf(), length);
        ExpectNothing(buffer);
    }
    for (int length = 0; length < 4; ++length) {
        KyIpcMsgBuffer buffer(0);
        buffer.Append(Bytes("\xFF\xFF\xFF"), length);
        for (int i = 0; i < 2; ++i)
            EXPECT_EQ(KyIpcMsgUtil::ExtractInteger(&buffer), 0) << "of " << length << " bytes";
    }
}

TEST(Message, StringsWithABadLengthAreEmpty) {
    for (const int claimed : {-1, INT_MIN, INT_MAX, 0x7FFFFFFC, 9}) {
        SCOPED_TRACE(claimed);
        KyIpcMsgBuffer buffer(0);
        KyIpcMsgUtil::PutInteger(&buffer, claimed);
        KyIpcMsgUtil::PutInteger(&buffer, 5);
        KyIpcMsgUtil::PutInteger(&buffer, 5);
        ExpectNothing(buffer);
    }
}

}  // namespace
