#include "block_judge.h"

#include "../../src/common/byte_run.h"
#include "../base/places.h"
#include "other_data.h"

#include <algorithm>
#include <cstring>

namespace {

// Bytes of the dump that are read at once, unless a page has more. They stay in the cache of the processor.
constexpr uint64_t kPiece = 128 * 1024;

constexpr uint64_t kChunk = 1024;  // of a page without units

/// True when the bytes are 0xFF, but for a number of flips that can be corrected.
bool is_erased(const uint8_t* bytes, uint64_t size) {
    uint64_t zeros = 0;
    for (uint64_t at = 0; at < size && zeros <= kCorrectableFlips; ++at)
        zeros += static_cast<uint64_t>(std::popcount(static_cast<uint8_t>(~bytes[at])));
    return zeros <= kCorrectableFlips;
}

bool is_in(const std::vector<ByteRange>& ranges, uint64_t first, uint64_t end) {
    return std::any_of(ranges.begin(), ranges.end(),
                       [&](const ByteRange& range) { return range.first < end && first < range.end; });
}

uint64_t bytes_of(const std::vector<ByteRange>& ranges) {
    uint64_t sum = 0;
    for (const ByteRange& range : ranges)
        sum += range.end - range.first;
    return sum;
}

}  // namespace

UnitLayout unit_layout(const Geometry& geometry) {
    if (!geometry.spare_areas)
        return {.unit = kChunk, .per_page = divided_up(geometry.page_data, kChunk), .indexed = false};
    const uint64_t units = std::min(geometry.page_data / kChunk, geometry.page / kUnit);
    return {.unit = kUnit, .per_page = units, .indexed = true};
}

bool is_telling(std::span<const uint8_t> page, const UnitLayout& units) {
    for (uint64_t k = 0; k < units.per_page && k * units.unit < page.size(); ++k) {
        const std::span<const uint8_t> unit = page.subspan(k * units.unit);
        if (!holds_only(unit.data(), std::min<uint64_t>(unit.size(), kChunk), page[0]))
            return true;
    }
    return false;
}

/// A unit of the block, or the bytes of a page after its units.
struct BlockJudge::Unit {
    const uint8_t* expected;
    const uint8_t* actual;
    uint64_t size;
    uint64_t byte_of_pages;  ///< where it starts, in the pages of the block
    bool has_index;
    bool is_tail;  ///< bytes after the units

    /// The data is not all of one byte.
    bool is_telling() const { return !holds_only(expected, std::min(size, kChunk), *expected); }
};

/// Pages that were read, or a part of them.
struct BlockJudge::Piece {
    std::span<const uint8_t> expected;
    const uint8_t* actual;
    uint64_t first;  ///< byte of the block's pages
    DumpBytes bytes;

    bool is_clean() const {
        return bytes.there == expected.size() && bytes.unreadable.empty() &&
               std::memcmp(expected.data(), actual, expected.size()) == 0;
    }
    bool is_there(uint64_t from, uint64_t size) const {
        return from + size <= bytes.there && !is_in(bytes.unreadable, from, from + size);
    }
};

bool BlockJudge::prepare() {
    return m_piece.size() != 0 || m_piece.reset(piece_size());
}

/// Whole pages.
uint64_t BlockJudge::piece_size() const {
    const uint64_t page = m_dump.format().page;
    return std::max<uint64_t>(kPiece / page, 1) * page;
}

BlockJudge::Piece BlockJudge::read(std::span<const uint8_t> expected, uint64_t block, uint64_t first) {
    const uint64_t count = std::min<uint64_t>(piece_size(), expected.size() - first);
    return {.expected = expected.subspan(first, count),
            .actual = m_piece.data(),
            .first = first,
            .bytes = m_dump.read(block, first, count, m_piece.data())};
}

