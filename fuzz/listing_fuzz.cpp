// Any bytes as a listing file, through both readers. The entries of the blank-separated reader are compared with
// those that `>>` of a stream reads; pages, JSON and lookups are compared with the entries.
#include <jansson.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <clocale>
#include <sstream>
#include <vector>

#include "directory/KyBlankSeparatedListing.h"
#include "directory/KyTferDirectory.h"
#include "engine/KyTferClient.h"
#include "fuzz/Fuzz.h"

using fuzz::Require;

namespace {

using Entries = std::vector<KyTferDirEntry>;

constexpr size_t kLongestName = 65536;

/// A file in memory, with a path.
class MemoryFile {
public:
    explicit MemoryFile(const std::string& bytes) : m_fd(memfd_create("listing", MFD_CLOEXEC)) {
        Require(write(m_fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()),
                "there is memory");
    }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;
    ~MemoryFile() { close(m_fd); }
    std::string Path() const { return "/proc/self/fd/" + std::to_string(m_fd); }

private:
    const int m_fd;
};

auto AllOf(const KyTferDirEntry& entry) {
    return std::make_tuple(entry.GetPath(), entry.GetOrigFileName(), entry.GetXferFileName(),
                           entry.GetFileType(), entry.GetFileSizeInBytes(), entry.GetDateTime());
}

bool Same(const Entries& one, const Entries& other) {
    return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                      [](const auto& a, const auto& b) { return AllOf(a) == AllOf(b); });
}

Entries ReadWithStream(const std::string& bytes) {
    Entries entries;
    std::istringstream in(bytes);
    std::string rest;
    unsigned number = 0;
    char separator = 0;
    in >> number >> separator >> number;
    std::getline(in, rest);
    for (;;) {
        std::array<std::string, 3> names;
        unsigned size = 0;
        unsigned long long time = 0;
        for (std::string& name : names)
            in >> name >> separator;
        in >> size >> separator;
        in >> time;
        if (!in || separator != ',') return entries;
        for (const std::string& name : names)
            if (name.size() > kLongestName) return entries;
        entries.emplace_back("", names[0], names[1], names[2], size, time);
    }
}

void CheckEntry(const KyTferDirEntry& entry) {
    json_t* const object = entry.GetEntryAsJSONObject();
    json_t* const read = json_loads(entry.GetEntryAsJSONString().c_str(), 0, nullptr);
    Require(json_is_object(object) && json_equal(object, read) == 1, "an entry's JSON is its object");
    json_decref(object);
    json_decref(read);
    Require(entry.GetDateTimeAsString().size() == sizeof "2024-03-15 08:30:00Z" - 1,
            "a time stamp has its form");
    Require(entry.GetFullXferFilePath() == entry.GetXferFileName(), "an entry's path is empty");
}

void CheckLookup(const KyTferDirectory& listing, const Entries& entries, const std::string& name) {
    KyTferDirEntry found;
    const auto first = std::find_if(entries.begin(), entries.end(),
                                    [&](const auto& entry) { return entry.GetXferFileName() == name; });
    Require(listing.GetDirEntry("", name, found) == (first != entries.end()),
            "a lookup finds what is listed");
    if (first != entries.end()) Require(AllOf(found) == AllOf(*first), "a lookup finds the first");
    Require(!listing.GetDirEntry("path", name, found), "a lookup compares the path");
}

void CheckPage(const KyTferDirectory& listing, const Entries& entries, unsigned skip, unsigned take) {
    const size_t from = std::min<size_t>(skip, entries.size());
    const size_t to = from + std::min<size_t>(take, entries.size() - from);
    const auto at = [&](size_t i) { return entries.begin() + static_cast<std::ptrdiff_t>(i); };
    Require(Same(listing.GetEntryList(skip, take), Entries(at(from), at(to))), "a page has its entries");
    json_t* const document = json_loads(
        listing.GetEntryListAsJSONString("ctx", skip, take, "", KyTferStatusMsg::TFER_STATUS_COMPLETE)
            .c_str(),
        0, nullptr);
    Require(document != nullptr, "a page's JSON can be read");
    const json_t* const files = json_object_get(document, "files");
    const auto number = [&](const char* key) { return json_integer_value(json_object_get(document, key)); };
    Require(json_array_size(files) == to - from, "a page's JSON has its files");
    Require(number("skip") == skip && number("take") == take, "a page's JSON tells the page");
    Require(number("totalFiles") == static_cast<json_int_t>(entries.size()), "a page's JSON tells the total");
    for (size_t i = from; i < to; ++i) {
        json_t* const object = entries[i].GetEntryAsJSONObject();
        Require(json_equal(json_array_get(files, i - from), object) == 1, "a page's files are its entries");
        json_decref(object);
    }
    json_decref(document);
}

