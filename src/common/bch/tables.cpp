#include "tables.h"

#include <cstring>

namespace {

constexpr uint32_t kRowGroups = 64;  // of 4 bits each, in a row
constexpr uint32_t kTailBytes = kBchCodewordBytes - kBchBlocks * kBchBlockBytes;
static_assert(kTailBytes == 4, "the kernels add the tail to half a word");

/// The register of x^0.
BchRegister register_of_one(uint32_t degree) {
    BchRegister one{};
    one.word[(degree - 1) / 64] = uint64_t{1} << (degree - 1) % 64;
    return one;
}

/// The register of the generator without its highest term. The packed generator lacks the term x^0 as well.
BchRegister register_of_generator(const uint32_t* generator, uint32_t degree) {
    BchRegister polynomial = register_of_one(degree);
    for (uint32_t bit = 0; bit + 1 < degree; ++bit)
        polynomial.word[bit / 64] |= static_cast<uint64_t>(generator[bit / 32] >> bit % 32 & 1) << bit % 64;
    return polynomial;
}

/// value = value * x mod g, a shift by one bit towards bit 0. polynomial is g without its highest term.
void multiply_by_x(BchRegister& value, const BchRegister& polynomial) {
    const uint64_t carry = 0 - (value.word[0] & 1);
    for (std::size_t k = 0; k < kBchRegisterWords; ++k) {
        const uint64_t next = k + 1 < kBchRegisterWords ? value.word[k + 1] : 0;
        value.word[k] = (value.word[k] >> 1 | next << 63) ^ (polynomial.word[k] & carry);
    }
}

/// Fills the entries of all values with several bits from those with a single bit, of which they are sums. An
/// entry has that many rows.
void add_up_entries(BchRow* entries, uint32_t values, uint32_t rows) {
    for (uint32_t value = 1; value < values; ++value) {
        const uint32_t lowest = value & (0 - value);
        for (uint32_t k = 0; value != lowest && k < rows * 4; ++k)
            entries[value * rows + k / 4].word[k % 4] = entries[lowest * rows + k / 4].word[k % 4] ^
                                                        entries[(value ^ lowest) * rows + k / 4].word[k % 4];
    }
}

/// The last bit of the last byte adds x^degree mod g, which is the polynomial. Each bit before it adds x
/// times what the bit after it adds.
void build_rows(const BchRegister& polynomial, BchTables& tables) {
    const uint32_t rows = tables.rows_per_register;
    tables.rows.assign(std::size_t{8} * 256 * rows, BchRow{});
    BchRegister power = polynomial;
    for (uint32_t position = 8; position-- > 0;) {
        BchRow* entries = tables.rows.data() + std::size_t{position} * 256 * rows;
        for (uint32_t bit = 8; bit-- > 0;) {
            std::memcpy(entries + (1U << bit) * rows, power.word, rows * sizeof(BchRow));
            multiply_by_x(power, polynomial);
        }
        add_up_entries(entries, 256, rows);
    }
}

/// After half a codeword of zeros, which has h bits, bit b of a register is x^(degree - 1 - b + h) mod g.
void build_half_way_rows(const BchRegister& polynomial, uint32_t degree, BchTables& tables) {
    tables.half_way_rows.assign(std::size_t{kRowGroups} * 16, BchRow{});
    BchRow* entries = tables.half_way_rows.data();
    BchRegister power = register_of_one(degree);
    for (uint32_t bit = 0; bit < kBchInputWords / 2 * 64; ++bit)
        multiply_by_x(power, polynomial);
    for (uint32_t bit = degree; bit-- > 0;) {
        std::memcpy(entries + bit / 4 * 16 + (1U << bit % 4), power.word, sizeof(BchRow));
        multiply_by_x(power, polynomial);
    }
    for (uint32_t group = 0; group < kRowGroups; ++group)
        add_up_entries(entries + group * 16, 16, 1);
}

/// For a degree of up to 256.
BchMultipliers build_multipliers(const BchRegister& polynomial) {
    BchMultipliers m{};
    BchRegister power{{1}};  // x^(degree - 1)
    for (uint32_t i = kBchBlocks; i-- > 0;) {
        const uint32_t bits = 8 * (i + 1 == kBchBlocks ? kTailBytes : kBchBlockBytes);
        for (uint32_t bit = 0; bit < bits; ++bit)
            multiply_by_x(power, polynomial);
        const uint64_t* c = power.word;
        m.low[i] = {c[0], c[1]};
        m.high[i] = {c[2], c[3]};
        m.sum[i] = {c[0] ^ c[2], c[1] ^ c[3]};
        m.folded[i] = {c[0] ^ c[1], c[2] ^ c[3]};
        m.all[i] = {c[0] ^ c[1] ^ c[2] ^ c[3], 0};
    }
    return m;
}

}  // namespace

void bch_build_tables(const uint32_t* generator, uint32_t degree, BchTables& tables) {
    const BchRegister polynomial = register_of_generator(generator, degree);
    tables = {};
    tables.rows_per_register = (degree + 255) / 256;
    build_rows(polynomial, tables);
    if (tables.rows_per_register == 1) {
        build_half_way_rows(polynomial, degree, tables);
        tables.multipliers = build_multipliers(polynomial);
    }
}

void bch_register_of_word(const BchTables& tables, uint32_t value, BchRegister& result) {
    result = {};
    for (uint32_t j = 0; j < 4; ++j) {
        const std::size_t entry = (j + 4) * 256 + (value >> 8 * j & 0xFF);
        const BchRow* row = tables.rows.data() + entry * tables.rows_per_register;
        for (uint32_t k = 0; k < tables.rows_per_register * 4; ++k)
            result.word[k] ^= row[k / 4].word[k % 4];
    }
}
