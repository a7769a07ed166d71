#include "directory/KyTferDirectory.h"

#include <sys/mman.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <exception>
#include <iterator>
#include <memory>
#include <string_view>

#include "directory/KyListingDateParser.h"
#include "messages/KyJson.h"
#include "platform/KyDlog.h"

namespace {

constexpr char kSource[] = "KyTferDirectory";
constexpr char kOutOfMemory[] = "Out of memory";
constexpr int kLineCapacity = 1024;  // wide characters of one read, with the final NUL

// Limit the memory for the entries of one file. An empty line makes an entry of more than a hundred bytes, with
// copies of the previous entry's texts: up to a thousand bytes for one byte of the file.
constexpr unsigned long long kBytesForAnyFile = 64ULL * 1024 * 1024;
constexpr unsigned long long kBytesPerCharacter = 16;

// With a vector's own growth, moving entries takes as long as reading them. Unused pages cost no memory.
constexpr size_t kGrowthFactor = 4;
constexpr size_t kMinCapacity = 16;

constexpr size_t kBytesForLargePages = 4UL * 1024 * 1024;  // contains a large page at any alignment

/// The lines of a listing file.
class LineReader {
public:
    explicit LineReader(const std::string& fileName) : m_file(std::fopen(fileName.c_str(), "r")) {}

    bool IsOpen() const { return m_file != nullptr; }

    /// Reads the next line with its line end, or part of a long line. @return false at the end of the file
    bool Next() { return std::fgetws(m_text, kLineCapacity, m_file.get()) != nullptr; }

    /// The last line up to its first NUL. Valid until the next call of Next.
    std::wstring_view Line() const { return m_text; }

private:
    struct Close {
        void operator()(FILE* file) const { std::fclose(file); }
    };

    std::unique_ptr<FILE, Close> m_file;
    wchar_t m_text[kLineCapacity] = {};
};

/// Keeps the low 8 bits of each character.
void Narrow(std::wstring_view wide, std::string& narrow) {
    narrow.resize(wide.size());
    std::transform(wide.begin(), wide.end(), narrow.begin(),
                   [](wchar_t character) { return static_cast<char>(character & 0xFF); });
}

/// Splits an entry line into fields. Finds them in the wide line, and copies them from the narrow one.
class FieldSplitter {
public:
    FieldSplitter(std::wstring_view line, const std::string& narrow) : m_line(line), m_narrow(narrow) {}

    /// @return false if there is no further field; `field` is then unchanged
    bool Next(std::string& field) {
        const bool quoted = m_start < m_line.size() && m_line[m_start] == L'"';
        const size_t closing = quoted ? FindClosingQuote() : m_start;
        if (closing == std::wstring_view::npos) return false;
        const size_t end = FindDelimiter(closing);
        if (end == m_line.size()) return false;

        field.clear();
        if (quoted) AppendUnescaped(field, closing);
        field.append(m_narrow, m_start, end - m_start);
        const bool twoCharacters = m_line[end] == L'\r' && m_line.substr(end + 1, 1) == L"\n";
        m_start = end + (twoCharacters ? 2 : 1);
        return true;
    }

private:
    size_t FindClosingQuote() const {
        size_t quote = m_line.find(L'"', m_start + 1);
        while (quote < m_line.size() - 1 && m_line[quote + 1] == L'"')
            quote = m_line.find(L'"', quote + 2);
        return quote;
    }

    size_t FindDelimiter(size_t from) const {
        const auto isDelimiter = [](wchar_t character) {
            return character == L',' || character == L'\n' || character == L'\r';
        };
        const auto found = std::find_if(m_line.data() + from, m_line.data() + m_line.size(), isDelimiter);
        return static_cast<size_t>(found - m_line.data());
    }

    /// Appends the quoted text with each "" as one quote. Moves m_start behind the closing quote.
    void AppendUnescaped(std::string& field, size_t closing) {
        ++m_start;
        for (size_t quote = 0; (quote = m_line.find(L'"', m_start)) < closing; m_start = quote + 2)
            field.append(m_narrow, m_start, quote + 1 - m_start);
        field.append(m_narrow, m_start, closing - m_start);
        m_start = closing + 1;
    }

    const std::wstring_view m_line;
    const std::string& m_narrow;
    size_t m_start = 0;
};

long long ParseNumber(const std::string& text) {
    return std::strtoll(text.c_str(), nullptr, 10);
}

int ClampToInt(long long value) {
    return static_cast<int>(std::clamp<long long>(value, INT_MIN, INT_MAX));
}

/// Fields of the next entry. A missing field keeps the value of the previous line.
struct EntryValues {
    std::string texts[3];  // file name, transfer name and type
    std::string number;    // size or date, as the file has it
    unsigned int fileSizeInBytes = 0;
    unsigned long long dateTime = 0;

    size_t Bytes() const {
        return sizeof(KyTferDirEntry) + texts[0].size() + texts[1].size() + texts[2].size();
    }
};

/// Reads the entry lines of a listing file.
class EntryReader {
public:
    explicit EntryReader(LineReader& lines) : m_lines(lines) {}

