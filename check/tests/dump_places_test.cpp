// Where files lie in the dump of a chip beside its firmware, and what was skipped for them.

#include "chip_bench.h"

namespace {

using namespace check_test;

using Blocks = std::vector<uint64_t>;

// ---- places ----

TEST(DumpPlaces, AreFoundWithoutAnOption) {
    for (const Conversion& conversion : {kSmallSlc, kSmallSpiNand}) {
        ChipBench bench(conversion);
        bench.place("rootfs.img", 3);
        bench.place("gpt.img", 40);
        bench.place("idblock.img", 60);
        bench.place("misc.img", 80);
        bench.place("boot.img", 90);
        const CheckResult result = bench.result();
        expect_same(result);
        EXPECT_EQ(result.target_kind, "dump");
        EXPECT_EQ(part_of(result, "rootfs.img").found_at, 3U);
        EXPECT_EQ(part_of(result, "gpt.img").found_at, 40U);
        EXPECT_EQ(part_of(result, "idblock.img").found_at, 60U);
        EXPECT_EQ(part_of(result, "misc.img").found_at, 80U);
        EXPECT_EQ(part_of(result, "boot.img").found_at, 90U);
        EXPECT_EQ(result.warnings, std::vector<std::string>());
    }
}

TEST(DumpPlaces, OfAFileThatIsNotThere) {
    ChipBench bench;
    bench.place_all();
    bench.erase(part_of(bench.result(), "misc.img").found_at.value());
    const CheckResult result = bench.result();
    EXPECT_EQ(result.verdict, Verdict::kDiffers);
    EXPECT_EQ(result.missing, std::vector<std::string>{"misc.img"});
    const PartResult& misc = part_of(result, "misc.img");
    EXPECT_EQ(misc.verdict, Verdict::kMissing);
    EXPECT_EQ(misc.found_at, std::nullopt);
    EXPECT_EQ(misc.missing, misc.bytes);
    EXPECT_EQ(misc.bytes, bench.output("misc.img").size());
    EXPECT_EQ(part_of(result, "rootfs.img").verdict, Verdict::kSame);
}

TEST(DumpPlaces, OfAFileWithARuinedFirstPage) {
    ChipBench bench;
    bench.place_all();
    const uint64_t at = part_of(bench.result(), "rootfs.img").found_at.value();
    put_bytes_at(bench.bytes(), at * bench.block(), patterned(bench.page(), 5));
    const CheckResult result = bench.result();
    const PartResult& rootfs = part_of(result, "rootfs.img");
    EXPECT_EQ(rootfs.found_at, at);
    EXPECT_EQ(rootfs.verdict, Verdict::kDiffers);
    EXPECT_EQ(rootfs.differing_pages, 1U);
    EXPECT_EQ(rootfs.units.beyond, 2U);
}

TEST(DumpPlaces, OfAMissingFileIsNotThatOfLikeFill) {
    for (const Conversion& conversion : {kSmallSlc, kSmallSpiNand}) {
        Firmware firmware = chip_firmware();
        Item small = firmware.item("misc");
        small.name = "misc_b";
        small.data = patterned(1000, 31);  // as misc, a unit of data and a block of fill
        small.flash_offset = 0x8000;
        firmware.items.push_back(small);
        ChipBench bench(conversion, firmware);
        bench.place_all();
        bench.erase(part_of(bench.result(), "misc.img").found_at.value());
        bench.place("misc_b.img", 100);
        const CheckResult result = bench.result();
        EXPECT_EQ(part_of(result, "misc.img").verdict, Verdict::kMissing);
        EXPECT_EQ(part_of(result, "misc_b.img").verdict, Verdict::kSame);
        EXPECT_EQ(part_of(result, "misc_b.img").found_at, 100U);
    }
}

Firmware with_two_slots(bool equal) {
    Firmware firmware = chip_firmware();
    Item& boot = firmware.item("boot");
    Item second = boot;
    second.name = "boot_b";
    second.file = "boot_b.img";
    second.flash_offset = 0x8000;
    if (!equal)
        second.data.back() ^= 1;  // in the last block
    firmware.items.push_back(second);
    return firmware;
}

TEST(DumpPlaces, OfTwinsAreTakenInTheirOrder) {
    ChipBench bench(kSmallSlc, with_two_slots(true));
    bench.place_all();
    bench.place("boot_b.img", 100);
    bench.flip(part_of(bench.result(), "boot.img").found_at.value(), 0, 0, 5);
    const CheckResult result = bench.result();
    expect_same(result);
    const uint64_t first = part_of(result, "boot.img").found_at.value();
    EXPECT_LT(first, 100U);
    EXPECT_EQ(part_of(result, "boot_b.img").found_at, 100U);
    EXPECT_EQ(result.warnings, std::vector<std::string>{"boot.img lies at block " + std::to_string(first) +
                                                        " and 100 alike: taken as " + std::to_string(first)});
}

TEST(DumpPlaces, OfFilesThatDifferInALaterBlock) {
    ChipBench bench(kSmallSlc, with_two_slots(false));
    bench.place("gpt.img", bench.place("idblock.img", 0).back() + 1);
    bench.place("boot_b.img", 50);
    bench.place("boot.img", 60);
    bench.place("misc.img", 70);
    bench.place("rootfs.img", 80);
    const CheckResult result = bench.result();
    expect_same(result);
    EXPECT_EQ(part_of(result, "boot.img").found_at, 60U);
    EXPECT_EQ(part_of(result, "boot_b.img").found_at, 50U);
    EXPECT_EQ(result.warnings, std::vector<std::string>());
}

/// Eight copies of a record, one block apart, in blocks of fill.
Firmware with_parameter_copies() {
    Firmware firmware = chip_firmware();
    firmware.item("parameter") = sample_firmware({.gpt = false}).item("parameter");
    firmware.item("parameter").part_size = 8 * 2 * 32;  // a copy in every second block
    return firmware;
}

TEST(DumpPlaces, OfEqualCopiesInOneFileAreNotMany) {
    for (const Conversion& conversion : {kSmallSlc, kSmallSpiNand}) {
        ChipBench bench(conversion, with_parameter_copies());
        ASSERT_EQ(bench.blocks_of("parameter.img"), 16U);
        bench.place("idblock.img", 0);
        bench.place("parameter.img", 40);
        bench.place("boot.img", 60);
        bench.place("misc.img", 70);
        bench.place("rootfs.img", 80);
        const CheckResult result = bench.result();
        expect_same(result);
        EXPECT_EQ(part_of(result, "parameter.img").found_at, 40U);
        EXPECT_EQ(result.warnings, std::vector<std::string>());
    }
}

TEST(DumpPlaces, OfEqualCopiesTheFirstOfThemDamaged) {
    ChipBench bench(kSmallSpiNand, with_parameter_copies());
    bench.place("parameter.img", 40);
    bench.flip(40, 6, 1, 20);  // in the fill after the record: the copies after it are better
    const CheckResult result = bench.result();
    const PartResult& parameter = part_of(result, "parameter.img");
    EXPECT_EQ(parameter.found_at, 40U);
    EXPECT_EQ(parameter.units.beyond, 1U);
    EXPECT_EQ(parameter.missing, 0U);
}

TEST(DumpPlaces, OfFilesThatDifferAfterManyBlocks) {
    Firmware firmware = chip_firmware();
    Item other = firmware.item("rootfs");
    other.name = "rootfs_b";
    other.file = "rootfs_b.img";
    other.flash_offset = 0x8000;
    other.data.at(100000) ^= 1;  // in block 6
    firmware.items.push_back(other);
    for (const Conversion& conversion : {kSmallSlc, kSmallSpiNand}) {
        ChipBench bench(conversion, firmware);
        bench.place("gpt.img", bench.place("idblock.img", 0).back() + 1);
        bench.place("rootfs_b.img", 50);
        bench.place("rootfs.img", 70);
        bench.place("misc.img", 90);
        bench.place("boot.img", 100);
        const CheckResult result = bench.result();
        EXPECT_EQ(part_of(result, "rootfs.img").found_at, 70U);
        EXPECT_EQ(part_of(result, "rootfs_b.img").found_at, 50U);
        EXPECT_EQ(result.verdict, Verdict::kSame);
        EXPECT_EQ(result.warnings, std::vector<std::string>());
    }
}

TEST(DumpPlaces, OfTwinsByTheLayout) {
    ChipBench bench(kSmallSlc, with_two_slots(true));
    bench.place_all();
    const uint64_t at = part_of(bench.result(), "boot.img").found_at.value();
    bench.place("boot_b.img", 100);
    ChipOptions chip;
    chip.at = {{"boot", 100}, {"boot_b", at}};
    const CheckResult result = bench.result(chip);
    expect_same(result);
    EXPECT_EQ(part_of(result, "boot.img").found_at, 100U);
    EXPECT_EQ(part_of(result, "boot_b.img").found_at, at);
    EXPECT_EQ(result.warnings, std::vector<std::string>());
}

TEST(DumpPlaces, OfANameThatThereIsNot) {
    ChipBench bench;
    bench.place_all();
    ChipOptions chip;
    chip.at = {{"bot", 10}};
    const CheckResult result = bench.result(chip);
    EXPECT_EQ(result.error, "no part has the name 'bot', which has a place in the dump");
    EXPECT_TRUE(result.parts.empty()) << "the dump is not read";
}

TEST(DumpPlaces, OfFilesThatThisFirmwareDoesNotGive) {
    ChipBench bench;
    bench.place_all();
    for (const std::string name : {"parameter", "gaps", "rest"}) {
        ChipOptions chip;
        chip.at = {{name, 1}};  // where the GPT is
        const CheckResult result = bench.result(chip);
        EXPECT_EQ(result.verdict, Verdict::kTrouble) << name;
        EXPECT_EQ(result.error, "no part has the name '" + name + "', which has a place in the dump");
    }
    ChipOptions chip;
    chip.at = {{"idblock", 0}, {"gpt", part_of(bench.result(), "gpt.img").found_at.value()}};
    expect_same(bench.result(chip));
}

TEST(DumpPlaces, OfAFileThatOneOfTheSameNameReplaces) {
    Firmware firmware = chip_firmware();
    Item again = firmware.item("boot");
    again.data = patterned(20000, 21);
    firmware.items.push_back(again);
    ChipBench bench(kSmallSlc, firmware);
    bench.place_all();
    const CheckResult result = bench.result();
    expect_same(result);
    EXPECT_EQ(result.parts.size(), 5U);
}

// ---- skipped blocks ----

TEST(DumpSkips, AreFoundByContent) {
    for (const Conversion& conversion : {kSmallSlc, kSmallSpiNand}) {
        ChipBench bench(conversion);
        bench.place_all();
        bench.place("rootfs.img", 90, {92, 93, 99});
        bench.ruin(92);
        bench.put(93, Bytes(bench.block(), 0));
        bench.erase(99);
        ChipOptions chip;
        chip.at = {{"rootfs", 90}};
        chip.max_bad_blocks = 3;
        const CheckResult result = bench.result(chip);
        expect_same(result);
        const PartResult& rootfs = part_of(result, "rootfs.img");
        EXPECT_EQ(rootfs.found_at, 90U);
        EXPECT_EQ(skipped_blocks(rootfs), (Blocks{92, 93, 99}));
        for (const SkippedBlock& skipped : rootfs.skipped)
            EXPECT_EQ(skipped.reason, SkippedBlock::Reason::kContent);
    }
}

TEST(DumpSkips, BeforeTheFirstBlockOfAWindow) {
    ChipBench bench;
    bench.place_all();
    bench.place("rootfs.img", 92);
    bench.ruin(90);
    bench.erase(91);
    ChipOptions chip;
    chip.at = {{"rootfs", 90}};
    const CheckResult result = bench.result(chip);
    expect_same(result);
    EXPECT_EQ(part_of(result, "rootfs.img").found_at, 92U);
    EXPECT_EQ(skipped_blocks(part_of(result, "rootfs.img")), (Blocks{90, 91}));
}

TEST(DumpSkips, OfMoreBlocksThanAllowed) {
    ChipBench bench;
    bench.place_all();
    bench.place("rootfs.img", 90, {92, 93, 94});
    for (const uint64_t block : Blocks{92, 93, 94})
        bench.ruin(block, static_cast<uint32_t>(block));
    ChipOptions chip;
    chip.at = {{"rootfs", 90}};
    chip.max_bad_blocks = 2;
    const CheckResult result = bench.result(chip);
    EXPECT_EQ(result.verdict, Verdict::kDiffers);
    const PartResult& rootfs = part_of(result, "rootfs.img");
    EXPECT_EQ(rootfs.verdict, Verdict::kDiffers);
    // Block 92 stays for block 2 of the file. Block 3 is not found; it lies one block too far.
    EXPECT_EQ(rootfs.differing_pages, 8U * (bench.blocks_of("rootfs.img") - 2));
    chip.max_bad_blocks = 3;
    expect_same(bench.result(chip));
}

TEST(DumpSkips, AmongPagesOfFill) {
    Firmware firmware = chip_firmware();
    firmware.item("rootfs").data = Bytes(190000, 0);
    ChipBench bench(kSmallSlc, firmware);
    bench.place_all();
    bench.place("rootfs.img", 90, {94, 95});
    // What was there before is fill of other places: every second unit is the same.
    bench.put(94, bench.block_of("rootfs.img", 2));
    bench.put(95, bench.block_of("rootfs.img", 7));
    ChipOptions chip;
    chip.at = {{"rootfs", 90}};
    const CheckResult result = bench.result(chip);
    expect_same(result);
    EXPECT_EQ(skipped_blocks(part_of(result, "rootfs.img")), (Blocks{94, 95}));
}

TEST(DumpSkips, OfTwoPercentOfThePartition) {
    Firmware firmware = chip_firmware();
    firmware.item("rootfs").part_size = 200 * 32;  // 200 erase blocks
    for (const uint64_t skips : Blocks{4, 5}) {
        ChipBench bench(kSmallSlc, firmware, 256);
        bench.place_all();
        std::vector<std::size_t> bad;
        for (std::size_t block = 104; block < 104 + skips; ++block) {
            bad.push_back(block);
            bench.ruin(block, static_cast<uint32_t>(block));
        }
        bench.place("rootfs.img", 100, bad);
        ChipOptions chip;
        chip.at = {{"rootfs", 100}};
        EXPECT_EQ(bench.result(chip).verdict, skips == 4 ? Verdict::kSame : Verdict::kDiffers);
    }
}

TEST(DumpSkips, OfTwoBlocksThatAreAsGoodGoToTheFirst) {
    ChipBench bench;
    bench.place_all();
    bench.place("rootfs.img", 90, {94});
    bench.put(94, bench.block_of("rootfs.img", 4));
    bench.flip(94, 7, 1, 40);
    bench.flip(95, 3, 0, 40);
    ChipOptions chip;
    chip.at = {{"rootfs", 90}};
    const CheckResult result = bench.result(chip);
    EXPECT_EQ(skipped_blocks(part_of(result, "rootfs.img")), (Blocks{95}));
    EXPECT_EQ(result.chip->beyond, 1U);
}

TEST(DumpSkips, OfABlockThatFailedAndWasWrittenAgain) {
    ChipBench bench;
    bench.place_all();
    bench.place("rootfs.img", 90, {94});
    bench.put(94, bench.block_of("rootfs.img", 4));
    bench.flip(94, 7, 1, 40);  // its last unit is ruined
    ChipOptions chip;
    chip.at = {{"rootfs", 90}};
    const CheckResult result = bench.result(chip);
    expect_same(result);
    EXPECT_EQ(skipped_blocks(part_of(result, "rootfs.img")), (Blocks{94}));
    EXPECT_EQ(result.chip->beyond, 0U);
}

TEST(DumpSkips, OfABlockThatFailedBeforeABadOne) {
    ChipBench bench;
    bench.place_all();
    bench.place("rootfs.img", 90, {94, 95});
    bench.put(94, bench.block_of("rootfs.img", 4));
    bench.flip(94, 7, 1, 40);
    bench.ruin(95);
    ChipOptions chip;
    chip.at = {{"rootfs", 90}};
    const CheckResult result = bench.result(chip);
    expect_same(result);
    EXPECT_EQ(skipped_blocks(part_of(result, "rootfs.img")), (Blocks{94, 95}));
}

TEST(DumpSkips, OfABlockThatFailedTwiceInARow) {
    ChipBench bench;
    bench.place_all();
    bench.place("rootfs.img", 90, {94, 95});
    for (const std::size_t block : {94U, 95U}) {
        bench.put(block, bench.block_of("rootfs.img", 4));
        bench.flip(block, 7, 1, 40);
    }
    bench.flip(95, 6, 0, 40);  // worse than the first of them
    ChipOptions chip;
    chip.at = {{"rootfs", 90}};
    const CheckResult result = bench.result(chip);
    expect_same(result);
    EXPECT_EQ(skipped_blocks(part_of(result, "rootfs.img")), (Blocks{94, 95}));
}

TEST(DumpSkips, OfAFirstBlockThatFailedInASearch) {
    ChipBench bench;
    bench.place_all();
    const uint64_t at = part_of(bench.result(), "rootfs.img").found_at.value();
    bench.place("rootfs.img", at + 1);
    Bytes half = bench.block_of("rootfs.img", 0);
    std::fill(half.begin() + static_cast<std::ptrdiff_t>(half.size() / 2), half.end(), uint8_t{0xFF});
    bench.put(at, half);
    const CheckResult result = bench.result();
    expect_same(result);
    EXPECT_EQ(part_of(result, "rootfs.img").found_at, at + 1);
    EXPECT_EQ(skipped_blocks(part_of(result, "rootfs.img")), (Blocks{at}));
    EXPECT_EQ(result.warnings, std::vector<std::string>());
}

TEST(DumpSkips, DoNotMoveTheNextFile) {
    ChipBench bench;
    bench.place_all();
    const CheckResult before = bench.result();
    const uint64_t at = part_of(before, "rootfs.img").found_at.value();
    bench.place("rootfs.img", at, {at + 1});
    bench.ruin(at + 1);
    ChipOptions chip;
    chip.at = {{"rootfs", at}, {"boot", part_of(before, "boot.img").found_at.value()}};
    const CheckResult result = bench.result(chip);
    expect_same(result);
    EXPECT_EQ(part_of(result, "boot.img").found_at, part_of(before, "boot.img").found_at);
}

TEST(DumpSkips, OfBlocksThatAreListed) {
    ChipBench bench;
    bench.place_all();
    bench.place("rootfs.img", 90, {90, 94});
    bench.put(94, bench.block_of("rootfs.img", 3));  // as good as what follows, and yet it is bad
    bench.ruin(90);
    ChipOptions chip;
    chip.at = {{"rootfs", 90}};
    chip.bad_blocks = {90, 94, 1000};
    chip.max_bad_blocks = 0;
    const CheckResult result = bench.result(chip);
    expect_same(result);
    const PartResult& rootfs = part_of(result, "rootfs.img");
    EXPECT_EQ(rootfs.found_at, 91U);
    EXPECT_EQ(skipped_blocks(rootfs), (Blocks{90, 94}));
    EXPECT_EQ(rootfs.skipped.at(0).reason, SkippedBlock::Reason::kListed);
}

TEST(DumpSkips, ByMarksInTheSpareAreaOfSpiNand) {
    constexpr std::size_t kSpare = 64;
    ChipBench bench(kSmallSpiNand);
    bench.place_all();
    bench.place("rootfs.img", 90, {94, 95});
    bench.put(94, bench.block_of("rootfs.img", 4));  // only the mark says that it is bad
    bench.put(95, bench.block_of("rootfs.img", 4));
    Bytes with_spare;
    const std::size_t page = bench.page();
    for (std::size_t at = 0; at < bench.bytes().size(); at += page) {
        put_bytes(with_spare, slice(bench.bytes(), at, page));
        Bytes spare(kSpare, 0xFF);
        const std::size_t block = at / bench.block();
        const std::size_t page_of_block = at % bench.block() / page;
        if ((block == 94 && page_of_block == 0) || (block == 95 && page_of_block == 1))
            spare[0] = 0x07;  // five zeros
        if ((block == 96 && page_of_block == 0) || (block == 97 && page_of_block == 2))
            spare[0] = block == 96 ? 0x0F : 0x00;  // four zeros; not a page for marks
        put_bytes(with_spare, spare);
    }
    bench.bytes() = with_spare;
    ChipOptions chip;
    chip.at = {{"rootfs", 90}};
    chip.dump_spare = kSpare;
    const CheckResult result = bench.result(chip);
    expect_same(result);
    const PartResult& rootfs = part_of(result, "rootfs.img");
    EXPECT_EQ(skipped_blocks(rootfs), (Blocks{94, 95}));
    EXPECT_EQ(rootfs.skipped.at(0).reason, SkippedBlock::Reason::kMark);
    EXPECT_EQ(result.blocks_of_chip->bad, 2U);
}

}  // namespace
