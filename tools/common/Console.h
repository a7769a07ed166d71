#ifndef COMMON_CONSOLE_H
#define COMMON_CONSOLE_H

#include <cstddef>
#include <cstdio>
#include <string>

namespace ky_tools {

/// A stream for a person to read: on a terminal, its last line can be redrawn. One thread uses it. A failed
/// write shows in the stream's own error mark alone.
class Console {
public:
    /// @param out  stays the caller's
    explicit Console(std::FILE* out);
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    /// Clears what Redraw has drawn.
    ~Console() { Clear(); }

    /// Whether Redraw shows anything.
    bool IsTerminal() const { return m_terminal; }

    /// The most characters that Redraw shows.
    std::size_t Columns() const;

    /// Writes whole lines, over what Redraw has drawn. @param text  may hold line ends; needs none at its end
    void Line(const std::string& text = std::string());

    /// Writes a line that begins a part of what is told.
    void Heading(const std::string& text);

    /// Draws the current line anew, cut to the terminal's width. Draws nothing where there is no terminal.
    void Redraw(const std::string& text);

    /// Takes away what Redraw has drawn.
    void Clear();

private:
    std::FILE* m_out;
    bool m_terminal;
    bool m_drawn = false;  // the current line holds something
};

}  // namespace ky_tools

#endif
