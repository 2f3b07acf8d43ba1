#pragma once

#include <algorithm>
#include <cctype>
#include <string>

/// The text with its capital letters as small ones.
inline std::string lower_case(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}
