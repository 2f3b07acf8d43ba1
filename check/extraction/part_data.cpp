#include "part_data.h"

#include "../../src/common/byte_reader.h"
#include "../../src/common/byte_run.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <utility>

namespace {

constexpr uint64_t kSystemBytes = 4;
constexpr uint64_t kRawBytes = 512 * 1024;  // of the target that are read at once
constexpr std::size_t kUnitsAtOnce = 480;   // so many fit where they follow each other

}  // namespace

std::optional<uint64_t> FilePlaces::place(uint64_t offset, uint64_t& together) const {
    together = UINT64_MAX - offset;
    if (blocks) {
        const uint64_t index = offset / block;
        if (index >= blocks->size())
            return std::nullopt;
        together = block - offset % block;
        offset = (*blocks)[index] * block + offset % block;
    }
    if (spare != 0) {
        together = std::min(together, page - offset % page);
        offset += offset / page * spare;
    }
    return skip + offset;
}

Place FilePlaces::place_in_target(uint64_t target_offset, const Geometry& geometry) const {
    Geometry in_target = geometry;
    in_target.page += spare;
    in_target.block += geometry.block / geometry.page * spare;
    return place_of(target_offset - skip, in_target);
}

PartData::PartData(Target& target, Source source) : m_target(target), m_source(std::move(source)) {
    if (!m_source.layout.spare_areas)
        return;
    m_corrector.emplace();
    if (!m_raw.reset(kRawBytes))
        throw std::bad_alloc();
    m_units.reserve(kUnitsAtOnce);
}

uint64_t PartData::read(uint64_t position, uint64_t count, uint8_t* out) {
    return m_source.layout.spare_areas ? read_units(position, count, out)
                                       : read_plainly(position, count, out);
}

uint64_t PartData::read_plainly(uint64_t position, uint64_t count, uint8_t* out) {
    uint64_t done = 0;
    while (done < count) {
        uint64_t in_page = 0;
        uint64_t in_block = 0;
        const uint64_t in_file = m_source.offset + place_of_data(m_source.layout, position + done, in_page);
        const std::optional<uint64_t> place = m_source.places.place(in_file, in_block);
        if (!place)
            break;
        const uint64_t part = std::min({count - done, in_page, in_block});
        const uint64_t got = read_bytes(*place, part, out + done);
        done += got;
        if (got != part)
            break;
    }
    return done;
}

/// Sector by sector after a read that failed, so that only what cannot be read is left out.
uint64_t PartData::read_bytes(uint64_t place, uint64_t count, uint8_t* out) {
    if (m_target.hole_at(place, count) == count) {
        std::memset(out, 0, count);
        return count;
    }
    if (const auto got = m_target.read(place, count, out))
        return *got;
    for (uint64_t done = 0; done < count;) {
        const uint64_t part = std::min(count - done, kSector - (place + done) % kSector);
        const auto got = m_target.read(place + done, part, out + done);
        if (got && *got != part)
            return done + *got;
        if (!got) {
            std::memset(out + done, 0, part);
            m_counts.unreadable += part;
        }
        done += part;
    }
    return count;
}

uint64_t PartData::read_units(uint64_t position, uint64_t count, uint8_t* out) {
    uint64_t done = 0;
    while (done < count) {
        const uint64_t first = (position + done) / kUnitData;
        gather(first, divided_up(position + count, kUnitData) - first);
        if (m_units.empty())
            break;
        correct();
        for (const Unit& unit : m_units) {
            const uint64_t from = position + done - unit.position;
            const uint64_t part = std::min(kUnitData - from, count - done);
            std::memcpy(out + done, unit.bytes + from, part);
            done += part;
        }
    }
    return done;
}

bool PartData::find_unit(uint64_t number, Unit& unit) const {
    uint64_t together = 0;
    unit.position = number * kUnitData;
    unit.in_file = m_source.offset + place_of_data(m_source.layout, unit.position, together);
    const std::optional<uint64_t> place = m_source.places.place(unit.in_file, together);
    unit.place = place.value_or(0);
    unit.readable = true;
    return place.has_value();
}

