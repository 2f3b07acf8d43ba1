#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// Words and numbers that the reports share.

/// True when all of the text is UTF-8: no overlong forms, no surrogates, nothing after U+10FFFF.
bool is_utf8(std::string_view text);

/// Text that came from a file, for people: what is not UTF-8, control characters and others that are not seen
/// but change how the text reads, as \xNN for each byte. An escaped text stays the same when escaped again.
std::string escaped(const std::string& text);

/// The escaped text in at most width characters: a longer one is cut and ends in "...". An escape is not cut
/// apart. width is at least 3.
std::string shortened(std::string_view text, std::size_t width);

/// Characters of a text that was escaped: what it takes in a column.
std::size_t characters(std::string_view escaped_text);

/// Number and noun: "1 page", "2 pages".
std::string counted(uint64_t number, std::string_view noun);

/// Says that the dump of a chip does not have one page. bytes: after its header, if it has one.
std::string less_than_a_page(uint64_t bytes, bool has_header, uint64_t page);

/// Bytes as people read them: "512 bytes", "37.0 MiB". One digit after the point, cut off.
std::string readable_bytes(uint64_t bytes);

/// A value in hexadecimal, with 0x and at least so many digits.
std::string hexadecimal(uint64_t value, std::size_t digits = 1);

/// "a", "a and b", "a, b and c".
std::string enumerated(const std::vector<std::string>& pieces);

/// The pieces with the separator between them.
std::string joined(const std::vector<std::string>& pieces, std::string_view separator);

/// Appends a line without spaces at its end, and a line feed.
void add_line(std::string& out, std::string_view line);

enum class Color { kGreen, kRed, kYellow };

/// The word, between escape sequences when color is wanted.
std::string painted(std::string_view word, Color hue, bool color);
