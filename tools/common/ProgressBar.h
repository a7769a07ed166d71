#ifndef COMMON_PROGRESSBAR_H
#define COMMON_PROGRESSBAR_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "common/Console.h"

namespace ky_tools {

/// The progress of one transfer, with its rate and the time that is left at that rate: a bar that moves on a
/// terminal, and elsewhere a line for each quarter.
///
/// Counts its time from its construction, and the rate from when the first bytes were shown: the time that a
/// device takes to get ready says nothing about its line. One thread uses it.
class ProgressBar {
public:
    using Clock = std::chrono::steady_clock;

    /// @param console  must outlive the bar
    /// @param label    cut to the bar's first columns
    /// @param total    bytes to move
    /// @param now      the time
    ProgressBar(Console& console, std::string label, std::uint64_t total,
                std::function<Clock::time_point()> now = Clock::now);

    /// Shows how far the transfer is. @param percent  0 to 100; 100 is left for Finish to tell
    void Show(unsigned int percent, std::uint64_t bytes);

    /// Writes the last line of a transfer that is complete. @param result  stands at its end
    void Finish(const std::string& result);

    /// Writes the last line of one that is not. @param reason  stands at its end
    void Fail(const std::string& reason);

private:
    double SecondsSince(Clock::time_point start) const;
    std::optional<double> Rate(std::uint64_t bytes);
    std::string Describe(std::uint64_t bytes);
    std::string Text(unsigned int percent, const std::string& rest) const;

    Console& m_console;
    const std::string m_label;
    const std::uint64_t m_total;
    const std::function<Clock::time_point()> m_now;
    const Clock::time_point m_start;
    std::optional<Clock::time_point> m_firstSeen;
    std::uint64_t m_firstBytes = 0;
    unsigned int m_nextLine = 25;  // the percentage at which there is another line
};

}  // namespace ky_tools

#endif
