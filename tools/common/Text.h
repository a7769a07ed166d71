#ifndef COMMON_TEXT_H
#define COMMON_TEXT_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace ky_tools {

/// The text with control characters shown as "?", so that a file's name cannot play with the terminal; those
/// of two bytes in UTF-8 too.
std::string Printable(std::string text);

/// The UTF-8 text cut to `columns` characters; a cut one ends with "~".
std::string Cut(const std::string& text, std::size_t columns);

/// The text cut to `columns` characters and filled up with blanks.
std::string Padded(const std::string& text, std::size_t columns);

/// How many characters the UTF-8 text has.
std::size_t Length(const std::string& text);

/// An amount of bytes for a person, in the largest unit that suits it: "512 bytes", "300.0 KiB".
std::string Bytes(std::uint64_t bytes);

/// Two such amounts in the second one's unit: "150.0 of 300.0 KiB".
std::string BytesOf(std::uint64_t part, std::uint64_t whole);

/// "2.6 s"
std::string Seconds(double seconds);

/// Whole seconds, rounded up: "42 s", "2:05 min", "1:00:09 h"; "long" for more than 99 hours.
std::string Duration(double seconds);

}  // namespace ky_tools

#endif
