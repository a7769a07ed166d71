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

// Limits the memory for a file without blanks.
constexpr size_t kMaxTokenBytes = 65536;

constexpr size_t kBlockBytes = 65536;

// The shortest entry is "a ,b ,c ,1,2".
constexpr unsigned long long kMinEntryBytes = 12;

// As isspace() in the classic locale.
constexpr auto IsBlank = [](char character) {
    return character == ' ' || static_cast<unsigned char>(character - '\t') < 5;
};

/// A regular file that is read in blocks. It is not mapped: if another process shortens a mapped file, reading it
/// raises SIGBUS.
class File {
public:
    // O_NONBLOCK: otherwise opening a FIFO blocks until a writer opens it.
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

    /// Size in bytes at the time of opening.
    unsigned long long Size() const { return m_size; }

    /// @return the number of bytes read; 0 at the end, after an error, or if there is no regular file
    size_t Read(char* block, size_t capacity) {
        if (!m_isRegular) return 0;
        ssize_t count = 0;
        do
            count = read(m_fd, block, capacity);
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

/// Parses items like a stream's `>>` in the classic locale. Streams take longer than all other work on a listing.
///
/// Operations take the position of the next character and return the position after their item, or null on failure.
/// The position is not a member, because the compiler would store and load a member for each item.
class BlankSeparatedReader {
public:
    explicit BlankSeparatedReader(const std::string& path)
        : m_file(path.c_str()), m_block(kBlockBytes), m_end(m_block.data()) {}

    /// Appends the file's entries to `directory`. Throws std::exception if memory runs out.
    void ReadInto(KyTferDirectory& directory);

private:
    using Position = const char*;

    /// Fields of one entry. Reused, so that later entries need no allocation.
    struct Entry {
        std::string origFileName;
        std::string xferFileName;
        std::string fileType;
        unsigned int size = 0;
        unsigned long long dateTime = 0;
    };

    Position ReadHeader(Position next, unsigned int& count);
    Position ReadEntry(Position next, Entry& entry);

    // These skip leading blanks.
    Position ReadCharacter(Position next, char& character);
    Position ReadToken(Position next, std::string& token);
    template <typename Number>
    Position ReadUnsigned(Position next, Number& number);

    Position Refill();
    template <typename Predicate>
    Position SkipWhile(Position next, Predicate predicate);

    File m_file;
    std::vector<char> m_block;
    Position m_end;
};

void BlankSeparatedReader::ReadInto(KyTferDirectory& directory) {
    unsigned int count = 0;
    Position next = ReadHeader(m_end, count);
    // Only for an empty directory: an exact reservation for each file would move all earlier entries each time.
    if (directory.m_entries.empty())
        directory.Reserve(
            static_cast<size_t>(std::min<unsigned long long>(count, m_file.Size() / kMinEntryBytes)));
    const std::string noPath;
    for (Entry entry; next != nullptr && (next = ReadEntry(next, entry)) != nullptr;)
        directory.Append(noPath, entry.origFileName, entry.xferFileName, entry.fileType, entry.size,
                         entry.dateTime);
}

BlankSeparatedReader::Position BlankSeparatedReader::ReadHeader(Position next, unsigned int& count) {
    char separator = 0;
    const bool good = (next = ReadUnsigned(next, count)) != nullptr &&
                      (next = ReadCharacter(next, separator)) != nullptr &&
                      (next = ReadUnsigned(next, count)) != nullptr;
    return good ? SkipWhile(next, [](char character) { return character != '\n'; }) : nullptr;
}

inline BlankSeparatedReader::Position BlankSeparatedReader::ReadEntry(Position next, Entry& entry) {
    char separator = 0;
    const bool good = (next = ReadToken(next, entry.origFileName)) != nullptr &&
                      (next = ReadCharacter(next, separator)) != nullptr &&
                      (next = ReadToken(next, entry.xferFileName)) != nullptr &&
                      (next = ReadCharacter(next, separator)) != nullptr &&
                      (next = ReadToken(next, entry.fileType)) != nullptr &&
                      (next = ReadCharacter(next, separator)) != nullptr &&
                      (next = ReadUnsigned(next, entry.size)) != nullptr &&
                      (next = ReadCharacter(next, separator)) != nullptr &&
                      (next = ReadUnsigned(next, entry.dateTime)) != nullptr && separator == ',';
    return good ? next : nullptr;
}

inline BlankSeparatedReader::Position BlankSeparatedReader::ReadCharacter(Position next, char& character) {
    next = SkipWhile(next, IsBlank);
    if (next == nullptr) return nullptr;
    character = *next;
    return next + 1;
}

inline BlankSeparatedReader::Position BlankSeparatedReader::ReadToken(Position next, std::string& token) {
    Position start = SkipWhile(next, IsBlank);
    if (start == nullptr) return nullptr;
    token.clear();
    for (;;) {
        next = std::find_if(start, m_end, IsBlank);
        token.append(start, static_cast<size_t>(next - start));
        if (token.size() > kMaxTokenBytes) return nullptr;
        if (next != m_end) return next;
        start = Refill();
        if (start == nullptr) return m_end;
    }
}

template <typename Number>
inline BlankSeparatedReader::Position BlankSeparatedReader::ReadUnsigned(Position next, Number& number) {
    constexpr Number max = std::numeric_limits<Number>::max();
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
        if (value >= max / 10 && (value > max / 10 || digit > max % 10)) tooLarge = true;
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

/// @return the position of the first character for which `predicate` is false; null if there is none
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
