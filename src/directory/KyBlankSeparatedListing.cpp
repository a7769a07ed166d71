#include "directory/KyBlankSeparatedListing.h"

#include <algorithm>
#include <limits>
#include <streambuf>
#include <string>

#include "directory/KyTferDirectory.h"

namespace {

// A file without blanks would otherwise be one name, as large as the file.
constexpr size_t kMostTokenBytes = 65536;

// What the classic locale calls so.
constexpr auto IsBlank = [](char character) {
    return character == ' ' || (character >= '\t' && character <= '\r');
};

/// Takes items off a stream's buffer as the stream's own `>>` would in the classic locale. That asks the
/// locale for every item and the buffer for every character, which takes longer than all the rest of reading
/// a listing.
///
/// Each operation skips leading white space. One that fails, and every one after it, returns false and leaves
/// its argument with any value.
class PlainExtractor {
public:
    // cppcheck-suppress uninitMemberVar  ; of the block only what has been read is used
    explicit PlainExtractor(std::streambuf& source) : m_source(source) {}
    PlainExtractor(const PlainExtractor&) = delete;
    PlainExtractor& operator=(const PlainExtractor&) = delete;

    /// Gives back what was taken from the source and not used.
    ~PlainExtractor();

    /// What the operations have come to, as the state of a stream.
    std::ios_base::iostate State() const { return m_state; }

    bool Character(char& character);
    bool Token(std::string& token);
    template <typename Number>
    bool Unsigned(Number& number);

    /// Skips everything up to the next line feed, and that too.
    bool RestOfLine();

private:
    /// Makes sure that there is a character at m_next. @return false at the end of the source
    bool Fill() { return m_next != m_end || Refill(); }
    bool Refill();
    template <typename Predicate>
    bool SkipWhile(Predicate predicate);
    bool FindStart();
    bool Fail() {
        m_state |= std::ios_base::failbit;
        return false;
    }

    std::streambuf& m_source;
    std::ios_base::iostate m_state = std::ios_base::goodbit;
    char m_block[8192];
    const char* m_next = m_block;
    const char* m_end = m_block;
};

// Only what the source has in its buffer is taken, so that all of it can be given back.
bool PlainExtractor::Refill() {
    m_next = m_end = m_block;
    if (m_source.sgetc() == std::char_traits<char>::eof()) {
        m_state |= std::ios_base::eofbit;
        return false;
    }
    const auto room = static_cast<std::streamsize>(sizeof m_block);
    const std::streamsize ready = std::clamp<std::streamsize>(m_source.in_avail(), 1, room);
    m_end = m_block + m_source.sgetn(m_block, ready);
    return m_next != m_end;
}

PlainExtractor::~PlainExtractor() {
    try {
        for (; m_next != m_end; ++m_next)
            m_source.sungetc();
    } catch (...) {
        // A source that cannot take back what it has just given is left behind the listing.
    }
}

/// Hands each character to `predicate` up to the first one for which it is false, which is left.
///
/// @return false if there is no such character
template <typename Predicate>
inline bool PlainExtractor::SkipWhile(Predicate predicate) {
    while (Fill()) {
        const char* next = m_next;
        const char* const end = m_end;
        while (next != end && predicate(*next))
            ++next;
        m_next = next;
        if (next != end) return true;
    }
    return false;
}

// Not to find anything is a failure, unlike the end of the source behind an item.
inline bool PlainExtractor::FindStart() {
    return (m_state == std::ios_base::goodbit && SkipWhile(IsBlank)) || Fail();
}

inline bool PlainExtractor::Character(char& character) {
    if (!FindStart()) return false;
    character = *m_next++;
    return true;
}

inline bool PlainExtractor::Token(std::string& token) {
    token.clear();
    bool more = FindStart();
    while (more) {
        const char* next = m_next;
        const char* const end = m_end;
        while (next != end && !IsBlank(*next))
            ++next;
        token.append(m_next, static_cast<size_t>(next - m_next));
        m_next = next;
        if (token.size() > kMostTokenBytes) return Fail();
        more = next == end && Fill();
    }
    return !token.empty();
}

template <typename Number>
inline bool PlainExtractor::Unsigned(Number& number) {
    constexpr Number most = std::numeric_limits<Number>::max();
    if (!FindStart()) return false;
    const bool negative = *m_next == '-';
    if (negative || *m_next == '+') ++m_next;
    Number value = 0;
    bool digits = false;
    bool tooLarge = false;
    SkipWhile([&](char character) {
        const auto digit = static_cast<unsigned char>(character - '0');
        if (digit > 9) return false;
        digits = true;
        tooLarge |= value > most / 10 || value * 10 > most - digit;
        value = value * 10 + digit;
        return true;
    });
    number = negative ? 0 - value : value;
    return (digits && !tooLarge) || Fail();
}

bool PlainExtractor::RestOfLine() {
    if (m_state != std::ios_base::goodbit) return Fail();
    if (SkipWhile([](char character) { return character != '\n'; })) ++m_next;
    return true;
}

bool SkipHeader(PlainExtractor& in) {
    unsigned int number = 0;
    char separator = 0;
    return in.Unsigned(number) && in.Character(separator) && in.Unsigned(number) && in.RestOfLine();
}

/// One entry, with room for the next.
struct Entry {
    std::string origFileName;
    std::string xferFileName;
    std::string fileType;
    unsigned int size = 0;
    unsigned long long dateTime = 0;
};

bool ReadEntry(PlainExtractor& in, Entry& entry) {
    char separator = 0;
    return in.Token(entry.origFileName) && in.Character(separator) && in.Token(entry.xferFileName) &&
           in.Character(separator) && in.Token(entry.fileType) && in.Character(separator) &&
           in.Unsigned(entry.size) && in.Character(separator) && in.Unsigned(entry.dateTime) &&
           separator == ',';
}

/// @param count  goes up with each entry, so that it is right even if memory runs out
/// @return the state in which a stream would be left
std::ios_base::iostate ReadEntries(std::streambuf& source, KyTferDirectory& directory, size_t& count) {
    PlainExtractor in(source);
    const std::string noPath;
    try {
        Entry entry;
        for (bool good = SkipHeader(in); good && ReadEntry(in, entry); ++count)
            directory.AddEntry(noPath, entry.origFileName, entry.xferFileName, entry.fileType, entry.size,
                               entry.dateTime);
    } catch (...) {
        return in.State() | std::ios_base::badbit;
    }
    return in.State();
}

}  // namespace

size_t ky_directory::ReadBlankSeparatedListing(std::istream& in, KyTferDirectory& directory) {
    size_t count = 0;
    try {
        const std::istream::sentry ready(in, true);
        if (ready) in.setstate(ReadEntries(*in.rdbuf(), directory, count));
    } catch (...) {
        // The stream is set to throw; it has noted its state before it did.
    }
    return count;
}
