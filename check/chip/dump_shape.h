#pragma once

#include "../base/target.h"
#include "unit_corrector.h"

#include <cstdint>
#include <optional>
#include <vector>

/// How the pages of SLC NAND may lie in a dump. Sizes are in bytes.
struct DumpShape {
    uint64_t page_data = 0;  ///< of a page without its spare area; whole units of data, not 0
    uint64_t spare = 0;      ///< has room for what the units of a page take beside their data
    uint64_t skip = 0;       ///< before the first page
    bool swapped = false;    ///< the bytes of each 16-bit word are exchanged

    uint64_t page() const { return page_data + spare; }
};

/// What a sample of a dump is when it is read in a shape. Erased units are left out.
struct ShapeSample {
    bool full = false;          ///< as many places with written units as are looked for
    uint64_t units = 0;         ///< written ones
    uint64_t valid = 0;         ///< of them, those that are clean or correctable
    uint64_t pages = 0;         ///< pages with a valid unit
    uint64_t placed_pages = 0;  ///< of them, those whose system bytes belong to their places in the page

    /// Too few units are valid for pages of SLC NAND.
    bool is_garbage() const { return units != 0 && valid * 4 <= units; }
    /// Units that are valid lie at wrong places of their pages, so a page has another number of them.
    bool is_misplaced() const { return placed_pages * 4 < pages * 3; }
    /// Most units are valid and lie at their places.
    bool fits() const { return valid * 2 > units && !is_misplaced(); }
};

/// Finds out by the parity how the pages lie in a dump. It looks at 16 places that are spread over the dump
/// and hold written units. At each place there are two pages.
class DumpShapes {
public:
    /// The target is open and outlives this. given has pages of at most kLargestPage bytes.
    DumpShapes(Target& target, const DumpShape& given);

    static constexpr uint64_t kLargestPage = 1024 * 1024;

    /// False when there is no memory.
    bool is_ready() const { return static_cast<bool>(m_pages); }
    /// The dump in the given shape. Places of written units are looked for in at most 32 MiB.
    const ShapeSample& given_sample() const { return m_sample; }
    /// Another shape that fits the same places: pages of usual sizes, from another first byte, with exchanged
    /// bytes. block: bytes of an erase block in the dump. Nothing when no such shape fits.
    std::optional<DumpShape> find(uint64_t block);

private:
    void find_places();
    std::vector<uint64_t> likely_skips(uint64_t block) const;
    std::optional<DumpShape> find_sizes(uint64_t skip, bool swapped);
    bool fits(const DumpShape& shape);
    bool take_pair(const DumpShape& shape, uint64_t offset, ShapeSample& sample);
    void take_page(uint8_t* page, const DumpShape& shape, ShapeSample& sample) const;

    Target& m_target;
    const DumpShape m_given;
    const UnitCorrector m_corrector;
    ByteBuffer m_pages;  // of a pair
    std::vector<uint64_t> m_places;
    ShapeSample m_sample;
};
