#pragma once

#include "multipliers.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

constexpr uint32_t kBchCodewordBytes = 1028;                ///< data and system bytes
constexpr uint32_t kBchInputWords = kBchCodewordBytes / 8;  ///< whole 64-bit words of them

/// Parity register: bit b of the little-endian bit string is the coefficient of x^(rr - 1 - b). Bits beyond
/// the degree are 0.
constexpr std::size_t kBchRegisterWords = 16;
struct BchRegister {
    uint64_t word[kBchRegisterWords];
};

/// 256 bits of a register, aligned for a vector load.
struct alignas(32) BchRow {
    uint64_t word[4];
};

/// Constants of one code, from which parity registers are computed.
struct BchTables {
    /// 256-bit rows that hold a register.
    uint32_t rows_per_register = 0;
    /// What a byte of a 64-bit input word adds to the register, for each position (0 to 7) and value of the
    /// byte: rows_per_register rows from (position * 256 + value) * rows_per_register on.
    std::vector<BchRow> rows;
    /// What 4 bits of a register add to it while half a codeword is fed, for each of the 64 groups of 4 bits:
    /// the row group * 16 + value. Empty for registers of several rows.
    std::vector<BchRow> half_way_rows;
    /// None for registers of several rows.
    std::optional<BchMultipliers> multipliers;
};

/// Builds the tables of the generator of that degree, packed as ggx in bch.h.
void bch_build_tables(const uint32_t* generator, uint32_t degree, BchTables& tables);

/// The register after the 4 bytes of value, from a zero register.
void bch_register_of_word(const BchTables& tables, uint32_t value, BchRegister& result);
