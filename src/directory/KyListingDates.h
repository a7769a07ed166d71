#ifndef DIRECTORY_KYLISTINGDATES_H
#define DIRECTORY_KYLISTINGDATES_H

#include <string>
#include <vector>

namespace ky_directory {

/// Converts the dates of one comma-separated listing file.
///
/// Remembers the days that it has converted, because mktime takes longer than all other work on an entry. It
/// must not outlive a change of the process's time zone. The results are those of mktime. In an hour that the
/// standard time has twice, they depend on earlier calls, as mktime's do. Not for several threads at a time.
/// Blocks at most for the zone's file.
class KyListingDates {
public:
    /// Takes memory for the days. Throws std::bad_alloc.
    KyListingDates();

    /// @param text  local standard time, as 2024-03-15T08:30:00.250, if there is a "-" in it; the number of
    ///              seconds since 1970-01-01 UTC otherwise. Any text is accepted: what is missing counts as 0,
    ///              and calendar fields may have any values.
    /// @return nanoseconds since 1970-01-01 UTC: 0 for earlier dates, the largest value for those beyond it
    unsigned long long Parse(const std::string& text);

private:
    struct Time {
        int year, month, day, hour, minute, second;
    };

    struct Day {
        int number = 0;       // of the day in this table; 0 if the place is free
        bool even = false;    // each second of the day follows its predecessor
        long long start = 0;  // of the day, in seconds since 1970
    };

    static long long Convert(const Time& time);
    static Day ConvertDay(const Time& time, int number);
    long long ToSeconds(const Time& time);

    std::vector<Day> m_days;
};

}  // namespace ky_directory

#endif
