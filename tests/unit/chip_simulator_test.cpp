// The simulator of NAND chips: the truth that it tells is what its dump shows.

#include "chip_audit.h"
#include "support/expected/flash_pages.h"
#include "support/same_bytes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <string>
#include <vector>

namespace {

using namespace chip_tests;
using Remnant = ProgramFailure::Remnant;
using Fill = FactoryBad::Fill;
using Skips = std::vector<SkipTruth>;

constexpr ChipGeometry kSlc{.page_data = 2048, .spare = 70, .pages_per_block = 4, .blocks = 24};
constexpr ChipGeometry kSpiNand{.kind = ChipKind::spi_nand, .spare = 0, .pages_per_block = 4, .blocks = 24};
constexpr ChipGeometry kSpiNandWithSpare{
    .kind = ChipKind::spi_nand, .spare = 64, .pages_per_block = 4, .blocks = 24};

// A file of so many pages as the conversion makes it. Every fifth page is erased, every seventh is zeros.
Bytes file_bytes(const ChipGeometry& geometry, uint32_t pages, uint32_t seed) {
    Bytes data = patterned(std::size_t{pages} * geometry.page_data, seed);
    for (uint32_t page = 0; page < pages; ++page) {
        const auto start = data.begin() + static_cast<std::ptrdiff_t>(page) * geometry.page_data;
        if (page % 5 == 4 || page % 7 == 6)
            std::fill_n(start, geometry.page_data, page % 5 == 4 ? uint8_t{0xFF} : uint8_t{0});
    }
    if (!geometry.is_slc())
        return data;
    return slc_flash_pages(data, {.page_size = geometry.page_data, .spare = geometry.spare});
}

// One file "a.img" of three blocks, the last of them not full, on a chip of the geometry.
class OneFile {
public:
    explicit OneFile(const ChipGeometry& geometry = kSlc, const ChipFaults& faults = {},
                     std::optional<BlockWindow> window = std::nullopt)
        : m_geometry(geometry), m_bytes(file_bytes(geometry, 3 * geometry.pages_per_block - 1, 1)),
          m_chip(geometry, {chip_file("a.img", m_bytes, window)}, faults) {}

