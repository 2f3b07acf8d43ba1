#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

/// Removes the next piece, up to the separator, from the front of the text. False when no text is left, also
/// after a last separator.
inline bool next_piece(std::string_view& text, char separator, std::string_view& piece) {
    if (text.empty())
        return false;
    const std::size_t end = std::min(text.find(separator), text.size());
    piece = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return true;
}

/// Removes the next line that is not empty from the front of the text. A carriage return at its end is left
/// out. False when no text is left.
inline bool next_line(std::string_view& text, std::string_view& line) {
    while (next_piece(text, '\n', line)) {
        if (line.empty())
            continue;
        if (line.back() == '\r')
            line.remove_suffix(1);
        return true;
    }
    return false;
}
