#include "flip_lines.h"

#include "../base/result.h"

#include <cstdio>
#include <numeric>

namespace {

constexpr const char* kGap = "   ";

}  // namespace

std::string flips_per_unit(const UnitCounts& counts) {
    std::string text = "flips per unit";
    for (std::size_t n = 0; n < counts.flips.size(); ++n) {
        text += kGap + std::to_string(n);
        const std::size_t first = n;
        while (counts.flips[first] == 0 && n + 1 < counts.flips.size() && counts.flips[n + 1] == 0)
            ++n;
        if (n != first)
            text += " to " + std::to_string(n);
        text += ": " + std::to_string(counts.flips[first]);
    }
    return text + kGap + "beyond: " + std::to_string(counts.beyond);
}

std::string directions(const UnitCounts& counts) {
    std::string text =
        "1 to 0: " + std::to_string(counts.cleared) + kGap + "0 to 1: " + std::to_string(counts.set);
    const std::optional<double> rate = bit_error_rate(counts);
    if (!rate)
        return text;
    char digits[32];
    std::snprintf(digits, sizeof digits, *rate == 0 ? "%.0f" : "%.1e", *rate);
    return text + kGap + "bit error rate " + digits;
}

std::optional<double> bit_error_rate(const UnitCounts& counts) {
    const uint64_t known = std::accumulate(counts.flips.begin(), counts.flips.end(), uint64_t{0});
    const uint64_t written = known - counts.erased_right;
    if (written == 0)
        return std::nullopt;
    const uint64_t flips = counts.flipped_bits() - counts.erased_flips;
    return static_cast<double>(flips) / (static_cast<double>(written) * 8 * kUnit);
}
