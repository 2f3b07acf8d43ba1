#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

/// Bits that differ.
struct BitFlips {
    uint64_t cleared = 0;  ///< are 0 and should be 1
    uint64_t set = 0;      ///< are 1 and should be 0

    uint64_t all() const { return cleared + set; }
};

/// Bits of actual that are not as expected, in size bytes. Stops soon after there are more than most.
inline BitFlips flips_between(const uint8_t* expected, const uint8_t* actual, uint64_t size, uint64_t most) {
    BitFlips flips;
    const auto add = [&](uint64_t right, uint64_t found) {
        flips.cleared += static_cast<uint64_t>(std::popcount(right & ~found));
        flips.set += static_cast<uint64_t>(std::popcount(found & ~right));
    };
    uint64_t at = 0;
    for (; at + sizeof(uint64_t) <= size && flips.all() <= most; at += sizeof(uint64_t)) {
        uint64_t right = 0;
        uint64_t found = 0;
        std::memcpy(&right, expected + at, sizeof right);
        std::memcpy(&found, actual + at, sizeof found);
        if (right != found)
            add(right, found);
    }
    for (; at < size && flips.all() <= most; ++at)
        add(expected[at], actual[at]);
    return flips;
}
