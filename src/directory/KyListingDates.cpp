#include "directory/KyListingDates.h"

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
constexpr unsigned long long kLatestDateTime = std::numeric_limits<unsigned long long>::max();
constexpr size_t kMillisecondsAt = 20;  // position in a date
constexpr int kSecondsPerDay = 24 * 60 * 60;

// The days of 128 months in a row have different places in the table.
constexpr size_t kRememberedDays = 4096;

/// So many units as nanoseconds, within the range of a time stamp.
unsigned long long ToNanoseconds(long long count, unsigned long long unit) {
    if (count <= 0) return 0;
    const auto units = static_cast<unsigned long long>(count);
    return units > kLatestDateTime / unit ? kLatestDateTime : units * unit;
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

/// Takes items off a text as a stream's `>>` does in the classic locale. A stream for each date takes longer
/// than the conversion.
class Extractor {
public:
    explicit Extractor(std::string_view text) : m_next(text.data()), m_end(text.data() + text.size()) {}

    bool Character() {
        SkipBlanks();
        if (m_next == m_end) return false;
        ++m_next;
        return true;
    }

    /// @param number  untouched if there is none or it does not fit
    bool Number(int& number) {
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

KyListingDates::KyListingDates() : m_days(kRememberedDays) {}

unsigned long long KyListingDates::Parse(const std::string& text) {
    if (text.find('-') == std::string::npos) return ToNanoseconds(ParseNumber(text), kNanosecondsPerSecond);
    Time time = {};  // the fields behind one that is bad or missing stay 0
    Extractor in(text);
    static_cast<void>(in.Number(time.year) && in.Character() && in.Number(time.month) && in.Character() &&
                      in.Number(time.day) && in.Character() && in.Number(time.hour) && in.Character() &&
                      in.Number(time.minute) && in.Character() && in.Number(time.second));
    const long long milliseconds =
        text.size() > kMillisecondsAt ? ParseNumber(text.substr(kMillisecondsAt, 3)) : 0;
    constexpr auto last = static_cast<long long>(kLatestDateTime / kNanosecondsPerSecond);
    return ToNanoseconds(std::clamp(ToSeconds(time), -1LL, last + 1) * 1000 + milliseconds,
                         kNanosecondsPerMillisecond);
}

/// @return seconds since 1970
long long KyListingDates::ToSeconds(const Time& time) {
    const bool ordinary = IsWithin(time.year, 1, 9999) && IsWithin(time.month, 1, 12) &&
                          IsWithin(time.day, 1, 31) && IsWithin(time.hour, 0, 23) &&
                          IsWithin(time.minute, 0, 59) && IsWithin(time.second, 0, 59);
    if (!ordinary) return Convert(time);
    const int number = (time.year * 12 + time.month) * 32 + time.day;
    Day& day = m_days[static_cast<size_t>(number) % kRememberedDays];
    if (day.number != number) day = ConvertDay(time, number);
    return day.even ? day.start + time.hour * 3600LL + time.minute * 60LL + time.second : Convert(time);
}

/// A day whose first and last second have the usual distance has no change of the zone's standard time.
KyListingDates::Day KyListingDates::ConvertDay(const Time& time, int number) {
    const long long first = Convert({time.year, time.month, time.day, 0, 0, 0});
    const long long last = Convert({time.year, time.month, time.day, 23, 59, 59});
    const bool known = first != LLONG_MIN && first != LLONG_MAX;
    return {number, known && last == first + kSecondsPerDay - 1, first};
}

/// Any values, as mktime adds them up. A date out of reach is the smallest or largest number.
long long KyListingDates::Convert(const Time& time) {
    struct tm local = {};
    local.tm_year = ClampToInt(time.year - 1900LL);
    local.tm_mon = ClampToInt(time.month - 1LL);
    local.tm_mday = time.day;
    local.tm_hour = time.hour;
    local.tm_min = time.minute;
    local.tm_sec = time.second;
    local.tm_wday = -1;  // stays so if the date is out of reach; the result of -1 is ambiguous
    const time_t seconds = std::mktime(&local);
    if (local.tm_wday >= 0) return seconds;
    return time.year + time.month / 12LL < 1970 ? LLONG_MIN : LLONG_MAX;
}

}  // namespace ky_directory
