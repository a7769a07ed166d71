#include "tferctl/Console.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "tferctl/Text.h"

namespace ky_tferctl {
namespace {

constexpr char kClearLine[] = "\r\x1b[K";
constexpr unsigned int kQuarterPercent = 25;
constexpr std::size_t kLabelColumns = 15;
constexpr std::size_t kBarColumns = 20;
constexpr std::size_t kBarEndColumns = 3;
constexpr std::size_t kTextColumns = 48;  // longest percentage and Describe()
constexpr double kMinRateSeconds = 0.2;   // a rate over a shorter time is unreliable

bool CanRedraw(std::FILE* out) {
    const char* type = std::getenv("TERM");
    return isatty(fileno(out)) != 0 && type != nullptr && std::string(type) != "dumb";
}

std::string Bar(unsigned int percent, std::size_t columns) {
    const std::size_t full = columns * std::min(percent, 100U) / 100;
    return "[" + std::string(full, '#') + std::string(columns - full, '.') + "] ";
}

std::string Percentage(unsigned int percent) {
    const std::string digits = std::to_string(percent);
    return std::string(3 - std::min<std::size_t>(digits.size(), 3), ' ') + digits + "%";
}

}  // namespace

Console::Console(std::FILE* out) : m_out(out), m_terminal(CanRedraw(out)) {}

// The last column stays free: some terminals wrap after a character there.
std::size_t Console::Columns() const {
    constexpr std::size_t kUsualColumns = 80;
    winsize size = {};
    const bool known = ioctl(fileno(m_out), TIOCGWINSZ, &size) == 0 && size.ws_col > 1;
    return (known ? size.ws_col : kUsualColumns) - 1;
}

void Console::Line(const std::string& text) {
    Clear();
    std::fwrite(text.data(), 1, text.size(), m_out);
    std::fputc('\n', m_out);
    std::fflush(m_out);  // the reader of a pipe sees each line at once
}

void Console::Redraw(const std::string& text) {
    if (!m_terminal) return;
    std::fprintf(m_out, "%s%s", kClearLine, Cut(text, Columns()).c_str());
    std::fflush(m_out);
    m_drawn = true;
}

void Console::Clear() {
    if (m_drawn) std::fputs(kClearLine, m_out);
    m_drawn = false;
    std::fflush(m_out);
}

ProgressBar::ProgressBar(Console& console, std::string label, std::uint64_t total)
    : m_console(console), m_label(std::move(label)), m_total(total) {}

void ProgressBar::Show(unsigned int percent, std::uint64_t bytes) {
    const std::string text = Text(percent, Describe(bytes));
    if (m_console.IsTerminal()) {
        m_console.Redraw(text);
    } else if (percent >= m_nextLine && percent < 100) {
        m_console.Line(text);
        m_nextLine = (percent / kQuarterPercent + 1) * kQuarterPercent;
    }
}

void ProgressBar::Finish(const std::string& result) {
    m_console.Line(Text(100, Bytes(m_total) + " in " + Seconds(SecondsSince(m_start)) + ", " + result));
}

double ProgressBar::SecondsSince(Clock::time_point start) const {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Bytes per second; nothing before there is a reliable rate.
std::optional<double> ProgressBar::Rate(std::uint64_t bytes) {
    if (!m_firstSeen || bytes < m_firstBytes) {
        m_firstSeen = Clock::now();
        m_firstBytes = bytes;
    }
    const double seconds = SecondsSince(*m_firstSeen);
    if (seconds < kMinRateSeconds || bytes == m_firstBytes) return std::nullopt;
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
    const std::string start = "  " + Padded(m_label, kLabelColumns) + " ";
    const std::string end = Percentage(percent) + "  " + rest;
    if (!m_console.IsTerminal()) return start + end;
    // Room for the rate is reserved, so that the bar keeps its length when the rate appears.
    const std::size_t others = Length(start) + kBarEndColumns + std::max(end.size(), kTextColumns);
    const std::size_t columns = m_console.Columns();
    return start + Bar(percent, columns > others ? std::min(columns - others, kBarColumns) : 0) + end;
}

}  // namespace ky_tferctl
