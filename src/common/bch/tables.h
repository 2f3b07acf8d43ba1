#pragma once

#include "multipliers.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

constexpr uint32_t kBchCodewordBytes = 1028;                ///< data and system bytes
constexpr uint32_t kBchInputWords = kBchCodewordBytes / 8;  ///< whole 64-bit words in them

/// Parity register. Bit b is the coefficient of x^(rr - 1 - b), and bits from rr on are 0.
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
    /// Rows that a register takes.
    uint32_t rows_per_register = 0;
    /// What a byte of a 64-bit input word adds to the register, for each position (0 to 7) and value of the
    /// byte. An entry has rows_per_register rows and starts at (position * 256 + value) * rows_per_register.
    std::vector<BchRow> rows;
    /// What 4 bits of a register become after half a codeword of zeros, for each of the 64 groups of 4 bits:
    /// the row group * 16 + value. Empty for registers of several rows.
    std::vector<BchRow> half_way_rows;
    /// Nothing for registers of several rows.
    std::optional<BchMultipliers> multipliers;
};

/// Builds the tables of the generator, which has that degree and is packed as ggx in bch.h.
void bch_build_tables(const uint32_t* generator, uint32_t degree, BchTables& tables);

/// Sets result to the register after the 4 bytes of value, fed to a register of zeros.
void bch_register_of_word(const BchTables& tables, uint32_t value, BchRegister& result);
