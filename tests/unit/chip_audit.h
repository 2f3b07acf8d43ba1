#pragma once

// The truth about a simulated chip, computed once more from its dump and its files: bit by bit, and with the
// textbook decoder for every unit.

#include "support/bch_judge.h"
#include "support/chip_simulator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace chip_tests {

using namespace test_support;

using Blocks = std::vector<uint64_t>;

inline Bytes block_of(const Bytes& dump, const ChipGeometry& geometry, uint64_t block) {
    return slice(dump, block * geometry.block(), geometry.block());
}

inline Bytes erased(uint64_t size) {
    return Bytes(static_cast<std::size_t>(size), 0xFF);
}

// The block of the file as it lies in the dump when nothing happened to it.
inline Bytes clean_block(const Bytes& file, const ChipGeometry& geometry, uint64_t file_block) {
    Bytes block;
    for (uint32_t page = 0; page < geometry.pages_per_block; ++page) {
        const uint64_t start = (file_block * geometry.pages_per_block + page) * geometry.file_page();
        if (start < file.size())
            put_bytes(block, slice(file, start, geometry.file_page()));
        block.resize((page + 1) * geometry.page(), 0xFF);
    }
    return block;
}

struct Bits {
    uint32_t cleared = 0;
    uint32_t set = 0;
};

inline Bits differing_bits(const Bytes& expected, const Bytes& actual) {
    Bits bits;
    for (std::size_t bit = 0; bit < 8 * expected.size(); ++bit) {
        const bool before = (expected[bit / 8] >> bit % 8 & 1) != 0;
        const bool now = (actual[bit / 8] >> bit % 8 & 1) != 0;
        bits.cleared += before && !now ? 1 : 0;
        bits.set += !before && now ? 1 : 0;
    }
    return bits;
}

inline bool is_nearly_erased(const Bytes& unit) {
    return differing_bits(erased(unit.size()), unit).cleared <= 16;
}

inline DecodeResult decoded(const Bytes& unit) {
    return bch_decode(unit.data(), unit.data() + kBchMessageBytes, 16);
}

struct Audit {
    UnitTruth units{};
    std::vector<BlockTruth> blocks{};
    std::vector<LostUnit> lost{};
    uint64_t flips_outside_units = 0;

    void take(const ChipGeometry& geometry, LostUnit place, const Bytes& expected, const Bytes& actual) {
        const Bits bits = differing_bits(expected, actual);
        place.flips = bits.cleared + bits.set;
        units.units++;
        units.erased += is_nearly_erased(actual) ? 1 : 0;
        if (blocks.empty() || blocks.back().block != place.block)
            blocks.push_back({.block = place.block});
        BlockTruth& block = blocks.back();
        if (place.flips <= 16) {
            units.flips[place.flips]++;
            units.cleared += bits.cleared;
            units.set += bits.set;
            block.flipped_bits += place.flips;
            block.worst = std::max(block.worst, place.flips);
            return;
        }
        units.beyond++;
        block.beyond++;
        if (is_nearly_erased(actual)) {
            place.what = UnitClass::erased;
        } else if (geometry.is_slc() && decoded(actual).status != DecodeResult::Status::failed) {
            place.what = UnitClass::foreign;
            units.foreign++;
        }
        lost.push_back(place);
    }

    void finish() {
        std::erase_if(blocks,
                      [](const BlockTruth& block) { return block.flipped_bits == 0 && block.beyond == 0; });
    }
};

inline Audit audit(const Bytes& file, const ChipGeometry& geometry, const Blocks& blocks, const Bytes& dump) {
    Audit audit;
    const uint32_t unit_bytes = geometry.is_slc() ? 1056 : 1024;
    const uint64_t pages = file.size() / geometry.file_page();
    for (uint64_t page = 0; page < pages; ++page) {
        const auto page_of_block = static_cast<uint32_t>(page % geometry.pages_per_block);
        const uint64_t block = blocks.at(page / geometry.pages_per_block);
        const Bytes expected = slice(file, page * geometry.file_page(), geometry.file_page());
        const Bytes actual =
            slice(dump, block * geometry.block() + page_of_block * geometry.page(), geometry.page());
        uint32_t end = 0;
        for (uint32_t unit = 0; unit < geometry.page_data / 1024; ++unit, end += unit_bytes)
            audit.take(geometry, {block, page_of_block, unit}, slice(expected, end, unit_bytes),
                       slice(actual, end, unit_bytes));
        const Bits outside =
            differing_bits(slice(zero_padded(expected, end), 0, 0) + erased(geometry.page() - end),
                           slice(actual, end, geometry.page() - end));
        audit.flips_outside_units += outside.cleared + outside.set;
    }
    audit.finish();
    return audit;
}

