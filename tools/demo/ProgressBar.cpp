#include "demo/ProgressBar.h"

#include <algorithm>
#include <utility>

#include "demo/Text.h"

namespace ky_demo {
namespace {

constexpr unsigned int s_quarter = 25;
constexpr std::size_t s_labelColumns = 15;
constexpr std::size_t s_barColumns = 20;

std::string Bar(unsigned int percent) {
    const std::size_t full = s_barColumns * std::min(percent, 100U) / 100;
    return "[" + std::string(full, '#') + std::string(s_barColumns - full, '.') + "]";
}

std::string Percentage(unsigned int percent) {
    const std::string digits = std::to_string(percent);
    return std::string(3 - std::min<std::size_t>(digits.size(), 3), ' ') + digits + "%";
}

}  // namespace

ProgressBar::ProgressBar(Console& console, std::string label, std::uint64_t total)
    : m_console(console), m_label(std::move(label)), m_total(total) {}

void ProgressBar::Show(unsigned int percent, std::uint64_t bytes) {
    const auto rate = static_cast<std::uint64_t>(static_cast<double>(bytes) / std::max(Elapsed(), 0.001));
    const std::string text = Text(percent, BytesOf(bytes, m_total) + ", " + Bytes(rate) + "/s");
    if (m_console.IsTerminal()) {
        m_console.Redraw(text);
    } else if (percent >= m_nextLine && percent < 100) {
        m_console.Line(text);
        m_nextLine = (percent / s_quarter + 1) * s_quarter;
    }
}

void ProgressBar::Finish(const std::string& result) {
    m_console.Line(Text(100, Bytes(m_total) + " in " + Seconds(Elapsed()) + ", " + result));
}

void ProgressBar::Fail(const std::string& reason) {
    m_console.Line("  " + Padded(m_label, s_labelColumns) + " FAILED, see the log: " + reason);
}

double ProgressBar::Elapsed() const {
    return std::chrono::duration<double>(Clock::now() - m_start).count();
}

std::string ProgressBar::Text(unsigned int percent, const std::string& rest) const {
    const std::string bar = m_console.IsTerminal() ? Bar(percent) + " " : "";
    return "  " + Padded(m_label, s_labelColumns) + " " + bar + Percentage(percent) + "  " + rest;
}

}  // namespace ky_demo
