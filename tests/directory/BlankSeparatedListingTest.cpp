#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <limits>
#include <locale>
#include <random>
#include <sstream>

#include "directory/KyBlankSeparatedListing.h"
#include "directory/ListingText.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace {

using Entries = std::vector<std::string>;
using namespace std::string_literals;
using ky_directory::ReadBlankSeparatedListing;

Entries Read(std::istream& in) {
    KyTferDirectory directory;
    const size_t count = ReadBlankSeparatedListing(in, directory);
    Entries entries = Texts(directory);
    EXPECT_EQ(count, entries.size());
    return entries;
}

Entries Read(const std::string& text) {
    std::istringstream in(text);
    return Read(in);
}

/// The same by the stream's own extraction.
Entries Extract(std::istream& in) {
    in.imbue(std::locale::classic());
    KyTferDirectory directory;
    unsigned int number = 0, size = 0;
    unsigned long long dateTime = 0;
    char separator = 0;
    std::string orig, xfer, type;
    in >> number >> separator >> number;
    in.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    while (in >> orig >> separator >> xfer >> separator >> type >> separator >> size >> separator >>
               dateTime &&
           separator == ',')
        directory.AddEntry("", orig, xfer, type, size, dateTime);
    return Texts(directory);
}

const std::string kHeader = "1,3\n";
const std::string kLine = "event.log , EVT0001.LOG , LOG , 20480 , 1710491400000000000\n";
const std::string kEntry = "event.log|EVT0001.LOG|LOG|20480|1710491400000000000";

TEST(BlankSeparatedListing, Forms) {
    const struct {
        const char* name;
        std::string text;
        Entries entries;
    } rows[] = {
        {"empty", "", {}},
        {"header alone", "1,3", {}},
        {"two entries", kHeader + kLine + "b ,\n\nC\v,D ,1,2", {kEntry, "b|C|D|1|2"}},
        {"rest of the header line", " 1 x 3 y , z\n" + kLine, {kEntry}},
        {"header without a number", "version,3\n" + kLine, {}},
        {"header number too large", "1,4294967296\n" + kLine, {}},
        {"semicolon before the time stamp",
         kHeader + kLine + kLine + "b , C , D , 1 ; 2\n" + kLine,
         {kEntry, kEntry}},
        {"other separators", kHeader + "a ; B - C + -1,2", {"a|B|C|4294967295|2"}},
        {"separators without a blank", kHeader + "a ;B -C ,1,2", {"a|B|C|1|2"}},
        {"two entries in a line",
         kHeader + "a , B , C , 1 , 2 b , C , D , 3 , 4",
         {"a|B|C|1|2", "b|C|D|3|4"}},
        {"commas and no blanks", kHeader + "event.log,EVT0001.LOG,LOG,20480,1\n", {}},
        {"largest numbers",
         kHeader + "a , B , C , 4294967295 , 18446744073709551615",
         {"a|B|C|4294967295|18446744073709551615"}},
        {"size too large", kHeader + kLine + "a , B , C , 4294967296 , 1", {kEntry}},
        {"time stamp too large", kHeader + kLine + "a , B , C , 1 , 18446744073709551616", {kEntry}},
        {"negative numbers", kHeader + "a , B , C , -1 , -2", {"a|B|C|4294967295|18446744073709551614"}},
        {"thousand digits",
         kHeader + "a , B , C , " + std::string(1000, '0') + "1 , " + std::string(1000, '9'),
         {}},
        {"NUL and other bytes", kHeader + "a\0\xFF , \xC3\xA9 , C , 1 , 2"s, {"a\0\xFF|\xC3\xA9|C|1|2"s}},
        {"longest name",
         kHeader + std::string(65536, 'n') + " , B , C , 1 , 2",
         {std::string(65536, 'n') + "|B|C|1|2"}},
        {"name too long", kHeader + kLine + std::string(65537, 'n') + " , B , C , 1 , 2", {kEntry}},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Read(row.text), row.entries) << row.name;
}

