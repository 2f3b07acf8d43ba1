#pragma once

#include <cstdint>

/// Constants of the carry-less kernels. The parity of a codeword is the sum of its parts' parities: each is
/// the part times x^e mod g, where e bits follow the part. The parts are blocks of 256 bits, and x^e mod g of
/// each block is 256 bits as well, the words c0 to c3.
///
/// Their product takes 9 products of 64-bit words in place of 16 (Karatsuba, twice). The sums of words that
/// these products need are kept here.

constexpr uint32_t kBchBlockBytes = 32;
constexpr uint32_t kBchBlocks = 32;  ///< whole ones in a codeword

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
