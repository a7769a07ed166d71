#ifndef TFERCTL_TABLE_H
#define TFERCTL_TABLE_H

#include <cstddef>
#include <string>
#include <vector>

namespace ky_tferctl {

/// Text in columns, as wide as what is in them: but no cell makes its column wider than 40 characters. A
/// longer one is shown whole and shifts the rest of its row. Control characters are shown as "?".
class Table {
public:
    enum class Align { LEFT, RIGHT };

    /// @param titles  of the columns, as many as `aligns`
    Table(std::vector<std::string> titles, std::vector<Align> aligns);

    /// @param cells  as many as there are columns
    void Add(std::vector<std::string> cells);

    /// The rows, titles first, with a line end after each but the last.
    std::string Text() const;

private:
    std::string Row(const std::vector<std::string>& cells) const;

    const std::vector<Align> m_aligns;
    std::vector<std::size_t> m_widths;
    std::vector<std::vector<std::string>> m_rows;
};

}  // namespace ky_tferctl

#endif
