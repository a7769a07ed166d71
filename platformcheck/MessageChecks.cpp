#include <climits>
#include <cstring>

#include "platform/KyIpcMsgBuffer.h"
#include "platform/KyIpcMsgUtil.h"
#include "platformcheck/Check.h"

using namespace ky_platform_check;

namespace {

const unsigned char* Bytes(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

std::string Text(const KyIpcMsgBuffer& buffer) {
    return {reinterpret_cast<const char*>(buffer.GetBuf()), static_cast<size_t>(buffer.GetLength())};
}

bool TailIsZero(const KyIpcMsgBuffer& buffer) {
    const unsigned char zeros[4] = {};
    return buffer.GetBuf() != nullptr && std::memcmp(buffer.GetBuf() + buffer.GetLength(), zeros, 4) == 0;
}

void Grows(Judge& judge, const Bench&) {
    const std::string piece = Noise(997, 1);
    for (const int hint : {0, -5, INT_MIN, 10, INT_MAX}) {
        const std::string of = " with the hint " + std::to_string(hint);
        KyIpcMsgBuffer buffer(hint);
        std::string expected;
        judge.Equal("length of an empty buffer" + of, 0, buffer.GetLength());
        if (!judge.Expect(TailIsZero(buffer), "an empty buffer lacks the zero bytes" + of)) return;
        for (int count = 0; count < 997; ++count) {
            if (!judge.Expect(buffer.Append(Bytes(piece), count), "Append() fails" + of)) return;
            expected.append(piece, 0, static_cast<size_t>(count));
            if (!judge.Expect(TailIsZero(buffer),
                              "no zero bytes behind " + std::to_string(expected.size()) + " bytes" + of))
                return;
        }
        judge.Equal("the bytes" + of, expected, Text(buffer));
    }
}

void RefusesCounts(Judge& judge, const Bench&) {
    KyIpcMsgBuffer buffer(0);
    judge.Expect(buffer.Append(nullptr, 0), "nothing from a null pointer is not added");
    buffer.Append(Bytes("abc"), 3);
    for (const int count : {-1, INT_MIN, INT_MAX}) {
        const bool added = buffer.Append(Bytes("abc"), count);
        judge.Equal("Append() of " + std::to_string(count) + " bytes to three", 0, added ? 1 : 0);
        judge.Equal("the bytes after that", "abc", Text(buffer));
        judge.Expect(TailIsZero(buffer), "the zero bytes are gone after that");
    }
}

void Clears(Judge& judge, const Bench&) {
    KyIpcMsgBuffer buffer(0);
    KyIpcMsgUtil::PutInteger(&buffer, -1);
    KyIpcMsgUtil::PutInteger(&buffer, -1);
    KyIpcMsgUtil::ExtractInteger(&buffer);
    buffer.Clear();
    judge.Equal("length after Clear()", 0, buffer.GetLength());
    judge.Expect(TailIsZero(buffer), "Clear() leaves bytes in the place of the zeros");
    judge.Equal("the integer of a cleared buffer", 0, KyIpcMsgUtil::ExtractInteger(&buffer));
    KyIpcMsgUtil::PutInteger(&buffer, 7);
    judge.Equal("the first integer after Clear()", 7, KyIpcMsgUtil::ExtractInteger(&buffer));
}

void WritesWire(Judge& judge, const Bench&) {
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
        judge.Equal("status of PutInteger()", 0, KyIpcMsgUtil::PutInteger(&buffer, row.value));
        judge.Equal("bytes of " + std::to_string(row.value), wire, Text(buffer));
        judge.Equal("integer from the buffer", row.value, KyIpcMsgUtil::ExtractInteger(&buffer));
        const std::string shifted = "x" + wire;  // at no address that suits an integer
        judge.Equal("integer from bytes", row.value, KyIpcMsgUtil::ExtractInteger(Bytes(shifted) + 1));
    }
    const std::string text("\0a\n\xFF", 4);
    KyIpcMsgBuffer buffer(0);
    judge.Equal("status of PutStringParam()", 0, KyIpcMsgUtil::PutStringParam(&buffer, text));
    KyIpcMsgUtil::PutStringParam(&buffer, "");
    judge.Equal("bytes of two strings", std::string("\4\0\0\0", 4) + text + std::string(4, '\0'),
                Text(buffer));
    for (const std::string& expected : {text, std::string()}) {
        std::string seen = "old";
        judge.Equal("status of ExtractStringParam()", 0, KyIpcMsgUtil::ExtractStringParam(&buffer, seen));
        judge.Equal("string from the buffer", expected, seen);
    }
}

/// Takes a string that is not there, and then the integer that is not there either.
void ExpectNothing(Judge& judge, KyIpcMsgBuffer& buffer, const std::string& where) {
    std::string seen = "old";
    const int status = KyIpcMsgUtil::ExtractStringParam(&buffer, seen);
    judge.Expect(status != 0, "a string is found " + where);
    judge.Equal("string " + where, "", seen);
    judge.Equal("integer behind it, " + where, 0, KyIpcMsgUtil::ExtractInteger(&buffer));
}

void SurvivesShort(Judge& judge, const Bench&) {
    KyIpcMsgBuffer whole(0);
    KyIpcMsgUtil::PutStringParam(&whole, "abcdef");
    for (int cut = 0; cut < whole.GetLength(); ++cut) {
        KyIpcMsgBuffer buffer(0);
        buffer.Append(whole.GetBuf(), cut);
        ExpectNothing(judge, buffer, "in " + std::to_string(cut) + " bytes of ten");
    }
    for (int length = 0; length < 4; ++length) {
        KyIpcMsgBuffer buffer(0);
        buffer.Append(Bytes("\xFF\xFF\xFF"), length);
        for (int i = 0; i < 2; ++i)
            judge.Equal("integer of too few bytes", 0, KyIpcMsgUtil::ExtractInteger(&buffer));
    }
}

void SurvivesLies(Judge& judge, const Bench&) {
    for (const int claimed : {-1, INT_MIN, INT_MAX, 0x7FFFFFFC, 9}) {
        KyIpcMsgBuffer buffer(0);
        KyIpcMsgUtil::PutInteger(&buffer, claimed);
        KyIpcMsgUtil::PutInteger(&buffer, 5);
        KyIpcMsgUtil::PutInteger(&buffer, 5);
        ExpectNothing(judge, buffer, "of eight bytes that claims " + std::to_string(claimed));
    }
}

}  // namespace

Checks ky_platform_check::MessageChecks() {
    return {{"buffer: it grows, whatever the hint, with four zero bytes behind its last", Grows},
            {"buffer: negative counts, and more than 2^31 - 1 bytes, change nothing", RefusesCounts},
            {"buffer: Clear() forgets the bytes and the position", Clears},
            {"message: integers and strings have their bytes on the wire and come back", WritesWire},
            {"message: what is cut off gives 0 and empty strings to the end", SurvivesShort},
            {"message: a string of a negative or too large length is none", SurvivesLies}};
}
