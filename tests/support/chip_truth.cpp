#include "chip_truth.h"

#include "bch_judge.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace test_support {

namespace {

using Span = std::span<const uint8_t>;

// Bits that differ, by the direction in which they went.
struct Flipped {
    uint32_t cleared = 0;
    uint32_t set = 0;

    uint32_t bits() const { return cleared + set; }
};

Flipped flipped(Span expected, Span actual) {
    Flipped flips;
    if (std::memcmp(expected.data(), actual.data(), expected.size()) == 0)
        return flips;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const auto changed = static_cast<uint8_t>(expected[i] ^ actual[i]);
        flips.cleared += static_cast<uint32_t>(std::popcount(static_cast<uint8_t>(changed & expected[i])));
        flips.set += static_cast<uint32_t>(std::popcount(static_cast<uint8_t>(changed & actual[i])));
    }
    return flips;
}

bool is_erased(Span unit) {
    uint32_t zero_bits = 0;
    for (std::size_t i = 0; i < unit.size() && zero_bits <= kCorrectableUnitFlips; ++i)
        zero_bits += static_cast<uint32_t>(std::popcount(static_cast<uint8_t>(~unit[i])));
    return zero_bits <= kCorrectableUnitFlips;
}

DecodeResult decode(Span unit) {
    return bch_decode(unit.data(), unit.data() + kBchMessageBytes, kCorrectableUnitFlips);
}

UnitClass class_of(Span unit, ChipKind kind) {
    if (is_erased(unit))
        return UnitClass::erased;
    const bool has_parity = kind == ChipKind::slc;
    if (has_parity && decode(unit).status != DecodeResult::Status::failed)
        return UnitClass::foreign;
    return UnitClass::ruined;
}

void count(UnitTruth& units, const Flipped& flips) {
    units.units++;
    if (flips.bits() > kCorrectableUnitFlips) {
        units.beyond++;
        return;
    }
    units.flips[flips.bits()]++;
    units.cleared += flips.cleared;
    units.set += flips.set;
}

}  // namespace

uint32_t UnitTruth::worst() const {
    uint32_t most = kCorrectableUnitFlips;
    while (most != 0 && flips[most] == 0)
        --most;
    return most;
}

void UnitTruth::add(const UnitTruth& other) {
    units += other.units;
    for (std::size_t n = 0; n < flips.size(); ++n)
        flips[n] += other.flips[n];
    beyond += other.beyond;
    foreign += other.foreign;
    erased += other.erased;
    cleared += other.cleared;
    set += other.set;
}

bool FileTruth::can_be_read(ChipKind kind) const {
    return units.beyond == 0 && (kind == ChipKind::slc || units.flipped_bits() == 0);
}

Span ChipWitness::unit_of(Span block, uint32_t page, uint32_t unit) const {
    const uint64_t offset = page * m_geometry.page() + uint64_t{unit} * m_geometry.unit_bytes();
    return block.subspan(static_cast<std::size_t>(offset), m_geometry.unit_bytes());
}

void ChipWitness::take_unit(FileTruth& file, BlockTruth& seen, LostUnit place, Span expected, Span actual) {
    const Flipped flips = flipped(expected, actual);
    count(file.units, flips);
    if (is_erased(actual))
        file.units.erased++;
    place.flips = flips.bits();
    if (place.flips <= kCorrectableUnitFlips) {
        seen.flipped_bits += place.flips;
        seen.worst = std::max(seen.worst, place.flips);
        return;
    }
    seen.beyond++;
    place.what = class_of(actual, m_geometry.kind);
    if (place.what == UnitClass::foreign)
        file.units.foreign++;
    m_truth.lost.push_back(place);
}

void ChipWitness::take_used(std::size_t file, uint64_t block, uint32_t pages, Span expected, Span actual) {
    FileTruth& truth = m_truth.files[file];
    BlockTruth seen{.block = block};
    const auto tail_offset = std::size_t{m_geometry.units_per_page()} * m_geometry.unit_bytes();
    const auto page_bytes = static_cast<std::size_t>(m_geometry.page());
    for (uint32_t page = 0; page < pages; ++page) {
        for (uint32_t unit = 0; unit < m_geometry.units_per_page(); ++unit)
            take_unit(truth, seen, {.block = block, .page = page, .unit = unit},
                      unit_of(expected, page, unit), unit_of(actual, page, unit));
        const std::size_t tail = page * page_bytes + tail_offset;
        truth.flips_outside_units += flipped(expected.subspan(tail, page_bytes - tail_offset),
                                             actual.subspan(tail, page_bytes - tail_offset))
                                         .bits();
    }
    if (seen.flipped_bits != 0 || seen.beyond != 0)
        m_truth.blocks.push_back(seen);
}

// The slow decoder is asked only where it is not known what the unit can be corrected to.
void ChipWitness::take_parity(Span programmed, bool valid, Span actual) {
    UnitTruth& units = m_truth.by_parity;
    const Flipped flips = flipped(programmed, actual);
    if (valid && flips.bits() <= kCorrectableUnitFlips) {
        count(units, flips);
        units.erased += is_erased(actual) ? 1 : 0;
        return;
    }
    Bytes corrected(actual.begin(), actual.end());
    const DecodeResult result = decode(actual);
    if (result.status == DecodeResult::Status::failed) {
        units.units++;
        units.beyond++;
        return;
    }
    for (const std::size_t bit : result.wrong_bits)
        corrected[bit / 8] = static_cast<uint8_t>(corrected[bit / 8] ^ (1U << bit % 8));
    count(units, flipped(corrected, actual));
    units.erased += is_erased(actual) ? 1 : 0;
}

void ChipWitness::take_any(Span programmed, bool valid, Span actual) {
    bool erased = true;
    for (uint32_t page = 0; page < m_geometry.pages_per_block; ++page) {
        for (uint32_t unit = 0; unit < m_geometry.units_per_page(); ++unit) {
            const Span bytes = unit_of(actual, page, unit);
            erased = erased && is_erased(bytes);
            if (m_geometry.is_slc())
                take_parity(unit_of(programmed, page, unit), valid, bytes);
        }
    }
    m_truth.erased_blocks += erased ? 1 : 0;
}

}  // namespace test_support
