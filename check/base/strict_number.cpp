#include "strict_number.h"

#include <charconv>
#include <system_error>

std::optional<uint64_t> strict_number(std::string_view text) {
    uint64_t unit = 1;
    const std::string_view units = "KMG";
    if (const std::size_t power = text.empty() ? text.npos : units.find(text.back()); power != text.npos) {
        unit <<= 10 * (power + 1);
        text.remove_suffix(1);
    }
    int base = 10;
    if (text.starts_with("0x")) {
        base = 16;
        text.remove_prefix(2);
    }
    uint64_t value = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value, base);
    if (error != std::errc() || rest != end || value > UINT64_MAX / unit)
        return std::nullopt;
    return value * unit;
}
