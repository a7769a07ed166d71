#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>

#include <clocale>

#include "directory/ListingText.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace {

using Entries = std::vector<std::string>;
using namespace std::string_literals;

class Directory : public KyTferDirectory {
public:
    int Version() const { return m_version; }
};

class ParseFile : public testing::Test {
protected:
    ParseFile() { SetZone("UTC0"); }
    ~ParseFile() override {
        setlocale(LC_ALL, "C");
        SetZone("UTC0");
    }

    static void SetZone(const char* zone) {
        setenv("TZ", zone, 1);
        tzset();
    }

    /// The entries of a file with these lines behind its two header lines.
    Entries Read(const std::string& lines) {
        WriteFile(m_file, "1\nheader\n" + lines);
        KyTferDirectory directory;
        EXPECT_TRUE(directory.ParseFile(m_file));
        return Texts(directory);
    }

    const TempDir m_dir;
    const std::string m_file = m_dir / "listing";
};

const std::string kSample =
    "1,3\n"
    "FileName,XferName,Type,Size,DateTime\n"
    "event.log,EVT0001.LOG,LOG,20480,2024-03-15T08:30:00.250\n"
    "\"config, main.cfg\",CFG0001.CFG,CONFIG,512,2024-03-14T23:59:59.000\n"
    "\"say \"\"hi\"\".txt\",TXT0001.TXT,TEXT,0,1710491400\n";

const Entries kSampleEntries = {"event.log|EVT0001.LOG|LOG|20480|1710491400250000000",
                                "config, main.cfg|CFG0001.CFG|CONFIG|512|1710460799000000000",
                                "say \"hi\".txt|TXT0001.TXT|TEXT|0|1710491400000000000"};

TEST_F(ParseFile, AddsTheSampleAndTracesIt) {
    LogCapture log;
    WriteFile(m_file, kSample);
    Directory directory;
    ASSERT_TRUE(directory.ParseFile(m_file));
    EXPECT_EQ(Texts(directory), kSampleEntries);
    EXPECT_EQ(directory.Version(), 1);
    Entries traces = log.Texts("ParseFile", true);
    ASSERT_EQ(traces.size(), 20U);
    traces.resize(8);
    EXPECT_EQ(traces, (Entries{"1st header(1,3\n)", "2nd header(FileName,XferName,Type,Size,DateTime\n)",
                               "Input  56: [event.log,EVT0001.LOG,LOG,20480,2024-03-15T08:30:00.250]",
                               "Field   9: [event.log]", "Field  11: [EVT0001.LOG]", "Field   3: [LOG]",
                               "Field   5: [20480]", "Field  23: [2024-03-15T08:30:00.250]"}));
    const LogCapture::Line added = log.Find("EVT0001.LOG LOG");
    EXPECT_EQ(added.text, " event.log EVT0001.LOG LOG 20480 ...");
    EXPECT_EQ(added.source + "/" + added.function, "KyTferDirectory/AddEntry");
    EXPECT_EQ(log.Count(7, ""), static_cast<int>(log.Lines().size()));

    ASSERT_TRUE(directory.ParseFile(m_file));
    EXPECT_EQ(Texts(directory).size(), 6U) << "a second reading adds";
}

