#include "directory/KyTferDirectory.h"

#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <cwchar>
#include <exception>
#include <limits>
#include <locale>
#include <memory>
#include <sstream>
#include <string_view>

#include "messages/KyJson.h"
#include "platform/KyDlog.h"

namespace {

constexpr char kSource[] = "KyTferDirectory";
constexpr char kOutOfMemory[] = "Out of memory";
constexpr int kLineRoom = 1024;  // wide characters of one read, the final NUL included

// What the entries of one file may take in memory. An entry takes more than a hundred bytes even if its line
// is empty, and repeats the texts of the entry before it on top: a thousand bytes for one byte of the file.
constexpr unsigned long long kBytesForAnyFile = 64ULL * 1024 * 1024;
constexpr unsigned long long kBytesPerCharacter = 16;

// A listing that is full moves to memory for four times as many entries. With a vector's own growth the moves
// take as long as reading the entries; and memory that no entry has reached yet is only addresses.
constexpr size_t kGrowth = 4;
constexpr size_t kFewestEntries = 16;

constexpr unsigned long long kNanosecondsPerSecond = 1000000000ULL;
constexpr unsigned long long kNanosecondsPerMillisecond = 1000000ULL;
constexpr unsigned long long kLatestDateTime = std::numeric_limits<unsigned long long>::max();
constexpr size_t kMillisecondsAt = 20;  // position in a date text

/// The lines of a listing file.
class Lines {
public:
    explicit Lines(const std::string& fileName) : m_file(std::fopen(fileName.c_str(), "r")) {}

    bool IsOpen() const { return m_file != nullptr; }

    /// Reads the next line, or piece of a line, with its line end. @return false at the end of the file
    bool Next() { return std::fgetws(m_text, kLineRoom, m_file.get()) != nullptr; }

    /// The line that was read last, up to its first NUL; good until the next one is read.
    std::wstring_view Line() const { return m_text; }

private:
    struct Close {
        void operator()(FILE* file) const { std::fclose(file); }
    };

