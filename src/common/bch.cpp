#include "bch.h"

#include "bch/paths.h"

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <vector>

uint8_t mm = 14;
uint32_t MaxBitsNum;
uint32_t CodeBytesNum;
uint32_t SysBytesNum;
uint32_t CodeBitsNum;
uint32_t DubCodeBitsNum;
uint32_t CodeSysBitsNum;
uint32_t CodeSysBytesNum;
uint32_t CodecBitsNum;
uint32_t CodecBytesNum;
uint32_t CodecWordsNum;
uint32_t AllBitsNum;
uint32_t AllBytesNum;
uint32_t BCHSpareSize;

int32_t* alpha_to;
int32_t* index_of;
uint8_t p[21];
uint8_t gg[14 * kLargestBchStrength + 1];
uint32_t rr;
uint32_t ggx[64];

namespace {

BchTables tables;
BchRegister correction;  // added to every register
uint64_t encoded_codewords;

/// Primitive polynomials of the degrees 2 to 20; bit i is the coefficient of x^i.
constexpr uint32_t kPrimitivePolynomials[] = {0x7,     0xB,     0x13,    0x25,    0x43,    0x83,   0x171,
                                              0x211,   0x409,   0x805,   0x1099,  0x25AF,  0x41D5, 0x8003,
                                              0x1002D, 0x20009, 0x40081, 0x80063, 0x100009};

/// Exponents of the roots, in increasing order: the cyclotomic cosets of 1 to 2t.
std::vector<uint32_t> generator_roots() {
    std::vector<uint8_t> is_root(DubCodeBitsNum);
    for (uint32_t i = 1; i <= 2 * MaxBitsNum; ++i) {
        uint32_t exponent = i % DubCodeBitsNum;
        for (uint32_t j = 0; j < mm; ++j) {
            is_root[exponent] = 1;
            exponent = exponent * 2 % DubCodeBitsNum;
        }
    }
    std::vector<uint32_t> roots;
    for (uint32_t exponent = 0; exponent < DubCodeBitsNum; ++exponent)
        if (is_root[exponent] != 0)
            roots.push_back(exponent);
    return roots;
}

/// factor * alpha^exponent in the field.
int32_t times_power(int32_t factor, uint32_t exponent) {
    if (factor == 0)
        return 0;
    return alpha_to[(static_cast<uint32_t>(index_of[factor]) + exponent) % DubCodeBitsNum];
}

void pack_generator() {
    std::fill(std::begin(ggx), std::end(ggx), 0U);
    for (uint32_t bit = 0; bit + 1 < rr; ++bit)
        ggx[bit / 32] |= static_cast<uint32_t>(gg[rr - 1 - bit]) << bit % 32;
}

void set_configuration(uint16_t t) {
    mm = 14;
    MaxBitsNum = t;
    CodeBytesNum = 1024;
    SysBytesNum = 4;
    CodeBitsNum = CodeBytesNum * 8;
    DubCodeBitsNum = (1U << mm) - 1;
    CodeSysBytesNum = CodeBytesNum + SysBytesNum;
    CodeSysBitsNum = CodeSysBytesNum * 8;
    CodecBitsNum = MaxBitsNum * mm;
    CodecBytesNum = (CodecBitsNum + 7) / 8;
    CodecWordsNum = (CodecBytesNum + 3) / 4;
    AllBitsNum = CodecBitsNum + CodeSysBitsNum;
    AllBytesNum = CodecBytesNum + CodeSysBytesNum;
    BCHSpareSize = (CodecBitsNum / 8 + 1) & ~1U;
}

/// In an erased page every byte reads as 0xFF. For these three strengths it must be valid, so the complement
/// of the register of 1028 bytes of 0xFF is added to every register.
void set_correction() {
    correction = {};
    if (MaxBitsNum != 16 && MaxBitsNum != 24 && MaxBitsNum != 60)
        return;
    const std::vector<uint8_t> erased(kBchCodewordBytes, 0xFF);
    const uint8_t* const codeword = erased.data();
    kBchPortable.kernel(tables, &codeword, 1, &correction);
    for (uint64_t& word : correction.word)
        word = ~word;
}

}  // namespace