    /// Reads the next line into `values`.
    ///
    /// @return false at the end of the file, or if the entries take too much memory
    bool Next(EntryValues& values) {
        if (!m_lines.Next()) return false;
        const std::wstring_view line = m_lines.Line();
        Split(line, values);
        m_allowedBytes += line.size() * kBytesPerCharacter;
        m_takenBytes += values.Bytes();
        if (m_takenBytes <= m_allowedBytes) return true;
        __dlog_printfex(KY_DLOG_ERROR, kSource, "ParseFile", "Too many short lines; the rest is not read");
        return false;
    }

private:
    // Traces narrow text: the log may fail to convert wide characters in the process's locale.
    void Split(std::wstring_view line, EntryValues& values) {
        Narrow(line, m_text);
        __dlog_printfex(KY_DLOG_TRACE, kSource, "ParseFile", "Input %3zd: [%.*s]",
                        static_cast<ssize_t>(line.size()), static_cast<int>(line.size()) - 1, m_text.c_str());
        FieldSplitter fields(line, m_text);
        for (size_t index = 0;; ++index) {
            std::string& field = index < std::size(values.texts) ? values.texts[index] : values.number;
            if (!fields.Next(field)) return;
            __dlog_printfex(KY_DLOG_TRACE, kSource, "ParseFile", "Field %3zd: [%s]",
                            static_cast<ssize_t>(field.size()), field.c_str());
            if (index == 3)
                values.fileSizeInBytes = static_cast<unsigned int>(ClampToInt(ParseNumber(field)));
            if (index == 4) values.dateTime = m_dates.Parse(field);
        }
    }

    LineReader& m_lines;
    ky_directory::KyListingDateParser m_dates;
    std::string m_text;
    unsigned long long m_allowedBytes = kBytesForAnyFile;
    unsigned long long m_takenBytes = 0;
};

/// With small pages, the page faults of a long listing take as long as reading it. Failure is ignored.
void PreferLargePages(void* memory, size_t bytes) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    if (bytes < kBytesForLargePages || std::align(page, page, memory, bytes) == nullptr) return;
    madvise(memory, bytes, MADV_HUGEPAGE);
}

/// Implements PutHeaderData. Throws std::bad_alloc.
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
    LineReader lines(fileName);
    if (!lines.IsOpen()) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "ParseFile", "Could not open file(%s) errno(%d)",
                        fileName.c_str(), errno);
        return false;
    }
    if (!lines.Next()) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "ParseFile", "missing version/num entry line");
        return false;
    }
    std::string header;
    Narrow(lines.Line(), header);
    __dlog_printfex(KY_DLOG_TRACE, kSource, "ParseFile", "1st header(%s)", header.c_str());
    m_version = static_cast<unsigned char>(ParseNumber(header) & 0xFF);
    if (!lines.Next()) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "ParseFile", "missing header line");
        return false;
    }
    Narrow(lines.Line(), header);
    __dlog_printfex(KY_DLOG_TRACE, kSource, "ParseFile", "2nd header(%s)", header.c_str());
    const std::string noPath;
    EntryReader entries(lines);
    for (EntryValues values; entries.Next(values);)
        Append(noPath, values.texts[0], values.texts[1], values.texts[2], values.fileSizeInBytes,
               values.dateTime);
    return true;
} catch (const std::exception&) {
    __dlog_printfex(KY_DLOG_ERROR, kSource, "ParseFile", "%s", kOutOfMemory);
    return false;
}

void KyTferDirectory::AddEntry(const std::string& path, const std::string& origFileName,
                               const std::string& xferFileName, const std::string& fileType,
                               unsigned int fileSizeInBytes, unsigned long long dateTime) try {
    Append(path, origFileName, xferFileName, fileType, fileSizeInBytes, dateTime);
} catch (const std::exception&) {
    __dlog_printfex(KY_DLOG_ERROR, kSource, "AddEntry", "%s", kOutOfMemory);
}

/// Implements AddEntry. Throws if memory runs out.
void KyTferDirectory::Append(const std::string& path, const std::string& origFileName,
                             const std::string& xferFileName, const std::string& fileType,
                             unsigned int fileSizeInBytes, unsigned long long dateTime) {
    __dlog_printfex(KY_DLOG_TRACE, kSource, "AddEntry", "%s %s %s %s %d ...", path.c_str(),
                    origFileName.c_str(), xferFileName.c_str(), fileType.c_str(),
                    static_cast<int>(fileSizeInBytes));
    if (m_entries.size() == m_entries.capacity())
        Reserve(std::max(kMinCapacity, kGrowthFactor * m_entries.size()));
    m_entries.emplace_back(path, origFileName, xferFileName, fileType, fileSizeInBytes, dateTime);
}

/// Reserves memory for `count` entries in all. Failure is ignored.
void KyTferDirectory::Reserve(size_t count) {
    try {
        m_entries.reserve(count);
        PreferLargePages(m_entries.data(), m_entries.capacity() * sizeof(KyTferDirEntry));
    } catch (const std::exception&) {
        // The vector may still grow by less.
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
        entry = *found;
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
        return std::vector<KyTferDirEntry>(first, first + page.length);
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
    // Members that could not be set are missing.
}
