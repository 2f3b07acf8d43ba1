#include "bch_kernels.h"

#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#define NANDSMITH_X86_KERNELS 1
#endif

namespace {

constexpr uint32_t kFullWords =
    kBchCodewordBytes / 8;  // 64-bit words of a codeword before its last half word

uint64_t load64(const uint8_t* bytes) {
    uint64_t word;
    std::memcpy(&word, bytes, sizeof(word));
    return word;
}

uint32_t load32(const uint8_t* bytes) {
    uint32_t word;
    std::memcpy(&word, bytes, sizeof(word));
    return word;
}

const uint64_t* row_of(const BchKernelTables& tables, uint32_t position, uint64_t byte) {
    return tables.rows.data() + (position * 256 + (byte & 0xFF)) * tables.row_words;
}

/// Shifts the register one bit towards bit 0, which is the multiplication by x, and reduces it.
void multiply_by_x(uint64_t* word, const uint64_t* generator, uint32_t row_words) {
    const uint64_t carry = 0 - (word[0] & 1);
    for (uint32_t k = 0; k < row_words; ++k) {
        const uint64_t next = k + 1 < row_words ? word[k + 1] : 0;
        word[k] = (word[k] >> 1 | next << 63) ^ (generator[k] & carry);
    }
}

/// What the table paths do for up to kBchLanes codewords at once, so that the loads of one codeword's rows
/// hide behind those of the others. Words is the row size; always inlined into a function that says which
/// instructions there are.
template <uint32_t Words, uint32_t Lanes>
[[gnu::always_inline]] inline void encode_lanes(const BchKernelTables& tables, const uint8_t* first,
                                                std::size_t stride, BchRegister* results) {
    uint64_t state[Lanes][Words + 1] = {};  // the word behind the register is what shifts in: 0
    const uint64_t* rows = tables.rows.data();
    for (uint32_t i = 0; i < kFullWords; ++i) {
        for (uint32_t lane = 0; lane < Lanes; ++lane) {
            uint64_t* word = state[lane];
            const uint64_t index = word[0] ^ load64(first + lane * stride + i * 8);
            for (uint32_t k = 0; k < Words; ++k)
                word[k] = word[k + 1];
            for (uint32_t j = 0; j < 8; ++j) {
                const uint64_t* row = rows + (j * 256 + (index >> 8 * j & 0xFF)) * Words;
                for (uint32_t k = 0; k < Words; ++k)
                    word[k] ^= row[k];
            }
        }
    }
    for (uint32_t lane = 0; lane < Lanes; ++lane) {
        uint64_t* word = state[lane];
        const uint64_t index = word[0] ^ load32(first + lane * stride + kFullWords * 8);
        for (uint32_t k = 0; k < Words; ++k)
            results[lane].word[k] = word[k] >> 32 | word[k + 1] << 32;
        for (uint32_t j = 0; j < 4; ++j) {
            const uint64_t* row = rows + ((j + 4) * 256 + (index >> 8 * j & 0xFF)) * Words;
            for (uint32_t k = 0; k < Words; ++k)
                results[lane].word[k] ^= row[k];
        }
    }
}

template <uint32_t Words>
[[gnu::always_inline]] inline void encode_rows(const BchKernelTables& tables, const uint8_t* first,
                                               uint32_t count, std::size_t stride, BchRegister* results) {
    if (count == kBchLanes) {
        encode_lanes<Words, kBchLanes>(tables, first, stride, results);
        return;
    }
    for (uint32_t i = 0; i < count; ++i)
        encode_lanes<Words, 1>(tables, first + i * stride, stride, results + i);
}

[[gnu::always_inline]] inline void encode_any(const BchKernelTables& tables, const uint8_t* first,
                                              uint32_t count, std::size_t stride, BchRegister* results) {
    switch (tables.row_words) {
    case 4:
        return encode_rows<4>(tables, first, count, stride, results);
    case 8:
        return encode_rows<8>(tables, first, count, stride, results);
    case 12:
        return encode_rows<12>(tables, first, count, stride, results);
    default:
        return encode_rows<16>(tables, first, count, stride, results);
    }
}

}  // namespace

void bch_build_tables(const uint32_t* generator, uint32_t degree, BchKernelTables& tables) {
    tables.row_words = (degree + 255) / 256 * 4;
    const uint32_t words = tables.row_words;

    // The whole generator as the register has it, its x^0 coefficient included.
    uint64_t polynomial[kBchRegisterWords] = {};
    for (uint32_t bit = 0; bit + 1 < degree; ++bit)
        polynomial[bit / 64] |= static_cast<uint64_t>(generator[bit / 32] >> bit % 32 & 1) << bit % 64;
    polynomial[(degree - 1) / 64] |= uint64_t{1} << (degree - 1) % 64;

    // Bytes with a single bit, for every number of bytes that follow: bit 7 of the last byte is x^degree mod
    // g, and each bit before it is one multiplication by x more.
    tables.rows.assign(8 * 256 * words, 0);
    uint64_t power[kBchRegisterWords] = {};
    std::memcpy(power, polynomial, sizeof(power));
    for (uint32_t position = 8; position-- > 0;) {
        uint64_t* block = tables.rows.data() + position * 256 * words;
        for (uint32_t bit = 8; bit-- > 0;) {
            std::memcpy(block + (1U << bit) * words, power, words * sizeof(uint64_t));
            multiply_by_x(power, polynomial, words);
        }
        for (uint32_t byte = 1; byte < 256; ++byte) {
            const uint32_t lowest = byte & (0 - byte);
            for (uint32_t k = 0; byte != lowest && k < words; ++k)
                block[byte * words + k] = block[lowest * words + k] ^ block[(byte ^ lowest) * words + k];
        }
    }

    // The last full word is followed by the 32 bits of the last half word, each before it by 64 more.
    tables.powers.clear();
    if (degree > 256)
        return;
    tables.powers.assign(kFullWords * 4, 0);
    uint64_t shifted[kBchRegisterWords] = {1};  // x^(degree - 1)
    for (uint32_t i = kFullWords, bits = 32; i-- > 0; bits = 64) {
        for (uint32_t bit = 0; bit < bits; ++bit)
            multiply_by_x(shifted, polynomial, words);
        std::memcpy(tables.powers.data() + i * 4, shifted, 4 * sizeof(uint64_t));
    }
}

