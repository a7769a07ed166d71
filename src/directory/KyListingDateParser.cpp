#include "directory/KyListingDateParser.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <string_view>

namespace {

constexpr unsigned long long kNanosecondsPerSecond = 1000000000ULL;
constexpr unsigned long long kNanosecondsPerMillisecond = 1000000ULL;
constexpr unsigned long long kMaxDateTime = std::numeric_limits<unsigned long long>::max();
constexpr size_t kMillisecondsOffset = 20;  // in a date
constexpr int kSecondsPerDay = 24 * 60 * 60;

// 128 consecutive months fit without a collision.
constexpr size_t kCachedDays = 4096;

/// Converts to nanoseconds, clamped to the range of a time stamp. `unit` is in nanoseconds.
unsigned long long ToNanoseconds(long long count, unsigned long long unit) {
    if (count <= 0) return 0;
    const auto units = static_cast<unsigned long long>(count);
    return units > kMaxDateTime / unit ? kMaxDateTime : units * unit;
}

long long ParseNumber(const std::string& text) {
    return std::strtoll(text.c_str(), nullptr, 10);
}

int ClampToInt(long long value) {
    return static_cast<int>(std::clamp<long long>(value, INT_MIN, INT_MAX));
}

bool IsWithin(int value, int least, int most) {
    return least <= value && value <= most;
}

/// Parses items like a stream's `>>` in the classic locale. A stream for each date takes longer than the conversion.
class Extractor {
public:
    explicit Extractor(std::string_view text) : m_next(text.data()), m_end(text.data() + text.size()) {}

    bool SkipCharacter() {
        SkipBlanks();
        if (m_next == m_end) return false;
        ++m_next;
        return true;
    }

    /// @param number  unchanged on failure: no number, or out of range
    bool ReadNumber(int& number) {
        SkipBlanks();
        const bool plus = m_next != m_end && *m_next == '+';
        if (plus && (++m_next == m_end || *m_next == '-')) return false;
        const auto result = std::from_chars(m_next, m_end, number);
        m_next = result.ptr;
        return result.ec == std::errc();
    }

private:
    void SkipBlanks() {
        while (m_next != m_end && (*m_next == ' ' || (*m_next >= '\t' && *m_next <= '\r')))
            ++m_next;
    }

    const char* m_next;
    const char* const m_end;
};

}  // namespace

namespace ky_directory {

KyListingDateParser::KyListingDateParser() : m_days(kCachedDays) {}

unsigned long long KyListingDateParser::Parse(const std::string& text) {
    if (text.find('-') == std::string::npos) return ToNanoseconds(ParseNumber(text), kNanosecondsPerSecond);
    Time time = {};  // fields after a bad or missing one stay 0
    Extractor in(text);
    static_cast<void>(in.ReadNumber(time.year) && in.SkipCharacter() && in.ReadNumber(time.month) &&
                      in.SkipCharacter() && in.ReadNumber(time.day) && in.SkipCharacter() &&
                      in.ReadNumber(time.hour) && in.SkipCharacter() && in.ReadNumber(time.minute) &&
                      in.SkipCharacter() && in.ReadNumber(time.second));
    const long long milliseconds =
        text.size() > kMillisecondsOffset ? ParseNumber(text.substr(kMillisecondsOffset, 3)) : 0;
    constexpr auto last = static_cast<long long>(kMaxDateTime / kNanosecondsPerSecond);
    return ToNanoseconds(std::clamp(ToSeconds(time), -1LL, last + 1) * 1000 + milliseconds,
                         kNanosecondsPerMillisecond);
}

/// @return seconds since 1970
long long KyListingDateParser::ToSeconds(const Time& time) {
    const bool ordinary = IsWithin(time.year, 1, 9999) && IsWithin(time.month, 1, 12) &&
                          IsWithin(time.day, 1, 31) && IsWithin(time.hour, 0, 23) &&
                          IsWithin(time.minute, 0, 59) && IsWithin(time.second, 0, 59);
    if (!ordinary) return Convert(time);
    const int number = (time.year * 12 + time.month) * 32 + time.day;
    Day& day = m_days[static_cast<size_t>(number) % kCachedDays];
    if (day.number != number) day = ConvertDay(time, number);
    return day.uniform ? day.start + time.hour * 3600LL + time.minute * 60LL + time.second : Convert(time);
}

/// A day is uniform if its first and last second are 86399 seconds apart.
KyListingDateParser::Day KyListingDateParser::ConvertDay(const Time& time, int number) {
    const long long first = Convert({time.year, time.month, time.day, 0, 0, 0});
    const long long last = Convert({time.year, time.month, time.day, 23, 59, 59});
    const bool known = first != LLONG_MIN && first != LLONG_MAX;
    return {number, known && last == first + kSecondsPerDay - 1, first};
}

/// Normalises fields out of range, as mktime does. A date that mktime cannot convert gives LLONG_MIN or LLONG_MAX.
long long KyListingDateParser::Convert(const Time& time) {
    struct tm local = {};
    local.tm_year = ClampToInt(time.year - 1900LL);
    local.tm_mon = ClampToInt(time.month - 1LL);
    local.tm_mday = time.day;
    local.tm_hour = time.hour;
    local.tm_min = time.minute;
    local.tm_sec = time.second;
    local.tm_wday = -1;  // detects failure: -1 is also a valid result
    const time_t seconds = std::mktime(&local);
    if (local.tm_wday >= 0) return seconds;
    return time.year + time.month / 12LL < 1970 ? LLONG_MIN : LLONG_MAX;
}

}  // namespace ky_directory