    std::unique_ptr<FILE, Close> m_file;
    wchar_t m_text[kLineRoom] = {};
};

void AppendNarrow(std::string& narrow, std::wstring_view wide) {
    const size_t start = narrow.size();
    narrow.resize(start + wide.size());
    std::transform(wide.begin(), wide.end(), narrow.data() + start,
                   [](wchar_t character) { return static_cast<char>(character & 0xFF); });
}

std::string Narrow(std::wstring_view wide) {
    std::string narrow;
    AppendNarrow(narrow, wide);
    return narrow;
}

/// Appends the inside of a quoted field, in which every quote stands twice.
void AppendUnescaped(std::string& narrow, std::wstring_view inside) {
    size_t quote = inside.find(L'"');
    while (quote != std::wstring_view::npos) {
        AppendNarrow(narrow, inside.substr(0, quote + 1));
        inside.remove_prefix(quote + 2);
        quote = inside.find(L'"');
    }
    AppendNarrow(narrow, inside);
}

/// The position of the quote that closes the field at the start of `text`; npos if there is none.
size_t FindClosingQuote(std::wstring_view text) {
    size_t quote = text.find(L'"', 1);
    while (quote < text.size() - 1 && text[quote + 1] == L'"')
        quote = text.find(L'"', quote + 2);
    return quote;
}

size_t FindDelimiter(std::wstring_view text, size_t from) {
    const auto isDelimiter = [](wchar_t character) {
        return character == L',' || character == L'\n' || character == L'\r';
    };
    const auto found = std::find_if(text.data() + from, text.data() + text.size(), isDelimiter);
    return static_cast<size_t>(found - text.data());
}

/// Takes the first field of `rest` and its delimiter off `rest`, and gives the field as narrow text.
///
/// @return false if there is no further field
bool TakeField(std::wstring_view& rest, std::string& field) {
    const bool quoted = !rest.empty() && rest.front() == L'"';
    const size_t closing = quoted ? FindClosingQuote(rest) : 0;
    if (closing == std::wstring_view::npos) return false;
    const size_t end = FindDelimiter(rest, closing);
    if (end == rest.size()) return false;

    field.clear();
    if (quoted) AppendUnescaped(field, rest.substr(1, closing - 1));
    const size_t plain = quoted ? closing + 1 : 0;
    AppendNarrow(field, rest.substr(plain, end - plain));
    const bool twoCharacters = rest.substr(end, 2) == L"\r\n";
    rest.remove_prefix(end + (twoCharacters ? 2 : 1));
    return true;
}

long long ParseNumber(const std::string& text) {
    return std::strtoll(text.c_str(), nullptr, 10);
}

int ClampToInt(long long value) {
    return static_cast<int>(std::clamp<long long>(value, INT_MIN, INT_MAX));
}

/// So many units as nanoseconds, within the range of a time stamp.
unsigned long long ToNanoseconds(long long count, unsigned long long unit) {
    if (count <= 0) return 0;
    const auto units = static_cast<unsigned long long>(count);
    return units > kLatestDateTime / unit ? kLatestDateTime : units * unit;
}

/// Calendar fields, of any values, as seconds since 1970 of local standard time.
long long ToSeconds(int year, int month, int day, int hour, int minute, int second) {
    struct tm local = {};
    local.tm_year = ClampToInt(year - 1900LL);
    local.tm_mon = ClampToInt(month - 1LL);
    local.tm_mday = day;
    local.tm_hour = hour;
    local.tm_min = minute;
    local.tm_sec = second;
    local.tm_wday = -1;  // still is if the date is out of reach, for which the result alone is ambiguous
    const time_t seconds = std::mktime(&local);
    if (local.tm_wday >= 0) return seconds;
    return year + month / 12LL < 1970 ? LLONG_MIN : LLONG_MAX;
}

unsigned long long ParseDateTime(const std::string& text) {
    int fields[6] = {};  // year to second; those behind a failure stay 0
    std::istringstream in(text);
    in.imbue(std::locale::classic());
    for (int& field : fields) {
        if (&field != fields) {
            char separator = 0;
            in >> separator;
        }
        int value = 0;
        if (in >> value) field = value;
    }
    const long long seconds = ToSeconds(fields[0], fields[1], fields[2], fields[3], fields[4], fields[5]);
    const long long milliseconds =
        text.size() > kMillisecondsAt ? ParseNumber(text.substr(kMillisecondsAt, 3)) : 0;
    constexpr auto last = static_cast<long long>(kLatestDateTime / kNanosecondsPerSecond);
    return ToNanoseconds(std::clamp(seconds, -1LL, last + 1) * 1000 + milliseconds,
                         kNanosecondsPerMillisecond);
}

/// What the lines read so far give an entry; a line changes only what it has fields for.
struct EntryValues {
    std::string origFileName;
    std::string xferFileName;
    std::string fileType;
    unsigned int fileSizeInBytes = 0;
    unsigned long long dateTime = 0;

    void Set(size_t index, const std::string& field) {
        switch (index) {
            case 0:
                origFileName = field;
                break;
            case 1:
                xferFileName = field;
                break;
            case 2:
                fileType = field;
                break;
            case 3:
                fileSizeInBytes = static_cast<unsigned int>(ClampToInt(ParseNumber(field)));
                break;
            case 4:
                dateTime = field.find('-') != std::string::npos
                               ? ParseDateTime(field)
                               : ToNanoseconds(ParseNumber(field), kNanosecondsPerSecond);
                break;
            default:
                break;
        }
    }