    ChipSimulator& chip() { return m_chip; }
    // The dump, whose truth is checked.
    SimulatedChip make() const {
        SimulatedChip made = m_chip.make();
        expect_truth(m_geometry, {{"a.img", m_bytes}}, made);
        return made;
    }
    Bytes clean(uint64_t file_block) const { return clean_block(m_bytes, m_geometry, file_block); }

private:
    ChipGeometry m_geometry;
    Bytes m_bytes;
    ChipSimulator m_chip;
};

// ---- placing ----

TEST(ChipPlacement, FilesFollowOneAnotherAndTheRestIsErased) {
    for (const ChipGeometry& geometry : {kSlc, kSpiNand, kSpiNandWithSpare}) {
        const Bytes a = file_bytes(geometry, 11, 1);
        const Bytes b = file_bytes(geometry, 4, 2);
        const SimulatedChip chip =
            ChipSimulator(geometry, {chip_file("a.img", a), chip_file("b.img", b)}).make();
        Bytes expected;
        for (const uint64_t block : {0U, 1U, 2U})
            put_bytes(expected, clean_block(a, geometry, block));
        put_bytes(expected, clean_block(b, geometry, 0));
        expected.resize(geometry.blocks * geometry.block(), 0xFF);
        EXPECT_TRUE(same_bytes(chip.dump, expected));
        expect_truth(geometry, {{"a.img", a}, {"b.img", b}}, chip);
        EXPECT_EQ(chip.truth.files[0].blocks, (Blocks{0, 1, 2}));
        EXPECT_EQ(chip.truth.files[1].blocks, Blocks{3});
        EXPECT_EQ(chip.truth.erased_blocks, 20U);
        EXPECT_TRUE(chip.truth.files[0].can_be_read(geometry.kind));
    }
}

TEST(ChipPlacement, ABadBlockDoesNotMoveTheNextWindow) {
    const Bytes bytes = file_bytes(kSlc, 8, 1);
    const ChipSimulator chip(
        kSlc, {chip_file("a.img", bytes, BlockWindow{2, 6}), chip_file("b.img", bytes, BlockWindow{7, 9})},
        {.factory_bad = {{3}, {8}}});
    EXPECT_EQ(chip.placement().files[0].blocks, (Blocks{2, 4}));
    EXPECT_EQ(chip.placement().files[1].blocks, (Blocks{7, 9}));
    EXPECT_EQ(chip.placement().files[0].skipped, (Skips{{3, SkipTruth::Reason::factory}}));
    EXPECT_EQ(chip.placement().files[1].window, (BlockWindow{7, 9}));
}

TEST(ChipPlacement, AFileWithoutWindowStaysBetweenWindows) {
    const Bytes bytes = file_bytes(kSlc, 8, 1);
    const ChipSimulator chip(
        kSlc,
        {chip_file("a.img", bytes), chip_file("b.img", bytes, BlockWindow{3, 7}), chip_file("c.img", bytes)},
        {.factory_bad = {{0}}});
    EXPECT_EQ(chip.placement().files[0].blocks, (Blocks{1, 2}));
    EXPECT_EQ(chip.placement().files[0].window, (BlockWindow{0, 2}));
    EXPECT_EQ(chip.placement().files[1].blocks, (Blocks{3, 4}));
    EXPECT_EQ(chip.placement().files[2].blocks, (Blocks{8, 9}));
}

TEST(ChipPlacement, AWindowOfALaterFileIsKeptFree) {
    const Bytes bytes = file_bytes(kSlc, 8, 1);
    const ChipSimulator chip(kSlc, {chip_file("a.img", bytes), chip_file("b.img", bytes, BlockWindow{0, 3}),
                                    chip_file("c.img", bytes)});
    EXPECT_EQ(chip.placement().files[0].blocks, (Blocks{4, 5}));
    EXPECT_EQ(chip.placement().files[1].blocks, (Blocks{0, 1}));
    EXPECT_EQ(chip.placement().files[2].blocks, (Blocks{6, 7}));
    EXPECT_EQ(chip.placement().files[2].window, (BlockWindow{6, 7}));
}

TEST(ChipPlacement, BadBlocksBeforeTheFirstOneStandApart) {
    const OneFile file(kSlc, {.factory_bad = {{4}, {7}, {20}}, .failures = {{.block = 5}}},
                       BlockWindow{4, 12});
    const SimulatedChip chip = file.make();
    const FileTruth& truth = chip.truth.files[0];
    EXPECT_EQ(truth.found_at, 6U);
    EXPECT_EQ(truth.blocks, (Blocks{6, 8, 9}));
    EXPECT_EQ(truth.skipped_before, (Skips{{4, SkipTruth::Reason::factory}, {5, SkipTruth::Reason::failed}}));
    EXPECT_EQ(truth.skipped, (Skips{{7, SkipTruth::Reason::factory}}));
    EXPECT_EQ(chip.truth.factory_bad, (Blocks{4, 7, 20}));
    EXPECT_EQ(chip.truth.failed, Blocks{5});
}

struct Refusal {
    std::string text;
    std::function<void()> action;
};

TEST(ChipPlacement, RefusesWhatDoesNotFit) {
    const Bytes bytes = file_bytes(kSlc, 8, 1);
    const auto place = [&](std::vector<ChipFile> files, const ChipFaults& faults = {}) {
        return [files = std::move(files), faults] { const ChipSimulator chip(kSlc, files, faults); };
    };
    const auto a = [&](uint64_t first, uint64_t last) {
        return chip_file("a.img", bytes, BlockWindow{first, last});
    };
    ChipGeometry small_spare = kSlc;
    small_spare.spare = 63;
    const std::vector<Refusal> refusals{
        {"a.img is empty", place({chip_file("a.img", Bytes{})})},
        {"a.img is not whole pages of 2118 bytes", place({chip_file("a.img", Bytes(2119))})},
        {"two files have the name a.img", place({a(0, 3), a(4, 7)})},
        {"the window of a.img is blocks 20 to 24, and the chip has 24", place({a(20, 24)})},
        {"the window of a.img is blocks 5 to 4, and the chip has 24", place({a(5, 4)})},
        {"windows overlap: blocks 0 to 4 and 4 to 8",
         place({a(4, 8), chip_file("b.img", bytes, BlockWindow{0, 4})})},
        {"a.img does not fit into blocks 0 to 1: good ones 1, needed 2",
         place({a(0, 1)}, {.factory_bad = {{1}}})},
        {"there is no block 24 in a chip of 24", place({a(0, 3)}, {.factory_bad = {{24}}})},
        {"there is no block 25 in a chip of 24", place({a(0, 3)}, {.failures = {{.block = 25}}})},
        {"a rate is from 0 to 1", place({a(0, 3)}, {.bit_error_rate = 1.5})},
        {"block 0 has not 5 pages or units to be left in it",
         place({a(0, 3)}, {.failures = {{.block = 0, .remnant = Remnant::first_pages, .count = 5}}})},
        {"block 0: a.img has no other block",
         place({chip_file("a.img", file_bytes(kSlc, 4, 1))},
               {.failures = {{.block = 0, .remnant = Remnant::other_block}}})},
        {"the spare area needs 32 bytes for each KB of the page",
         [&] { const ChipSimulator chip(small_spare, {}); }},
    };
    for (const Refusal& refusal : refusals) {
        std::string text = "no refusal";
        try {
            refusal.action();
        } catch (const ChipError& error) {
            text = error.what();
        }
        EXPECT_EQ(text, refusal.text);
    }
}

// ---- bad blocks ----

TEST(ChipBadBlock, OfTheFactoryHasItsFillAndItsMark) {
    const SimulatedChip chip =
        OneFile(kSlc, {.factory_bad = {{0, Fill::random}, {1, Fill::zeros}, {2, Fill::erased}}}).make();
    Bytes zeros(kSlc.block(), 0);
    Bytes ones = erased(kSlc.block());
    ones[2048] = 0;
    EXPECT_TRUE(same_bytes(block_of(chip.dump, kSlc, 1), zeros));
    EXPECT_TRUE(same_bytes(block_of(chip.dump, kSlc, 2), ones));
    const Bytes random = block_of(chip.dump, kSlc, 0);
    EXPECT_EQ(random[2048], 0);
    const Bits bits = differing_bits(zeros, random);
    EXPECT_NEAR(bits.set, 4.0 * static_cast<double>(kSlc.block()),
                500);  // half of the bits; the deviation is 92
    EXPECT_EQ(chip.truth.files[0].blocks, (Blocks{3, 4, 5}));
    EXPECT_EQ(chip.truth.by_parity.beyond, 16U);  // the mark alone flips 8 bits
}

TEST(ChipBadBlock, OfSpiNandIsMarkedInTheSpareAreaIfThatIsThere) {
    const ChipFaults faults{.factory_bad = {{1, Fill::erased}}};
    const SimulatedChip with = OneFile(kSpiNandWithSpare, faults).make();
    Bytes marked = erased(kSpiNandWithSpare.block());
    marked[2048] = 0;
    EXPECT_TRUE(same_bytes(block_of(with.dump, kSpiNandWithSpare, 1), marked));
    for (const uint64_t block : {0U, 2U, 3U})
        EXPECT_EQ(block_of(with.dump, kSpiNandWithSpare, block)[2048], 0xFF);
    const SimulatedChip without = OneFile(kSpiNand, faults).make();
    EXPECT_TRUE(same_bytes(block_of(without.dump, kSpiNand, 1), erased(kSpiNand.block())));
}

// What stays in block 1, where the second block of the file fails.
Bytes remnant(ProgramFailure failure) {
    failure.block = 1;
    const OneFile file(kSlc, {.failures = {failure}});
    const SimulatedChip chip = file.make();
    EXPECT_EQ(chip.truth.files[0].blocks, (Blocks{0, 2, 3}));
    EXPECT_EQ(chip.truth.files[0].skipped, (Skips{{1, SkipTruth::Reason::failed}}));
    EXPECT_TRUE(same_bytes(block_of(chip.dump, kSlc, 2), file.clean(1)));
    return block_of(chip.dump, kSlc, 1);
}

TEST(ChipBadBlock, ThatFailedKeepsWhatItWasTold) {
    const OneFile file;
    EXPECT_TRUE(same_bytes(remnant({.remnant = Remnant::nothing}), erased(kSlc.block())));
    const Bytes first_pages = slice(file.clean(1), 0, 3 * kSlc.page()) + erased(kSlc.page());
    EXPECT_TRUE(same_bytes(remnant({.remnant = Remnant::first_pages, .count = 3}), first_pages));
    Bytes marked = first_pages;
    marked[2048] = 0;
    EXPECT_TRUE(same_bytes(remnant({.remnant = Remnant::first_pages, .count = 3, .marked = true}), marked));
    const Bytes other = remnant({.remnant = Remnant::other_block});
    EXPECT_TRUE(other == file.clean(0) || other == file.clean(2));
    const Bits random = differing_bits(Bytes(kSlc.block(), 0), remnant({.remnant = Remnant::old_data}));
    EXPECT_NEAR(random.set, 4.0 * static_cast<double>(kSlc.block()), 500);
}

TEST(ChipBadBlock, ThatFailedHasSoManyRuinedUnits) {
    const Bytes found = remnant({.remnant = Remnant::ruined_units, .count = 3});
    const Bytes clean = OneFile().clean(1);
    uint32_t ruined = 0;
    uint32_t right = 0;
    for (uint64_t page = 0; page < 4; ++page) {
        for (const uint64_t unit : {0U, 1U}) {
            const uint64_t offset = page * kSlc.page() + unit * 1056;
            const Bits bits = differing_bits(slice(clean, offset, 1056), slice(found, offset, 1056));
            const uint32_t flips = bits.cleared + bits.set;
            ruined += flips >= 17 && flips <= 64 ? 1 : 0;
            right += flips == 0 ? 1 : 0;
        }
    }
    EXPECT_EQ(ruined, 3U);
    EXPECT_EQ(right, 5U);
}

TEST(ChipBadBlock, BlocksThatNobodyProgramsDoNotFail) {
    const SimulatedChip chip = OneFile(kSlc, {.failures = {{.block = 3}, {.block = 20}}}).make();
    EXPECT_EQ(chip.truth.failed, Blocks{});
    EXPECT_TRUE(same_bytes(block_of(chip.dump, kSlc, 3), erased(kSlc.block())));
}

// ---- used blocks ----

TEST(ChipWriteFault, AnUnwrittenBlockIsErased) {
    OneFile file;
    file.chip().spoil(1, WriteFault::unwritten);
    const SimulatedChip chip = file.make();
    EXPECT_TRUE(same_bytes(block_of(chip.dump, kSlc, 1), erased(kSlc.block())));
    const FileTruth& truth = chip.truth.files[0];
    EXPECT_EQ(truth.blocks, (Blocks{0, 1, 2}));
    // The second unit of page 0 is erased in the file too.
    EXPECT_EQ(truth.units.beyond, 7U);
    EXPECT_EQ(truth.units.foreign, 0U);
    for (const LostUnit& lost : chip.truth.lost)
        EXPECT_EQ(lost.what, UnitClass::erased);
    EXPECT_FALSE(truth.can_be_read(ChipKind::slc));
}

Bytes both(const Bytes& a, const Bytes& b) {
    Bytes result(a.size());
    std::transform(a.begin(), a.end(), b.begin(), result.begin(),
                   [](uint8_t left, uint8_t right) { return static_cast<uint8_t>(left & right); });
    return result;
}

TEST(ChipWriteFault, OverAnotherBlockOnlyBitsOfBothAreSet) {
    OneFile file;
    file.chip().spoil(1, WriteFault::over_other_block);
    const Bytes found = block_of(file.make().dump, kSlc, 1);
    EXPECT_TRUE(found == both(file.clean(1), file.clean(0)) || found == both(file.clean(1), file.clean(2)));
}

TEST(ChipWriteFault, OverRandomBitsHalfOfThemAreCleared) {
    OneFile file;
    file.chip().spoil(1, WriteFault::over_random);
    const Bits bits = differing_bits(file.clean(1), block_of(file.make().dump, kSlc, 1));
    const double ones = differing_bits(Bytes(kSlc.block(), 0), file.clean(1)).set;
    EXPECT_EQ(bits.set, 0U);
    EXPECT_NEAR(bits.cleared, ones / 2, 4 * std::sqrt(ones / 4));
}

TEST(ChipWriteFault, OverRandomBitsABlockHasNoMark) {
    for (uint64_t seed = 1; seed <= 8; ++seed) {
        OneFile file(kSpiNandWithSpare, {.seed = seed});
        file.chip().spoil(1, WriteFault::over_random);
        const Bytes block = block_of(file.make().dump, kSpiNandWithSpare, 1);
        for (std::size_t mark = 2048; mark < block.size(); mark += 2048 + 64)
            EXPECT_EQ(block[mark], 0xFF);
    }
}

TEST(ChipWriteFault, AnotherBlockOfTheFileIsForeign) {
    const Bytes bytes = slc_flash_pages(patterned(8 * 2048, 9), {.page_size = 2048, .spare = 70});
    ChipSimulator simulator(kSlc, {chip_file("a.img", bytes)});
    simulator.spoil(0, WriteFault::other_block);
    simulator.flip_in_unit(0, 2, 1, 16);  // correctable
    simulator.flip_in_unit(0, 3, 0, 17);  // not correctable, so ruined
    const SimulatedChip chip = simulator.make();
    expect_truth(kSlc, {{"a.img", bytes}}, chip);
    EXPECT_TRUE(slice(chip.dump, 0, 2 * kSlc.page()) == slice(bytes, kSlc.block(), 2 * kSlc.page()));
    EXPECT_EQ(chip.truth.units.beyond, 8U);
    EXPECT_EQ(chip.truth.units.foreign, 7U);
    EXPECT_EQ(chip.truth.lost.at(5).what, UnitClass::foreign);
    EXPECT_EQ(chip.truth.lost.at(6).what, UnitClass::ruined);
    EXPECT_EQ(chip.truth.by_parity.beyond, 1U);
}

TEST(ChipWriteFault, NeedsAUsedBlockAndAnother) {
    OneFile file;
    EXPECT_THROW(file.chip().spoil(3, WriteFault::unwritten), ChipError);
    ChipSimulator small(kSlc, {chip_file("a.img", file_bytes(kSlc, 4, 1))});
    EXPECT_THROW(small.spoil(0, WriteFault::other_block), ChipError);
    EXPECT_THROW(small.spoil(0, WriteFault::over_other_block), ChipError);
}

// ---- flips ----

TEST(ChipFlips, ByHandAreThoseAndNoOthers) {
    OneFile file;
    const uint64_t bit_of_unit_1 = 8 * 1056 + 5;
    file.chip().flip(1, 2, 0);
    file.chip().flip(1, 2, bit_of_unit_1);
    file.chip().flip(1, 2, bit_of_unit_1 + 1);
    file.chip().flip(2, 0, 8 * 2112);  // the first byte after the units
    file.chip().flip(7, 3, 8);         // an erased block
    const SimulatedChip chip = file.make();
    Bytes expected;
    for (const uint64_t block : {0U, 1U, 2U})
        put_bytes(expected, file.clean(block));
    expected.resize(kSlc.blocks * kSlc.block(), 0xFF);
    const uint64_t page_2 = kSlc.block() + 2 * kSlc.page();
    expected[page_2] ^= 1;
    expected[page_2 + 1056] ^= 0x60;
    expected[2 * kSlc.block() + 2112] ^= 1;
    expected[7 * kSlc.block() + 3 * kSlc.page() + 1] ^= 1;
    EXPECT_TRUE(same_bytes(chip.dump, expected));
    const UnitTruth& units = chip.truth.units;
    EXPECT_EQ(units.units, 22U);
    EXPECT_EQ(units.flips[0], 20U);
    EXPECT_EQ(units.flips[1], 1U);
    EXPECT_EQ(units.flips[2], 1U);
    EXPECT_EQ(units.worst(), 2U);
    EXPECT_EQ(chip.truth.files[0].flips_outside_units, 1U);
    EXPECT_EQ(chip.truth.blocks, (std::vector<BlockTruth>{{1, 3, 2, 0}}));
    EXPECT_EQ(chip.truth.by_parity.flipped_bits(), 4U);
}

TEST(ChipFlips, OfAUnitAreExactlySoMany) {
    OneFile file(kSlc, {.bit_error_rate = 1e-4});
    file.chip().flip_in_unit(0, 1, 1, 16);
    file.chip().flip_in_unit(0, 2, 0, 17);
    file.chip().flip_in_unit(1, 3, 0, 0);
    file.chip().flip_in_unit(2, 0, 1, 300);
    const SimulatedChip chip = file.make();
    EXPECT_EQ(chip.truth.units.worst(), 16U);
    EXPECT_EQ(chip.truth.lost, (std::vector<LostUnit>{{0, 2, 0, 17}, {2, 0, 1, 300}}));
    EXPECT_TRUE(slice(block_of(chip.dump, kSlc, 1), 3 * kSlc.page(), 1056) ==
                slice(file.clean(1), 3 * kSlc.page(), 1056));
}

TEST(ChipFlips, NeedAPlaceThatIsThere) {
    OneFile file;
    EXPECT_THROW(file.chip().flip(24, 0, 0), ChipError);
    EXPECT_THROW(file.chip().flip(0, 4, 0), ChipError);
    EXPECT_THROW(file.chip().flip(0, 0, 8 * kSlc.page()), ChipError);
    EXPECT_THROW(file.chip().flip_in_unit(0, 0, 2, 1), ChipError);
    EXPECT_THROW(file.chip().flip_in_unit(0, 0, 1, 8 * 1056 + 1), ChipError);
}

TEST(ChipFlips, OfSpiNandCanNotBeCorrected) {
    OneFile file(kSpiNandWithSpare);
    file.chip().flip(1, 0, 8 * 2000);
    const SimulatedChip chip = file.make();
    EXPECT_EQ(chip.truth.units.flips[1], 1U);
    EXPECT_FALSE(chip.truth.files[0].can_be_read(ChipKind::spi_nand));
    EXPECT_TRUE(chip.truth.files[0].can_be_read(ChipKind::slc));
}

// ---- ageing ----

// Flips in a file of 3 blocks with pages of zeros and ones in like number.
UnitTruth aged(double rate, double share_of_sets, uint64_t seed) {
    Bytes data(12 * 2048, 0x55);
    const ChipSimulator chip(kSpiNand, {chip_file("a.img", data)},
                             {.seed = seed, .bit_error_rate = rate, .share_of_sets = share_of_sets});
    const SimulatedChip made = chip.make();
    expect_truth(kSpiNand, {{"a.img", data}}, made);
    EXPECT_TRUE(all_bytes_are(made.dump, 0xFF, data.size(), made.dump.size() - data.size()));
    return made.truth.units;
}

TEST(ChipAgeing, FlipsBitsAtItsRate) {
    constexpr double kBits = 12 * 2048 * 8;
    for (const double rate : {1e-4, 1e-3}) {
        uint64_t flips = 0;
        for (uint64_t seed = 1; seed <= 20; ++seed)
            flips += aged(rate, 0.5, seed).flipped_bits();
        const double expected = 20 * rate * kBits;
        EXPECT_NEAR(static_cast<double>(flips), expected, 4 * std::sqrt(expected)) << rate;
    }
    EXPECT_EQ(aged(0, 0.5, 1).flipped_bits(), 0U);
    EXPECT_EQ(aged(1, 0.5, 1).beyond, 24U);
}

TEST(ChipAgeing, ShareOfSetsGivesTheDirection) {
    const UnitTruth sets = aged(1e-3, 1, 5);
    EXPECT_EQ(sets.cleared, 0U);
    EXPECT_GT(sets.set, 100U);
    const UnitTruth none = aged(1e-3, 0, 5);
    EXPECT_EQ(none.set, 0U);
    EXPECT_GT(none.cleared, 100U);
    const UnitTruth mixed = aged(1e-3, 0.25, 5);
    EXPECT_NEAR(static_cast<double>(mixed.cleared), 3.0 * static_cast<double>(mixed.set), 80);
}

TEST(ChipAgeing, OfErasedPagesSparesFilesAndBadBlocks) {
    const OneFile file(kSlc, {.factory_bad = {{9, Fill::erased}}, .erased_bit_error_rate = 1e-3});
    const SimulatedChip chip = file.make();
    EXPECT_EQ(chip.truth.units.flipped_bits(), 0U);
    const uint64_t last_page = 2 * kSlc.block() + 3 * kSlc.page();
    EXPECT_FALSE(all_bytes_are(chip.dump, 0xFF, last_page, kSlc.page()));
    Bytes bad = erased(kSlc.block());
    bad[2048] = 0;
    EXPECT_TRUE(same_bytes(block_of(chip.dump, kSlc, 9), bad));
    EXPECT_GT(chip.truth.by_parity.flipped_bits(), 1000U);
    EXPECT_EQ(chip.truth.by_parity.set, 0U);
}

TEST(ChipAgeing, LeapsHaveTheirDistribution) {
    for (const double probability : {0.5, 0.01}) {
        const RareEvents events(probability);
        ChipDice dice(3, DicePurpose::choice, 0);
        double sum = 0;
        uint64_t without_any = 0;
        constexpr uint64_t kLeaps = 20000;
        for (uint64_t i = 0; i < kLeaps; ++i) {
            const uint64_t trials = events.trials_without(dice);
            sum += static_cast<double>(trials);
            without_any += trials == 0 ? 1 : 0;
        }
        const double mean = (1 - probability) / probability;
        const double deviation = std::sqrt((1 - probability) * kLeaps) / probability;
        EXPECT_NEAR(sum, mean * kLeaps, 4 * deviation);
        EXPECT_NEAR(static_cast<double>(without_any), probability * kLeaps,
                    4 * std::sqrt(probability * (1 - probability) * kLeaps));
    }
}

// ---- all of it ----

// Chips whose faults and damage a seed decides.
SimulatedChip random_chip(const ChipGeometry& geometry, const Files& files, uint64_t seed) {
    ChipDice dice(seed, DicePurpose::choice, 1000);
    ChipFaults faults{.seed = seed,
                      .factory_bad_rate = 0.1,
                      .failure_rate = 0.2,
                      .bit_error_rate = 1e-4 * static_cast<double>(dice.below(4)),
                      .share_of_sets = dice.fraction(),
                      .erased_bit_error_rate = 1e-5 * static_cast<double>(dice.below(4))};
    std::vector<ChipFile> placed;
    for (const auto& [name, bytes] : files)
        placed.push_back(chip_file(name, bytes));
    ChipSimulator chip(geometry, placed, faults);
    constexpr WriteFault kFaults[] = {WriteFault::unwritten, WriteFault::over_random,
                                      WriteFault::over_other_block, WriteFault::other_block};
    const Blocks& blocks = chip.placement().files[0].blocks;
    const auto pages = static_cast<uint32_t>(geometry.pages_per_block);
    const auto any_page = [&] { return static_cast<uint32_t>(dice.below(pages)); };
    const uint64_t spoiled = blocks[dice.below(blocks.size())];
    chip.spoil(spoiled, kFaults[dice.below(4)]);
    for (uint64_t i = dice.below(4); i != 0; --i) {
        // Each number is drawn in a statement of its own: compilers differ in the order of arguments.
        uint64_t block = dice.below(geometry.blocks);
        uint32_t page = any_page();
        const auto unit = static_cast<uint32_t>(dice.below(2));
        const auto flips = static_cast<uint32_t>(dice.below(20));
        chip.flip_in_unit(block, page, unit, flips);
        block = dice.below(geometry.blocks);
        page = any_page();
        chip.flip(block, page, dice.below(8 * geometry.page()));
    }
    return chip.make();
}

TEST(ChipSimulator, TellsTheTruthOfRandomChips) {
    for (const ChipGeometry& geometry : {kSlc, kSpiNand, kSpiNandWithSpare}) {
        const Files files{{"a.img", file_bytes(geometry, 11, 1)},
                          {"b.img", file_bytes(geometry, 8, 2)},
                          {"c.img", file_bytes(geometry, 1, 3)}};
        for (uint64_t seed = 1; seed <= 12; ++seed) {
            SCOPED_TRACE(seed);
            expect_truth(geometry, files, random_chip(geometry, files, seed));
        }
    }
}

TEST(ChipSimulator, GivesTheSameBytesForTheSameSeed) {
    const Files files{{"a.img", file_bytes(kSlc, 11, 1)}, {"b.img", file_bytes(kSlc, 8, 2)}};
    EXPECT_EQ(crc32_standard(random_chip(kSlc, files, 1).dump), 200153231U);
    EXPECT_NE(random_chip(kSlc, files, 1).dump, random_chip(kSlc, files, 2).dump);
}

TEST(ChipSimulator, WritesWhatItMakes) {
    const TemporaryDirectory directory;
    write_file(directory / "a.img", file_bytes(kSlc, 11, 1));
    const ChipSimulator chip(kSlc, {chip_file(directory / "a.img")}, {.bit_error_rate = 1e-4});
    const SimulatedChip made = chip.make();
    const ChipTruth truth = chip.write(directory / "chip.bin");
    EXPECT_TRUE(same_bytes(read_file(directory / "chip.bin"), made.dump));
    EXPECT_TRUE(truth.units == made.truth.units);
    EXPECT_EQ(truth.files[0].file, "a.img");
    EXPECT_THROW(chip.write(directory.path()), std::runtime_error);
}

}  // namespace
