#include "decoder.h"

#include "../bch.h"
#include "locator.h"
#include "roots.h"
#include "tables.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <vector>

namespace {

constexpr uint32_t kUnitBits = 8 * BchDecoder::kUnitBytes;
constexpr uint32_t kParityBytes = BchDecoder::kUnitBytes - kBchCodewordBytes;
constexpr uint32_t kRemainderBits = 8 * kParityBytes;
constexpr uint32_t kGroups = kRemainderBits / 4;
static_assert(BchField::kDegree * kBchMostFlips == kRemainderBits);

using Remainder = BchDecoder::Remainder;
using OddSyndromes = std::array<BchElement, kBchMostFlips>;  // S_1, S_3, ...
static_assert(sizeof(OddSyndromes) == sizeof(BchRow));

/// What kParityBytes stored bytes differ in from the parity. Bits after the parity mean nothing and are left
/// out.
Remainder difference(const BchRegister& parity, const uint8_t* stored) {
    uint64_t words[3];
    uint32_t last;
    static_assert(sizeof(words) + sizeof(last) == kParityBytes);
    std::memcpy(words, stored, sizeof(words));
    std::memcpy(&last, stored + sizeof(words), sizeof(last));
    return {{parity.word[0] ^ words[0], parity.word[1] ^ words[1], parity.word[2] ^ words[2],
             static_cast<uint32_t>(parity.word[3]) ^ last}};
}

}  // namespace

struct BchDecoder::Tables {
    BchField field;
    /// What 4 bits of a remainder add to the odd syndromes: row group * 16 + value.
    std::vector<BchRow> rows;

    Tables() : rows(std::size_t{kGroups} * 16) {
        for (uint32_t group = 0; group < kGroups; ++group)
            for (uint32_t value = 0; value < 16; ++value)
                rows[group * 16 + value] = row(group, value);
    }

    BchRow row(uint32_t group, uint32_t value) const {
        OddSyndromes sum{};
        for (uint32_t bit = 0; bit < 4; ++bit)
            for (uint32_t k = 0; (value >> bit & 1) != 0 && k < sum.size(); ++k)
                sum[k] ^=
                    field.power((kRemainderBits - 1 - 4 * group - bit) * (2 * k + 1) % BchField::kOrder);
        BchRow packed;
        std::memcpy(&packed, &sum, sizeof(packed));
        return packed;
    }

    /// The generator is 0 at alpha^1 to alpha^2t. So there the remainder has the same values as the
    /// polynomial of the flipped bits.
    BchSyndromes syndromes(const Remainder& remainder) const {
        BchRow sum{};
        const BchRow* group = rows.data();
        for (uint32_t bit = 0; bit < kRemainderBits; bit += 4, group += 16) {
            const BchRow& row = group[remainder.word[bit / 64] >> bit % 64 & 0xF];
            for (uint32_t k = 0; k < 4; ++k)
                sum.word[k] ^= row.word[k];
        }
        OddSyndromes odd;
        std::memcpy(&odd, &sum, sizeof(odd));
        BchSyndromes all{};
        for (uint32_t j = 1; j < all.size(); ++j)
            all[j] = j % 2 != 0 ? odd[j / 2] : field.product(all[j / 2], all[j / 2]);
        return all;
    }
};

const BchDecoder::Tables& BchDecoder::shared_tables() {
    static const Tables tables;
    return tables;
}

BchDecoder::BchDecoder() : m_tables(&shared_tables()) {
    if (MaxBitsNum != kBchMostFlips)
        bch_init(kBchMostFlips);
}

void BchDecoder::remainders(const uint8_t* const* units, uint32_t count, Remainder* out) const {
    assert(MaxBitsNum == kBchMostFlips);
    BchRegister parities[kBchUnitsTogether];
    while (count != 0) {
        const uint32_t group = std::min(count, kBchUnitsTogether);
        bch_compute_parities(units, group, parities);
        for (uint32_t i = 0; i < group; ++i)
            out[i] = difference(parities[i], units[i] + kBchCodewordBytes);
        units += group;
        out += group;
        count -= group;
    }
}

BchDecoder::Flips BchDecoder::find_flips(const Remainder& remainder) const {
    constexpr Flips clean{.correctable = true, .count = 0, .bits = {}};
    constexpr Flips refused{.correctable = false, .count = 0, .bits = {}};
    assert(remainder.word[3] >> 32 == 0);
    if (remainder == Remainder{})
        return clean;
    BchPolynomial locator;
    BchLogs powers;
    if (!bch_find_locator(m_tables->field, m_tables->syndromes(remainder), locator) ||
        !bch_find_roots(m_tables->field, locator, powers))
        return refused;
    Flips flips{.correctable = true, .count = locator.degree, .bits = {}};
    for (uint32_t i = 0; i < flips.count; ++i) {
        // The code is shortened: powers from kUnitBits on have no place in a unit.
        if (powers[i] >= kUnitBits)
            return refused;
        flips.bits[i] = static_cast<uint16_t>(kUnitBits - 1 - powers[i]);
    }
    std::sort(flips.bits.begin(), flips.bits.begin() + flips.count);
    return flips;
}

void BchDecoder::correct(uint8_t* unit, const Flips& flips) {
    for (uint32_t i = 0; i < flips.count; ++i)
        unit[flips.bits[i] / 8] ^= static_cast<uint8_t>(1U << flips.bits[i] % 8);
}