    size_t Bytes() const {
        return sizeof(KyTferDirEntry) + origFileName.size() + xferFileName.size() + fileType.size();
    }
};

// The traces take narrow text: the log formats in the process's locale, which need not have the characters.
void SplitLine(std::wstring_view line, std::string& text, EntryValues& values) {
    text.clear();
    AppendNarrow(text, line);
    __dlog_printfex(KY_DLOG_TRACE, kSource, "ParseFile", "Input %3zd: [%.*s]",
                    static_cast<ssize_t>(line.size()), static_cast<int>(line.size()) - 1, text.c_str());
    for (size_t index = 0; TakeField(line, text); ++index) {
        __dlog_printfex(KY_DLOG_TRACE, kSource, "ParseFile", "Field %3zd: [%s]",
                        static_cast<ssize_t>(text.size()), text.c_str());
        values.Set(index, text);
    }
}

void ReadEntries(Lines& lines, KyTferDirectory& directory) {
    const std::string noPath;
    EntryValues values;
    std::string text;
    unsigned long long allowed = kBytesForAnyFile;
    unsigned long long taken = 0;
    while (lines.Next()) {
        SplitLine(lines.Line(), text, values);
        allowed += lines.Line().size() * kBytesPerCharacter;
        taken += values.Bytes();
        if (taken > allowed) {
            __dlog_printfex(KY_DLOG_ERROR, kSource, "ParseFile",
                            "Too many short lines; the rest is not read");
            return;
        }
        directory.AddEntry(noPath, values.origFileName, values.xferFileName, values.fileType,
                           values.fileSizeInBytes, values.dateTime);
    }
}

/// PutHeaderData, but it throws std::bad_alloc.
void FillHeader(const ky_json::Ref& doc, const std::string& context, unsigned int skip, unsigned int take,
                size_t totalFiles, KyTferStatusMsg::TferStatus status) {
    ky_json::Set(doc, "version", json_integer(1));
    ky_json::SetText(doc, "context", context.c_str());
    ky_json::Set(doc, "skip", json_integer(skip));
    ky_json::Set(doc, "take", json_integer(take));
    ky_json::Set(doc, "totalFiles", json_integer(static_cast<unsigned int>(totalFiles)));
    ky_json::SetText(doc, "filter", "");
    ky_json::SetText(doc, "status", ky_json::NotEmpty(KyTferStatusMsg::GetStatusText(status)).c_str());
}

std::string Serialise(const ky_json::Ref& document) {
    return ky_json::Dump(document, JSON_INDENT(2) | JSON_COMPACT | JSON_SORT_KEYS);
}

}  // namespace

KyTferDirectory::KyTferDirectory() : m_version(0) {}

KyTferDirectory::~KyTferDirectory() = default;

bool KyTferDirectory::ParseFile(const std::string& fileName) try {
    Lines lines(fileName);
    if (!lines.IsOpen()) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "ParseFile", "Could not open file(%s) errno(%d)",
                        fileName.c_str(), errno);
        return false;
    }
    if (!lines.Next()) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "ParseFile", "missing version/num entry line");
        return false;
    }
    std::string header = Narrow(lines.Line());
    __dlog_printfex(KY_DLOG_TRACE, kSource, "ParseFile", "1st header(%s)", header.c_str());
    m_version = static_cast<unsigned char>(ParseNumber(header) & 0xFF);
    if (!lines.Next()) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "ParseFile", "missing header line");
        return false;
    }
    header = Narrow(lines.Line());
    __dlog_printfex(KY_DLOG_TRACE, kSource, "ParseFile", "2nd header(%s)", header.c_str());
    ReadEntries(lines, *this);
    return true;
} catch (const std::exception&) {
    __dlog_printfex(KY_DLOG_ERROR, kSource, "ParseFile", "%s", kOutOfMemory);
    return false;
}

void KyTferDirectory::AddEntry(const std::string& path, const std::string& origFileName,
                               const std::string& xferFileName, const std::string& fileType,
                               unsigned int fileSizeInBytes, unsigned long long dateTime) try {
    __dlog_printfex(KY_DLOG_TRACE, kSource, "AddEntry", "%s %s %s %s %d ...", path.c_str(),
                    origFileName.c_str(), xferFileName.c_str(), fileType.c_str(),
                    static_cast<int>(fileSizeInBytes));
    if (m_entries.size() == m_entries.capacity()) Grow();
    m_entries.emplace_back(path, origFileName, xferFileName, fileType, fileSizeInBytes, dateTime);
    if (m_entries.back().IsWhole()) return;
    m_entries.pop_back();
    throw std::bad_alloc();
} catch (const std::exception&) {
    __dlog_printfex(KY_DLOG_ERROR, kSource, "AddEntry", "%s", kOutOfMemory);
}

void KyTferDirectory::Grow() {
    try {
        m_entries.reserve(std::max(kFewestEntries, kGrowth * m_entries.size()));
    } catch (const std::exception&) {
        // That was too much; there may still be memory for what the vector asks for.
    }
}

