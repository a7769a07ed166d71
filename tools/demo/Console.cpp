#include "demo/Console.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>

#include "demo/Text.h"

namespace ky_demo {
namespace {

constexpr char s_startOfLine[] = "\r\x1b[K";  // and clears it
constexpr char s_bold[] = "\x1b[1m";
constexpr char s_plain[] = "\x1b[0m";

bool CanRedraw(std::FILE* out) {
    const char* type = std::getenv("TERM");
    return isatty(fileno(out)) != 0 && type != nullptr && std::string(type) != "dumb";
}

std::size_t ColumnsOf(std::FILE* terminal) {
    constexpr std::size_t usual = 80;
    winsize size = {};
    return ioctl(fileno(terminal), TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : usual;
}

}  // namespace

Console::Console(std::FILE* out) : m_out(out), m_terminal(CanRedraw(out)) {}

void Console::Line(const std::string& text) {
    std::fprintf(m_out, "%s%s\n", m_drawn ? s_startOfLine : "", text.c_str());
    std::fflush(m_out);  // also a pipe's reader sees things when they happen
    m_drawn = false;
}

void Console::Heading(const std::string& text) {
    Line(m_terminal ? s_bold + text + s_plain : text);
}

// The last column stays free: a character there makes some terminals go to the next line.
void Console::Redraw(const std::string& text) {
    if (!m_terminal) return;
    std::fprintf(m_out, "%s%s", s_startOfLine, Cut(text, ColumnsOf(m_out) - 1).c_str());
    std::fflush(m_out);
    m_drawn = true;
}

}  // namespace ky_demo
