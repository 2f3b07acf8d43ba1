#pragma once

#include "kernels.h"

#include <cstring>

/// The parity register while it is fed from tables: the step that the table kernels are made of, and with
/// which the carry-less kernels end. All of it is inlined, into functions that say which instructions there
/// are.

/// Rows as the processor takes them: whole where it has vectors of 256 bits, else in halves, which every
/// x86-64 has.
using WholeRow = uint64_t __attribute__((vector_size(sizeof(BchRow))));
using HalfRow = uint64_t __attribute__((vector_size(sizeof(BchRow) / 2)));

template <typename Word>
[[gnu::always_inline]] inline Word bch_load(const uint8_t* bytes) {
    Word word;
    std::memcpy(&word, bytes, sizeof(word));
    return word;
}

/// Moves part on by a 64-bit word; the first one of next follows.
[[gnu::always_inline]] inline void bch_shift_in(WholeRow& part, const WholeRow& next) {
    part = __builtin_shufflevector(part, next, 1, 2, 3, 4);
}
[[gnu::always_inline]] inline void bch_shift_in(HalfRow& part, const HalfRow& next) {
    part = __builtin_shufflevector(part, next, 1, 2);
}

/// The registers that the byte at a position (0 to 7) of word adds. The offset is made in one piece and the
/// position stays a constant of the address: that takes the fewest instructions for each byte.
template <uint32_t Rows, typename Vector>
[[gnu::always_inline]] inline const Vector* bch_entry(const Vector* table, uint32_t position, uint64_t word) {
    constexpr uint32_t row_shift = 5;
    static_assert(sizeof(BchRow) == 1 << row_shift);
    const uint64_t row =
        (position == 0 ? word << row_shift : word >> (8 * position - row_shift)) & 0xFF << row_shift;
    const auto* bytes = reinterpret_cast<const uint8_t*>(table) + position * 256 * Rows * sizeof(BchRow);
    return reinterpret_cast<const Vector*>(bytes + row * Rows);
}

/// A register of Rows rows.
template <typename Vector, uint32_t Rows>
struct BchTableRegister {
    static constexpr uint32_t kVectors = Rows * sizeof(BchRow) / sizeof(Vector);
    Vector part[kVectors] = {};

    /// Feeds a 64-bit word of input. The register moves on by one word; what its first word and the input add
    /// up to comes back in through the generator, byte by byte out of the tables.
    [[gnu::always_inline]] inline void feed(const Vector* table, uint64_t input) {
        const uint64_t index = part[0][0] ^ input;
        for (uint32_t v = 0; v + 1 < kVectors; ++v)
            bch_shift_in(part[v], part[v + 1]);
        bch_shift_in(part[kVectors - 1], Vector{});
#pragma GCC unroll 8
        for (uint32_t position = 0; position < 8; ++position) {
            const Vector* entry = bch_entry<Rows>(table, position, index);
            for (uint32_t v = 0; v < kVectors; ++v)
                part[v] ^= entry[v];
        }
    }

    /// Hands the register out, part by part: copied as a whole it would be kept in memory all the time.
    [[gnu::always_inline]] inline void store(BchRegister& result) const {
        for (uint32_t v = 0; v < kVectors; ++v)
            std::memcpy(result.word + v * (sizeof(Vector) / sizeof(uint64_t)), &part[v], sizeof(Vector));
    }
};
