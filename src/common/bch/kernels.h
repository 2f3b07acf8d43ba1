#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

/// The inner loops of the BCH encoder: parity registers of whole codewords, without the erased-page
/// correction.

constexpr uint32_t kBchCodewordBytes = 1028;                ///< data and system bytes
constexpr uint32_t kBchInputWords = kBchCodewordBytes / 8;  ///< whole 64-bit words of them

/// Parity register: bit b of the little-endian bit string is the coefficient of x^(rr - 1 - b). Bits beyond
/// the degree are 0.
constexpr std::size_t kBchRegisterWords = 16;
struct BchRegister {
    uint64_t word[kBchRegisterWords];
};

/// 256 bits of a register, at a place that one vector load can take it from.
struct alignas(32) BchRow {
    uint64_t word[4];
};

/// Constants of one code.
struct BchTables {
    /// 256-bit rows that hold a register.
    uint32_t rows_per_register = 0;
    /// What byte b of a 64-bit input word does to the register, for each of its 8 positions:
    /// rows_per_register rows from (position * 256 + b) * rows_per_register on.
    std::vector<BchRow> rows;
    /// What the first half of a codeword's register becomes while the second half is fed, for each of its 64
    /// groups of 4 bits: a register from group * 16 + value on; empty for registers of several rows.
    std::vector<BchRow> half_way_rows;
    /// Constants of the carry-less kernels (BchMultipliers in carry_less.h); empty for degrees beyond 256.
    std::vector<BchRow> multipliers;
};

/// Builds the tables of the generator of that degree, packed as ggx in bch.h.
void bch_build_tables(const uint32_t* generator, uint32_t degree, BchTables& tables);

/// Shifts the register one bit towards bit 0, which is the multiplication by x, and reduces it by polynomial:
/// the generator as the register has it, with its x^0 coefficient.
void bch_multiply_by_x(BchRegister& value, const BchRegister& polynomial);

/// Fills tables.multipliers for a degree up to 256; polynomial as for bch_multiply_by_x.
void bch_build_multipliers(const BchRegister& polynomial, BchTables& tables);

/// The register after the 4 bytes of value, from a zero register.
void bch_register_of_word(const BchTables& tables, uint32_t value, BchRegister& result);

/// Computes the registers of count codewords (1 to kBchUnitsTogether). Words of results beyond the code's own
/// rows are left as they are.
using BchKernel = void (*)(const BchTables& tables, const uint8_t* const* codewords, uint32_t count,
                           BchRegister* results);
