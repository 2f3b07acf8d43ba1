#if defined(__x86_64__)

#define BCH_TARGET "avx2,pclmul,vpclmulqdq"
#include "carry_less.inc"

#include <immintrin.h>

namespace {

struct Lanes256 {
    using Vector = __m256i;
    using Row = WholeRow;

    [[BCH_INLINE]] static inline Vector low_products(Vector a, Vector b) {
        return _mm256_clmulepi64_epi128(a, b, 0x00);
    }
    [[BCH_INLINE]] static inline Vector high_products(Vector a, Vector b) {
        return _mm256_clmulepi64_epi128(a, b, 0x11);
    }
    [[BCH_INLINE]] static inline Vector fold(Vector a, Vector b) {
        return _mm256_unpacklo_epi64(a, b) ^ _mm256_unpackhi_epi64(a, b);
    }
    [[BCH_INLINE]] static inline __m128i joined(Vector a) {
        return _mm256_castsi256_si128(a) ^ _mm256_extracti128_si256(a, 1);
    }
    [[BCH_INLINE]] static inline void load_blocks(const uint8_t* blocks, Vector& low, Vector& high) {
        const Vector first = _mm256_loadu_si256(reinterpret_cast<const Vector*>(blocks));
        const Vector second = _mm256_loadu_si256(reinterpret_cast<const Vector*>(blocks + sizeof(Vector)));
        low = _mm256_permute2x128_si256(first, second, 0x20);
        high = _mm256_permute2x128_si256(first, second, 0x31);
    }
};

bool available() {
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("pclmul") &&
           __builtin_cpu_supports("vpclmulqdq");
}

}  // namespace

extern constinit const BchPath kBchCarryLess256{"carry_less_256", available, encode<Lanes256>};

#endif
