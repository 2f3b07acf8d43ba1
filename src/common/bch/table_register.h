#pragma once

#include "tables.h"

#include <cstring>

/// The parity register while input is fed to it through tables. All of this is inlined, so that it is
/// compiled with the instructions of the function that uses it.

using WholeRow = uint64_t __attribute__((vector_size(sizeof(BchRow))));     ///< takes vectors of 256 bits
using HalfRow = uint64_t __attribute__((vector_size(sizeof(BchRow) / 2)));  ///< for every processor

template <typename Word>
[[gnu::always_inline]] inline Word bch_load(const uint8_t* bytes) {
    Word word;
    std::memcpy(&word, bytes, sizeof(word));
    return word;
}

/// Shifts part by a 64-bit word; the first word of next becomes its last one.
[[gnu::always_inline]] inline void bch_shift_in(WholeRow& part, const WholeRow& next) {
    part = __builtin_shufflevector(part, next, 1, 2, 3, 4);
}
[[gnu::always_inline]] inline void bch_shift_in(HalfRow& part, const HalfRow& next) {
    part = __builtin_shufflevector(part, next, 1, 2);
}

/// The entry of the byte at a position (0 to 7) of word. One shift and one mask give the offset of its row.
/// The position is a constant in the address.
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

    /// Feeds a 64-bit word of input. The register is shifted by one word. The word that leaves it is added to
    /// the input, and the tables give what each byte of that sum adds to the register.
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

    /// Copies part by part. The compiler would keep a register in memory that is copied as a whole.
    [[gnu::always_inline]] inline void store(BchRegister& result) const {
        for (uint32_t v = 0; v < kVectors; ++v)
            std::memcpy(result.word + v * (sizeof(Vector) / sizeof(uint64_t)), &part[v], sizeof(Vector));
    }
};
