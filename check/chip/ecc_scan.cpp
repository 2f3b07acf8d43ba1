#include "ecc_scan.h"

#include "../../src/common/byte_reader.h"
#include "../../src/common/byte_run.h"

#include <algorithm>

EccScan::EccScan(const Geometry& geometry, EccResult& result)
    : m_geometry(geometry), m_units_of_page(geometry.page_data / kUnitData),
      m_pages_of_block(geometry.block / geometry.page), m_result(result) {}

// The units of neighbouring pages are judged together, so that groups are full.
void EccScan::take(uint8_t* pages, uint64_t count) {
    uint8_t* units[UnitCorrector::kGroup];
    UnitVerdict verdicts[UnitCorrector::kGroup];
    uint8_t* page = pages;
    uint64_t of_page = 0;
    for (uint64_t left = count * m_units_of_page; left != 0;) {
        const auto group = static_cast<uint32_t>(std::min<uint64_t>(left, UnitCorrector::kGroup));
        for (uint32_t i = 0; i < group; ++i) {
            units[i] = page + of_page * kUnit;
            if (++of_page == m_units_of_page) {
                judge_tail(page);
                page += m_geometry.page;
                of_page = 0;
            }
        }
        m_corrector.judge(units, group, verdicts);
        for (uint32_t i = 0; i < group; ++i)
            take_unit(units[i], verdicts[i]);
        left -= group;
    }
}

void EccScan::pass_unreadable() {
    m_indexes.pass_unreadable();
    end_page();
}

void EccScan::pass_block() {
    ++m_result.blocks;
    ++m_result.passed_blocks;
    ++m_place.block;
}

void EccScan::finish() {
    if (m_place.page != 0) {
        m_result.pages_of_last = m_place.page;
        end_block();
    }
    m_result.indexes = m_indexes.result();
}

void EccScan::take_unit(const uint8_t* unit, const UnitVerdict& verdict) {
    ++m_result.units.units;
    if (verdict.correctable)
        count_flips(verdict);
    else
        count_beyond();
    if (m_place.unit == 0)
        take_list_index(unit, verdict);
    if (++m_place.unit == m_units_of_page) {
        ++m_result.pages;
        end_page();
    }
}

void EccScan::count_flips(const UnitVerdict& verdict) {
    UnitCounts& counts = m_result.units;
    const uint32_t flips = verdict.flips();
    ++counts.flips[flips];
    if (verdict.erased) {
        ++counts.erased;
        ++counts.erased_right;
        counts.erased_flips += flips;
        ++m_erased_of_block;
    }
    if (flips == 0)
        return;
    counts.cleared += verdict.cleared;
    counts.set += verdict.set;
    m_block.flipped_bits += flips;
    m_block.worst = std::max(m_block.worst, flips);
    if (flips > m_worst) {
        m_worst = flips;
        m_result.worst = m_place;
    }
}

void EccScan::count_beyond() {
    ++m_result.units.beyond;
    if (m_block.beyond++ == 0)
        m_first_lost = m_place;
    if (m_result.beyond.size() < kMostListedUnits)
        m_result.beyond.push_back(m_place);
}

void EccScan::take_list_index(const uint8_t* unit, const UnitVerdict& verdict) {
    if (!verdict.correctable)
        m_indexes.pass_unreadable();
    else if (!verdict.erased)
        m_indexes.take(little_endian_at<uint32_t>(unit + kUnitData));
}

void EccScan::judge_tail(const uint8_t* page) {
    const uint64_t units = m_units_of_page * kUnit;
    const uint8_t* const tail = page + units;
    if (holds_only(tail, m_geometry.page - units, 0xFF))
        return;
    m_result.tail_bytes += static_cast<uint64_t>(
        std::count_if(tail, page + m_geometry.page, [](uint8_t byte) { return byte != 0xFF; }));
    ++m_result.tail_pages;
}

void EccScan::end_page() {
    m_place.unit = 0;
    if (++m_place.page == m_pages_of_block)
        end_block();
}

void EccScan::end_block() {
    ++m_result.blocks;
    if (m_erased_of_block == m_pages_of_block * m_units_of_page)
        ++m_result.erased_blocks;
    if (m_block.flipped_bits != 0 || m_block.beyond != 0) {
        ++m_result.flipped_blocks_found;
        if (m_result.flipped_blocks.size() < kMostListedBlocks) {
            m_block.block = m_place.block;
            m_result.flipped_blocks.push_back(m_block);
        }
    }
    if (m_block.beyond != 0 && m_result.lost_blocks++ < kMostLostBlocks)
        m_result.lost.push_back(
            {.first = m_first_lost, .lost = m_block.beyond, .units = m_place.page * m_units_of_page});
    m_block = {};
    m_erased_of_block = 0;
    ++m_place.block;
    m_place.page = 0;
}
