#if defined(__x86_64__)

#define BCH_TARGET "avx2,pclmul"
#include "carry_less.inc"

#include <immintrin.h>

namespace {

struct Lanes128 {
    using Vector = __m128i;
    using Row = WholeRow;

    [[BCH_INLINE]] static inline Vector low_products(Vector a, Vector b) {
        return _mm_clmulepi64_si128(a, b, 0x00);
    }
    [[BCH_INLINE]] static inline Vector high_products(Vector a, Vector b) {
        return _mm_clmulepi64_si128(a, b, 0x11);
    }
    [[BCH_INLINE]] static inline Vector fold(Vector a, Vector b) {
        return _mm_unpacklo_epi64(a, b) ^ _mm_unpackhi_epi64(a, b);
    }
    [[BCH_INLINE]] static inline __m128i joined(Vector a) { return a; }
    [[BCH_INLINE]] static inline void load_blocks(const uint8_t* block, Vector& low, Vector& high) {
        low = _mm_loadu_si128(reinterpret_cast<const Vector*>(block));
        high = _mm_loadu_si128(reinterpret_cast<const Vector*>(block + sizeof(Vector)));
    }
};

bool available() {
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("pclmul");
}

}  // namespace

extern constinit const BchPath kBchCarryLess128{"carry_less_128", available, encode<Lanes128>};

#endif
