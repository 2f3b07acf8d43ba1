#if defined(__x86_64__)

#define BCH_TARGET "avx2,pclmul,vpclmulqdq,avx512f"
#include "carry_less.inc"

#include <immintrin.h>

namespace {

/// Shuffles with the builtins of the compiler: gcc 12 warns of uninitialised values in the intrinsics.
struct Lanes512 {
    using Vector = __m512i;
    using Row = WholeRow;

    [[BCH_INLINE]] static inline Vector low_products(Vector a, Vector b) {
        return _mm512_clmulepi64_epi128(a, b, 0x00);
    }
    [[BCH_INLINE]] static inline Vector high_products(Vector a, Vector b) {
        return _mm512_clmulepi64_epi128(a, b, 0x11);
    }
    [[BCH_INLINE]] static inline Vector fold(Vector a, Vector b) {
        return __builtin_shufflevector(a, b, 0, 8, 2, 10, 4, 12, 6, 14) ^
               __builtin_shufflevector(a, b, 1, 9, 3, 11, 5, 13, 7, 15);
    }
    [[BCH_INLINE]] static inline __m128i joined(Vector a) {
        return __builtin_shufflevector(a, a, 0, 1) ^ __builtin_shufflevector(a, a, 2, 3) ^
               __builtin_shufflevector(a, a, 4, 5) ^ __builtin_shufflevector(a, a, 6, 7);
    }
    [[BCH_INLINE]] static inline void load_blocks(const uint8_t* blocks, Vector& low, Vector& high) {
        Vector first, second;
        std::memcpy(&first, blocks, sizeof(first));
        std::memcpy(&second, blocks + sizeof(first), sizeof(second));
        low = __builtin_shufflevector(first, second, 0, 1, 4, 5, 8, 9, 12, 13);
        high = __builtin_shufflevector(first, second, 2, 3, 6, 7, 10, 11, 14, 15);
    }
};

bool available() {
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("pclmul") &&
           __builtin_cpu_supports("vpclmulqdq") && __builtin_cpu_supports("avx512f");
}

}  // namespace

extern constinit const BchPath kBchCarryLess512{"carry_less_512", available, encode<Lanes512>};

#endif
