#include "table_register.h"

#include <cstring>

namespace {

constexpr uint32_t kFirstBytes = kBchCodewordBytes % 8;  // of a codeword, before its 64-bit words
constexpr uint32_t kInputWords = kBchCodewordBytes / 8;
static_assert(kFirstBytes == 4 && kInputWords % 2 == 0, "half a word, then two halves");
constexpr uint32_t kRowGroups = 64;  // of 4 bits each

/// How many registers are fed side by side at most: more of them than this in half rows do not fit the vector
/// registers.
template <typename Vector>
constexpr uint32_t kLanes = sizeof(Vector) == sizeof(WholeRow) ? 8 : 4;

/// Adds to a register what is left of the one before after half a codeword of zeros.
template <typename Vector>
[[gnu::always_inline]] inline void add_half_way(const BchTables& tables,
                                                const BchTableRegister<Vector, 1>& before,
                                                BchTableRegister<Vector, 1>& sum) {
    constexpr uint32_t vectors = BchTableRegister<Vector, 1>::kVectors;
    const auto* entry = reinterpret_cast<const Vector*>(tables.half_way_rows.data());
    BchRegister words;
    before.store(words);
    for (const uint64_t word : {words.word[0], words.word[1], words.word[2], words.word[3]})
        for (uint32_t group = 0; group < 16; ++group, entry += 16 * vectors)
            for (uint32_t v = 0; v < vectors; ++v)
                sum.part[v] ^= entry[(word >> 4 * group & 0xF) * vectors + v];
}

/// Encodes Units codewords side by side, each in Parts (1 or 2): while the rows of one register are loaded,
/// the others go on. All lanes are unrolled, so that their registers stay in the processor's. A codeword
/// begins in the middle of a 64-bit word, for zeros before it change nothing.
template <typename Vector, uint32_t Rows, uint32_t Units, uint32_t Parts>
[[gnu::always_inline]] inline void encode_units(const BchTables& tables, const uint8_t* const* codewords,
                                                BchRegister* results) {
    constexpr uint32_t part_bytes = kInputWords / Parts * 8;
    const auto* table = reinterpret_cast<const Vector*>(tables.rows.data());
    BchTableRegister<Vector, Rows> lanes[Units * Parts];
    const uint8_t* input[Units * Parts];
#pragma GCC unroll 8
    for (uint32_t lane = 0; lane < Units * Parts; ++lane) {
        const uint8_t* codeword = codewords[lane / Parts];
        input[lane] = codeword + kFirstBytes + lane % Parts * part_bytes;
        if (lane % Parts == 0)
            lanes[lane].feed(table, uint64_t{bch_load<uint32_t>(codeword)} << 32);
    }
    for (uint32_t i = 0; i < part_bytes; i += 8) {
#pragma GCC unroll 8
        for (uint32_t lane = 0; lane < Units * Parts; ++lane)
            lanes[lane].feed(table, bch_load<uint64_t>(input[lane] + i));
    }
#pragma GCC unroll 8
    for (uint32_t unit = 0; unit < Units; ++unit) {
        if constexpr (Parts == 2)
            add_half_way(tables, lanes[unit * 2], lanes[unit * 2 + 1]);
        lanes[unit * Parts + Parts - 1].store(results[unit]);
    }
}

/// As many units at a time as there are lanes; fewer, if their register is one row, are cut in halves, so
/// that more lanes have work.
template <typename Vector, uint32_t Rows>
[[gnu::always_inline]] inline void encode_rows(const BchTables& tables, const uint8_t* const* codewords,
                                               uint32_t count, BchRegister* results) {
    constexpr uint32_t lanes = kLanes<Vector>;
    constexpr uint32_t parts = Rows == 1 ? 2 : 1;
    while (count != 0) {
        uint32_t units = 1;
        if (count >= lanes) {
            units = lanes;
            encode_units<Vector, Rows, lanes, 1>(tables, codewords, results);
        } else if (count >= lanes / 2) {
            units = lanes / 2;
            encode_units<Vector, Rows, lanes / 2, parts>(tables, codewords, results);
        } else if (lanes > 4 && count >= lanes / 4) {
            units = lanes / 4;
            encode_units<Vector, Rows, lanes / 4, parts>(tables, codewords, results);
        } else {
            encode_units<Vector, Rows, 1, parts>(tables, codewords, results);
        }
        codewords += units;
        results += units;
        count -= units;
    }
}

/// A function for each width of the register: in one that holds them all the compiler runs out of registers.
template <uint32_t Rows>
[[gnu::noinline]] void portable(const BchTables& tables, const uint8_t* const* codewords, uint32_t count,
                                BchRegister* results) {
    encode_rows<HalfRow, Rows>(tables, codewords, count, results);
}

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
            for (uint32_t i = 0; i < kInputWords / 2; ++i)
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

void bch_kernel_portable(const BchTables& tables, const uint8_t* const* codewords, uint32_t count,
                         BchRegister* results) {
    constexpr BchKernel by_rows[] = {portable<1>, portable<2>, portable<3>, portable<4>};
    by_rows[tables.rows_per_register - 1](tables, codewords, count, results);
}

#if defined(__x86_64__)

namespace {

template <uint32_t Rows>
[[gnu::noinline, gnu::target("avx2")]] void wide(const BchTables& tables, const uint8_t* const* codewords,
                                                 uint32_t count, BchRegister* results) {
    encode_rows<WholeRow, Rows>(tables, codewords, count, results);
}

}  // namespace

bool bch_has_wide_rows() {
    return __builtin_cpu_supports("avx2");
}

void bch_kernel_wide_rows(const BchTables& tables, const uint8_t* const* codewords, uint32_t count,
                          BchRegister* results) {
    constexpr BchKernel by_rows[] = {wide<1>, wide<2>, wide<3>, wide<4>};
    by_rows[tables.rows_per_register - 1](tables, codewords, count, results);
}

#else

bool bch_has_wide_rows() {
    return false;
}

void bch_kernel_wide_rows(const BchTables& tables, const uint8_t* const* codewords, uint32_t count,
                          BchRegister* results) {
    bch_kernel_portable(tables, codewords, count, results);
}

#endif