void bch_register_of_word(const BchKernelTables& tables, uint32_t value, BchRegister& result) {
    result = {};
    for (uint32_t j = 0; j < 4; ++j) {
        const uint64_t* row = row_of(tables, j + 4, value >> 8 * j);
        for (uint32_t k = 0; k < tables.row_words; ++k)
            result.word[k] ^= row[k];
    }
}

void bch_kernel_portable(const BchKernelTables& tables, const uint8_t* first, uint32_t count,
                         std::size_t stride, BchRegister* results) {
    encode_any(tables, first, count, stride, results);
}

#ifdef NANDSMITH_X86_KERNELS

bool bch_has_wide_rows() {
    return __builtin_cpu_supports("avx2");
}

bool bch_has_carry_less() {
    return __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1");
}

[[gnu::target("avx2")]] void bch_kernel_wide_rows(const BchKernelTables& tables, const uint8_t* first,
                                                  uint32_t count, std::size_t stride, BchRegister* results) {
    encode_any(tables, first, count, stride, results);
}

namespace {

/// The register of one codeword as the sum of its 64-bit words times x^e mod g. The products do not depend on
/// each other. Bit s of the sum is the coefficient of x^(degree + 63 - s), so its first 64 bits are beyond
/// the degree: they are reduced like 64 further input bits.
[[gnu::target("pclmul,sse4.1")]] void encode_carry_less(const BchKernelTables& tables,
                                                        const uint8_t* codeword, BchRegister& result) {
    const auto* powers = reinterpret_cast<const __m128i*>(tables.powers.data());
    __m128i sum0 = _mm_setzero_si128();
    __m128i sum1 = sum0;
    __m128i sum2 = sum0;
    __m128i sum3 = sum0;
    for (uint32_t i = 0; i < kFullWords; i += 2) {
        const __m128i data = _mm_loadu_si128(reinterpret_cast<const __m128i*>(codeword + i * 8));
        const __m128i low = _mm_loadu_si128(powers + i * 2);
        const __m128i high = _mm_loadu_si128(powers + i * 2 + 1);
        const __m128i next_low = _mm_loadu_si128(powers + i * 2 + 2);
        const __m128i next_high = _mm_loadu_si128(powers + i * 2 + 3);
        sum0 = _mm_xor_si128(sum0, _mm_xor_si128(_mm_clmulepi64_si128(data, low, 0x00),
                                                 _mm_clmulepi64_si128(data, next_low, 0x01)));
        sum1 = _mm_xor_si128(sum1, _mm_xor_si128(_mm_clmulepi64_si128(data, low, 0x10),
                                                 _mm_clmulepi64_si128(data, next_low, 0x11)));
        sum2 = _mm_xor_si128(sum2, _mm_xor_si128(_mm_clmulepi64_si128(data, high, 0x00),
                                                 _mm_clmulepi64_si128(data, next_high, 0x01)));
        sum3 = _mm_xor_si128(sum3, _mm_xor_si128(_mm_clmulepi64_si128(data, high, 0x10),
                                                 _mm_clmulepi64_si128(data, next_high, 0x11)));
    }
    // The last half word: its bits are the last ones of a word that starts with zeros. Its power is x^(degree
    // - 1), the number 1, so that its product is the word itself.
    const uint64_t last = static_cast<uint64_t>(load32(codeword + kFullWords * 8)) << 32;

    uint64_t sum[4][2];
    _mm_storeu_si128(reinterpret_cast<__m128i*>(sum[0]), sum0);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(sum[1]), sum1);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(sum[2]), sum2);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(sum[3]), sum3);
    const uint64_t beyond_degree = sum[0][0] ^ last;
    uint64_t word[4] = {sum[0][1] ^ sum[1][0], sum[1][1] ^ sum[2][0], sum[2][1] ^ sum[3][0], sum[3][1]};
    for (uint32_t j = 0; j < 8; ++j) {
        const uint64_t* row = tables.rows.data() + (j * 256 + (beyond_degree >> 8 * j & 0xFF)) * 4;
        for (uint32_t k = 0; k < 4; ++k)
            word[k] ^= row[k];
    }
    std::memcpy(result.word, word, sizeof(word));
}

}  // namespace

void bch_kernel_carry_less(const BchKernelTables& tables, const uint8_t* first, uint32_t count,
                           std::size_t stride, BchRegister* results) {
    for (uint32_t i = 0; i < count; ++i)
        encode_carry_less(tables, first + i * stride, results[i]);
}

#else

bool bch_has_wide_rows() {
    return false;
}

bool bch_has_carry_less() {
    return false;
}

void bch_kernel_wide_rows(const BchKernelTables& tables, const uint8_t* first, uint32_t count,
                          std::size_t stride, BchRegister* results) {
    bch_kernel_portable(tables, first, count, stride, results);
}

void bch_kernel_carry_less(const BchKernelTables& tables, const uint8_t* first, uint32_t count,
                           std::size_t stride, BchRegister* results) {
    bch_kernel_portable(tables, first, count, stride, results);
}

#endif