/// Calls use for the units of the piece, and for the bytes after the units of its pages, until it gives
/// false.
template <typename Use>
void BlockJudge::for_each_unit(const Piece& piece, Use use) const {
    const uint64_t page = m_dump.format().page;
    for (uint64_t start = 0; start < piece.expected.size(); start += page) {
        const uint64_t end = std::min<uint64_t>(start + page, piece.expected.size());
        uint64_t at = start;
        for (uint64_t k = 0; k <= m_units.per_page && at < end; ++k) {
            const bool tail = k == m_units.per_page;
            const uint64_t size = tail ? end - at : std::min(m_units.unit, end - at);
            const Unit unit{.expected = piece.expected.data() + at,
                            .actual = piece.actual + at,
                            .size = size,
                            .byte_of_pages = piece.first + at,
                            .has_index = m_units.indexed && k == 0,
                            .is_tail = tail};
            if (piece.is_there(at, size) && !use(unit))
                return;
            at += size;
        }
    }
}

/// Counts a unit with so many flips, which are few.
void BlockJudge::count_fitting(const Unit& unit, uint64_t flips, BlockLook& look) {
    ++look.fitting;
    look.fitting_index += unit.has_index ? 1 : 0;
    look.fitting_telling += unit.is_telling() ? 1 : 0;
    if (*unit.expected != 0xFF || !holds_only(unit.expected, unit.size, 0xFF))
        return;
    ++look.counts.erased;
    ++look.counts.erased_right;
    look.counts.erased_flips += flips;
}

void BlockJudge::count(const Unit& unit, BlockLook& look) const {
    const bool clean = std::memcmp(unit.expected, unit.actual, unit.size) == 0;
    const BitFlips flips =
        clean ? BitFlips() : flips_between(unit.expected, unit.actual, unit.size, kCorrectableFlips);
    if (unit.is_tail) {
        look.odd_tails += flips.all() > kCorrectableFlips ? 1 : 0;
        return;
    }
    ++look.counts.units;
    look.index_units += unit.has_index ? 1 : 0;
    look.telling += unit.is_telling() ? 1 : 0;
    look.too_many += flips.all() > m_max_flips ? 1 : 0;
    if (flips.all() > kCorrectableFlips) {
        ++look.counts.beyond;
        return;
    }
    if (!clean && (flips.all() > look.counts.worst() || !look.worst_unit))
        look.worst_unit = m_dump.place_of(look.block, unit.byte_of_pages);
    ++look.counts.flips[flips.all()];
    look.counts.cleared += flips.cleared;
    look.counts.set += flips.set;
    count_fitting(unit, flips.all(), look);
}

void BlockJudge::count_units(const Piece& piece, BlockLook& look) const {
    for_each_unit(piece, [&](const Unit& unit) {
        count(unit, look);
        return true;
    });
}

/// Counts the units of a piece that is exactly as expected.
void BlockJudge::count_clean(const Piece& piece, BlockLook& look) const {
    for_each_unit(piece, [&](const Unit& unit) {
        if (unit.is_tail)
            return true;
        ++look.counts.units;
        ++look.counts.flips[0];
        const uint64_t telling = look.fitting_telling;
        count_fitting(unit, 0, look);
        look.index_units += unit.has_index ? 1 : 0;
        look.telling += look.fitting_telling - telling;
        return true;
    });
}

BlockLook BlockJudge::look(std::span<const uint8_t> expected, uint64_t block, bool until_clear) {
    BlockLook look;
    look.block = block;
    const uint64_t pages = divided_up(expected.size(), m_dump.format().page);
    const auto is_clear = [&] {
        const uint64_t wrong = look.counts.units - look.fitting;
        const uint64_t wrong_index = look.index_units - look.fitting_index;
        return 2 * wrong > pages * m_units.per_page || 2 * wrong_index > pages;
    };
    for (uint64_t first = 0; first < expected.size(); first += piece_size()) {
        const Piece piece = read(expected, block, first);
        look.missing += piece.expected.size() - piece.bytes.there;
        look.unreadable += bytes_of(piece.bytes.unreadable);
        if (piece.is_clean())
            count_clean(piece, look);
        else
            count_units(piece, look);
        if (until_clear && is_clear())
            break;
    }
    return look;
}

