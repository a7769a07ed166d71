#ifndef TFERCTL_TEXT_H
#define TFERCTL_TEXT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// Text for people to read. All texts are UTF-8; a column is a character.
namespace ky_tferctl {

/// The text with "?" in place of control characters, so that file names cannot control the terminal.
std::string Printable(std::string text);

/// The text cut to `columns` characters; a cut text ends with "~".
std::string Cut(const std::string& text, std::size_t columns);

/// The text cut to `columns` characters, or filled up with blanks.
std::string Padded(const std::string& text, std::size_t columns);

/// Number of characters.
std::size_t Length(const std::string& text);

/// An amount of bytes, in the largest unit of which there is at least one: "512 bytes", "300.0 KiB".
std::string Bytes(std::uint64_t bytes);

/// Two such amounts in the second one's unit: "150.0 of 300.0 KiB".
std::string BytesOf(std::uint64_t part, std::uint64_t whole);

/// "2.6 s"
std::string Seconds(double seconds);

/// Whole seconds, rounded up: "42 s", "2:05 min", "1:00:09 h"; "long" for more than 99 hours.
std::string Duration(double seconds);

/// Rows of cells in aligned columns. A column is as wide as its longest cell, but at most 40 characters: a
/// longer cell is not cut and shifts the rest of its row. Control characters are shown as "?".
class Table {
public:
    enum class Align { LEFT, RIGHT };

    /// @param titles  of the columns, as many as `aligns`
    Table(std::vector<std::string> titles, std::vector<Align> aligns);

    /// @param cells  as many as there are columns
    void Add(std::vector<std::string> cells);

    /// The rows, titles first, without a line end after the last row.
    std::string Text() const;

private:
    std::string Row(const std::vector<std::string>& cells) const;

    const std::vector<Align> m_aligns;
    std::vector<std::size_t> m_widths;
    std::vector<std::vector<std::string>> m_rows;
};

}  // namespace ky_tferctl

#endif
