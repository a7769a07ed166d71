#ifndef DIRECTORY_KYLISTINGDATEPARSER_H
#define DIRECTORY_KYLISTINGDATEPARSER_H

#include <string>
#include <vector>

namespace ky_directory {

/// Converts the dates of one comma-separated listing file.
///
/// Caches converted days: mktime takes longer than all other work on an entry. Results equal those of mktime; in an
/// hour that occurs twice they depend on earlier calls, as with mktime. Do not use an object after a change of the
/// process's time zone. One thread at a time. Blocks only while the C library reads the time zone file.
class KyListingDateParser {
public:
    /// Allocates the cache. Throws std::bad_alloc.
    KyListingDateParser();

    /// @param text  with a "-": local standard time, as 2024-03-15T08:30:00.250. Otherwise: seconds since 1970-01-01
    ///              UTC. Any text is accepted; a missing field is 0, and a field may exceed its range.
    /// @return nanoseconds since 1970-01-01 UTC, clamped to the range of the type
    unsigned long long Parse(const std::string& text);

private:
    struct Time {
        int year, month, day, hour, minute, second;
    };

    struct Day {
        int number = 0;        // year, month and day; 0 for an unused place
        bool uniform = false;  // no change of the standard time on this day
        long long start = 0;   // in seconds since 1970
    };

    static long long Convert(const Time& time);
    static Day ConvertDay(const Time& time, int number);
    long long ToSeconds(const Time& time);

    std::vector<Day> m_days;
};

}  // namespace ky_directory

#endif