bool KyTferDirectory::GetDirEntry(const std::string& path, const std::string& xferFileName,
                                  KyTferDirEntry& entry) const {
    try {
        const auto found =
            std::find_if(m_entries.begin(), m_entries.end(), [&](const KyTferDirEntry& listed) {
                return listed.GetXferFileName() == xferFileName && listed.GetPath() == path;
            });
        if (found == m_entries.end()) return false;
        KyTferDirEntry copy(*found);
        if (!copy.IsWhole()) return false;
        entry = std::move(copy);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

KyTferDirectory::Page KyTferDirectory::GetPage(unsigned int skip, unsigned int take) const {
    const size_t first = std::min<size_t>(skip, m_entries.size());
    return {first, std::min<size_t>(take, m_entries.size() - first)};
}

std::vector<KyTferDirEntry> KyTferDirectory::GetEntryList(unsigned int skip, unsigned int take) const {
    try {
        const Page page = GetPage(skip, take);
        const KyTferDirEntry* const first = m_entries.data() + page.first;
        std::vector<KyTferDirEntry> entries(first, first + page.length);
        const bool whole = std::all_of(entries.begin(), entries.end(),
                                       [](const KyTferDirEntry& entry) { return entry.IsWhole(); });
        if (!whole) entries.clear();
        return entries;
    } catch (const std::exception&) {
        return std::vector<KyTferDirEntry>();
    }
}

json_t* KyTferDirectory::GetPageAsJSONArray(unsigned int skip, unsigned int take) const {
    const Page page = GetPage(skip, take);
    ky_json::Ref files(json_array());
    for (size_t i = 0; i < page.length; ++i)
        ky_json::Append(files, m_entries[page.first + i].GetEntryAsJSONObject());
    return files.release();
}

std::string KyTferDirectory::GetEntryListAsJSONString(const std::string& context, unsigned int skip,
                                                      unsigned int take, const std::string& /*filter*/,
                                                      KyTferStatusMsg::TferStatus status) const {
    try {
        const ky_json::Ref document(json_object());
        FillHeader(document, context, skip, take, m_entries.size(), status);
        if (skip > m_entries.size() || m_entries.empty()) {
            __dlog_printfex(KY_DLOG_TRACE, kSource, "GetEntryListAsJSONString", "Directory list is empty");
            ky_json::Set(document, "files", json_array());
            return Serialise(document);
        }
        __dlog_printfex(KY_DLOG_TRACE, kSource, "GetEntryListAsJSONString",
                        "Build array of files.  We have (%d) files in our directory",
                        static_cast<int>(m_entries.size()));
        ky_json::Set(document, "files", GetPageAsJSONArray(skip, take));
        __dlog_printfex(KY_DLOG_TRACE, kSource, "GetEntryListAsJSONString",
                        "Returning (single line, sorted keys): %s",
                        ky_json::Dump(document, JSON_SORT_KEYS).c_str());
        return Serialise(document);
    } catch (const std::exception&) {
        return std::string();
    }
}

std::string KyTferDirectory::GetEmptyList(const std::string& context, unsigned int skip, unsigned int take,
                                          const std::string& /*filter*/,
                                          KyTferStatusMsg::TferStatus status) try {
    __dlog_printfex(KY_DLOG_TRACE, kSource, "GetEmptyList", "Enter");
    const ky_json::Ref document(json_object());
    FillHeader(document, context, skip, take, 0, status);
    ky_json::Set(document, "files", json_array());
    std::string text = Serialise(document);
    __dlog_printfex(KY_DLOG_TRACE, kSource, "GetEmptyList", "Exit(%s)", text.c_str());
    return text;
} catch (const std::exception&) {
    return std::string();
}

void KyTferDirectory::PutHeaderData(json_t* doc, const std::string& context, unsigned int skip,
                                    unsigned int take, unsigned int totalFiles, const std::string& /*filter*/,
                                    KyTferStatusMsg::TferStatus status) try {
    FillHeader(ky_json::Ref(json_incref(doc)), context, skip, take, totalFiles, status);
} catch (const std::exception&) {
    // What there was no memory for is missing then.
}
