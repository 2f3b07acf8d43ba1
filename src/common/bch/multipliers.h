#pragma once

#include <cstdint>

/// Constants of the carry-less kernels. A codeword is cut into blocks of 256 bits, and its parity is the sum
/// of the parities of its blocks. The parity of a block is the block times x^e mod g, where e bits follow the
/// block. x^e mod g has 256 bits as well, the words c0 to c3.
///
/// The product takes 9 products of 64-bit words in place of 16 (Karatsuba, twice). These need the sums of
/// words that stand here.

constexpr uint32_t kBchBlockBytes = 32;
constexpr uint32_t kBchBlocks = 32;  ///< whole blocks in a codeword

/// Aligned for vectors of up to 512 bits.
struct alignas(64) BchMultipliers {
    struct Pair {
        uint64_t low;
        uint64_t high;
    };
    Pair low[kBchBlocks];     ///< c0, c1
    Pair high[kBchBlocks];    ///< c2, c3
    Pair sum[kBchBlocks];     ///< c0 + c2, c1 + c3
    Pair folded[kBchBlocks];  ///< c0 + c1, c2 + c3
    Pair all[kBchBlocks];     ///< c0 + c1 + c2 + c3, 0
};