// Units and erased blocks of the whole dump by the textbook decoder alone.
inline void expect_parity(const ChipGeometry& geometry, const SimulatedChip& chip) {
    UnitTruth seen;
    uint64_t erased_blocks = 0;
    for (uint64_t block = 0; block < geometry.blocks; ++block) {
        bool is_erased = true;
        for (uint64_t page = 0; page < geometry.pages_per_block; ++page) {
            for (uint64_t unit = 0; unit < geometry.page_data / 1024; ++unit) {
                const uint64_t size = geometry.is_slc() ? 1056 : 1024;
                const Bytes bytes =
                    slice(chip.dump, block * geometry.block() + page * geometry.page() + unit * size, size);
                is_erased = is_erased && is_nearly_erased(bytes);
                if (!geometry.is_slc())
                    continue;
                seen.units++;
                seen.erased += is_nearly_erased(bytes) ? 1 : 0;
                const DecodeResult result = decoded(bytes);
                if (result.status == DecodeResult::Status::failed) {
                    seen.beyond++;
                    continue;
                }
                seen.flips.at(result.wrong_bits.size())++;
                for (const std::size_t bit : result.wrong_bits)
                    ((bytes[bit / 8] >> bit % 8 & 1) != 0 ? seen.set : seen.cleared)++;
            }
        }
        erased_blocks += is_erased ? 1 : 0;
    }
    EXPECT_TRUE(chip.truth.by_parity == seen);
    EXPECT_EQ(chip.truth.erased_blocks, erased_blocks);
}

// Used and skipped blocks follow one another without a gap, inside the window.
inline void expect_order(const FileTruth& file, uint64_t blocks) {
    ASSERT_EQ(file.blocks.size(), blocks);
    EXPECT_EQ(file.found_at, file.blocks.front());
    Blocks all = file.blocks;
    for (const SkipTruth& skip : file.skipped_before) {
        EXPECT_LT(skip.block, file.found_at);
        all.push_back(skip.block);
    }
    for (const SkipTruth& skip : file.skipped) {
        EXPECT_GT(skip.block, file.found_at);
        EXPECT_LT(skip.block, file.blocks.back());
        all.push_back(skip.block);
    }
    std::sort(all.begin(), all.end());
    for (std::size_t i = 0; i < all.size(); ++i)
        EXPECT_EQ(all[i], file.window.first + i);
    EXPECT_LE(file.blocks.back(), file.window.last);
    EXPECT_TRUE(std::is_sorted(file.blocks.begin(), file.blocks.end()));
}

// The whole truth of a chip with these files, by name.
inline void expect_truth(const ChipGeometry& geometry, const Files& files, const SimulatedChip& chip) {
    ASSERT_EQ(chip.dump.size(), geometry.blocks * geometry.block());
    ASSERT_EQ(chip.truth.files.size(), files.size());
    UnitTruth all;
    std::vector<BlockTruth> blocks;
    std::vector<LostUnit> lost;
    for (const FileTruth& file : chip.truth.files) {
        SCOPED_TRACE(file.file);
        const Bytes& bytes = files.at(file.file);
        expect_order(file, round_up(bytes.size(), geometry.file_block()) / geometry.file_block());
        const Audit expected = audit(bytes, geometry, file.blocks, chip.dump);
        EXPECT_TRUE(file.units == expected.units);
        EXPECT_EQ(file.flips_outside_units, expected.flips_outside_units);
        all.add(expected.units);
        blocks.insert(blocks.end(), expected.blocks.begin(), expected.blocks.end());
        lost.insert(lost.end(), expected.lost.begin(), expected.lost.end());
    }
    const auto by_block = [](const auto& a, const auto& b) { return a.block < b.block; };
    std::stable_sort(blocks.begin(), blocks.end(), by_block);
    std::stable_sort(lost.begin(), lost.end(), by_block);
    EXPECT_TRUE(chip.truth.units == all);
    EXPECT_TRUE(chip.truth.blocks == blocks);
    EXPECT_TRUE(chip.truth.lost == lost);
    expect_parity(geometry, chip);
}

}  // namespace chip_tests