bool BlockJudge::page_fits(std::span<const uint8_t> expected, uint64_t block, uint64_t page, bool whole) {
    BlockLook look;
    look.block = block;
    const uint64_t first = page * m_dump.format().page;
    const DumpBytes bytes = m_dump.read(block, first, expected.size(), m_piece.data());
    for_each_unit({.expected = expected, .actual = m_piece.data(), .first = first, .bytes = bytes},
                  [&](const Unit& unit) {
                      count(unit, look);
                      return true;
                  });
    return look.counts.units != 0 && (whole ? look.counts.beyond == 0 : look.belongs());
}

bool BlockJudge::is_erased(uint64_t block) {
    const uint64_t size = m_dump.format().block_pages * m_dump.format().page;
    for (uint64_t first = 0; first < size; first += piece_size()) {
        const uint64_t count = std::min(piece_size(), size - first);
        const DumpBytes bytes = m_dump.read(block, first, count, m_piece.data());
        if (bytes.there != count || !bytes.unreadable.empty())
            return false;
        if (holds_only(m_piece.data(), count, 0xFF))
            continue;
        bool erased = true;
        const std::span<const uint8_t> itself(m_piece.data(), count);
        for_each_unit({.expected = itself, .actual = m_piece.data(), .first = first, .bytes = bytes},
                      [&](const Unit& unit) { return erased = ::is_erased(unit.actual, unit.size); });
        if (!erased)
            return false;
    }
    return true;
}

namespace {

/// From the first byte that differs to the last one. Some byte differs.
DifferenceRun run_of(const uint8_t* expected, const uint8_t* actual, uint64_t size, uint64_t offset) {
    uint64_t first = 0;
    while (expected[first] == actual[first])
        ++first;
    uint64_t end = size;
    while (expected[end - 1] == actual[end - 1])
        --end;
    return {.offset = offset + first,
            .length = end - first,
            .flips = flips_between(expected, actual, size, UINT64_MAX).all(),
            .expected = expected[first],
            .actual = actual[first]};
}

uint64_t bytes_that_differ(const uint8_t* expected, const uint8_t* actual, uint64_t size) {
    uint64_t count = 0;
    for (uint64_t at = 0; at < size; ++at)
        count += expected[at] != actual[at] ? 1 : 0;
    return count;
}

}  // namespace

DifferenceRun::Holds BlockJudge::class_of(const Unit& unit) const {
    if (::is_erased(unit.actual, unit.size))
        return DifferenceRun::Holds::kErased;
    if (m_units.indexed && holds_other_data(unit.actual))
        return DifferenceRun::Holds::kOtherData;
    return m_units.indexed ? DifferenceRun::Holds::kRuined : DifferenceRun::Holds::kNotKnown;
}

void BlockJudge::log_differences(std::span<const uint8_t> expected, uint64_t block, uint64_t max_runs,
                                 PartResult& part, BitFlips& wrong) {
    uint64_t last_page = UINT64_MAX;
    const auto log = [&](const Unit& unit) {
        if (unit.is_tail || std::memcmp(unit.expected, unit.actual, unit.size) == 0)
            return true;
        const BitFlips flips = flips_between(unit.expected, unit.actual, unit.size, UINT64_MAX);
        if (flips.all() <= m_max_flips)
            return true;
        const uint64_t offset = m_dump.place_of(block, unit.byte_of_pages);
        DifferenceRun run = run_of(unit.expected, unit.actual, unit.size, offset);
        if (flips.all() > kCorrectableFlips)
            run.holds = class_of(unit);
        part.units.foreign += run.holds == DifferenceRun::Holds::kOtherData ? 1 : 0;
        part.units.erased += run.holds == DifferenceRun::Holds::kErased ? 1 : 0;
        wrong.cleared += flips.cleared;
        wrong.set += flips.set;
        part.differing += bytes_that_differ(unit.expected, unit.actual, unit.size);
        const uint64_t page = unit.byte_of_pages / m_dump.format().page;
        part.differing_pages += page != last_page ? 1 : 0;
        last_page = page;
        ++part.runs_found;
        if (part.runs.size() < max_runs)
            part.runs.push_back(run);
        return true;
    };
    for (uint64_t first = 0; first < expected.size(); first += piece_size())
        for_each_unit(read(expected, block, first), log);
}