TEST_F(ParseFile, Headers) {
    WriteFile(m_dir / "locked", kSample);
    ASSERT_EQ(chmod((m_dir / "locked").c_str(), 0), 0);
    const struct {
        const char* name;
        std::string path;
        std::string text;
        bool result;
        int version;
        std::string error;
    } rows[] = {
        {"no file", "none", "", false, 0, "Could not open file(" + (m_dir / "none") + ") errno(2)"},
        {"no permission", "locked", "", false, 0,
         "Could not open file(" + (m_dir / "locked") + ") errno(13)"},
        {"a directory", ".", "", false, 0, "missing version/num entry line"},
        {"empty", "listing", "", false, 0, "missing version/num entry line"},
        {"one line", "listing", "7\n", false, 7, "missing header line"},
        {"two lines", "listing", "1,3\nheader", true, 1, ""},
        {"low 8 bits", "listing", "300\n\n", true, 44, ""},
        {"no number", "listing", "abc\n\n", true, 0, ""},
        {"negative", "listing", " -2\n\n", true, 254, ""},
        {"thousand digits", "listing", std::string(1000, '9') + "\n\n", true, 255, ""},
        {"NUL bytes alone", "listing", std::string(5000, '\0'), true, 0, ""},
        {"no character of the locale", "listing", "1\xE9\n\n", false, 0, "missing version/num entry line"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        LogCapture log;
        if (row.path == "listing") WriteFile(m_file, row.text);
        Directory directory;
        const int descriptors = OpenDescriptors();
        EXPECT_EQ(directory.ParseFile(m_dir / row.path), row.result);
        EXPECT_EQ(OpenDescriptors(), descriptors);
        EXPECT_EQ(directory.Version(), row.version);
        EXPECT_EQ(log.Texts("ParseFile"), row.error.empty() ? Entries() : Entries{row.error});
    }
}

TEST_F(ParseFile, FieldsOfALine) {
    const std::string full = "a,b,c,1,2\n", entry = "a|b|c|1|2000000000";
    const std::string x1022(1022, 'x');
    const struct {
        const char* name;
        std::string lines;
        Entries entries;
    } rows[] = {
        {"carriage return and line feed", "a,b,c,1,2\r\nd,e\r\n", {entry, "d|e|c|1|2000000000"}},
        {"carriage return alone", "a\rb\rc,1\r\r\n", {"a|b|c|1|0"}},
        {"blanks stay", " a , b,c\t,1,2\n", {" a | b|c\t|1|2000000000"}},
        {"empty fields", "a,,c,,\n", {"a||c|0|0"}},
        {"further fields", "a,b,c,1,2,3,4\n", {entry}},
        {"one field", full + "report.txt\n", {entry, "report.txt|b|c|1|2000000000"}},
        {"empty line", full + "\n", {entry, "|b|c|1|2000000000"}},
        {"no last line end", full + "d,e,f,3,4", {entry, "d|e|f|3|2000000000"}},
        {"comma at the end", full + "d,e,\n", {entry, "d|e||1|2000000000"}},
        {"delimiters in quotes", "\"a,\rb\",\"\",c\n", {"a,\rb||c|0|0"}},
        {"quotes in quotes", "\"\"\"a\"\"\",\"\"\"\",\"\"\"\"\"\"\n", {"\"a\"|\"|\"\"|0|0"}},
        {"text behind the closing quote", "\"a\"b\"c\"\"d,e\n", {"ab\"c\"\"d|e||0|0"}},
        {"quotes inside of a field", "a\"b,c\"\",d\n", {"a\"b|c\"\"|d|0|0"}},
        {"quote never closed",
         full + "d,\"e,f,3,4\nx\n",
         {entry, "d|b|c|1|2000000000", "x|b|c|1|2000000000"}},
        {"ends with doubled quotes", full + "d,\"e\"\"\n", {entry, "d|b|c|1|2000000000"}},
        {"closing quote at the end", full + "d,\"e\"", {entry, "d|b|c|1|2000000000"}},
        {"a quote alone", "\"", {"|||0|0"}},
        {"NUL in a line", full + "d,e\0,f,3,4\n"s, {entry, "d|b|c|1|2000000000"}},
        {"NUL first", full + "\0d,e\n"s, {entry, entry}},
        {"longest line", x1022 + "\n", {x1022 + "|||0|0"}},
        {"line end in the next piece", x1022 + "\r\n", {x1022 + "|||0|0", "|||0|0"}},
        {"one character too long", x1022 + "x\nb\n", {"|||0|0", "|||0|0", "b|||0|0"}},
        {"cut inside of a field", "a," + x1022 + "x,c,1\n", {"a|||0|0", "xx|c|1|0|0"}},
        {"cut inside of quotes", "a,\"" + x1022 + "\",c\n", {"a|||0|0", "xx\"|c||0|0"}},
        {"size",
         "a,b,c,-1,0\na,b,c,12abc\na,b,c, +7\na,b,c,x\n",
         {"a|b|c|4294967295|0", "a|b|c|12|0", "a|b|c|7|0", "a|b|c|0|0"}},
        {"size out of range",
         "a,b,c,4294967296\na,b,c,-2147483649\na,b,c," + std::string(999, '9') + "\n",
         {"a|b|c|2147483647|0", "a|b|c|2147483648|0", "a|b|c|2147483647|0"}},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Read(row.lines), row.entries) << row.name;
}

TEST_F(ParseFile, CharactersOfTheLocale) {
    const Entries first = {"a|b|c|1|0"};
    EXPECT_EQ(Read("a,b,c,1,\nd\xC3\xA9,e\nf,g\n"), first) << "the file ends where ASCII does";
    ASSERT_NE(setlocale(LC_ALL, "C.UTF-8"), nullptr);
    // U+012C and U+010A have the low bytes of a comma and a line feed, and U+0100 that of a NUL.
    EXPECT_EQ(Read("d\xC3\xA9,\xC4\xAC\xC4\x8A\xE2\x82\xAC,\xC4\x80!\n"),
              (Entries{"d\xE9|,\n\xAC|\0!|0|0"s}));
    EXPECT_EQ(Read("a,b,c,1,\nd\xE9,e\nf,g\n"), first);
}

TEST_F(ParseFile, Dates) {
    SetZone("CET-1CEST,M3.5.0,M10.5.0/3");
    const GroupingLocale locale('-');
    const unsigned long long last = 18446744073709551615ULL;
    const struct {
        const char* text;
        unsigned long long nanoseconds;
    } rows[] = {
        {"2024-01-15T08:30:00.250", 1705303800250000000},
        {"2024-07-15T08:30:00.250", 1721028600250000000},  // one hour behind the wall clock
        {"2024-01-15 12:30:00.250", 1705282200250000000},  // 02:30
        {" 2024 - 01 - 15 x 8 . 5 . 0 ", 1705302300000000000},
        {"2024-01-15T08:30:00.2", 1705303800002000000},
        {"2024-01-15T08:30:00.2509", 1705303800250000000},
        {"2024-01-15T08:30:00.-12", 1705303799988000000},
        {"2024-01-15T08:30:00", 1705303800000000000},
        {"2024-01-15", 1705273200000000000},
        {"2024-x1-15T08:30", 1701298800000000000},  // month 0 and day 0
        {"2024-99999999999-15T08:30", 1701298800008000000},
        {"2023-14-45T25:61:61", 1710637321000000000},
        {"-5", 0},
        {"-", 0},
        {"1970-01-01T00:59:59.999", 0},
        {"1970-01-01T01:00:00.001", 1000000},
        {"2554-07-22T00:34:33.709", 18446744073709000000ULL},
        {"2554-07-22T00:34:33.710", last},
        {"9999-12-31T23:59:59.999", last},
        {"2147483647-2147483647-2147483647T2147483647:2147483647:2147483647", last},
        {"-2147483648--2147483648--2147483648T-2147483648:-2147483648:-2147483648", 0},
        {"1710491400", 1710491400000000000},
        {"18446744073", 18446744073000000000ULL},
        {"18446744074", last},
        {"99999999999999999999999", last},
        {" 5x", 5000000000},
        {"", 0},
    };
    for (const auto& row : rows) {
        const std::string line = "a,b,c,1,"s + row.text;
        EXPECT_EQ(Read(line + "\n"), Entries{"a|b|c|1|" + std::to_string(row.nanoseconds)}) << row.text;
    }
}

TEST_F(ParseFile, HundredMegabytesWithoutALineEnd) {
    EXPECT_EQ(Read(std::string(100'000'000, 'x')).size(), 97752U);
}

TEST_F(ParseFile, MemoryStaysInProportionToTheFile) {
    LogCapture log(3);
    const std::string name(1000, 'n');
    const Entries entries = Read("," + name + ",\n" + std::string(1'000'000, '\n'));
    EXPECT_EQ(log.Count(3, "Too many short lines"), 1);
    EXPECT_GT(entries.size(), 50'000U);
    EXPECT_LT(entries.size(), 70'000U);
    EXPECT_EQ(entries.back(), "|" + name + "||0|0");
}

}  // namespace
