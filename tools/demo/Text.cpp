#include "demo/Text.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace ky_demo {
namespace {

struct Unit {
    double bytes;
    const char* name;
    int decimals;
};

Unit UnitFor(std::uint64_t bytes) {
    constexpr std::uint64_t step = 1024;
    if (bytes < step) return {1.0, "bytes", 0};
    if (bytes < step * step) return {1024.0, "KiB", 1};
    if (bytes < step * step * step) return {1024.0 * 1024.0, "MiB", 1};
    return {1024.0 * 1024.0 * 1024.0, "GiB", 1};
}

std::string Fixed(double value, int decimals) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%.*f", decimals, value);
    return text.data();
}

std::string In(const Unit& unit, std::uint64_t bytes) {
    return Fixed(static_cast<double>(bytes) / unit.bytes, unit.decimals);
}

// A character of several bytes has one that is no continuation: its first.
bool StartsCharacter(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0) != 0x80;
}

std::size_t Length(const std::string& text) {
    std::size_t length = 0;
    for (const char byte : text)
        if (StartsCharacter(byte)) ++length;
    return length;
}

}  // namespace

std::string Printable(std::string text) {
    for (char& byte : text)
        if (static_cast<unsigned char>(byte) < ' ' || byte == '\x7F') byte = '?';
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

}  // namespace ky_demo
