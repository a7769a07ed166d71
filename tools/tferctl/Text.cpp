#include "tferctl/Text.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <utility>

namespace ky_tferctl {
namespace {

constexpr std::size_t kMaxCellColumns = 40;
constexpr char kGap[] = "  ";

struct Unit {
    double bytes;
    const char* name;
    int decimals;
};

Unit UnitFor(std::uint64_t bytes) {
    constexpr std::uint64_t kKibi = 1024;
    if (bytes < kKibi) return {1.0, "bytes", 0};
    if (bytes < kKibi * kKibi) return {1024.0, "KiB", 1};
    if (bytes < kKibi * kKibi * kKibi) return {1024.0 * 1024, "MiB", 1};
    return {1024.0 * 1024 * 1024, "GiB", 1};
}

std::string Fixed(double value, int decimals) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%.*f", decimals, value);
    return text.data();
}

std::string In(const Unit& unit, std::uint64_t bytes) {
    return Fixed(static_cast<double>(bytes) / unit.bytes, unit.decimals);
}

// In UTF-8, all bytes of a character but the first are continuation bytes.
bool StartsCharacter(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0) != 0x80;
}

}  // namespace

std::size_t Length(const std::string& text) {
    std::size_t length = 0;
    for (const char byte : text)
        if (StartsCharacter(byte)) ++length;
    return length;
}

std::string Printable(std::string text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte < ' ' || byte == 0x7F) text[i] = '?';
        const bool isC1Control = i > 0 && text[i - 1] == '\xC2' && byte >= 0x80 && byte < 0xA0;
        if (isC1Control) text[i - 1] = text[i] = '?';
    }
    return text;
}

std::string Cut(const std::string& text, std::size_t columns) {
    if (columns == 0) return {};
    if (Length(text) <= columns) return text;
    std::size_t end = 0;
    for (std::size_t seen = 0; end < text.size(); ++end)
        if (StartsCharacter(text[end]) && seen++ == columns - 1) break;
    return text.substr(0, end) + "~";
}

std::string Padded(const std::string& text, std::size_t columns) {
    const std::string cut = Cut(text, columns);
    return cut + std::string(columns - std::min(Length(cut), columns), ' ');
}

std::string Bytes(std::uint64_t bytes) {
    const Unit unit = UnitFor(bytes);
    return In(unit, bytes) + " " + unit.name;
}

std::string BytesOf(std::uint64_t part, std::uint64_t whole) {
    const Unit unit = UnitFor(whole);
    return In(unit, part) + " of " + In(unit, whole) + " " + unit.name;
}

std::string Seconds(double seconds) {
    return Fixed(seconds, 1) + " s";
}

std::string Duration(double seconds) {
    constexpr double kMaxSeconds = 99.0 * 3600;
    if (seconds > kMaxSeconds) return "long";
    const int whole = static_cast<int>(std::ceil(seconds));
    if (whole < 60) return std::to_string(whole) + " s";
    std::array<char, 64> text{};
    if (whole < 3600) {
        std::snprintf(text.data(), text.size(), "%d:%02d min", whole / 60, whole % 60);
    } else {
        std::snprintf(text.data(), text.size(), "%d:%02d:%02d h", whole / 3600, whole / 60 % 60, whole % 60);
    }
    return text.data();
}

Table::Table(std::vector<std::string> titles, std::vector<Align> aligns)
    : m_aligns(std::move(aligns)), m_widths(m_aligns.size(), 0) {
    Add(std::move(titles));
}

void Table::Add(std::vector<std::string> cells) {
    for (std::size_t i = 0; i < cells.size(); ++i) {
        cells[i] = Printable(std::move(cells[i]));
        m_widths[i] = std::max(m_widths[i], std::min(Length(cells[i]), kMaxCellColumns));
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
        const std::size_t length = Length(cells[i]);
        const std::string fill(m_widths[i] - std::min(length, m_widths[i]), ' ');
        row += (i == 0 ? "" : kGap) + (m_aligns[i] == Align::LEFT ? cells[i] + fill : fill + cells[i]);
    }
    return row.substr(0, row.find_last_not_of(' ') + 1);
}

}  // namespace ky_tferctl
