#include "bch_table_register.h"

#include <cstring>

// Parity by carry-less multiplication. The parity is linear: it is the sum over all parts of a codeword of
// the part times x^e mod g, where e bits follow the part. A block of 256 input bits times such a register of
// 256 bits takes 9 products of 64 bits instead of 16 (Karatsuba, twice), and the products of all blocks are
// summed up before they are put together. No product depends on another one.
//
// Bit 0 of a block is its highest power, as in the register, so that plain little-endian integers are
// multiplied. The first 256 bits of the sum have powers beyond the degree. They are reduced as if they were
// input, out of the tables.

namespace {

constexpr uint32_t kLaneBytes = 16;  // of a vector: two 64-bit words
constexpr uint32_t kBlockBytes = 2 * kLaneBytes;
constexpr uint32_t kBlocks = (kBchCodewordBytes - 4) / kBlockBytes;
constexpr uint32_t kTailPosition = kBlocks * kBlockBytes;  // the last 4 bytes

/// Multipliers of one codeword; of a block's constant c0 to c3 (64-bit words), for one half or for both.
struct Multipliers {
    struct Pair {
        uint64_t low;
        uint64_t high;
    };
    alignas(32) Pair low[kBlocks];     // c0, c1
    alignas(32) Pair high[kBlocks];    // c2, c3
    alignas(32) Pair sum[kBlocks];     // c0 + c2, c1 + c3
    alignas(32) Pair folded[kBlocks];  // c0 + c1, c2 + c3
    alignas(32) Pair all[kBlocks];     // c0 + c1 + c2 + c3, 0
};
static_assert(sizeof(Multipliers) % sizeof(BchRow) == 0);

}  // namespace

void bch_build_multipliers(const BchRegister& polynomial, BchTables& tables) {
    Multipliers m{};
    BchRegister power{{1}};  // x^(degree - 1)
    for (uint32_t i = kBlocks; i-- > 0;) {
        const uint32_t bits = i + 1 == kBlocks ? 32 : 8 * kBlockBytes;  // 32 bits follow the last block
        for (uint32_t bit = 0; bit < bits; ++bit)
            bch_multiply_by_x(power, polynomial);
        const uint64_t* c = power.word;
        m.low[i] = {c[0], c[1]};
        m.high[i] = {c[2], c[3]};
        m.sum[i] = {c[0] ^ c[2], c[1] ^ c[3]};
        m.folded[i] = {c[0] ^ c[1], c[2] ^ c[3]};
        m.all[i] = {c[0] ^ c[1] ^ c[2] ^ c[3], 0};
    }
    tables.multipliers.resize(sizeof(m) / sizeof(BchRow));
    std::memcpy(tables.multipliers.data(), &m, sizeof(m));
}

#if defined(__x86_64__)

#include <immintrin.h>

// One target for both widths. The 128-bit kernel is only inlined code of 128-bit intrinsics: it runs wherever
// AVX2 and 128-bit carry-less multiplication are.
#define CARRY_LESS gnu::target("avx2,pclmul,vpclmulqdq"), gnu::always_inline

namespace {

[[CARRY_LESS]] inline __m128i low_products(__m128i a, __m128i b) {
    return _mm_clmulepi64_si128(a, b, 0x00);
}
[[CARRY_LESS]] inline __m128i high_products(__m128i a, __m128i b) {
    return _mm_clmulepi64_si128(a, b, 0x11);
}
[[CARRY_LESS]] inline __m256i low_products(__m256i a, __m256i b) {
    return _mm256_clmulepi64_epi128(a, b, 0x00);
}
[[CARRY_LESS]] inline __m256i high_products(__m256i a, __m256i b) {
    return _mm256_clmulepi64_epi128(a, b, 0x11);
}
[[CARRY_LESS]] inline __m128i fold(__m128i a, __m128i b) {
    return _mm_unpacklo_epi64(a, b) ^ _mm_unpackhi_epi64(a, b);
}
[[CARRY_LESS]] inline __m256i fold(__m256i a, __m256i b) {
    return _mm256_unpacklo_epi64(a, b) ^ _mm256_unpackhi_epi64(a, b);
}
[[CARRY_LESS]] inline __m128i joined_lanes(__m128i a) {
    return a;
}
[[CARRY_LESS]] inline __m128i joined_lanes(__m256i a) {
    return _mm256_castsi256_si128(a) ^ _mm256_extracti128_si256(a, 1);
}
/// The first (c0, c1) and second halves of as many blocks as the vector has lanes.
[[CARRY_LESS]] inline void load_blocks(const uint8_t* block, __m128i& low, __m128i& high) {
    low = _mm_loadu_si128(reinterpret_cast<const __m128i*>(block));
    high = _mm_loadu_si128(reinterpret_cast<const __m128i*>(block + 16));
}
[[CARRY_LESS]] inline void load_blocks(const uint8_t* blocks, __m256i& low, __m256i& high) {
    const __m256i first = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(blocks));
    const __m256i second = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(blocks + kBlockBytes));
    low = _mm256_permute2x128_si256(first, second, 0x20);
    high = _mm256_permute2x128_si256(first, second, 0x31);
}

