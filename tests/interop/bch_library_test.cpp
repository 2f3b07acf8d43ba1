// The decoder of libitpp judges units. It has another primitive polynomial, x^14 + x^5 + x^3 + x + 1, and the
// whole length of 2^14 - 1 bits. Its code is ours with the bits at other places: if beta, a root of that
// polynomial, is alpha^e, then alpha^i is beta^(i / e). So the bit of power i goes to the power i / e.

#include "common/bch.h"
#include "common/bch/decoder.h"
#include "support/bytes.h"

#include <gtest/gtest.h>

#ifdef NANDSMITH_ITPP

#include <itpp/comm/bch.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

using test_support::Bytes;

constexpr int kLength = 16383;
constexpr int kParityBits = 224;
constexpr int kUnitBits = 8448;
constexpr int kFlips = 16;

int product(int a, int b, int polynomial) {
    int result = 0;
    for (int bit = 1 << 13; bit != 0; bit >>= 1) {
        result <<= 1;
        if ((result & 1 << 14) != 0)
            result ^= polynomial;
        if ((b & bit) != 0)
            result ^= a;
    }
    return result;
}

std::vector<int> powers_of_x(int polynomial) {
    std::vector<int> powers{1};
    while (powers.size() < kLength)
        powers.push_back(product(powers.back(), 2, polynomial));
    return powers;
}

constexpr int kOurs = 0x41D5;
constexpr int kTheirs = 0x402B;

// 1 / e, modulo the length.
int place_factor() {
    const std::vector<int> powers = powers_of_x(kOurs);
    const auto power = [&](int e, int exponent) {
        return powers[static_cast<std::size_t>(e * exponent % kLength)];
    };
    int e = 1;
    while ((power(e, 14) ^ power(e, 5) ^ power(e, 3) ^ power(e, 1) ^ 1) != 0)
        ++e;
    int inverse = 1;
    while (inverse * e % kLength != 1)
        ++inverse;
    return inverse;
}

// Their generator in octal digits, highest coefficient first.
itpp::ivec generator() {
    const std::vector<int> powers = powers_of_x(kTheirs);
    std::set<int> roots;
    for (int i = 1; i <= 2 * kFlips; ++i)
        for (int j = 0, exponent = i; j < 14; ++j, exponent = 2 * exponent % kLength)
            roots.insert(exponent);
    std::vector<int> coefficients{1};  // lowest first
    for (const int root : roots) {
        coefficients.insert(coefficients.begin(), 0);
        for (std::size_t i = 0; i + 1 < coefficients.size(); ++i)
            coefficients[i] ^= product(coefficients[i + 1], powers[static_cast<std::size_t>(root)], kTheirs);
    }
    std::string digits;
    for (std::size_t i = coefficients.size(); i >= 3; i -= 3)
        digits +=
            std::to_string(4 * coefficients[i - 1] + 2 * coefficients[i - 2] + coefficients[i - 3]) + ' ';
    return itpp::ivec(digits);
}

using Bits = std::set<int>;  // of a unit

class Library {
public:
    // The wrong bits of a unit; nothing when it does not find them. It hands over the message alone, which
    // is the first bits of a word. The code is cyclic, so the word is decoded a second time after it is
    // turned by the length of the parity.
    std::optional<Bits> wrong_bits(const Bytes& unit) {
        Bits wrong;
        for (const int turn : {0, kParityBits}) {
            itpp::bvec word(kLength);
            word.zeros();
            // Erased units are valid, so it is the complements of units that are codewords.
            for (int bit = 0; bit < kUnitBits; ++bit)
                word[place(bit, turn)] = (unit[static_cast<std::size_t>(bit / 8)] >> bit % 8 & 1) == 0;
            itpp::bvec message, valid;
            if (!m_code.decode(word, message, valid))
                return std::nullopt;
            int found = 0;
            for (int i = 0; i < message.length(); ++i)
                found += message[i] != word[i] ? 1 : 0;
            for (int bit = 0; bit < kUnitBits; ++bit) {
                const int i = place(bit, turn);
                if (i >= message.length() || message[i] == word[i])
                    continue;
                wrong.insert(bit);
                --found;
            }
            if (found != 0)  // at a place that a unit does not have
                return std::nullopt;
        }
        return wrong;
    }

private:
    // Of a bit of a unit, in a word whose highest power is first.
    int place(int bit, int turn) const {
        const int power = (kUnitBits - 1 - bit) * m_factor % kLength;
        return (kLength - 1 - power + kLength - turn) % kLength;
    }

    int m_factor = place_factor();
    itpp::BCH m_code{kLength, kLength - kParityBits, kFlips, generator(), true};
};

Bits random_bits(int count, std::mt19937& random) {
    Bits bits;
    while (bits.size() < static_cast<std::size_t>(count))
        bits.insert(static_cast<int>(random() % kUnitBits));
    return bits;
}

Bytes unit_with(const Bits& wrong_bits, uint32_t seed) {
    Bytes unit = test_support::patterned(BchDecoder::kUnitBytes, seed);
    bch_encode(unit.data(), unit.data());
    for (const int bit : wrong_bits) {
        uint8_t& byte = unit[static_cast<std::size_t>(bit / 8)];
        byte = static_cast<uint8_t>(byte ^ 1 << bit % 8);
    }
    return unit;
}

std::optional<Bits> found_by_us(const Bytes& unit) {
    const BchDecoder decoder;
    const uint8_t* const address = unit.data();
    BchDecoder::Remainder remainder;
    decoder.remainders(&address, 1, &remainder);
    const BchDecoder::Flips flips = decoder.find_flips(remainder);
    if (!flips.correctable)
        return std::nullopt;
    return Bits(flips.bits.begin(), flips.bits.begin() + flips.count);
}

TEST(BchLibrary, FindsTheFlipsThatTheDecoderFinds) {
    bch_init(16);
    Library library;
    std::mt19937 random(1);
    for (int count = 0; count <= kFlips; ++count) {
        for (uint32_t seed = 0; seed < 3; ++seed) {
            const Bits bits = random_bits(count, random);
            const Bytes unit = unit_with(bits, seed);
            ASSERT_EQ(library.wrong_bits(unit), bits) << count << " flips";
            ASSERT_EQ(found_by_us(unit), bits) << count << " flips";
        }
    }
}

TEST(BchLibrary, RefusesTheUnitsThatTheDecoderRefuses) {
    bch_init(16);
    Library library;
    std::mt19937 random(2);
    for (int count = kFlips + 1; count <= 64; ++count) {
        const Bytes unit = unit_with(random_bits(count, random), static_cast<uint32_t>(count));
        ASSERT_EQ(library.wrong_bits(unit), std::nullopt) << count << " flips";
        ASSERT_EQ(found_by_us(unit), std::nullopt) << count << " flips";
    }
}

}  // namespace

#else

TEST(BchLibrary, FindsTheFlipsThatTheDecoderFinds) {
    GTEST_SKIP() << "missing library: libitpp";
}

TEST(BchLibrary, RefusesTheUnitsThatTheDecoderRefuses) {
    GTEST_SKIP() << "missing library: libitpp";
}

#endif
