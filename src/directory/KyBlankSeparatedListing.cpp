#include "directory/KyBlankSeparatedListing.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <limits>
#include <vector>

#include "directory/KyTferDirectory.h"

namespace {

// A file without blanks would otherwise be one name, as large as the file.
constexpr size_t kMostTokenBytes = 65536;

constexpr size_t kBlockBytes = 65536;

// The shortest entry is "a ,b ,c ,1,2".
constexpr unsigned long long kFewestEntryBytes = 12;

// What the classic locale calls so.
constexpr auto IsBlank = [](char character) {
    return character == ' ' || static_cast<unsigned char>(character - '\t') < 5;
};

/// A regular file, read block by block. It is not mapped: a process that touches a mapped page behind the end
/// of a file that has become shorter is ended by a signal.
class File {
public:
    // O_NONBLOCK, because opening a FIFO waits for its writer otherwise.
    explicit File(const char* path) : m_fd(open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)) {
        struct stat info = {};
        m_isRegular = m_fd >= 0 && fstat(m_fd, &info) == 0 && S_ISREG(info.st_mode);
        m_size = static_cast<unsigned long long>(info.st_size);
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    ~File() {
        if (m_fd >= 0) close(m_fd);
    }

    /// In bytes, when the file was opened.
    unsigned long long Size() const { return m_size; }

    /// @return the number of bytes read; 0 at the end, behind an error, or if there is no regular file
    size_t Read(char* block, size_t room) {
        if (!m_isRegular) return 0;
        ssize_t count = 0;
        do
            count = read(m_fd, block, room);
        while (count < 0 && errno == EINTR);
        m_isRegular = count > 0;
        return static_cast<size_t>(std::max<ssize_t>(count, 0));
    }

private:
    const int m_fd;
    bool m_isRegular = false;
    unsigned long long m_size = 0;
};

}  // namespace

namespace ky_directory {

/// Takes items off a file as a stream's `>>` would in the classic locale. A stream asks the locale for every
/// item and its buffer for every character, which takes longer than all other work on a listing.
///
/// The operations take the position of the next character in the block and return the one behind their item,
/// or null if they fail. A position kept as a member would be stored and loaded again for each item.
class BlankSeparatedReader {
public:
    explicit BlankSeparatedReader(const std::string& path)
        : m_file(path.c_str()), m_block(kBlockBytes), m_end(m_block.data()) {}

    /// Adds the file's entries to `directory`. Throws std::exception if memory runs out.
    void ReadInto(KyTferDirectory& directory);

private:
    using Position = const char*;

    /// One entry, with room for the next.
    struct Entry {
        std::string origFileName;
        std::string xferFileName;
        std::string fileType;
        unsigned int size = 0;
        unsigned long long dateTime = 0;
    };

    Position Header(Position next, unsigned int& count);
    Position Item(Position next, Entry& entry);

    // These skip leading blanks.
    Position Character(Position next, char& character);
    Position Token(Position next, std::string& token);
    template <typename Number>
    Position Unsigned(Position next, Number& number);

    Position Refill();
    template <typename Predicate>
    Position SkipWhile(Position next, Predicate predicate);

    File m_file;
    std::vector<char> m_block;
    Position m_end;
};

void BlankSeparatedReader::ReadInto(KyTferDirectory& directory) {
    unsigned int count = 0;
    Position next = Header(m_end, count);
    // Not for a directory with entries: each file that is read into it would move them.
    if (directory.m_entries.empty())
        directory.Reserve(
            static_cast<size_t>(std::min<unsigned long long>(count, m_file.Size() / kFewestEntryBytes)));
    const std::string noPath;
    for (Entry entry; next != nullptr && (next = Item(next, entry)) != nullptr;)
        directory.Append(noPath, entry.origFileName, entry.xferFileName, entry.fileType, entry.size,
                         entry.dateTime);
}

BlankSeparatedReader::Position BlankSeparatedReader::Header(Position next, unsigned int& count) {
    char separator = 0;
    const bool good = (next = Unsigned(next, count)) != nullptr &&
                      (next = Character(next, separator)) != nullptr &&
                      (next = Unsigned(next, count)) != nullptr;
    return good ? SkipWhile(next, [](char character) { return character != '\n'; }) : nullptr;
}

inline BlankSeparatedReader::Position BlankSeparatedReader::Item(Position next, Entry& entry) {
    char separator = 0;
    const bool good =
        (next = Token(next, entry.origFileName)) != nullptr &&
        (next = Character(next, separator)) != nullptr &&
        (next = Token(next, entry.xferFileName)) != nullptr &&
        (next = Character(next, separator)) != nullptr && (next = Token(next, entry.fileType)) != nullptr &&
        (next = Character(next, separator)) != nullptr && (next = Unsigned(next, entry.size)) != nullptr &&
        (next = Character(next, separator)) != nullptr &&
        (next = Unsigned(next, entry.dateTime)) != nullptr && separator == ',';
    return good ? next : nullptr;
}

inline BlankSeparatedReader::Position BlankSeparatedReader::Character(Position next, char& character) {
    next = SkipWhile(next, IsBlank);
    if (next == nullptr) return nullptr;
    character = *next;
    return next + 1;
}

inline BlankSeparatedReader::Position BlankSeparatedReader::Token(Position next, std::string& token) {
    Position start = SkipWhile(next, IsBlank);
    if (start == nullptr) return nullptr;
    token.clear();
    for (;;) {
        next = std::find_if(start, m_end, IsBlank);
        token.append(start, static_cast<size_t>(next - start));
        if (token.size() > kMostTokenBytes) return nullptr;
        if (next != m_end) return next;
        start = Refill();
        if (start == nullptr) return m_end;
    }
}

template <typename Number>
inline BlankSeparatedReader::Position BlankSeparatedReader::Unsigned(Position next, Number& number) {
    constexpr Number most = std::numeric_limits<Number>::max();
    next = SkipWhile(next, IsBlank);
    if (next == nullptr) return nullptr;
    const bool negative = *next == '-';
    if (negative || *next == '+') ++next;
    Number value = 0;
    bool digits = false;
    bool tooLarge = false;
    next = SkipWhile(next, [&](char character) {
        const auto digit = static_cast<unsigned char>(character - '0');
        if (digit > 9) return false;
        digits = true;
        if (value >= most / 10 && (value > most / 10 || digit > most % 10)) tooLarge = true;
        value = value * 10 + digit;
        return true;
    });
    number = negative ? 0 - value : value;
    if (!digits || tooLarge) return nullptr;
    return next != nullptr ? next : m_end;
}

/// Reads the next block. @return its start; null at the end of the file
BlankSeparatedReader::Position BlankSeparatedReader::Refill() {
    const size_t count = m_file.Read(m_block.data(), m_block.size());
    m_end = m_block.data() + count;
    return count != 0 ? m_block.data() : nullptr;
}

/// Hands each character to `predicate` up to the first one for which it is false.
///
/// @return where that is; null if there is no such character
template <typename Predicate>
inline BlankSeparatedReader::Position BlankSeparatedReader::SkipWhile(Position next, Predicate predicate) {
    do {
        for (const Position end = m_end; next != end; ++next)
            if (!predicate(*next)) return next;
        next = Refill();
    } while (next != nullptr);
    return nullptr;
}

bool ReadBlankSeparatedListing(const std::string& path, KyTferDirectory& directory) {
    try {
        BlankSeparatedReader(path).ReadInto(directory);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace ky_directory
