#pragma once

// What the tests of the BCH encoder share.

#include "common/bch.h"
#include "support/bch_judge.h"
#include "support/bch_paths.h"
#include "support/bytes.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace bch_tests {

using test_support::Bytes;
using test_support::operator+;

// The encoder is global: after each test it has the strength and the path that the program uses.
class BchTest : public ::testing::Test {
protected:
    ~BchTest() override { bch_init(16); }
};

// Names of parameterised tests: a prefix and a number.
inline std::string numbered(std::string prefix, int number) {
    prefix += std::to_string(number);
    return prefix;
}

// Buffers of exactly the codeword's size, so that a sanitizer sees any access beside them.
inline Bytes encoded(const Bytes& message) {
    Bytes codeword(AllBytesNum, 0xA5);
    bch_encode(message.data(), codeword.data());
    return codeword;
}

inline Bytes parity_of(const Bytes& message) {
    return test_support::slice(encoded(message), CodeSysBytesNum, CodecBytesNum);
}

// `count` units in `page`, `stride` bytes apart, the first of them at `start`.
inline std::vector<uint8_t*> units_of(Bytes& page, std::size_t start, std::size_t count, std::size_t stride) {
    std::vector<uint8_t*> units;
    for (std::size_t i = 0; i < count; ++i)
        units.push_back(page.data() + start + i * stride);
    return units;
}

inline Bytes random_message(uint32_t seed) {
    return test_support::patterned(test_support::kBchMessageBytes, seed);
}

inline void flip_bit(Bytes& bytes, std::size_t bit) {
    bytes.at(bit / 8) = static_cast<uint8_t>(bytes[bit / 8] ^ (1U << bit % 8));
}

}  // namespace bch_tests
