#include "tferctl/Table.h"

#include <algorithm>
#include <utility>

#include "common/Text.h"

namespace ky_tferctl {
namespace {

constexpr std::size_t s_mostColumns = 40;
constexpr char s_gap[] = "  ";

}  // namespace

Table::Table(std::vector<std::string> titles, std::vector<Align> aligns)
    : m_aligns(std::move(aligns)), m_widths(m_aligns.size(), 0) {
    Add(std::move(titles));
}

void Table::Add(std::vector<std::string> cells) {
    for (std::size_t i = 0; i < cells.size(); ++i) {
        cells[i] = ky_tools::Printable(std::move(cells[i]));
        m_widths[i] = std::max(m_widths[i], std::min(ky_tools::Length(cells[i]), s_mostColumns));
    }
    m_rows.push_back(std::move(cells));
}

std::string Table::Text() const {
    std::string text;
    for (const auto& cells : m_rows)
        text += (text.empty() ? "" : "\n") + Row(cells);
    return text;
}

std::string Table::Row(const std::vector<std::string>& cells) const {
    std::string row;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        const std::size_t length = ky_tools::Length(cells[i]);
        const std::string fill(m_widths[i] - std::min(length, m_widths[i]), ' ');
        row += (i == 0 ? "" : s_gap) + (m_aligns[i] == Align::LEFT ? cells[i] + fill : fill + cells[i]);
    }
    return row.substr(0, row.find_last_not_of(' ') + 1);
}

}  // namespace ky_tferctl
