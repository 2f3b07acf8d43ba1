#include "places.h"

#include <algorithm>
#include <limits>
#include <unordered_map>

namespace {

/// Numbers the units of SLC NAND through all pages of a target.
class Units {
public:
    explicit Units(const Geometry& geometry)
        : m_page(std::max<uint64_t>(geometry.page, 1)), m_per_page(geometry.page_data / 1024),
          m_header(geometry.header) {}

    bool none() const { return m_per_page == 0; }
    uint64_t start(uint64_t unit) const {
        return m_header + unit / m_per_page * m_page + unit % m_per_page * kUnit;
    }
    /// The unit of a byte, or the next one when the byte comes after the last unit of its page.
    uint64_t at_or_after(uint64_t offset) const {
        offset -= std::min(offset, m_header);
        return offset / m_page * m_per_page + std::min(offset % m_page / kUnit, m_per_page);
    }
    /// Bytes of the run that lie in the unit.
    uint64_t shared(uint64_t unit, const DifferenceRun& run) const {
        const uint64_t first = std::max(start(unit), run.offset);
        const uint64_t end = std::min(start(unit) + kUnit, run.offset + run.length);
        return end > first ? end - first : 0;
    }

private:
    uint64_t m_page;
    uint64_t m_per_page;
    uint64_t m_header;
};

/// Flips of a unit, as far as its runs tell: a run that is in two units has its flips counted as one number.
struct Flips {
    uint64_t least = 0;
    uint64_t most = 0;
};

/// Units that a run touches: from first up to and without end.
struct TouchedUnits {
    uint64_t first;
    uint64_t end;

    TouchedUnits(const Units& units, const DifferenceRun& run)
        : first(units.at_or_after(run.offset)), end(units.at_or_after(run.offset + run.length - 1) + 1) {
        if (units.shared(end - 1, run) == 0)
            end--;
    }
    bool holds_a_whole_unit() const { return end - first > 2; }
};

using FlipsOfUnits = std::unordered_map<uint64_t, Flips>;

void add_flips(const Units& units, uint64_t unit, const DifferenceRun& run, FlipsOfUnits& flips) {
    const uint64_t shared = units.shared(unit, run);
    const uint64_t outside = run.length - shared;  // each of these bytes has a flip at least
    Flips& sum = flips[unit];
    sum.least += outside == 0 ? run.flips : shared;
    sum.most += std::max(shared, run.flips - std::min(run.flips, outside));
}

/// Units that may have more flips than the listed runs say.
std::vector<uint64_t> units_with_unlisted_flips(const PartResult& part, const Units& units) {
    std::vector<uint64_t> list;
    // The runs that are not listed come after the listed ones, and may start in the unit of the last of them.
    if (!all_runs_listed(part) && !part.runs.empty() && part.runs.back().length != 0) {
        const TouchedUnits touched(units, part.runs.back());
        if (touched.first != touched.end)
            list.push_back(touched.end - 1);
    }
    if (part.missing != 0)
        list.push_back(units.at_or_after(part.offset + part.bytes - part.missing));
    return list;
}

FlipsOfUnits flips_of_units(const PartResult& part, const Units& units) {
    FlipsOfUnits flips;
    for (const DifferenceRun& run : part.runs) {
        if (run.length == 0)
            continue;
        const TouchedUnits touched(units, run);
        if (touched.first == touched.end)
            continue;
        add_flips(units, touched.first, run, flips);
        if (touched.end - 1 != touched.first)
            add_flips(units, touched.end - 1, run, flips);
    }
    for (const uint64_t unit : units_with_unlisted_flips(part, units))
        flips[unit].most = std::numeric_limits<uint64_t>::max();
    return flips;
}

Correction correction_of(const DifferenceRun& run, const Units& units, const FlipsOfUnits& flips) {
    if (run.length == 0)
        return Correction::kNotKnown;
    const TouchedUnits touched(units, run);
    if (touched.first == touched.end)
        return Correction::kNotKnown;
    const Flips& head = flips.at(touched.first);
    const Flips& tail = flips.at(touched.end - 1);
    if (touched.holds_a_whole_unit() || head.least > kMostFlips || tail.least > kMostFlips)
        return Correction::kNotCorrectable;
    if (head.most <= kMostFlips && tail.most <= kMostFlips)
        return Correction::kCorrectable;
    return Correction::kNotKnown;
}

}  // namespace

Place place_of(uint64_t offset, const Geometry& geometry) {
    const uint64_t page = std::max<uint64_t>(geometry.page, 1);
    const uint64_t block = std::max(geometry.block, page);
    Place place;
    place.sector = offset / kSector;
    place.byte_of_sector = offset % kSector;
    offset -= std::min(offset, geometry.header);
    place.block = offset / block;
    place.page = offset % block / page;
    place.page_of_target = offset / page;
    place.byte_of_page = offset % page;
    const uint64_t unit = place.byte_of_page / kUnit;
    if (geometry.spare_areas && unit < geometry.page_data / 1024) {
        place.unit = unit;
        place.byte_of_unit = place.byte_of_page % kUnit;
    }
    return place;
}

std::vector<Correction> corrections(const PartResult& part, const Geometry& geometry) {
    std::vector<Correction> list(part.runs.size(), Correction::kNotKnown);
    const Units units(geometry);
    if (!geometry.spare_areas || units.none())
        return list;
    const FlipsOfUnits flips = flips_of_units(part, units);
    std::transform(part.runs.begin(), part.runs.end(), list.begin(),
                   [&](const DifferenceRun& run) { return correction_of(run, units, flips); });
    // Where the unreadable bytes lie is not known: any unit may have some of them.
    if (part.unreadable != 0)
        std::replace(list.begin(), list.end(), Correction::kCorrectable, Correction::kNotKnown);
    return list;
}

uint64_t differing_sectors(const PartResult& part) {
    std::vector<DifferenceRun> runs = part.runs;
    std::sort(runs.begin(), runs.end(),
              [](const DifferenceRun& a, const DifferenceRun& b) { return a.offset < b.offset; });
    uint64_t count = 0;
    uint64_t counted_to = 0;  // the first sector that is not looked at yet
    for (const DifferenceRun& run : runs) {
        const uint64_t first = std::max(run.offset / kSector, counted_to);
        const uint64_t end = divided_up(run.offset + run.length, kSector);
        if (end <= first)
            continue;
        count += end - first;
        counted_to = end;
    }
    return count;
}

const DifferenceRun* first_run(const PartResult& part) {
    const auto first =
        std::min_element(part.runs.begin(), part.runs.end(),
                         [](const DifferenceRun& a, const DifferenceRun& b) { return a.offset < b.offset; });
    return first == part.runs.end() ? nullptr : &*first;
}
