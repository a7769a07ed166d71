#include "common/ProgressBar.h"

#include <algorithm>
#include <utility>

#include "common/Text.h"

namespace ky_tools {
namespace {

constexpr unsigned int s_quarter = 25;
constexpr std::size_t s_labelColumns = 15;
constexpr std::size_t s_barColumns = 20;
constexpr std::size_t s_barEnds = 3;
constexpr std::size_t s_endColumns = 48;  // the percentage, and all that Describe says
constexpr double s_leastSeconds = 0.2;    // what is measured over less says nothing

std::string Bar(unsigned int percent, std::size_t columns) {
    const std::size_t full = columns * std::min(percent, 100U) / 100;
    return "[" + std::string(full, '#') + std::string(columns - full, '.') + "] ";
}

std::string Percentage(unsigned int percent) {
    const std::string digits = std::to_string(percent);
    return std::string(3 - std::min<std::size_t>(digits.size(), 3), ' ') + digits + "%";
}

}  // namespace

ProgressBar::ProgressBar(Console& console, std::string label, std::uint64_t total,
                         std::function<Clock::time_point()> now)
    : m_console(console),
      m_label(std::move(label)),
      m_total(total),
      m_now(std::move(now)),
      m_start(m_now()) {}

void ProgressBar::Show(unsigned int percent, std::uint64_t bytes) {
    const std::string text = Text(percent, Describe(bytes));
    if (m_console.IsTerminal()) {
        m_console.Redraw(text);
    } else if (percent >= m_nextLine && percent < 100) {
        m_console.Line(text);
        m_nextLine = (percent / s_quarter + 1) * s_quarter;
    }
}

void ProgressBar::Finish(const std::string& result) {
    m_console.Line(Text(100, Bytes(m_total) + " in " + Seconds(SecondsSince(m_start)) + ", " + result));
}

void ProgressBar::Fail(const std::string& reason) {
    m_console.Line("  " + Padded(m_label, s_labelColumns) + " FAILED: " + reason);
}

double ProgressBar::SecondsSince(Clock::time_point start) const {
    return std::chrono::duration<double>(m_now() - start).count();
}

// In bytes per second; nothing until there is something to measure.
std::optional<double> ProgressBar::Rate(std::uint64_t bytes) {
    if (!m_firstSeen || bytes < m_firstBytes) {
        m_firstSeen = m_now();
        m_firstBytes = bytes;
    }
    const double seconds = SecondsSince(*m_firstSeen);
    if (seconds < s_leastSeconds || bytes == m_firstBytes) return std::nullopt;
    return static_cast<double>(bytes - m_firstBytes) / seconds;
}

std::string ProgressBar::Describe(std::uint64_t bytes) {
    std::string amount = BytesOf(bytes, m_total);
    const std::optional<double> rate = Rate(bytes);
    if (!rate) return amount;
    const double left = static_cast<double>(m_total - std::min(bytes, m_total)) / *rate;
    return amount + ", " + Bytes(static_cast<std::uint64_t>(*rate)) + "/s, " + Duration(left) + " left";
}

std::string ProgressBar::Text(unsigned int percent, const std::string& rest) const {
    const std::string start = "  " + Padded(m_label, s_labelColumns) + " ";
    const std::string end = Percentage(percent) + "  " + rest;
    if (!m_console.IsTerminal()) return start + end;
    // Room is kept for the rate, so that the bar does not shrink when that comes.
    const std::size_t others = Length(start) + s_barEnds + std::max(end.size(), s_endColumns);
    const std::size_t columns = m_console.Columns();
    return start + Bar(percent, columns > others ? std::min(columns - others, s_barColumns) : 0) + end;
}

}  // namespace ky_tools
