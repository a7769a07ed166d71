#ifndef DEMO_PROGRESSBAR_H
#define DEMO_PROGRESSBAR_H

#include <chrono>
#include <cstdint>
#include <string>

#include "demo/Console.h"

namespace ky_demo {

/// The progress of one transfer: a bar that moves on a terminal, and elsewhere a line for each quarter.
///
/// Counts its time from its construction. One thread uses it.
class ProgressBar {
public:
    /// @param console  must outlive the bar
    /// @param label    cut to the bar's first columns
    /// @param total    bytes to move
    ProgressBar(Console& console, std::string label, std::uint64_t total);

    /// Shows how far the transfer is. @param percent  0 to 100; 100 is left for Finish to tell
    void Show(unsigned int percent, std::uint64_t bytes);

    /// Writes the last line of a transfer that is complete. @param result  stands at its end
    void Finish(const std::string& result);

    /// Writes the last line of one that is not. @param reason  stands at its end
    void Fail(const std::string& reason);

private:
    double Elapsed() const;
    std::string Text(unsigned int percent, const std::string& rest) const;

    using Clock = std::chrono::steady_clock;

    Console& m_console;
    const std::string m_label;
    const std::uint64_t m_total;
    const Clock::time_point m_start = Clock::now();
    unsigned int m_nextLine = 25;  // the percentage at which there is another line
};

}  // namespace ky_demo

#endif
