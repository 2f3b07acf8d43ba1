#pragma once

#include "../base/result.h"

#include <array>
#include <cstddef>
#include <cstdint>

/// Judges the parity of SLC NAND units of kUnit bytes: 1024 bytes of data, 4 system bytes and 28 bytes of
/// parity. The code is made from its definition: t = 16 over GF(2^14), where an erased unit of 0xFF is right.
class UnitParity {
public:
    /// Units that are judged together.
    static constexpr std::size_t kBatch = 128;
    using Batch = std::array<const uint8_t*, kBatch>;

    UnitParity();

    /// True when the parity of the unit belongs to its data and system bytes.
    bool is_right(const uint8_t* unit) const;

    /// False when a unit of the batch is wrong, but for errors that cancel each other. Takes little more time
    /// than two calls of is_right. The code is linear, so two sums of the units are judged in their place:
    /// the plain sum, and a sum in which each unit lies one byte after the unit before it. The place of a
    /// unit in the second sum is a factor of a power of x^8.
    ///
    /// It is certain that these batches give false:
    /// - one or two units are wrong, whatever the errors are;
    /// - all units have the same error;
    /// - any of the units have the same error, and fewer than 7 of the generator's 16 factors divide it.
    /// The first two hold because 1 + x^n is invertible modulo the generator for n up to 8 * kBatch: the
    /// roots of the generator have orders of at least 5461. The third holds because the places of the wrong
    /// units make a polynomial of degree below kBatch in x^8, and at most 9 of the factors, which have degree
    /// 14, divide it.
    ///
    /// Three or more wrong units with other errors may cancel each other in both sums. For errors at random
    /// the probability of that is 2^-448.
    bool are_right(const Batch& units) const;

    /// A unit of 0xFF bytes, for what a batch is short of.
    static const uint8_t* erased_unit();

private:
    /// Polynomials of degree below 224. Bit b of word w is the coefficient of x^(223 - 64 w - b).
    using Remainder = std::array<uint64_t, 4>;
    struct Sums;

    Remainder remainder(const uint8_t* bytes, std::size_t count) const;

    std::array<Remainder, 256> m_table{};  ///< entry i: remainder of the byte i
    Remainder m_erased{};                  ///< remainder of an erased unit; every right unit has it
    Remainder m_erased_sum{};              ///< of the two sums of a batch of right units
    Remainder m_erased_moved{};
};
