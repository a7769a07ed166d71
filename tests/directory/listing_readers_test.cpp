#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <climits>
#include <clocale>
#include <new>

#include "directory/KyBlankSeparatedListing.h"
#include "directory/KyTferDirectory.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

static constexpr size_t kTooMuch = 100'000'000;  // bytes; no listing of these tests needs as much
static int s_allowed = INT_MAX;                  // allocations until they fail

// Not inlined, or the compiler takes free() for a mismatch of an operator new that it does not see.
[[gnu::noinline]] void* operator new(size_t size) {
    EXPECT_LT(size, kTooMuch);
    if (size >= kTooMuch || (s_allowed != INT_MAX && s_allowed-- <= 0)) throw std::bad_alloc();
    return malloc(size);
}
[[gnu::noinline]] void operator delete(void* block) noexcept {
    free(block);
}
[[gnu::noinline]] void operator delete(void* block, size_t) noexcept {
    free(block);
}

namespace {

using Entries = std::vector<std::string>;
using namespace std::string_literals;

/// Each entry as its values with bars between them.
Entries Texts(const KyTferDirectory& directory) {
    Entries texts;
    for (const KyTferDirEntry& entry : directory.GetEntryList(0, UINT_MAX))
        texts.push_back(entry.GetOrigFileName() + '|' + entry.GetXferFileName() + '|' + entry.GetFileType() +
                        '|' + std::to_string(entry.GetFileSizeInBytes()) + '|' +
                        std::to_string(entry.GetDateTime()) + entry.GetPath());
    return texts;
}

/// The entries of the file. A second read must add them again.
Entries ReadTwice(const std::string& path,
                  bool (*read)(const std::string& path, KyTferDirectory& directory)) {
    KyTferDirectory directory;
    EXPECT_TRUE(read(path, directory));
    Entries entries = Texts(directory);
    EXPECT_TRUE(read(path, directory));
    EXPECT_EQ(directory.GetEntryList(0, UINT_MAX).size(), 2 * entries.size());
    return entries;
}

bool ReadCommas(const std::string& path, KyTferDirectory& directory) {
    return directory.ParseFile(path);
}

/// The entries of a file with these lines behind its two header lines.
Entries Read(const std::string& lines) {
    const TempDir dir;
    WriteFile(dir / "listing", "1\nheader\n" + lines);
    return ReadTwice(dir / "listing", ReadCommas);
}

TEST(ParseFile, Headers) {
    const TempDir dir;
    WriteFile(dir / "one line", "7\n");
    const std::pair<const char*, std::string> rows[] = {
        {"none", "Could not open file(" + (dir / "none") + ") errno(2)"},
        {".", "missing version/num entry line"},
        {"one line", "missing header line"},
    };
    for (const auto& [name, error] : rows) {
        LogCapture log;
        EXPECT_FALSE(KyTferDirectory().ParseFile(dir / name));
        EXPECT_EQ(log.Texts("ParseFile"), Entries{error}) << name;
    }
}

TEST(ParseFile, FieldsOfALine) {
    const std::string full = "a,b,c,1,2\n", entry = "a|b|c|1|2000000000", x1022(1022, 'x');
    const struct {
        const char* name;
        std::string lines;
        Entries entries;
    } rows[] = {
        {"carriage return and line feed", "a,b,c,1,2\r\nd,e\r\n", {entry, "d|e|c|1|2000000000"}},
        {"fewer than five fields", full + "\nd,e\n", {entry, "|b|c|1|2000000000", "d|e|c|1|2000000000"}},
        {"carriage return alone", "a\rb\rc,1\r\r\n", {"a|b|c|1|0"}},
        {"no last line end", full + "d,e,f,3,4", {entry, "d|e|f|3|2000000000"}},
        {"quotes", "\"a, \"\"b\"\".c\",\"\",d\n", {"a, \"b\".c||d|0|0"}},
        {"quotes in quotes", "\"\"\"a\"\"\",\"\"\"\",\"\"\"\"\"\"\n", {"\"a\"|\"|\"\"|0|0"}},
        {"text behind the closing quote", "\"a\"b\"c\"\"d,e\n", {"ab\"c\"\"d|e||0|0"}},
        {"quotes inside of a field", "a\"b,c\"\",d\n", {"a\"b|c\"\"|d|0|0"}},
        {"quote never closed", full + "d,\"e,f\"\",3,4\n", {entry, "d|b|c|1|2000000000"}},
        {"closing quote at the end", full + "d,\"e\"", {entry, "d|b|c|1|2000000000"}},
        {"NUL in a line", full + "d,e\0,f,3,4\n"s, {entry, "d|b|c|1|2000000000"}},
        {"line end in the next piece", x1022 + "\r\n", {x1022 + "|||0|0", "|||0|0"}},
        {"one character too long", x1022 + "x\nb\n", {"|||0|0", "|||0|0", "b|||0|0"}},
        {"cut inside of quotes", "a,\"" + x1022 + "\",c\n", {"a|||0|0", "xx\"|c||0|0"}},
        {"size", "a,b,c,-1\na,b,c,4294967296\n", {"a|b|c|4294967295|0", "a|b|c|2147483647|0"}},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Read(row.lines), row.entries) << row.name;
}

TEST(ParseFile, CharactersOfTheLocale) {
    EXPECT_EQ(Read("a,b,c,1,\nd\xC3\xA9,e\nf,g\n"), Entries{"a|b|c|1|0"}) << "the file ends where ASCII does";
    if (setlocale(LC_ALL, "C.UTF-8") == nullptr) {
        // In an emulator the machine's own locale may have the other byte order.
        ASSERT_EQ(__BYTE_ORDER__, __ORDER_BIG_ENDIAN__);
        GTEST_SKIP() << "there is no UTF-8 locale to read with";
    }
    // U+012C and U+010A have the low bytes of a comma and a line feed, and U+0100 that of a NUL.
    EXPECT_EQ(Read("d\xC3\xA9,\xC4\xAC\xC4\x8A\xE2\x82\xAC,\xC4\x80!\n"),
              (Entries{"d\xE9|,\n\xAC|\0!|0|0"s}));
    setlocale(LC_ALL, "C");
}

TEST(ParseFile, Dates) {
    const TempDir dir;
    // An hour ahead of UTC since 2024-03-15T12:00Z, without daylight saving.
    WriteFile(dir / "zone",
              "TZif\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\1\0\0\0\2\0\0\0\4"
              "\x65\xF4\x38\x40\1\0\0\0\0\0\0\0\0\x0E\x10\0\0UTC\0"s);
    const std::string zones[] = {"CET-1CEST,M3.5.0,M10.5.0/3", ":" + (dir / "zone")};
    const struct {
        const char* text;
        unsigned long long nanoseconds[2];
    } rows[] = {
        {"2024-03-15T08:30:00.2509", {1710487800250000000, 1710491400250000000}},
        {"2024-03-15T23:59:59.999", {1710543599999000000, 1710543599999000000}},
        {"2024-03-16 12:30:00.250", {1710552600250000000, 1710552600250000000}},  // 02:30
        {"2034-11-15T08:30:00", {2047188600000000000, 2047188600000000000}},
        {"2024-07-14T24:60:-1", {1721001599000000000, 1721001599000000000}},
        {"2024-13-14T+0\t: 1:61", {1736809321000000000, 1736809321000000000}},
        {"2024-x1-15T08:30", {1701298800000000000, 1701302400000000000}},  // month 0 and day 0
        {"2024-1-2147483648-1", {1703977200000000000, 1703980800000000000}},
        {"2554-07-22T00:34:33.710", {ULLONG_MAX, ULLONG_MAX}},
        {"2147483647-2147483647-2147483647T2147483647:2147483647:2147483647", {ULLONG_MAX, ULLONG_MAX}},
        {"-2147483648--2147483648--2147483648T-2147483648:-2147483648:-2147483648", {0, 0}},
    };
    for (const size_t zone : {0U, 1U}) {
        setenv("TZ", zones[zone].c_str(), 1);
        std::string lines;
        Entries expected;
        for (const auto& row : rows) {
            lines += row.text + ",,,1,"s + row.text + "\n";
            expected.push_back(row.text + "|||1|"s + std::to_string(row.nanoseconds[zone]));
        }
        EXPECT_EQ(Read(lines), expected);
    }
    setenv("TZ", "UTC0", 1);
}

TEST(ParseFile, MemoryStaysInProportionToTheFile) {
    EXPECT_EQ(Read(std::string(8'000'000, 'x')).size(), 7821U);
    LogCapture log(3);
    const Entries entries = Read("," + std::string(1000, 'n') + ",\n" + std::string(1'000'000, '\n'));
    EXPECT_EQ(log.Count(3, "Too many short lines"), 2);
    EXPECT_NEAR(static_cast<double>(entries.size()), 60'000, 10'000);
}

const std::string kStart = "1,3\nevent.log , EVT0001.LOG , LOG , 20480 , 1710491400000000000\n";
const std::string kEntry = "event.log|EVT0001.LOG|LOG|20480|1710491400000000000";

TEST(BlankSeparatedListing, Forms) {
    const std::string name(65536, 'n');
    const struct {
        const char* name;
        std::string text;
        Entries entries;
    } rows[] = {
        {"no last line end", kStart + "b ,\n\nC\v,D ,1,2", {kEntry, "b|C|D|1|2"}},
        {"header without a number", "x" + kStart, {}},
        {"count too large", "1,4294967296\na , B , C , 1 , 2", {}},
        {"count that lies", "1,4294967295\na , B , C , 1 , 2", {"a|B|C|1|2"}},
        {"semicolon before the time stamp", kStart + "b , C , D , 1 ; 2\n" + kStart, {kEntry}},
        {"any separators", "1;3 and more\na , B , C , 1 , 2 b ; C - D + 3 , 4", {"a|B|C|1|2", "b|C|D|3|4"}},
        {"signs", "+1,-3\na , B , C , -1 , +2", {"a|B|C|4294967295|2"}},
        {"sign alone", kStart + "a , B , C , - , 2", {kEntry}},
        {"size too large", kStart + "a , B , C , 4294967296 , 1", {kEntry}},
        {"time stamp too large", kStart + "a , B , C , 1 , 18446744073709551616", {kEntry}},
        {"last time stamp", "1,3\na , B , C , 1 , 18446744073709551615", {"a|B|C|1|18446744073709551615"}},
        {"any bytes", "1,3\n\0\xA0 , B , C , 1 , 2"s, {"\0\xA0|B|C|1|2"s}},
        {"longest name", "1,3\n" + name + " , B , C , 1 , 2", {name + "|B|C|1|2"}},
        {"name too long", "1,3\n" + name + "n , B , C , 1 , 2", {}},
    };
    const TempDir dir;
    for (const auto& row : rows)
        // The end of the reader's first block falls on each character of the text.
        for (size_t inBlock = 0; inBlock < 100; ++inBlock) {
            WriteFile(dir / "listing", std::string(65536 - inBlock, ' ') + row.text);
            ASSERT_EQ(ReadTwice(dir / "listing", ky_directory::ReadBlankSeparatedListing), row.entries)
                << row.name << ' ' << inBlock;
        }
}

TEST(BlankSeparatedListing, ReadsRegularFilesAlone) {
    const TempDir dir;
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    WriteFile(dir / "empty", "");
    for (const char* const name : {"none", "empty", ".", "fifo"})
        EXPECT_EQ(ReadTwice(dir / name, ky_directory::ReadBlankSeparatedListing), Entries()) << name;
}

TEST(BothReaders, StopWhereMemoryRunsOut) {
    const LogCapture quiet(2);
    const TempDir dir;
    const std::string path = dir / "listing", line = std::string(40, 'n') + " , b , c , 1 , 2\n";
    WriteFile(path, "1,3\n" + line + line + line);
    for (const bool commas : {true, false}) {
        bool whole = false;
        for (int allowed = 0; !whole; ++allowed) {
            KyTferDirectory directory;
            s_allowed = allowed;
            whole = (commas ? ReadCommas : ky_directory::ReadBlankSeparatedListing)(path, directory);
            s_allowed = INT_MAX;
            ASSERT_EQ(Texts(directory).size() == (commas ? 2U : 3U), whole) << allowed;
        }
    }
}

}  // namespace
