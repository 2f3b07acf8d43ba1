#pragma once

#include "../../src/io/byte_buffer.h"
#include "../base/bit_flips.h"
#include "../base/result.h"
#include "dump.h"

#include <cstdint>
#include <optional>
#include <span>

/// What a page consists of, for counting flips: units of SLC NAND, or pieces of 1024 bytes that stand for
/// them.
struct UnitLayout {
    uint64_t unit = 0;      ///< bytes; the last one of a page may have fewer
    uint64_t per_page = 0;  ///< units of a page; bytes after them belong to none
    bool indexed = false;   ///< unit 0 of each page has the list index, which tells pages of fill apart
};

UnitLayout unit_layout(const Geometry& geometry);

/// True when the page says which one it is: the data of its units is not all of one byte.
bool is_telling(std::span<const uint8_t> page, const UnitLayout& units);

/// An erase block of a dump beside the bytes that are expected in it.
struct BlockLook {
    uint64_t block = 0;
    uint64_t fitting = 0;                ///< units with at most kCorrectableFlips
    uint64_t index_units = 0;            ///< units that have a list index
    uint64_t fitting_index = 0;          ///< of them, those in fitting
    uint64_t telling = 0;                ///< units whose expected data is not all of one byte
    uint64_t fitting_telling = 0;        ///< of them, those in fitting
    UnitCounts counts;                   ///< without the classes of what is beyond
    uint64_t too_many = 0;               ///< units with more flips than are allowed, those beyond among them
    uint64_t missing = 0;                ///< bytes after the end of the dump
    uint64_t unreadable = 0;             ///< bytes; units with such bytes are not counted
    std::optional<uint64_t> worst_unit;  ///< offset in the target of a unit with counts.worst() flips, not 0
    uint64_t odd_tails = 0;              ///< pages with over kCorrectableFlips flips after their units

    /// True when it is what is expected, perhaps with damage: at least half of its units fit. Pages of fill
    /// are alike in many blocks, so that has to be true of the units with list indexes and of those with
    /// other data than fill as well.
    bool belongs() const {
        return counts.units != 0 && 2 * fitting >= counts.units && 2 * fitting_index >= index_units &&
               2 * fitting_telling >= telling;
    }
};

/// Holds the pages of a dump against expected ones.
class BlockJudge {
public:
    /// The dump outlives it. max_flips: of a unit that still counts as the same.
    BlockJudge(Dump& dump, const UnitLayout& units, uint32_t max_flips)
        : m_dump(dump), m_units(units), m_max_flips(max_flips) {}

    /// False when there is no memory for a piece of the dump.
    bool prepare();

    /// Looks at all units of the block. With until_clear it ends as soon as the block cannot belong any more;
    /// the counts are then not complete.
    BlockLook look(std::span<const uint8_t> expected, uint64_t block, bool until_clear);
    /// True when a page of the block belongs by the rule for blocks; whole: all of its units fit.
    bool page_fits(std::span<const uint8_t> expected, uint64_t block, uint64_t page, bool whole);
    /// True when all units of the block are of 0xFF, but for flips.
    bool is_erased(uint64_t block);

    /// Adds the units that have too many flips to the result of their part: at most max_runs of them to its
    /// runs, their classes to its units, and the bits that differ in them to wrong.
    void log_differences(std::span<const uint8_t> expected, uint64_t block, uint64_t max_runs,
                         PartResult& part, BitFlips& wrong);

private:
    struct Unit;
    struct Piece;
    template <typename Use>
    void for_each_unit(const Piece& piece, Use use) const;
    Piece read(std::span<const uint8_t> expected, uint64_t block, uint64_t first);
    static void count_fitting(const Unit& unit, uint64_t flips, BlockLook& look);
    void count(const Unit& unit, BlockLook& look) const;
    void count_units(const Piece& piece, BlockLook& look) const;
    void count_clean(const Piece& piece, BlockLook& look) const;
    DifferenceRun::Holds class_of(const Unit& unit) const;
    uint64_t piece_size() const;

    Dump& m_dump;
    UnitLayout m_units;
    uint32_t m_max_flips;
    ByteBuffer m_piece;
};
