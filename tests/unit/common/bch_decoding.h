#pragma once

// What the tests of the BCH decoder share.

#include "bch_encoding.h"
#include "common/bch/decoder.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <random>
#include <vector>

namespace bch_tests {

using Remainder = BchDecoder::Remainder;
using Flips = BchDecoder::Flips;
using Bits = std::vector<uint16_t>;  // of a unit, ascending

inline constexpr std::size_t kUnitBits = std::size_t{8} * BchDecoder::kUnitBytes;

// The code is linear, so a pattern of wrong bits leaves the sum of what its bits leave.
inline Remainder operator^(Remainder a, const Remainder& b) {
    for (std::size_t k = 0; k < 4; ++k)
        a.word[k] ^= b.word[k];
    return a;
}

// The bits that are found; nothing when they are refused.
inline std::optional<Bits> bits_of(const Flips& flips) {
    EXPECT_TRUE(flips.correctable || flips.count == 0);
    if (!flips.correctable)
        return std::nullopt;
    return Bits(flips.bits.begin(), flips.bits.begin() + flips.count);
}

inline Bits random_bits(std::size_t count, std::mt19937& generator) {
    Bits bits;
    while (bits.size() < count) {
        const auto bit = static_cast<uint16_t>(generator() % kUnitBits);
        if (std::ranges::find(bits, bit) == bits.end())
            bits.push_back(bit);
    }
    std::ranges::sort(bits);
    return bits;
}

class BchDecoding : public BchTest {
protected:
    Remainder remainder_of(const Bytes& unit) const {
        const uint8_t* const address = unit.data();
        Remainder remainder;
        m_decoder.remainders(&address, 1, &remainder);
        return remainder;
    }

    // What a wrong bit leaves, for each bit of a unit.
    const std::vector<Remainder>& remainders_of_bits() const {
        static const std::vector<Remainder> remainders = [this] {
            Bytes unit = encoded(random_message(0));
            std::vector<Remainder> result;
            for (std::size_t bit = 0; bit < kUnitBits; ++bit) {
                flip_bit(unit, bit);
                result.push_back(remainder_of(unit));
                flip_bit(unit, bit);
            }
            return result;
        }();
        return remainders;
    }

    Remainder remainder_of_bits(const Bits& bits) const {
        Remainder sum{};
        for (const uint16_t bit : bits)
            sum = sum ^ remainders_of_bits()[bit];
        return sum;
    }

    std::optional<Bits> find(const Bits& wrong_bits) const {
        return bits_of(m_decoder.find_flips(remainder_of_bits(wrong_bits)));
    }

    const BchDecoder m_decoder{};
};

}  // namespace bch_tests
