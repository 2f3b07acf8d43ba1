#pragma once

#include <algorithm>
#include <string_view>

/// Takes the next piece up to the separator off the text. False at its end, also behind a last separator.
inline bool next_piece(std::string_view& text, char separator, std::string_view& piece) {
    if (text.empty())
        return false;
    const std::size_t end = std::min(text.find(separator), text.size());
    piece = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return true;
}

/// Takes the next line that is not empty off the text and one carriage return off its end. False at the
/// text's end.
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
