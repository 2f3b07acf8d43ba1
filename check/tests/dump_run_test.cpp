// What is said of the units and blocks in the dump of a chip beside its firmware, and of the dump as a file.

#include "chip_bench.h"
#include "support/sparse_builder.h"

namespace {

using namespace check_test;

std::array<uint64_t, 17> flips_of(std::initializer_list<std::pair<uint32_t, uint64_t>> numbers) {
    std::array<uint64_t, 17> flips{};
    for (const auto& [flip, units] : numbers)
        flips[flip] = units;
    return flips;
}

/// Units of the files of the bench.
uint64_t units_of(const ChipBench& bench) {
    uint64_t bytes = 0;
    for (const auto& [name, file] : bench.outputs())
        bytes += file.size();
    return bytes / bench.page() * 2;
}

// ---- flips ----

TEST(DumpFlips, AreCountedForEachUnit) {
    ChipBench bench;
    bench.place_all();
    const uint64_t at = part_of(bench.result(), "rootfs.img").found_at.value();
    bench.flip(at, 0, 0, 1);
    bench.flip(at, 3, 1, 16);
    bench.flip(at + 2, 7, 1, 16, 8 * 1024);  // system bytes and parity are flipped too
    bench.flip(0, 0, 0, 12);
    const CheckResult result = bench.result();
    EXPECT_EQ(result.verdict, Verdict::kSame);
    EXPECT_EQ(result.chip->units, units_of(bench));
    EXPECT_EQ(result.chip->flips, flips_of({{0, units_of(bench) - 4}, {1, 1}, {12, 1}, {16, 2}}));
    EXPECT_EQ(result.chip->beyond, 0U);
    EXPECT_EQ(result.chip->flipped_bits(), 45U);
    const PartResult& rootfs = part_of(result, "rootfs.img");
    EXPECT_EQ(rootfs.verdict, Verdict::kSame);
    EXPECT_EQ(rootfs.units.flips, flips_of({{0, rootfs.units.units - 3}, {1, 1}, {16, 2}}));
    EXPECT_EQ(rootfs.worst_unit, at * bench.block() + 3 * bench.page() + 1056);
    ASSERT_EQ(result.flipped_blocks.size(), 3U);
    EXPECT_EQ(result.flipped_blocks[0].block, 0U);
    EXPECT_EQ(result.flipped_blocks[1].flipped_bits, 17U);
    EXPECT_EQ(result.flipped_blocks[1].worst, 16U);
    EXPECT_EQ(result.warnings, std::vector<std::string>{
                                   "rootfs.img: 2 units with more than 12 flipped bits, at most 16: block " +
                                   std::to_string(at) + ", page 3, unit 1"});
}

TEST(DumpFlips, HaveADirection) {
    ChipBench bench;
    bench.place_all();
    const uint64_t at = part_of(bench.result(), "rootfs.img").found_at.value();
    uint8_t& byte = bench.bytes().at(at * bench.block() + 100);
    const auto ones = static_cast<uint64_t>(std::popcount(byte));
    byte = static_cast<uint8_t>(~byte);
    const CheckResult result = bench.result();
    EXPECT_EQ(result.chip->cleared, ones);
    EXPECT_EQ(result.chip->set, 8 - ones);
}

TEST(DumpFlips, OverTheLimitAreADifference) {
    ChipBench bench;
    bench.place_all();
    const uint64_t at = part_of(bench.result(), "rootfs.img").found_at.value();
    bench.flip(at + 1, 2, 1, 5);
    ChipOptions chip;
    chip.max_flips = 5;
    chip.warn_flips = 3;
    EXPECT_EQ(bench.result(chip).verdict, Verdict::kSame);
    chip.max_flips = 4;
    const CheckResult result = bench.result(chip);
    EXPECT_EQ(result.verdict, Verdict::kDiffers);
    const PartResult& rootfs = part_of(result, "rootfs.img");
    EXPECT_EQ(rootfs.verdict, Verdict::kDiffers);
    EXPECT_EQ(rootfs.differing_pages, 1U);
    EXPECT_EQ(rootfs.runs_found, 1U);
    EXPECT_EQ(rootfs.runs.at(0).flips, 5U);
    EXPECT_EQ(rootfs.runs.at(0).offset, (at + 1) * bench.block() + 2 * bench.page() + 1056);
    EXPECT_EQ(rootfs.units.flips[5], 1U);
    EXPECT_EQ(rootfs.units.beyond, 0U);
}

TEST(DumpFlips, OfSpiNandAreDifferences) {
    ChipBench bench(kSmallSpiNand);
    bench.place_all();
    const uint64_t at = part_of(bench.result(), "rootfs.img").found_at.value();
    bench.flip(at + 1, 2, 1, 1);
    const CheckResult result = bench.result();
    EXPECT_EQ(result.verdict, Verdict::kDiffers);
    EXPECT_EQ(part_of(result, "rootfs.img").differing, 1U);
    EXPECT_EQ(part_of(result, "rootfs.img").units.flipped_bits(), 1U);
    EXPECT_EQ(part_of(result, "boot.img").verdict, Verdict::kSame);
    EXPECT_EQ(result.chip, std::nullopt);
}

TEST(DumpFlips, AfterTheUnitsOfAPageAreARemark) {
    Conversion conversion = kSmallSlc;
    conversion.spare_bytes = "128";
    ChipBench bench(conversion);
    bench.place_all();
    const uint64_t at = part_of(bench.result(), "rootfs.img").found_at.value();
    const std::size_t tail = at * bench.block() + 2112;
    put_bytes_at(bench.bytes(), tail, Bytes{0, 0});  // 16 bits
    EXPECT_EQ(bench.result().warnings, std::vector<std::string>());
    put_bytes_at(bench.bytes(), tail + 3, Bytes{0xFE});
    const CheckResult result = bench.result();
    EXPECT_EQ(result.verdict, Verdict::kSame);
    EXPECT_EQ(result.chip->flipped_bits(), 0U);
    EXPECT_EQ(result.warnings, std::vector<std::string>{
                                   "rootfs.img: 1 page with more than 16 flipped bits after the last unit"});
}

// ---- units that are something else ----

TEST(DumpClasses, RuinedForeignAndErased) {
    ChipBench bench;
    bench.place_all();
    const uint64_t at = part_of(bench.result(), "rootfs.img").found_at.value();
    const std::size_t page = at * bench.block() + 2 * bench.page();
    bench.flip(at, 1, 0, 17);
    put_bytes_at(bench.bytes(), page, slice(bench.output("boot.img"), 0, 1056));
    put_bytes_at(bench.bytes(), page + 1056, Bytes(1056, 0xFF));
    bench.bytes().at(page + 1056 + 7) = 0x0F;
    const CheckResult result = bench.result();
    EXPECT_EQ(result.verdict, Verdict::kDiffers);
    const PartResult& rootfs = part_of(result, "rootfs.img");
    EXPECT_EQ(rootfs.units.beyond, 3U);
    EXPECT_EQ(rootfs.units.foreign, 1U);
    EXPECT_EQ(rootfs.units.erased, 1U);
    EXPECT_EQ(rootfs.differing_pages, 2U);
    ASSERT_EQ(rootfs.runs.size(), 3U);
    EXPECT_EQ(rootfs.runs[0].flips, 17U);
    EXPECT_EQ(rootfs.runs[0].holds, DifferenceRun::Holds::kRuined);
    EXPECT_EQ(rootfs.runs[1].holds, DifferenceRun::Holds::kOtherData);
    EXPECT_EQ(rootfs.runs[2].holds, DifferenceRun::Holds::kErased);
    EXPECT_EQ(result.opinion.findings, std::vector<std::string>());
}

TEST(DumpClasses, ErasedUnitsThatAreExpected) {
    Firmware firmware = chip_firmware();
    firmware.item("rootfs").data = Bytes(190000, 0xFF);
    ChipBench bench(kSmallSlc, firmware);
    bench.place_all();
    const uint64_t at = part_of(bench.result(), "rootfs.img").found_at.value();
    bench.flip(at, 3, 1, 2);
    const CheckResult result = bench.result();
    expect_same(result);
    const PartResult& rootfs = part_of(result, "rootfs.img");
    // The second unit of each page with data: the first one has the list index.
    EXPECT_EQ(rootfs.units.erased, 190000U / 2048);
    EXPECT_EQ(rootfs.units.cleared, 2U);
    EXPECT_EQ(rootfs.units.set, 0U);
}

TEST(DumpClasses, ErasedBlockWhereDataShouldBe) {
    ChipBench bench;
    bench.place_all();
    const uint64_t at = part_of(bench.result(), "rootfs.img").found_at.value();
    bench.erase(at + 4);
    const CheckResult result = bench.result();
    const PartResult& rootfs = part_of(result, "rootfs.img");
    EXPECT_EQ(rootfs.verdict, Verdict::kDiffers);
    EXPECT_EQ(rootfs.skipped.size(), 0U);
    EXPECT_EQ(rootfs.units.beyond, 16U);
    EXPECT_EQ(rootfs.units.erased, 16U);
    EXPECT_EQ(rootfs.differing_pages, 8U);
}

TEST(DumpClasses, BlockOfAnotherPlaceOfTheFile) {
    ChipBench bench;
    bench.place_all();
    const uint64_t at = part_of(bench.result(), "rootfs.img").found_at.value();
    bench.put(at + 4, bench.block_of("rootfs.img", 7));
    const CheckResult result = bench.result();
    const PartResult& rootfs = part_of(result, "rootfs.img");
    EXPECT_EQ(rootfs.units.beyond, 16U);
    EXPECT_EQ(rootfs.units.foreign, 16U);
    EXPECT_EQ(rootfs.skipped.size(), 0U);
}

// ---- the dump as a file ----

TEST(DumpFile, EndsInsideAFile) {
    ChipBench bench;
    bench.place_all();
    const uint64_t at = part_of(bench.result(), "rootfs.img").found_at.value();
    const uint64_t blocks = bench.blocks_of("rootfs.img");
    bench.bytes().resize((at + blocks - 1) * bench.block() + 100);
    const CheckResult result = bench.result();
    EXPECT_EQ(result.verdict, Verdict::kDiffers);
    const PartResult& rootfs = part_of(result, "rootfs.img");
    EXPECT_EQ(rootfs.missing, bench.block() - 100);
    EXPECT_EQ(rootfs.compared, rootfs.bytes - rootfs.missing);
    EXPECT_EQ(rootfs.verdict, Verdict::kDiffers);
    EXPECT_EQ(result.warnings,
              std::vector<std::string>{"the dump is not whole erase blocks: 100 bytes after the last one"});
}

TEST(DumpFile, HasAHeader) {
    ChipBench bench;
    bench.place_all();
    bench.flip(0, 2, 1, 17);
    bench.bytes().insert(bench.bytes().begin(), 77, uint8_t{'H'});
    ChipOptions chip;
    chip.skip = 77;
    const CheckResult result = bench.result(chip);
    EXPECT_EQ(result.geometry.header, 77U);
    EXPECT_EQ(part_of(result, "idblock.img").found_at, 0U);
    EXPECT_EQ(part_of(result, "idblock.img").runs.at(0).offset, 77 + 2 * bench.page() + 1056);
    EXPECT_EQ(result.chip->beyond, 1U);
}

TEST(DumpFile, IsEmpty) {
    ChipBench bench;
    bench.bytes().clear();
    const CheckResult result = bench.result();
    EXPECT_EQ(result.verdict, Verdict::kDiffers);
    EXPECT_EQ(result.missing.size(), 5U);
    EXPECT_EQ(result.blocks_of_chip->all, 0U);
}

/// The bench's firmware and an item whose sparse image expands to nothing.
Firmware with_file_of_no_bytes() {
    Firmware firmware = chip_firmware();
    SparseImage nothing;
    nothing.total_blocks = 0;
    firmware.items.push_back(partition_item("zero", 0x20000, 0x800, nothing.build()));
    return firmware;
}

TEST(DumpFile, ThatTheConversionLeavesEmpty) {
    for (const Conversion& conversion : {kSmallSlc, kSmallSpiNand}) {
        SCOPED_TRACE(conversion.type);
        ChipBench bench(conversion, with_file_of_no_bytes());
        ASSERT_EQ(bench.output("zero.img").size(), 0U);
        bench.place_all();
        const CheckResult result = bench.result();
        expect_same(result);
        EXPECT_EQ(part_of(result, "zero.img").bytes, 0U);
        EXPECT_EQ(part_of(result, "zero.img").found_at, std::nullopt);
        EXPECT_EQ(result.missing, std::vector<std::string>());
        const fs::path data = bench.directory() / "data";
        const RunResult run = bench.run({"--extract=" + data.string()});
        EXPECT_EQ(run.exit_status, kSame) << run.out;
        EXPECT_EQ(fs::file_size(data / "zero.img"), 0U);
    }
}

TEST(DumpFile, ComesFromAPipe) {
    ChipBench bench;
    bench.place_all();
    write_file(bench.dump(), bench.bytes());
    const RunResult run =
        run_check_in_shell(R"(cat "$NAME" | "$0" "$@")", bench.arguments_without_target({"-"}),
                           {.environment = {{"NAME", bench.dump()}}});
    EXPECT_EQ(run.exit_status, kSame) << run.out << run.err;
    EXPECT_EQ(last_line(run.out), "same: 5 of 5 files; 0 blocks bad or foreign");
}

TEST(DumpFile, OfMoreBlocksThanAreHeld) {
    ChipBench bench(Conversion{.type = "spinand", .block_kb = "1", .page_kb = "1"});
    write_file(bench.dump(), {});
    fs::resize_file(bench.dump(), uint64_t{262145} * 1024);
    const RunResult run = run_check_program(bench.arguments_without_target({bench.dump()}));
    EXPECT_EQ(run.exit_status, kTrouble);
    EXPECT_EQ(last_line(run.out),
              "trouble: the dump has 262145 erase blocks, and at most 262144 can be compared");
}

TEST(DumpFile, StaysAsItIs) {
    ChipBench bench;
    bench.place_all();
    write_file(bench.dump(), bench.bytes());
    const auto before = states_below(bench.directory());
    const RunResult run = run_check_program(bench.arguments_without_target({bench.dump()}));
    EXPECT_EQ(run.exit_status, kSame);
    EXPECT_EQ(states_below(bench.directory()), before);
}

// ---- blocks of the chip ----

TEST(DumpBlocks, AreCounted) {
    ChipBench bench;
    bench.place_all();
    const uint64_t used =
        part_of(bench.result(), "rootfs.img").found_at.value() + bench.blocks_of("rootfs.img");
    bench.ruin(120);
    bench.flip(121, 3, 1, 16);  // still erased
    bench.flip(122, 3, 1, 17);
    ChipOptions chip;
    chip.bad_blocks = {123};
    const CheckResult result = bench.result(chip);
    expect_same(result);
    const ChipBlocks& blocks = *result.blocks_of_chip;
    EXPECT_EQ(blocks.all, 128U);
    EXPECT_EQ(blocks.used, used);
    EXPECT_EQ(blocks.bad, 1U);
    EXPECT_EQ(blocks.other, 2U);
    EXPECT_EQ(blocks.erased, 128 - used - 3);
    EXPECT_EQ(bench.result(chip, {"--strict"}).verdict, Verdict::kDiffers);
    EXPECT_EQ(bench.result(chip, {"--strict", "--ignore=rest"}).verdict, Verdict::kSame);
}

TEST(DumpParts, ThatAreIgnored) {
    ChipBench bench;
    bench.place_all();
    const uint64_t at = part_of(bench.result(), "rootfs.img").found_at.value();
    bench.flip(at, 1, 0, 17);
    EXPECT_EQ(bench.result({}, {"--ignore=rootfs"}).verdict, Verdict::kSame);
    EXPECT_EQ(bench.result({}, {"--only=boot,idblock"}).verdict, Verdict::kSame);
    EXPECT_EQ(bench.result({}, {"--only=rootfs"}).verdict, Verdict::kDiffers);
}

TEST(DumpParts, ThatAreNotThereLeaveNothing) {
    ChipBench bench;
    bench.place_all();
    for (const std::string option : {"--only=parameter", "--only=gaps", "--only=rest"}) {
        const RunResult run = bench.run({option});
        EXPECT_EQ(run.exit_status, kTrouble) << option;
        EXPECT_EQ(last_line(run.out), "trouble: nothing is left to compare") << option;
    }
    EXPECT_EQ(bench.run({"--only=rest", "--strict"}).exit_status, kSame) << "the other blocks are erased";
    bench.ruin(120);
    EXPECT_EQ(bench.run({"--only=rest", "--strict"}).exit_status, kDiffers);
}

TEST(DumpParts, NamedLikeACopyOfTheBootBlock) {
    const std::string name = "boot block, copy 1";
    Firmware firmware = chip_firmware();
    firmware.items.push_back(partition_item(name, 0x20000, 0x40, patterned(20000, 1)));
    ChipBench bench(kSmallSlc, firmware);
    bench.place_all();
    const uint64_t at = bench.place(name + ".img", 100).front();
    EXPECT_EQ(bench.run().exit_status, kSame);
    bench.flip(at, 1, 0, 17);
    EXPECT_EQ(bench.run({"--ignore=idblock"}).exit_status, kDiffers);
    EXPECT_EQ(bench.run({"--only=idblock"}).exit_status, kSame);
}

TEST(DumpParts, OfNoBytesAloneLeaveNothing) {
    ChipBench bench(kSmallSlc, with_file_of_no_bytes());
    bench.place_all();
    EXPECT_EQ(last_line(bench.run({"--only=zero"}).out), "trouble: nothing is left to compare");
    EXPECT_EQ(bench.run({"--only=zero,misc"}).exit_status, kSame);
}

TEST(DumpParts, OfAnUnknownNameAreNotLookedFor) {
    ChipBench bench;
    bench.place_all();
    const RunResult run = bench.run({"--only=rots"});
    EXPECT_EQ(run.exit_status, kTrouble);
    EXPECT_EQ(run.out, "trouble: no part has the name 'rots'\n");
}

}  // namespace
