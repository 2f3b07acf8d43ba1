#include "table_register.h"

#include <cstring>

namespace {

constexpr uint32_t kRowGroups = 64;  // of 4 bits each

/// The generator as the register has it, from bits 0 to degree - 2 of generator and the x^0 coefficient 1.
BchRegister register_of_generator(const uint32_t* generator, uint32_t degree) {
    BchRegister polynomial{};
    for (uint32_t bit = 0; bit + 1 < degree; ++bit)
        polynomial.word[bit / 64] |= static_cast<uint64_t>(generator[bit / 32] >> bit % 32 & 1) << bit % 64;
    polynomial.word[(degree - 1) / 64] |= uint64_t{1} << (degree - 1) % 64;
    return polynomial;
}

/// Fills the 256 registers of one byte position; power is x^degree times what follows bit 7 and moves on to
/// the position before.
void build_byte_rows(BchRegister& power, const BchRegister& polynomial, uint32_t rows, BchRow* position) {
    const auto row = [&](uint32_t byte) { return position + std::size_t{byte} * rows; };
    for (uint32_t bit = 8; bit-- > 0;) {
        std::memcpy(row(1U << bit), power.word, rows * sizeof(BchRow));
        bch_multiply_by_x(power, polynomial);
    }
    for (uint32_t byte = 1; byte < 256; ++byte) {
        const uint32_t lowest = byte & (0 - byte);
        for (uint32_t k = 0; byte != lowest && k < rows * 4; ++k)
            row(byte)[k / 4].word[k % 4] =
                row(lowest)[k / 4].word[k % 4] ^ row(byte ^ lowest)[k / 4].word[k % 4];
    }
}

/// Half a codeword of zeros behind every value of every group, by way of the groups' single bits.
void build_half_way_rows(BchTables& tables) {
    const auto* table = reinterpret_cast<const HalfRow*>(tables.rows.data());
    tables.half_way_rows.assign(std::size_t{kRowGroups} * 16, BchRow{});
    for (uint32_t group = 0; group < kRowGroups; ++group) {
        BchRow* entry = tables.half_way_rows.data() + std::size_t{group} * 16;
        for (uint32_t bit = 0; bit < 4; ++bit) {
            BchRow start{};
            start.word[group / 16] = uint64_t{1} << (group % 16 * 4 + bit);
            BchTableRegister<HalfRow, 1> value;
            std::memcpy(value.part, &start, sizeof(start));
            for (uint32_t i = 0; i < kBchInputWords / 2; ++i)
                value.feed(table, 0);
            std::memcpy(entry + (1U << bit), value.part, sizeof(BchRow));
        }
        for (uint32_t number = 1; number < 16; ++number) {
            const uint32_t lowest = number & (0 - number);
            for (uint32_t k = 0; number != lowest && k < 4; ++k)
                entry[number].word[k] = entry[lowest].word[k] ^ entry[number ^ lowest].word[k];
        }
    }
}

}  // namespace

void bch_multiply_by_x(BchRegister& value, const BchRegister& polynomial) {
    const uint64_t carry = 0 - (value.word[0] & 1);
    for (std::size_t k = 0; k < kBchRegisterWords; ++k) {
        const uint64_t next = k + 1 < kBchRegisterWords ? value.word[k + 1] : 0;
        value.word[k] = (value.word[k] >> 1 | next << 63) ^ (polynomial.word[k] & carry);
    }
}

void bch_build_tables(const uint32_t* generator, uint32_t degree, BchTables& tables) {
    const uint32_t rows = (degree + 255) / 256;
    const BchRegister polynomial = register_of_generator(generator, degree);
    tables.rows_per_register = rows;
    tables.rows.assign(std::size_t{8} * 256 * rows, BchRow{});

    BchRegister power = polynomial;  // x^degree reduced: what the last bit of the last byte adds
    for (uint32_t position = 8; position-- > 0;)
        build_byte_rows(power, polynomial, rows, tables.rows.data() + std::size_t{position} * 256 * rows);

    tables.half_way_rows.clear();
    tables.multipliers.clear();
    if (rows == 1) {
        build_half_way_rows(tables);
        bch_build_multipliers(polynomial, tables);
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