/// Reads units from number first on, with one read as far as they lie near each other.
void PartData::gather(uint64_t first, uint64_t wanted) {
    m_units.clear();
    Unit unit{};
    for (uint64_t i = 0; i < std::min<uint64_t>(wanted, kUnitsAtOnce); ++i) {
        if (!find_unit(first + i, unit))
            break;
        const uint64_t base = m_units.empty() ? unit.place : m_units.front().place;
        if (unit.place < base || unit.place + kUnit - base > kRawBytes)
            break;
        unit.bytes = m_raw.data() + (unit.place - base);
        m_units.push_back(unit);
    }
    if (m_units.empty())
        return;
    const uint64_t base = m_units.front().place;
    const auto got = m_target.read(base, m_units.back().place + kUnit - base, m_raw.data());
    if (!got)
        read_each();
    while (got && !m_units.empty() && m_units.back().place + kUnit - base > *got)
        m_units.pop_back();
}

void PartData::read_each() {
    for (std::size_t i = 0; i < m_units.size(); ++i) {
        Unit& unit = m_units[i];
        const auto got = m_target.read(unit.place, kUnit, unit.bytes);
        if (got && *got != kUnit) {
            m_units.resize(i);
            return;
        }
        if (got)
            continue;
        std::memset(unit.bytes, 0, kUnit);
        unit.readable = false;
        m_counts.unreadable += kUnitData;
    }
}

void PartData::correct() {
    std::size_t next = 0;
    while (next < m_units.size()) {
        std::array<Unit*, UnitCorrector::kGroup> units{};
        std::array<uint8_t*, UnitCorrector::kGroup> bytes{};
        uint32_t count = 0;
        for (; next < m_units.size() && count < UnitCorrector::kGroup; ++next) {
            if (!m_units[next].readable)
                continue;
            units[count] = &m_units[next];
            bytes[count++] = m_units[next].bytes;
        }
        std::array<UnitVerdict, UnitCorrector::kGroup> verdicts{};
        m_corrector->judge(bytes.data(), count, verdicts.data());
        for (uint32_t i = 0; i < count; ++i)
            note(*units[i], verdicts[i]);
    }
}

void PartData::note(const Unit& unit, const UnitVerdict& verdict) {
    UnitCounts& units = m_counts.units;
    ++units.units;
    if (!verdict.correctable) {
        ++units.beyond;
        list_bad(unit);
        return;
    }
    ++units.flips[verdict.flips()];
    units.cleared += verdict.cleared;
    units.set += verdict.set;
    if (verdict.erased) {
        ++units.erased;
        ++units.erased_right;
        units.erased_flips += verdict.flips();
    }
    if (m_source.index_step != 0 && unit.in_file % m_source.layout.page == 0)
        look_at_index(unit);
}

/// A bad block is one entry of the list, not one for each of its units.
void PartData::list_bad(const Unit& unit) {
    const bool begins_block = unit.in_file % m_source.places.block == 0;
    if (unit.position == m_next_bad && !begins_block)
        ++m_counts.bad_units.back().units;
    else if (m_counts.bad_units.size() < m_source.most_bad_units)
        m_counts.bad_units.push_back({unit.position, unit.place});
    else
        return;
    m_next_bad = unit.position + kUnitData;
}

/// The first unit of a page has the list index. An erased page has none.
void PartData::look_at_index(const Unit& unit) {
    const auto expected = static_cast<uint32_t>(unit.in_file / m_source.layout.page * m_source.index_step);
    if (little_endian_at<uint32_t>(unit.bytes + kUnitData) == expected)
        return;
    const bool erased = holds_only(unit.bytes, kUnitData + kSystemBytes, 0xFF);
    ++(erased ? m_counts.erased_pages : m_counts.foreign_pages);
}
