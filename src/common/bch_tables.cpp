#include "bch_kernels.h"

#include <cstring>

namespace {

constexpr uint32_t kInputWords =
    kBchCodewordBytes / 8;  // 64-bit words of a codeword before its last half word

/// Rows as the processor takes them: whole where it has vectors of 256 bits, else in halves, which every
/// x86-64 has.
using WholeRow = uint64_t __attribute__((vector_size(sizeof(BchRow))));
using HalfRow = uint64_t __attribute__((vector_size(sizeof(BchRow) / 2)));

template <typename Word>
[[gnu::always_inline]] inline Word load(const uint8_t* bytes) {
    Word word;
    std::memcpy(&word, bytes, sizeof(word));
    return word;
}

/// Moves part on by a 64-bit word; the first one of next follows.
[[gnu::always_inline]] inline void shift_in(WholeRow& part, const WholeRow& next) {
    part = __builtin_shufflevector(part, next, 1, 2, 3, 4);
}
[[gnu::always_inline]] inline void shift_in(HalfRow& part, const HalfRow& next) {
    part = __builtin_shufflevector(part, next, 1, 2);
}

/// A register of Rows rows, and the step that both table paths are made of.
template <typename Vector, uint32_t Rows>
struct VectorRegister {
    static constexpr uint32_t kVectors = Rows * sizeof(BchRow) / sizeof(Vector);
    Vector part[kVectors] = {};

    /// Feeds a 64-bit word of input. The register moves on by one word; what its first word and the input add
    /// up to comes back in through the generator, byte by byte out of the tables.
    [[gnu::always_inline]] inline void feed(const Vector* table, uint64_t input) {
        const uint64_t index = part[0][0] ^ input;
        for (uint32_t v = 0; v + 1 < kVectors; ++v)
            shift_in(part[v], part[v + 1]);
        shift_in(part[kVectors - 1], Vector{});
        for (uint32_t position = 0; position < 8; ++position) {
            const Vector* entry = table + (position * 256 + (index >> 8 * position & 0xFF)) * kVectors;
            for (uint32_t v = 0; v < kVectors; ++v)
                part[v] ^= entry[v];
        }
    }

    /// Feeds the last 32 bits of a codeword and hands the register out.
    [[gnu::always_inline]] inline void finish(const BchRow* table, uint32_t input,
                                              BchRegister& result) const {
        uint64_t word[Rows * 4 + 1] = {};
        std::memcpy(word, part, sizeof(part));
        const uint64_t index = word[0] ^ input;
        for (uint32_t k = 0; k < Rows * 4; ++k) {
            word[k] = word[k] >> 32 | word[k + 1] << 32;
            for (uint32_t position = 4; position < 8; ++position) {
                const uint32_t entry = position * 256 + (index >> 8 * (position - 4) & 0xFF);
                word[k] ^= table[entry * Rows + k / 4].word[k % 4];
            }
        }
        std::memcpy(result.word, word, sizeof(part));
    }
};

/// Encodes Lanes codewords side by side: while the rows of one are loaded, the others go on.
template <typename Vector, uint32_t Rows, uint32_t Lanes>
[[gnu::always_inline]] inline void encode_lanes(const BchTables& tables, const uint8_t* first,
                                                std::size_t stride, BchRegister* results) {
    const auto* table = reinterpret_cast<const Vector*>(tables.rows.data());
    VectorRegister<Vector, Rows> lanes[Lanes];
    for (uint32_t i = 0; i < kInputWords; ++i)
        for (uint32_t lane = 0; lane < Lanes; ++lane)
            lanes[lane].feed(table, load<uint64_t>(first + lane * stride + i * 8));
    for (uint32_t lane = 0; lane < Lanes; ++lane)
        lanes[lane].finish(tables.rows.data(), load<uint32_t>(first + lane * stride + kInputWords * 8),
                           results[lane]);
}

template <typename Vector, uint32_t Rows>
[[gnu::always_inline]] inline void encode_rows(const BchTables& tables, const uint8_t* first, uint32_t count,
                                               std::size_t stride, BchRegister* results) {
    switch (count) {
    case 8:
        return encode_lanes<Vector, Rows, 8>(tables, first, stride, results);
    case 4:
        return encode_lanes<Vector, Rows, 4>(tables, first, stride, results);
    case 2:
        return encode_lanes<Vector, Rows, 2>(tables, first, stride, results);
    default:
        for (uint32_t i = 0; i < count; ++i)
            encode_lanes<Vector, Rows, 1>(tables, first + i * stride, stride, results + i);
    }
}

/// Always inlined into a function that says which instructions there are.
template <typename Vector>
[[gnu::always_inline]] inline void encode(const BchTables& tables, const uint8_t* first, uint32_t count,
                                          std::size_t stride, BchRegister* results) {
    switch (tables.rows_per_register) {
    case 1:
        return encode_rows<Vector, 1>(tables, first, count, stride, results);
    case 2:
        return encode_rows<Vector, 2>(tables, first, count, stride, results);
    case 3:
        return encode_rows<Vector, 3>(tables, first, count, stride, results);
    default:
        return encode_rows<Vector, 4>(tables, first, count, stride, results);
    }
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

    tables.multipliers.clear();
    if (degree <= 256)
        bch_build_multipliers(polynomial, tables);
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

void bch_kernel_portable(const BchTables& tables, const uint8_t* first, uint32_t count, std::size_t stride,
                         BchRegister* results) {
    encode<HalfRow>(tables, first, count, stride, results);
}

#if defined(__x86_64__)

bool bch_has_wide_rows() {
    return __builtin_cpu_supports("avx2");
}

[[gnu::target("avx2")]] void bch_kernel_wide_rows(const BchTables& tables, const uint8_t* first,
                                                  uint32_t count, std::size_t stride, BchRegister* results) {
    encode<WholeRow>(tables, first, count, stride, results);
}

#else

bool bch_has_wide_rows() {
    return false;
}

void bch_kernel_wide_rows(const BchTables& tables, const uint8_t* first, uint32_t count, std::size_t stride,
                          BchRegister* results) {
    bch_kernel_portable(tables, first, count, stride, results);
}

#endif