void generate_gf() {
    assert(alpha_to != nullptr && index_of != nullptr);
    assert(mm >= 2 && mm <= 20);
    const uint32_t polynomial = kPrimitivePolynomials[mm - 2];
    for (std::size_t i = 0; i < std::size(p); ++i)
        p[i] = static_cast<uint8_t>(polynomial >> i & 1);
    const uint32_t order = (1U << mm) - 1;
    const int32_t top = 1 << (mm - 1);
    const auto low_part = static_cast<int32_t>(polynomial & order);  // x^mm reduced

    int32_t power = 1;
    for (uint32_t i = 0; i < order; ++i) {
        alpha_to[i] = power;
        index_of[power] = static_cast<int32_t>(i);
        power = (power & top) != 0 ? low_part ^ (power ^ top) << 1 : power << 1;
    }
    index_of[0] = -1;
}

void gen_poly() {
    assert(alpha_to != nullptr && index_of != nullptr);
    const std::vector<uint32_t> roots = generator_roots();
    rr = static_cast<uint32_t>(roots.size());
    std::vector<int32_t> g(rr + 1, 0);
    g[0] = 1;
    uint32_t degree = 0;
    for (uint32_t root : roots) {  // g * (x + alpha^root)
        ++degree;
        for (uint32_t i = degree; i > 0; --i)
            g[i] = g[i - 1] ^ times_power(g[i], root);
        g[0] = times_power(g[0], root);
    }
    std::fill(std::begin(gg), std::end(gg), uint8_t{0});
    for (uint32_t i = 0; i <= rr; ++i)
        gg[i] = static_cast<uint8_t>(g[i]);  // 0 or 1: the cosets are complete
    pack_generator();
}

void bch_init(uint16_t t) {
    assert(t >= 1 && t <= kLargestBchStrength);
    set_configuration(t);
    std::vector<int32_t> powers(std::size_t{1} << mm);
    std::vector<int32_t> logarithms(powers.size());
    alpha_to = powers.data();
    index_of = logarithms.data();
    generate_gf();
    gen_poly();
    alpha_to = index_of = nullptr;
    bch_build_tables(ggx, rr, tables);
    set_correction();
    bch_select_path(bch_fastest_path(bch_paths()));
}

void bch_encode(const uint8_t* input, uint8_t* output) {
    if (output != input)
        std::memcpy(output, input, CodeSysBytesNum);
    bch_encode_units(&output, 1);
}

void bch_encode_units(uint8_t* const* units, uint32_t count) {
    encoded_codewords += count;
    BchRegister parities[kBchUnitsTogether];
    while (count != 0) {
        const uint32_t group = std::min(count, kBchUnitsTogether);
        bch_compute_parities(units, group, parities);
        for (uint32_t i = 0; i < group; ++i)
            std::memcpy(units[i] + kBchCodewordBytes, parities[i].word, CodecBytesNum);
        units += group;
        count -= group;
    }
}

void bch_compute_parities(const uint8_t* const* units, uint32_t count, BchRegister* parities) {
    bch_selected_path().kernel(tables, units, count, parities);
    for (uint32_t i = 0; i < count; ++i)
        for (std::size_t k = 0; k * sizeof(correction.word[0]) < CodecBytesNum; ++k)
            parities[i].word[k] ^= correction.word[k];
}

void bch_replace_system_bytes(uint8_t* codeword, uint32_t value) {
    uint8_t* system_bytes = codeword + CodeBytesNum;
    uint32_t before;
    std::memcpy(&before, system_bytes, sizeof(before));
    std::memcpy(system_bytes, &value, sizeof(value));

    BchRegister difference;
    bch_register_of_word(tables, before ^ value, difference);
    const auto* bytes = reinterpret_cast<const uint8_t*>(difference.word);
    for (uint32_t i = 0; i < CodecBytesNum; ++i)
        codeword[kBchCodewordBytes + i] ^= bytes[i];
}

uint64_t bch_encoded_codewords() {
    return encoded_codewords;
}
