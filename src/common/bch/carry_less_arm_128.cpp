#if defined(__aarch64__) && defined(__linux__)

#if defined(__clang__) && __clang_major__ < 16
#define BCH_TARGET "aes"  // these versions take no plus sign
#else
#define BCH_TARGET "+crypto"
#endif
#include "carry_less.inc"

#include <arm_neon.h>
#include <sys/auxv.h>

namespace {

struct LanesArm128 {
    using Vector = uint64x2_t;
    using Row = HalfRow;

    [[BCH_INLINE]] static inline Vector low_products(Vector a, Vector b) {
        return vreinterpretq_u64_p128(vmull_p64(a[0], b[0]));
    }
    [[BCH_INLINE]] static inline Vector high_products(Vector a, Vector b) {
        return vreinterpretq_u64_p128(vmull_high_p64(vreinterpretq_p64_u64(a), vreinterpretq_p64_u64(b)));
    }
    [[BCH_INLINE]] static inline Vector fold(Vector a, Vector b) {
        return vzip1q_u64(a, b) ^ vzip2q_u64(a, b);
    }
    [[BCH_INLINE]] static inline Vector joined(Vector a) { return a; }
    [[BCH_INLINE]] static inline void load_blocks(const uint8_t* block, Vector& low, Vector& high) {
        low = bch_load<Vector>(block);
        high = bch_load<Vector>(block + sizeof(Vector));
    }
};

bool available() {
    constexpr unsigned long multiplies_64_bits = 1 << 4;  // HWCAP_PMULL, which not every C library defines
    return (getauxval(AT_HWCAP) & multiplies_64_bits) != 0;
}

}  // namespace

extern constinit const BchPath kBchCarryLessArm128{"carry_less_arm_128", available, encode<LanesArm128>};

#endif
