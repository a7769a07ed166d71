#include "common/Console.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>

#include "common/Text.h"

namespace ky_tools {
namespace {

constexpr char s_startOfLine[] = "\r\x1b[K";  // and clears it
constexpr char s_bold[] = "\x1b[1m";
constexpr char s_plain[] = "\x1b[0m";

bool CanRedraw(std::FILE* out) {
    const char* type = std::getenv("TERM");
    return isatty(fileno(out)) != 0 && type != nullptr && std::string(type) != "dumb";
}

}  // namespace

Console::Console(std::FILE* out) : m_out(out), m_terminal(CanRedraw(out)) {}

// The last column stays free: a character there makes some terminals go to the next line.
std::size_t Console::Columns() const {
    constexpr std::size_t usual = 80;
    winsize size = {};
    const bool known = ioctl(fileno(m_out), TIOCGWINSZ, &size) == 0 && size.ws_col > 1;
    return (known ? size.ws_col : usual) - 1;
}

void Console::Line(const std::string& text) {
    Clear();
    std::fwrite(text.data(), 1, text.size(), m_out);
    std::fputc('\n', m_out);
    std::fflush(m_out);  // also a pipe's reader sees things when they happen
}

void Console::Heading(const std::string& text) {
    Line(m_terminal ? s_bold + text + s_plain : text);
}

void Console::Redraw(const std::string& text) {
    if (!m_terminal) return;
    std::fprintf(m_out, "%s%s", s_startOfLine, Cut(text, Columns()).c_str());
    std::fflush(m_out);
    m_drawn = true;
}

void Console::Clear() {
    if (m_drawn) std::fputs(s_startOfLine, m_out);
    m_drawn = false;
    std::fflush(m_out);
}

}  // namespace ky_tools
