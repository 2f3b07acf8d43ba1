#include "words.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <span>

namespace {

/// The first character of a text. Bytes that are not UTF-8 are characters of one byte.
struct Character {
    std::size_t bytes = 1;
    uint32_t code = 0;
    bool utf8 = false;
};

Character first_character(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<uint8_t>(text[i]); };
    const uint8_t head = byte(0);
    if (head < 0x80)
        return {1, head, true};
    if (head < 0xC2 || head > 0xF4)
        return {};

    const std::size_t size = head < 0xE0 ? 2 : head < 0xF0 ? 3 : 4;
    if (text.size() < size)
        return {};
    uint32_t code = head & (0x7Fu >> size);
    for (std::size_t i = 1; i < size; i++) {
        if ((byte(i) & 0xC0) != 0x80)
            return {};
        code = code << 6 | (byte(i) & 0x3Fu);
    }

    constexpr std::array<uint32_t, 5> kLeastCode = {0, 0, 0x80, 0x800, 0x10000};
    const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
    if (code < kLeastCode[size] || code > 0x10FFFF || surrogate)
        return {};
    return {size, code, true};
}

struct CodeRange {
    uint32_t first;
    uint32_t last;
};

/// Characters that act on a terminal or on the text around them instead of being seen.
constexpr CodeRange kUnseen[] = {
    {0x00, 0x1F},        // control characters
    {0x7F, 0x9F},        // delete, and the second set of control characters
    {0x200B, 0x200F},    // of no width; direction marks
    {0x2028, 0x202E},    // line and paragraph separator; direction of the text after them
    {0x2060, 0x206F},    // the same
    {0xFEFF, 0xFEFF},    // byte order mark
    {0xE0000, 0xE007F},  // tags
};

bool is_seen(const Character& character) {
    if (!character.utf8)
        return false;
    return std::none_of(std::begin(kUnseen), std::end(kUnseen), [&](const CodeRange& range) {
        return character.code >= range.first && character.code <= range.last;
    });
}

constexpr std::string_view kHexDigits = "0123456789abcdef";

/// Removes the first character from the front of the text. Returns what stands for it in a report.
std::string next_escaped(std::string_view& text) {
    const Character character = first_character(text);
    const std::string_view bytes = text.substr(0, character.bytes);
    text.remove_prefix(character.bytes);
    if (is_seen(character))
        return std::string(bytes);

    std::string escape;
    for (const char byte : bytes) {
        const auto value = static_cast<uint8_t>(byte);
        escape += "\\x";
        escape += kHexDigits[value >> 4];
        escape += kHexDigits[value & 15];
    }
    return escape;
}

}  // namespace

bool is_utf8(std::string_view text) {
    while (!text.empty()) {
        const Character character = first_character(text);
        if (!character.utf8)
            return false;
        text.remove_prefix(character.bytes);
    }
    return true;
}

// A backslash stays as it is, so that a text that was escaped before does not change.
std::string escaped(const std::string& text) {
    std::string out;
    for (std::string_view left = text; !left.empty();)
        out += next_escaped(left);
    return out;
}

std::string shortened(std::string_view text, std::size_t width) {
    constexpr std::string_view kEllipsis = "...";
    assert(width >= kEllipsis.size());
    std::string out;
    std::size_t used = 0;
    std::size_t end_of_cut = 0;  // where the ellipsis goes if the text turns out to be too long
    while (!text.empty()) {
        const std::string piece = next_escaped(text);
        used += characters(piece);
        if (used > width)
            return out.substr(0, end_of_cut).append(kEllipsis);
        out += piece;
        if (used + kEllipsis.size() <= width)
            end_of_cut = out.size();
    }
    return out;
}

std::size_t characters(std::string_view escaped_text) {
    std::size_t count = 0;
    for (; !escaped_text.empty(); count++)
        escaped_text.remove_prefix(first_character(escaped_text).bytes);
    return count;
}

std::string counted(uint64_t number, std::string_view noun) {
    std::string text = std::to_string(number) + ' ';
    text += noun;
    if (number != 1)
        text += 's';
    return text;
}

std::string less_than_a_page(uint64_t bytes, bool has_header, uint64_t page) {
    return "the dump has " + counted(bytes, "byte") + (has_header ? " after its header" : "") +
           ", which is less than a page of " + std::to_string(page);
}

std::string readable_bytes(uint64_t bytes) {
    constexpr std::array<std::string_view, 4> kUnits = {"KiB", "MiB", "GiB", "TiB"};
    if (bytes < 1024)
        return counted(bytes, "byte");
    std::size_t unit = 0;
    uint64_t size = 1024;
    while (unit + 1 < kUnits.size() && bytes / 1024 >= size) {
        size *= 1024;
        unit++;
    }
    std::string text = std::to_string(bytes / size) + '.';
    text += std::to_string(bytes % size * 10 / size);
    return (text += ' ').append(kUnits[unit]);
}

std::string hexadecimal(uint64_t value, std::size_t digits) {
    std::string text;
    for (; value != 0 || text.size() < digits; value >>= 4)
        text += kHexDigits[value & 15];
    std::reverse(text.begin(), text.end());
    return "0x" + text;
}

std::string enumerated(const std::vector<std::string>& pieces) {
    if (pieces.size() < 2)
        return joined(pieces, "");
    const std::vector<std::string> but_the_last(pieces.begin(), pieces.end() - 1);
    return joined(but_the_last, ", ") + " and " + pieces.back();
}

std::string joined(const std::vector<std::string>& pieces, std::string_view separator) {
    std::string text;
    for (const std::string& piece : pieces) {
        if (&piece != &pieces.front())
            text += separator;
        text += piece;
    }
    return text;
}

void add_line(std::string& out, std::string_view line) {
    const std::size_t last = line.find_last_not_of(' ');
    out += line.substr(0, last == std::string_view::npos ? 0 : last + 1);
    out += '\n';
}

std::string painted(std::string_view word, Color hue, bool color) {
    if (!color)
        return std::string(word);
    const std::string_view start = hue == Color::kGreen ? "\033[32m"
                                   : hue == Color::kRed ? "\033[31m"
                                                        : "\033[33m";
    return std::string(start).append(word).append("\033[0m");
}
