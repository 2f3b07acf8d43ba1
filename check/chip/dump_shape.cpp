#include "dump_shape.h"

#include "../../src/common/byte_reader.h"
#include "../base/chip_result.h"
#include "../base/result.h"
#include "../base/usual_sizes.h"

#include <algorithm>
#include <bit>
#include <iterator>
#include <utility>

namespace {

constexpr uint64_t kPlaces = 16;
constexpr uint64_t kMostRounds = 256;
constexpr uint64_t kMostSampled = 32 * 1024 * 1024;  // bytes

// Two pages show a wrong number of units in a page: one alone may be the half of a larger page.
constexpr uint64_t kPagesOfPlace = 2;

// A shape without a valid unit among the first written ones is given up.
constexpr uint64_t kUnitsBeforeGivingUp = 8;

constexpr uint64_t kUsualHeaders[] = {16,  32,   48,   64,   96,   128,   256,   512,
                                      768, 1024, 2048, 4096, 8192, 16384, 32768, 65536};

constexpr uint32_t kNoIndex = 0xFFFFFFFF;  // system bytes of all units of a page but the first
constexpr uint64_t kSpareOfUnit = kUnit - kUnitData;

uint64_t largest_pair(const DumpShape& given) {
    const uint64_t usual = *std::max_element(std::begin(kUsualPageSizes), std::end(kUsualPageSizes)) * 1024 +
                           *std::max_element(std::begin(kUsualSpareSizes), std::end(kUsualSpareSizes));
    return kPagesOfPlace * std::max(usual + given.spare, given.page());
}

/// True when no more bits are 0 than the parity corrects.
bool looks_erased(const uint8_t* unit) {
    uint32_t zeros = 0;
    for (uint64_t at = 0; at < kUnit && zeros <= kCorrectableFlips; at += sizeof(uint64_t))
        zeros += static_cast<uint32_t>(std::popcount(~little_endian_at<uint64_t>(unit + at)));
    return zeros <= kCorrectableFlips;
}

void exchange_bytes(uint8_t* bytes, uint64_t count) {
    for (uint64_t i = 0; i + 1 < count; i += 2)
        std::swap(bytes[i], bytes[i + 1]);
}

}  // namespace

DumpShapes::DumpShapes(Target& target, const DumpShape& given)
    : m_target(target), m_given(given), m_pages(largest_pair(given)) {
    if (is_ready())
        find_places();
}

// A round takes one place from each section of the dump, so that a few bad blocks are a small part of it.
void DumpShapes::find_places() {
    const uint64_t pair = kPagesOfPlace * m_given.page();
    const uint64_t pairs = (m_target.size() - std::min(m_given.skip, m_target.size())) / pair;
    const uint64_t sections = std::min(pairs, kPlaces);
    if (sections == 0)
        return;
    const uint64_t section = pairs / sections;
    const uint64_t affordable = std::max<uint64_t>(kMostSampled / (sections * pair), 1);
    const uint64_t rounds = std::min({section, kMostRounds, affordable});
    for (uint64_t round = 0; round < rounds; ++round)
        for (uint64_t i = 0; i < sections && m_places.size() < kPlaces; ++i) {
            const uint64_t place = m_given.skip + pair * (i * section + round * (section / rounds));
            if (take_pair(m_given, place, m_sample))
                m_places.push_back(place);
        }
    m_sample.full = m_places.size() == kPlaces;
}

std::optional<DumpShape> DumpShapes::find(uint64_t block) {
    for (const bool swapped : {false, true})
        for (const uint64_t skip : likely_skips(block))
            if (const std::optional<DumpShape> shape = find_sizes(skip, swapped))
                return shape;
    return std::nullopt;
}

/// Lengths of a header. What is left over from whole erase blocks comes before the usual lengths: two lengths
/// that differ by whole pages show the same pages.
std::vector<uint64_t> DumpShapes::likely_skips(uint64_t block) const {
    std::vector<uint64_t> skips;
    const auto add = [&](uint64_t skip) {
        if (std::find(skips.begin(), skips.end(), skip) == skips.end())
            skips.push_back(skip);
    };
    add(m_given.skip);
    add(0);
    add(m_target.size() % block);
    for (const uint64_t header : kUsualHeaders)
        add(m_given.skip + header);
    return skips;
}

std::optional<DumpShape> DumpShapes::find_sizes(uint64_t skip, bool swapped) {
    std::vector<uint64_t> spares(std::begin(kUsualSpareSizes), std::end(kUsualSpareSizes));
    spares.insert(spares.begin(), m_given.spare);
    DumpShape shape{.page_data = m_given.page_data, .spare = m_given.spare, .skip = skip, .swapped = swapped};
    if (fits(shape))
        return shape;
    for (const uint32_t page : kUsualPageSizes)
        for (const uint64_t spare : spares) {
            shape.page_data = page * kUnitData;
            shape.spare = spare;
            if (spare >= page * kSpareOfUnit && fits(shape))
                return shape;
        }
    return std::nullopt;
}

bool DumpShapes::fits(const DumpShape& shape) {
    ShapeSample sample;
    const uint64_t pair = kPagesOfPlace * shape.page();
    for (const uint64_t place : m_places) {
        const uint64_t before = place - std::min(place, shape.skip);
        take_pair(shape, shape.skip + before / pair * pair, sample);
        if (sample.valid == 0 && sample.units >= kUnitsBeforeGivingUp)
            return false;
    }
    return sample.fits();
}

/// Adds the two pages at the offset. False when they cannot be read or have no written unit.
bool DumpShapes::take_pair(const DumpShape& shape, uint64_t offset, ShapeSample& sample) {
    const uint64_t pair = kPagesOfPlace * shape.page();
    const auto got = m_target.read(offset, pair, m_pages.data());
    if (!got || *got != pair)
        return false;
    const uint64_t units = sample.units;
    if (shape.swapped)
        exchange_bytes(m_pages.data(), pair);
    for (uint64_t page = 0; page < kPagesOfPlace; ++page)
        take_page(m_pages.data() + page * shape.page(), shape, sample);
    return sample.units != units;
}

void DumpShapes::take_page(uint8_t* page, const DumpShape& shape, ShapeSample& sample) const {
    const uint64_t units = shape.page_data / kUnitData;
    bool has_valid = false;
    bool placed = true;
    for (uint64_t i = 0; i < units; ++i) {
        uint8_t* const unit = page + i * kUnit;
        if (looks_erased(unit))
            continue;
        UnitVerdict verdict;
        m_corrector.judge(&unit, 1, &verdict);
        ++sample.units;
        if (!verdict.correctable)
            continue;
        ++sample.valid;
        has_valid = true;
        const bool has_index = little_endian_at<uint32_t>(unit + kUnitData) != kNoIndex;
        placed = placed && has_index == (i == 0);
    }
    if (!has_valid)
        return;
    ++sample.pages;
    sample.placed_pages += placed ? 1 : 0;
}
