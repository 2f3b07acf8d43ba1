#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

/// The inner loops of the BCH encoder: parity registers of whole codewords, without the erased-page
/// correction.

constexpr uint32_t kBchCodewordBytes = 1028;  ///< data and system bytes

/// Parity register: bit b of the little-endian bit string is the coefficient of x^(rr - 1 - b). Bits beyond
/// the degree are 0.
constexpr std::size_t kBchRegisterWords = 16;
struct alignas(64) BchRegister {
    uint64_t word[kBchRegisterWords];
};

/// Constants of one code.
struct BchKernelTables {
    /// Words per row: the register's 64-bit words rounded up to a multiple of four.
    uint32_t row_words = 0;
    /// Row (8 * 256 of them) j * 256 + b: what byte b does to the register when 7 - j more bytes follow.
    std::vector<uint64_t> rows;
    /// For degrees up to 256: x^(rr - 1 + 64 k) mod g in the register's bit order, four words for each 64-bit
    /// word of a codeword, from its first one (k = 128) to the last half word (k = 0).
    std::vector<uint64_t> powers;
};

/// Builds the tables of the generator ggx of that degree (packed as in bch.h).
void bch_build_tables(const uint32_t* generator, uint32_t degree, BchKernelTables& tables);

/// The register after the 4 bytes of value, from a zero register.
void bch_register_of_word(const BchKernelTables& tables, uint32_t value, BchRegister& result);

/// Registers of count codewords (1 to kBchLanes), stride bytes apart.
constexpr uint32_t kBchLanes = 4;
using BchKernel = void (*)(const BchKernelTables& tables, const uint8_t* first, uint32_t count,
                           std::size_t stride, BchRegister* results);
void bch_kernel_portable(const BchKernelTables& tables, const uint8_t* first, uint32_t count,
                         std::size_t stride, BchRegister* results);
void bch_kernel_wide_rows(const BchKernelTables& tables, const uint8_t* first, uint32_t count,
                          std::size_t stride, BchRegister* results);
void bch_kernel_carry_less(const BchKernelTables& tables, const uint8_t* first, uint32_t count,
                           std::size_t stride, BchRegister* results);

/// What this processor has; always false where the path is not built.
bool bch_has_wide_rows();
bool bch_has_carry_less();