/// Sums of the products of 128 by 128 bits: of the low words, the high words and the folded ones.
template <typename Vector>
struct ProductSum {
    Vector low{};
    Vector high{};
    Vector folded{};

    /// The 256-bit sum, as four words.
    [[CARRY_LESS]] inline void put_together(uint64_t (&word)[4]) const {
        const __m128i l = joined_lanes(low);
        const __m128i h = joined_lanes(high);
        const __m128i middle = joined_lanes(folded) ^ l ^ h;
        _mm_storeu_si128(reinterpret_cast<__m128i*>(word), l ^ _mm_slli_si128(middle, 8));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(word + 2), h ^ _mm_srli_si128(middle, 8));
    }
};

/// The 512-bit sum of all blocks times their constants.
template <typename Vector>
[[CARRY_LESS]] inline void multiply_blocks(const Multipliers& m, const uint8_t* codeword,
                                           uint64_t (&sum)[8]) {
    constexpr uint32_t blocks_per_vector = sizeof(Vector) / kLaneBytes;
    const auto at = [](const Multipliers::Pair& pair) -> const Vector& {
        return *reinterpret_cast<const Vector*>(&pair);
    };
    ProductSum<Vector> low, high, both;
    for (uint32_t i = 0; i < kBlocks; i += blocks_per_vector) {
        Vector block_low, block_high;
        load_blocks(codeword + i * kBlockBytes, block_low, block_high);
        const Vector block_sum = block_low ^ block_high;
        const Vector folded = fold(block_low, block_high);
        const Vector all = fold(folded, folded);
        low.low ^= low_products(block_low, at(m.low[i]));
        low.high ^= high_products(block_low, at(m.low[i]));
        low.folded ^= low_products(folded, at(m.folded[i]));
        high.low ^= low_products(block_high, at(m.high[i]));
        high.high ^= high_products(block_high, at(m.high[i]));
        high.folded ^= high_products(folded, at(m.folded[i]));
        both.low ^= low_products(block_sum, at(m.sum[i]));
        both.high ^= high_products(block_sum, at(m.sum[i]));
        both.folded ^= low_products(all, at(m.all[i]));
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
[[CARRY_LESS]] inline void reduce(const BchTables& tables, const uint64_t (&sum)[8], uint32_t tail,
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

template <typename Vector>
[[CARRY_LESS]] inline void encode_all(const BchTables& tables, const uint8_t* first, uint32_t count,
                                      std::size_t stride, BchRegister* results) {
    const auto& m = *reinterpret_cast<const Multipliers*>(tables.multipliers.data());
    for (uint32_t i = 0; i < count; ++i) {
        const uint8_t* codeword = first + i * stride;
        uint64_t sum[8];
        multiply_blocks<Vector>(m, codeword, sum);
        uint32_t tail;
        std::memcpy(&tail, codeword + kTailPosition, sizeof(tail));
        reduce(tables, sum, tail, results[i]);
    }
}

}  // namespace

bool bch_has_carry_less() {
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("pclmul");
}

bool bch_has_carry_less_256() {
    return bch_has_carry_less() && __builtin_cpu_supports("vpclmulqdq");
}

[[gnu::target("avx2,pclmul,vpclmulqdq")]] void bch_kernel_carry_less(const BchTables& tables,
                                                                     const uint8_t* first, uint32_t count,
                                                                     std::size_t stride,
                                                                     BchRegister* results) {
    encode_all<__m128i>(tables, first, count, stride, results);
}

[[gnu::target("avx2,pclmul,vpclmulqdq")]] void bch_kernel_carry_less_256(const BchTables& tables,
                                                                         const uint8_t* first, uint32_t count,
                                                                         std::size_t stride,
                                                                         BchRegister* results) {
    encode_all<__m256i>(tables, first, count, stride, results);
}

#else

bool bch_has_carry_less() {
    return false;
}

bool bch_has_carry_less_256() {
    return false;
}

void bch_kernel_carry_less(const BchTables& tables, const uint8_t* first, uint32_t count, std::size_t stride,
                           BchRegister* results) {
    bch_kernel_portable(tables, first, count, stride, results);
}

void bch_kernel_carry_less_256(const BchTables& tables, const uint8_t* first, uint32_t count,
                               std::size_t stride, BchRegister* results) {
    bch_kernel_portable(tables, first, count, stride, results);
}

#endif
