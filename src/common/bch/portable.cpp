#include "paths.h"
#include "table_register.h"

namespace {

constexpr uint32_t kFirstBytes = kBchCodewordBytes % 8;  // of a codeword, before its 64-bit words
static_assert(kFirstBytes == 4 && kBchInputWords % 2 == 0, "half a word, then two halves of whole words");

/// sum += before * x^(half a codeword): joins the registers of a codeword's halves.
[[gnu::always_inline]] inline void join_halves(const BchTables& tables,
                                               const BchTableRegister<HalfRow, 1>& before,
                                               BchTableRegister<HalfRow, 1>& sum) {
    constexpr uint32_t vectors = BchTableRegister<HalfRow, 1>::kVectors;
    const auto* entry = reinterpret_cast<const HalfRow*>(tables.half_way_rows.data());
    BchRegister words;
    before.store(words);
    for (const uint64_t word : {words.word[0], words.word[1], words.word[2], words.word[3]})
        for (uint32_t group = 0; group < 16; ++group, entry += 16 * vectors)
            for (uint32_t v = 0; v < vectors; ++v)
                sum.part[v] ^= entry[(word >> 4 * group & 0xF) * vectors + v];
}

/// Encodes Units codewords side by side, each in Parts (1 or 2) parts. A lane is the register of one part.
/// While the rows of one lane are loaded, the processor works on the others. The loops over lanes are
/// unrolled, so that the lanes stay in its registers. A codeword starts with half a word, which is fed after
/// 4 bytes of zeros: these change nothing.
template <uint32_t Rows, uint32_t Units, uint32_t Parts>
[[gnu::always_inline]] inline void encode_units(const BchTables& tables, const uint8_t* const* codewords,
                                                BchRegister* results) {
    constexpr uint32_t part_bytes = kBchInputWords / Parts * 8;
    const auto* table = reinterpret_cast<const HalfRow*>(tables.rows.data());
    BchTableRegister<HalfRow, Rows> lanes[Units * Parts];
    const uint8_t* input[Units * Parts];
#pragma GCC unroll 4
    for (uint32_t lane = 0; lane < Units * Parts; ++lane) {
        const uint8_t* codeword = codewords[lane / Parts];
        input[lane] = codeword + kFirstBytes + lane % Parts * part_bytes;
        if (lane % Parts == 0)
            lanes[lane].feed(table, uint64_t{bch_load<uint32_t>(codeword)} << 32);
    }
    for (uint32_t i = 0; i < part_bytes; i += 8) {
#pragma GCC unroll 4
        for (uint32_t lane = 0; lane < Units * Parts; ++lane)
            lanes[lane].feed(table, bch_load<uint64_t>(input[lane] + i));
    }
#pragma GCC unroll 4
    for (uint32_t unit = 0; unit < Units; ++unit) {
        if constexpr (Parts == 2)
            join_halves(tables, lanes[unit * 2], lanes[unit * 2 + 1]);
        lanes[unit * Parts + Parts - 1].store(results[unit]);
    }
}

/// Four lanes fill the vector registers that every x86-64 processor has. When fewer than four units are left
/// and a register is one row, each unit is cut in half, so that more lanes have work.
template <uint32_t Rows>
[[gnu::noinline]] void encode_rows(const BchTables& tables, const uint8_t* const* codewords, uint32_t count,
                                   BchRegister* results) {
    constexpr uint32_t parts = Rows == 1 ? 2 : 1;
    while (count != 0) {
        uint32_t units = 1;
        if (count >= 4) {
            units = 4;
            encode_units<Rows, 4, 1>(tables, codewords, results);
        } else if (count >= 2) {
            units = 2;
            encode_units<Rows, 2, parts>(tables, codewords, results);
        } else {
            encode_units<Rows, 1, parts>(tables, codewords, results);
        }
        codewords += units;
        results += units;
        count -= units;
    }
}

/// Each width of the register has a function of its own. One function for all would need more registers than
/// a processor has.
void encode(const BchTables& tables, const uint8_t* const* codewords, uint32_t count, BchRegister* results) {
    constexpr BchKernel by_rows[] = {encode_rows<1>, encode_rows<2>, encode_rows<3>, encode_rows<4>};
    by_rows[tables.rows_per_register - 1](tables, codewords, count, results);
}

}  // namespace

extern constinit const BchPath kBchPortable{"portable", [] { return true; }, encode};