/// Gives a text in chunks.
struct Chunks : std::streambuf {
    Chunks(std::string text, size_t most) : m_text(std::move(text)), m_most(most) {}
    int underflow() override {
        const size_t length = std::min(m_most, m_text.size() - m_at);
        setg(&m_text[m_at], &m_text[m_at], &m_text[m_at] + length);
        m_at += length;
        return length == 0 ? EOF : std::char_traits<char>::to_int_type(*gptr());
    }
    std::string m_text;
    size_t m_most;
    size_t m_at = 0;
};

std::string Rest(std::istream& in) {
    in.clear();
    std::string rest;
    std::getline(in, rest, '\x01');
    return rest;
}

TEST(BlankSeparatedListing, ReadsWhatTheStreamWouldExtract) {
    const std::string pieces[] = {
        " ",  "\n", "\t\v\f\r", ",",    " , ",  ";",           "a",
        "bc", "-",  "+",        "0",    "12",   "4294967296",  "99999999999999999999",
        ".",  "0x", "\0"s,      "\xA0", "\xE9", "B , C , 1 , "};
    std::mt19937 random(20240315);
    size_t entries = 0;
    for (int round = 0; round < 30000; ++round) {
        std::string text = random() % 8 == 0 ? "" : kHeader;
        for (auto left = random() % 24; left > 0; --left)
            text += random() % 5 == 0 ? "a , B , C , 1 , 2" : pieces[random() % std::size(pieces)];
        SCOPED_TRACE(testing::PrintToString(text));
        Chunks chunks(text, 1 + random() % 40);
        std::istream ours(&chunks);
        std::istringstream plain(text);
        const Entries expected = Extract(plain);
        entries += expected.size();
        ASSERT_EQ(Read(ours), expected);
        ASSERT_EQ(ours.rdstate(), plain.rdstate());
        ASSERT_EQ(Rest(ours), Rest(plain));
    }
    EXPECT_GT(entries, 10000U);
}

TEST(BlankSeparatedListing, NeitherTheStreamsSettingsNorTheProcessesMatter) {
    const GroupingLocale locale(',');
    std::istringstream in("1,300\na , B , C , 010,300");
    in >> std::hex >> std::noskipws;
    in.width(1);
    in.exceptions(std::ios_base::badbit | std::ios_base::failbit | std::ios_base::eofbit);
    const auto flags = in.flags();
    EXPECT_NO_THROW(EXPECT_EQ(Read(in), Entries{"a|B|C|10|300"}));
    EXPECT_EQ(in.flags(), flags);
    EXPECT_NE(in.exceptions(), std::ios_base::goodbit);
    EXPECT_TRUE(in.fail());
    EXPECT_NO_THROW(EXPECT_EQ(Read(in), Entries())) << "a failed stream";
}

/// Gives `text` and then what `more` gives, or the end if that is null.
struct Source : std::streambuf {
    Source(std::string start, int (*continuation)()) : text(std::move(start)), more(continuation) {
        setg(text.data(), text.data(), text.data() + text.size());
    }
    int underflow() override {
        ++calls;
        last = static_cast<char>(more());
        setg(&last, &last, &last + 1);
        return std::char_traits<char>::to_int_type(last);
    }
    std::string text;
    int (*more)();
    char last = 0;
    int calls = 0;
};

TEST(BlankSeparatedListing, SourcesThatFailOrNeverEnd) {
    for (const bool throwing : {false, true}) {
        Source broken(kHeader + kLine + "b , C", [] { return throw std::bad_alloc(), 0; });
        std::istream in(&broken);
        if (throwing) in.exceptions(std::ios_base::badbit);
        EXPECT_NO_THROW(EXPECT_EQ(Read(in), Entries{kEntry}));
        EXPECT_TRUE(in.bad());
    }
    Source endless(kHeader + kLine, [] { return int{'x'}; });
    std::istream in(&endless);
    EXPECT_EQ(Read(in), Entries{kEntry});
    EXPECT_LT(endless.calls, 70'000) << "what does not fit in a name is not read";

    const TempDir dir;
    WriteFile(dir / "locked", kHeader + kLine);
    ASSERT_EQ(chmod((dir / "locked").c_str(), 0), 0);
    for (const char* path : {"", "none", "locked"}) {
        std::ifstream file(dir / path);
        EXPECT_EQ(Read(file), Entries()) << "a directory, no file, no permission: " << path;
    }
}

}  // namespace