std::string Quoted(const std::string& text) {
    std::string quoted = "\"";
    for (const char character : text)
        quoted += character == '"' ? "\"\"" : std::string(1, character);
    return quoted + "\",";
}

/// Entries that are written in the comma-separated form with quotes are read back unchanged.
void CheckRewritten(const Entries& entries) {
    Entries written;
    std::string file = "1\nTitles\n";
    for (const KyTferDirEntry& entry : entries) {
        const std::string line = Quoted(entry.GetOrigFileName()) + Quoted(entry.GetXferFileName()) +
                                 Quoted(entry.GetFileType()) +
                                 std::to_string(static_cast<int>(entry.GetFileSizeInBytes())) + ",7\n";
        const bool plain = std::all_of(line.begin(), line.end() - 1, [](char c) { return c >= ' '; });
        if (!plain || line.size() > 1000 || written.size() > 20) continue;
        file += line;
        written.push_back(entry);
        written.back().Init("", entry.GetOrigFileName(), entry.GetXferFileName(), entry.GetFileType(),
                            entry.GetFileSizeInBytes(), 7000000000ULL);
    }
    KyTferDirectory listing;
    Require(listing.ParseFile(MemoryFile(file).Path()), "a listing that was written can be read");
    Require(Same(listing.GetEntryList(0, ~0U), written), "what was written is read");
}

void CheckListing(const KyTferDirectory& listing, fuzz::Input& input) {
    const Entries entries = listing.GetEntryList(0, ~0U);
    const size_t step = 1 + entries.size() / 16;
    for (size_t i = 0; i < entries.size(); i += step) {
        CheckEntry(entries[i]);
        CheckLookup(listing, entries, entries[i].GetXferFileName());
    }
    CheckLookup(listing, entries, input.Text(3));
    CheckPage(listing, entries, input.Number(), input.Number() % 64);
    CheckRewritten(entries);
    CheckPage(listing, entries, 0, ~0U);
    CheckPage(listing, entries, ~0U, ~0U);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::SilenceLog(6);  // formatting the traces would take most of the time
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input input(data, size);
    const unsigned form = input.Byte();
    fuzz::Input page = input;
    const std::string bytes = (input.Text(4), input.Rest());
    const MemoryFile file(bytes);
    KyTferDirectory listing;
    if (form % 2 == 0) {
        Require(ky_directory::ReadBlankSeparatedListing(file.Path(), listing), "there is memory");
        Require(Same(listing.GetEntryList(0, ~0U), ReadWithStream(bytes)),
                "the entries are those that >> reads");
        KyTferClient engine;
        engine.CreateDirectoryFromFile(file.Path());
        engine.CreateDirectoryFromFile(file.Path());
    } else {
        std::setlocale(LC_CTYPE, form % 4 == 1 ? "C" : "C.UTF-8");
        const bool twoLines = std::count(bytes.begin(), bytes.end(), '\n') >= 2;
        const bool ascii = std::all_of(bytes.begin(), bytes.end(), [](char byte) { return byte > 0; });
        const bool good = listing.ParseFile(file.Path());
        Require(good || !twoLines || !ascii, "two lines are a listing");
        for (const KyTferDirEntry& entry : listing.GetEntryList(0, ~0U))
            Require(entry.GetPath().empty(), "a listed entry has no path");
    }
    CheckListing(listing, page);
    return 0;
}
