#if defined(__x86_64__)
// For both widths. The 128-bit kernel is only inlined code of 128-bit intrinsics: it runs wherever AVX2 and
// 128-bit carry-less multiplication are.
#define BCH_CARRY_LESS_TARGET "avx2,pclmul,vpclmulqdq"
#endif

#include "carry_less.h"

void bch_build_multipliers(const BchRegister& polynomial, BchTables& tables) {
    BchMultipliers m{};
    BchRegister power{{1}};  // x^(degree - 1)
    for (uint32_t i = kBchBlocks; i-- > 0;) {
        const uint32_t bits = i + 1 == kBchBlocks ? 32 : 8 * kBchBlockBytes;  // 32 bits follow the last block
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

namespace {

struct Lanes128 {
    using Vector = __m128i;

    [[BCH_CARRY_LESS]] static inline Vector low_products(Vector a, Vector b) {
        return _mm_clmulepi64_si128(a, b, 0x00);
    }
    [[BCH_CARRY_LESS]] static inline Vector high_products(Vector a, Vector b) {
        return _mm_clmulepi64_si128(a, b, 0x11);
    }
    [[BCH_CARRY_LESS]] static inline Vector fold(Vector a, Vector b) {
        return _mm_unpacklo_epi64(a, b) ^ _mm_unpackhi_epi64(a, b);
    }
    [[BCH_CARRY_LESS]] static inline __m128i joined(Vector a) { return a; }
    [[BCH_CARRY_LESS]] static inline void load_blocks(const uint8_t* block, Vector& low, Vector& high) {
        low = _mm_loadu_si128(reinterpret_cast<const Vector*>(block));
        high = _mm_loadu_si128(reinterpret_cast<const Vector*>(block + kBchLaneBytes));
    }
};

struct Lanes256 {
    using Vector = __m256i;

    [[BCH_CARRY_LESS]] static inline Vector low_products(Vector a, Vector b) {
        return _mm256_clmulepi64_epi128(a, b, 0x00);
    }
    [[BCH_CARRY_LESS]] static inline Vector high_products(Vector a, Vector b) {
        return _mm256_clmulepi64_epi128(a, b, 0x11);
    }
    [[BCH_CARRY_LESS]] static inline Vector fold(Vector a, Vector b) {
        return _mm256_unpacklo_epi64(a, b) ^ _mm256_unpackhi_epi64(a, b);
    }
    [[BCH_CARRY_LESS]] static inline __m128i joined(Vector a) {
        return _mm256_castsi256_si128(a) ^ _mm256_extracti128_si256(a, 1);
    }
    [[BCH_CARRY_LESS]] static inline void load_blocks(const uint8_t* blocks, Vector& low, Vector& high) {
        const Vector first = _mm256_loadu_si256(reinterpret_cast<const Vector*>(blocks));
        const Vector second = _mm256_loadu_si256(reinterpret_cast<const Vector*>(blocks + sizeof(Vector)));
        low = _mm256_permute2x128_si256(first, second, 0x20);
        high = _mm256_permute2x128_si256(first, second, 0x31);
    }
};

bool has_carry_less_128() {
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("pclmul");
}

bool has_carry_less_256() {
    return has_carry_less_128() && __builtin_cpu_supports("vpclmulqdq");
}

[[gnu::target(BCH_CARRY_LESS_TARGET)]] void
encode_128(const BchTables& tables, const uint8_t* const* codewords, uint32_t count, BchRegister* results) {
    encode_all<Lanes128>(tables, codewords, count, results);
}

[[gnu::target(BCH_CARRY_LESS_TARGET)]] void
encode_256(const BchTables& tables, const uint8_t* const* codewords, uint32_t count, BchRegister* results) {
    encode_all<Lanes256>(tables, codewords, count, results);
}

}  // namespace

extern constinit const BchPath bch_carry_less_128{"carry_less_128", has_carry_less_128, encode_128};
extern constinit const BchPath bch_carry_less_256{"carry_less_256", has_carry_less_256, encode_256};

#endif
