#ifndef TFERCTL_CONSOLE_H
#define TFERCTL_CONSOLE_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <optional>
#include <string>

namespace ky_tferctl {

/// Output for a person: on a terminal, the last line can be redrawn. One thread uses it. A failed write sets
/// the stream's error indicator.
class Console {
public:
    /// @param out  stays the caller's
    explicit Console(std::FILE* out);
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    /// Clears the redrawn line.
    ~Console() { Clear(); }

    /// Whether Redraw() shows anything.
    bool IsTerminal() const { return m_terminal; }

    /// The most characters that Redraw() shows.
    std::size_t Columns() const;

    /// Clears the redrawn line and writes whole lines. @param text  without the last line end
    void Line(const std::string& text);

    /// Redraws the last line, cut to the terminal's width. Does nothing without a terminal.
    void Redraw(const std::string& text);

    /// Clears the redrawn line.
    void Clear();

private:
    std::FILE* m_out;
    bool m_terminal;
    bool m_drawn = false;
};

/// Progress of one transfer, its rate and the time left: a bar on a terminal, otherwise a line for each
/// quarter.
///
/// The time counts from the construction. The rate counts from the first bytes, without the time that the
/// device takes to start. One thread uses it.
class ProgressBar {
public:
    using Clock = std::chrono::steady_clock;

    /// @param console  must outlive the bar
    /// @param label    cut if it is too long
    /// @param total    bytes to move
    ProgressBar(Console& console, std::string label, std::uint64_t total);

    /// @param percent  0 to 100
    /// @param bytes    moved so far
    void Show(unsigned int percent, std::uint64_t bytes);

    /// Writes the last line of a complete transfer. @param result  appended to that line: where the file is
    void Finish(const std::string& result);

private:
    double SecondsSince(Clock::time_point start) const;
    std::optional<double> Rate(std::uint64_t bytes);
    std::string Describe(std::uint64_t bytes);
    std::string Text(unsigned int percent, const std::string& rest) const;

    Console& m_console;
    const std::string m_label;
    const std::uint64_t m_total;
    const Clock::time_point m_start = Clock::now();
    std::optional<Clock::time_point> m_firstSeen;
    std::uint64_t m_firstBytes = 0;
    unsigned int m_nextLine = 25;  // percentage of the next line, without a terminal
};

}  // namespace ky_tferctl

#endif
