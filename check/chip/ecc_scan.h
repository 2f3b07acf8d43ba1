#pragma once

#include "ecc_result.h"
#include "unit_corrector.h"

/// Counts what the parity says of the pages of a dump, which are given in their order.
class EccScan {
public:
    /// Pages consist of whole units and what follows them. The result outlives the scan.
    EccScan(const Geometry& geometry, EccResult& result);

    /// Takes the next pages. Their correctable units are put right in place.
    void take(uint8_t* pages, uint64_t count);
    /// The next page was not readable. Its units are not counted.
    void pass_unreadable();
    /// The next block is known to be bad. Nothing of it is counted, and the list indexes go on after it.
    void pass_block();
    /// Adds what is known only at the end.
    void finish();

private:
    void take_unit(const uint8_t* unit, const UnitVerdict& verdict);
    void count_flips(const UnitVerdict& verdict);
    void count_beyond();
    void take_list_index(const uint8_t* unit, const UnitVerdict& verdict);
    void judge_tail(const uint8_t* page);
    void end_page();
    void end_block();

    const Geometry m_geometry;
    const uint64_t m_units_of_page;
    const uint64_t m_pages_of_block;
    EccResult& m_result;
    const UnitCorrector m_corrector;
    ListIndexRuns m_indexes;
    UnitPlace m_place;    // of the next unit
    BlockCounts m_block;  // of the block that is taken
    UnitPlace m_first_lost;
    uint64_t m_erased_of_block = 0;
    uint32_t m_worst = 0;  // most flips of a unit
};
