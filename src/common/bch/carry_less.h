#pragma once

#include "paths.h"
#include "table_register.h"

#include <cstring>

/// Parity by carry-less multiplication, for vectors of any width. The parity is linear: it is the sum over
/// all parts of a codeword of the part times x^e mod g, where e bits follow the part. A block of 256 input
/// bits times such a register of 256 bits takes 9 products of 64 bits instead of 16 (Karatsuba, twice), and
/// the products of all blocks are summed up before they are put together. No product depends on another one.
///
/// Bit 0 of a block is its highest power, as in the register, so that plain little-endian integers are
/// multiplied. The first 256 bits of the sum have powers beyond the degree. They are reduced as if they were
/// input, out of the tables.

constexpr uint32_t kBchLaneBytes = 16;  // of a vector: two 64-bit words
constexpr uint32_t kBchBlockBytes = 2 * kBchLaneBytes;
constexpr uint32_t kBchBlocks = (kBchCodewordBytes - 4) / kBchBlockBytes;

/// Multipliers of one codeword; of a block's constant c0 to c3 (64-bit words), for one half or for both.
struct BchMultipliers {
    struct Pair {
        uint64_t low;
        uint64_t high;
    };
    alignas(32) Pair low[kBchBlocks];     // c0, c1
    alignas(32) Pair high[kBchBlocks];    // c2, c3
    alignas(32) Pair sum[kBchBlocks];     // c0 + c2, c1 + c3
    alignas(32) Pair folded[kBchBlocks];  // c0 + c1, c2 + c3
    alignas(32) Pair all[kBchBlocks];     // c0 + c1 + c2 + c3, 0
};
static_assert(sizeof(BchMultipliers) % sizeof(BchRow) == 0);

#if defined(BCH_CARRY_LESS_TARGET)

// What follows is compiled for the instructions that the including source names. It hands over Lanes: a
// Vector of one or more lanes of 128 bits and, for each lane by itself,
//   low_products, high_products   the 128-bit product of the lanes' low or high words,
//   fold                          the sum of both words of a and the sum of both words of b,
//   joined                        the sum of all lanes,
//   load_blocks                   the first and the second halves of as many blocks as there are lanes.
#define BCH_CARRY_LESS gnu::target(BCH_CARRY_LESS_TARGET), gnu::always_inline

#include <immintrin.h>

namespace {

/// Sums of the products of 128 by 128 bits: of the low words, the high words and the folded ones.
template <typename Lanes>
struct ProductSum {
    using Vector = typename Lanes::Vector;
    Vector low{};
    Vector high{};
    Vector folded{};

    /// The 256-bit sum, as four words.
    [[BCH_CARRY_LESS]] inline void put_together(uint64_t (&word)[4]) const {
        const __m128i l = Lanes::joined(low);
        const __m128i h = Lanes::joined(high);
        const __m128i middle = Lanes::joined(folded) ^ l ^ h;
        _mm_storeu_si128(reinterpret_cast<__m128i*>(word), l ^ _mm_slli_si128(middle, 8));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(word + 2), h ^ _mm_srli_si128(middle, 8));
    }
};

/// The 512-bit sum of all blocks times their constants.
template <typename Lanes>
[[BCH_CARRY_LESS]] inline void multiply_blocks(const BchMultipliers& m, const uint8_t* codeword,
                                               uint64_t (&sum)[8]) {
    using Vector = typename Lanes::Vector;
    ProductSum<Lanes> low, high, both;
#pragma GCC unroll 1  // more would be kept in memory than summed up
    for (uint32_t i = 0; i < kBchBlocks; i += sizeof(Vector) / kBchLaneBytes) {
        Vector block_low, block_high, c;
        Lanes::load_blocks(codeword + i * kBchBlockBytes, block_low, block_high);
        const Vector block_sum = block_low ^ block_high;
        const Vector folded = Lanes::fold(block_low, block_high);
        const Vector all = Lanes::fold(folded, folded);
        std::memcpy(&c, &m.low[i], sizeof(c));
        low.low ^= Lanes::low_products(block_low, c);
        low.high ^= Lanes::high_products(block_low, c);
        std::memcpy(&c, &m.high[i], sizeof(c));
        high.low ^= Lanes::low_products(block_high, c);
        high.high ^= Lanes::high_products(block_high, c);
        std::memcpy(&c, &m.folded[i], sizeof(c));
        low.folded ^= Lanes::low_products(folded, c);
        high.folded ^= Lanes::high_products(folded, c);
        std::memcpy(&c, &m.sum[i], sizeof(c));
        both.low ^= Lanes::low_products(block_sum, c);
        both.high ^= Lanes::high_products(block_sum, c);
        std::memcpy(&c, &m.all[i], sizeof(c));
        both.folded ^= Lanes::low_products(all, c);
    }
    uint64_t l[4], h[4], b[4];
    low.put_together(l);
    high.put_together(h);
    both.put_together(b);
    for (uint32_t k = 0; k < 2; ++k) {
        sum[k] = l[k];
        sum[k + 2] = l[k + 2] ^ b[k] ^ l[k] ^ h[k];
        sum[k + 4] = h[k] ^ b[k + 2] ^ l[k + 2] ^ h[k + 2];
        sum[k + 6] = h[k + 2];
    }
}

/// The register of a codeword from the sum of its blocks: reduces the four words beyond the degree.
[[BCH_CARRY_LESS]] inline void reduce(const BchTables& tables, const uint64_t (&sum)[8], uint32_t tail,
                                      BchRegister& result) {
    const auto* rows = reinterpret_cast<const WholeRow*>(tables.rows.data());
    BchTableRegister<WholeRow, 1> beyond;
    for (uint32_t k = 0; k < 3; ++k)
        beyond.feed(rows, sum[k]);
    // The last 4 bytes of the codeword are the last bits of input, where the last word beyond the degree is.
    beyond.feed(rows, sum[3] ^ static_cast<uint64_t>(tail) << 32);
    const WholeRow value = beyond.part[0] ^ WholeRow { sum[4], sum[5], sum[6], sum[7] };
    std::memcpy(result.word, &value, sizeof(value));
}

template <typename Lanes>
[[BCH_CARRY_LESS]] inline void encode_all(const BchTables& tables, const uint8_t* const* codewords,
                                          uint32_t count, BchRegister* results) {
    if (tables.multipliers.empty())
        return bch_portable.kernel(tables, codewords, count, results);
    const auto& m = *reinterpret_cast<const BchMultipliers*>(tables.multipliers.data());
    for (uint32_t i = 0; i < count; ++i) {
        uint64_t sum[8];
        multiply_blocks<Lanes>(m, codewords[i], sum);
        reduce(tables, sum, bch_load<uint32_t>(codewords[i] + kBchBlocks * kBchBlockBytes), results[i]);
    }
}

}  // namespace

#endif
