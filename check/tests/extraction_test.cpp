// What comes out of targets of all kinds is the data that went into them.

#include "check/report/extraction_report.h"
#include "extraction_bench.h"
#include "support/nand_geometries.h"

namespace {

using namespace check_test;

Conversion spi_nand(uint32_t page_kb, bool two_kb) {
    return {.type = "spinand",
            .block_kb = std::to_string(96 * page_kb),
            .page_kb = std::to_string(page_kb),
            .spare_bytes = {},
            .two_kilobytes_data = two_kb};
}

/// The first bytes of the table that the firmware gives.
Bytes table_of(const Firmware& firmware) {
    const CheckBench bench(kSpiNand, firmware);
    return slice(bench.output("gpt.img"), 0, kGptBytes);
}

Files data_with_table(const Firmware& firmware) {
    Files files = plain_data(firmware);
    files.erase("parameter.img");
    files["gpt.img"] = table_of(firmware);
    return files;
}

void expect_all_data(const Conversion& conversion, bool gpt) {
    const Firmware firmware = firmware_of_all_kinds(gpt);
    const ExtractionBench bench(conversion, firmware);
    const ExtractionResult result = bench.extract();
    EXPECT_EQ(result.error.value_or(""), "");
    EXPECT_EQ(result.verdict, Verdict::kSame);
    expect_data(bench.into(), gpt ? data_with_table(firmware) : plain_data(firmware));
}

// ---- SLC NAND ----

class SlcExtraction : public testing::TestWithParam<NandGeometry> {};

TEST_P(SlcExtraction, GivesThePlainDataBack) {
    expect_all_data(GetParam().conversion(), GetParam().page_list);
}

/// Flips bits of all units of a file: n in the unit of number n, modulo 17.
void flip_all_units(const ExtractionBench& bench, const std::string& name, UnitCounts& expected,
                    std::size_t units) {
    const NandGeometry geometry{static_cast<uint32_t>(bench.conversion().page_size() / kIb),
                                bench.conversion().two_kilobytes_data, bench.conversion().page_list};
    const PageLayout layout{.page_data = bench.conversion().page_size(),
                            .page = bench.page_bytes(),
                            .spare_areas = true,
                            .two_kb = geometry.two_kilobytes_data};
    Bytes file = bench.output(name);
    for (std::size_t i = 0; i < units; ++i) {
        uint64_t together = 0;
        const auto count = static_cast<unsigned>(i % 17);
        flip_bits(file, place_of_data(layout, i * kUnitData, together), count, static_cast<uint32_t>(i));
        ++expected.units;
        ++expected.flips[count];
    }
    write_file(bench.out(name), file);
}

TEST_P(SlcExtraction, CorrectsUpTo16FlipsOfAUnit) {
    const Firmware firmware = sample_firmware();
    const ExtractionBench bench(GetParam().conversion(), firmware);
    UnitCounts expected;
    flip_all_units(bench, "rootfs.img", expected, 20);  // 20001 bytes are 20 units
    const ExtractionResult result = bench.extract();
    EXPECT_EQ(result.verdict, Verdict::kSame) << extraction_text(result, {});
    expect_data(bench.into(), plain_data(firmware));
    const UnitCounts& found = part_of(result, "rootfs").counts.units;
    EXPECT_EQ(found.units, expected.units);
    EXPECT_EQ(found.flips, expected.flips);
    EXPECT_EQ(found.flipped_bits(), 136U + 1 + 2);  // 0 to 16, then 0, 1 and 2
    EXPECT_EQ(found.beyond, 0U);
}

TEST_P(SlcExtraction, ListsAUnitWith17Flips) {
    const Firmware firmware = sample_firmware();
    const ExtractionBench bench(GetParam().conversion(), firmware);
    const bool split = GetParam().two_kilobytes_data && GetParam().page_kb > 2;
    const uint64_t units_of_page = split ? 2 : GetParam().page_kb;
    // Pages of 3 KB have one unit in each second part.
    const uint64_t number = GetParam().page_kb == 3 && split ? 6 : 8;
    const uint64_t page = GetParam().page_kb == 3 && split ? 4 : number / units_of_page;
    const uint64_t unit = GetParam().page_kb == 3 && split ? 0 : number % units_of_page;
    const uint64_t offset = page * bench.page_bytes() + unit * kUnit;
    Bytes file = bench.output("rootfs.img");
    flip_bits(file, offset, 17, 99);
    write_file(bench.out("rootfs.img"), file);
    const ExtractionResult result = bench.extract();
    EXPECT_EQ(result.verdict, Verdict::kDiffers);
    EXPECT_FALSE(result.error);
    const ExtractedPart& part = part_of(result, "rootfs");
    EXPECT_EQ(part.verdict, Verdict::kDiffers);
    EXPECT_EQ(part.counts.units.beyond, 1U);
    EXPECT_EQ(part.counts.units.flips[0], 19U);
    ASSERT_EQ(part.counts.bad_units.size(), 1U);
    EXPECT_EQ(part.counts.bad_units[0].position, number * kUnitData);
    EXPECT_EQ(part.counts.bad_units[0].offset, offset);
    Files expected = plain_data(firmware);  // with the unit as it was read
    put_bytes_at(expected["rootfs.img"], number * kUnitData, slice(file, offset, kUnitData));
    expect_data(bench.into(), expected);
}

INSTANTIATE_TEST_SUITE_P(Geometries, SlcExtraction, testing::ValuesIn(all_nand_geometries()),
                         [](const auto& tested) { return tested.param.name(); });

TEST(Extraction, ListsTheFirst10BadPlacesAndCountsAll) {
    Firmware firmware = sample_firmware();
    firmware.item("rootfs").data = patterned(12 * 2048, 5);
    ExtractionBench bench(kSlcNand, firmware);
    Bytes file = bench.output("rootfs.img");
    for (std::size_t page = 0; page < 12; ++page)
        flip_bits(file, page * 2112, 40, static_cast<uint32_t>(page));
    write_file(bench.out("rootfs.img"), file);
    ExtractedPart part = part_of(bench.extract(), "rootfs");
    EXPECT_EQ(part.counts.units.beyond, 12U);
    EXPECT_EQ(part.counts.bad_units.size(), 10U);
    bench.options.max_differences = 11;
    bench.options.chip.force = true;
    part = part_of(bench.extract(), "rootfs");
    EXPECT_EQ(part.counts.units.beyond, 12U);
    EXPECT_EQ(part.counts.bad_units.size(), 11U);
}

TEST(Extraction, BadUnitsSideBySideAreOnePlace) {
    const ExtractionBench bench(with(kSlcNand, "8", "2", "64"));  // blocks of 4 pages
    Bytes file = bench.output("rootfs.img");
    for (std::size_t unit = 6; unit < 11; ++unit)
        flip_bits(file, unit / 2 * 2112 + unit % 2 * kUnit, 40, static_cast<uint32_t>(unit));
    write_file(bench.out("rootfs.img"), file);
    const ExtractedPart part = part_of(bench.extract(), "rootfs");
    EXPECT_EQ(part.counts.units.beyond, 5U);
    ASSERT_EQ(part.counts.bad_units.size(), 2U) << "a place ends with its erase block";
    EXPECT_EQ(part.counts.bad_units[0].position, 6U * kUnitData);
    EXPECT_EQ(part.counts.bad_units[0].units, 2U);
    EXPECT_EQ(part.counts.bad_units[1].position, 8U * kUnitData);
    EXPECT_EQ(part.counts.bad_units[1].offset, 4U * 2112);
    EXPECT_EQ(part.counts.bad_units[1].units, 3U);
}

TEST(Extraction, CountsFlipsByTheirDirection) {
    const ExtractionBench bench(kSlcNand);
    Bytes file = bench.output("misc.img");
    unsigned cleared = 0;
    for (const std::size_t byte : {0U, 500U, 1030U}) {
        cleared += file[byte] & 1U;
        file[byte] = static_cast<uint8_t>(file[byte] ^ 1U);
    }
    write_file(bench.out("misc.img"), file);
    const ExtractedPart part = part_of(bench.extract(), "misc");
    EXPECT_EQ(part.counts.units.cleared, cleared);
    EXPECT_EQ(part.counts.units.set, 3 - cleared);
}

TEST(Extraction, SaysThatAPageIsErased) {
    const Firmware firmware = sample_firmware();
    const ExtractionBench bench(kSlcNand, firmware);
    bench.bend("rootfs.img", 3 * 2112, Bytes(2112, 0xFF));
    const ExtractionResult result = bench.extract();
    EXPECT_EQ(result.verdict, Verdict::kDiffers);
    const ExtractedPart& part = part_of(result, "rootfs");
    EXPECT_EQ(part.counts.erased_pages, 1U);
    EXPECT_EQ(part.counts.foreign_pages, 0U);
    EXPECT_EQ(part.counts.units.erased, 2U);
    Files expected = plain_data(firmware);
    put_bytes_at(expected["rootfs.img"], 3 * 2048, Bytes(2048, 0xFF));
    expect_data(bench.into(), expected);
}

TEST(Extraction, SaysThatAPageIsOfAnotherPlace) {
    const ExtractionBench bench(kSlcNand);
    bench.bend("rootfs.img", 3 * 2112, slice(bench.output("rootfs.img"), 4 * 2112, 2112));
    const ExtractionResult result = bench.extract();
    EXPECT_EQ(result.verdict, Verdict::kDiffers);
    EXPECT_EQ(part_of(result, "rootfs").counts.foreign_pages, 1U);
    EXPECT_EQ(part_of(result, "rootfs").counts.erased_pages, 0U);
}

// ---- SPI NAND ----

TEST(Extraction, GivesTheDataOfSpiNandFilesBack) {
    for (const uint32_t page_kb : {1U, 2U, 3U, 4U, 8U})
        for (const bool two_kb : {false, true})
            for (const bool gpt : {false, true}) {
                SCOPED_TRACE(testing::Message() << page_kb << " KB, " << two_kb << gpt);
                expect_all_data(spi_nand(page_kb, two_kb), gpt);
            }
}

// ---- whole images ----

TEST(Extraction, GivesThePartsOfAnImageBack) {
    for (const Conversion& conversion : {kEmmc, kSpiNor})
        for (const char* const page_kb : {"1", "2", "4"})
            for (const bool gpt : {false, true}) {
                Conversion made = conversion;
                made.page_kb = page_kb;
                made.two_kilobytes_data = made.page_kb != "4";
                SCOPED_TRACE(testing::PrintToString(made));
                expect_all_data(made, gpt);
            }
}

TEST(Extraction, TakesADirectoryWithTheImageToo) {
    ExtractionBench bench(kEmmc);
    bench.options.target = bench.out_dir();
    EXPECT_EQ(bench.extract().verdict, Verdict::kSame);
    expect_data(bench.into(), plain_data(sample_firmware()));
}

TEST(Extraction, SaysThatALaterPartLiesOverOne) {
    // Pages of 4 KB with 2 KB of data take twice their room.
    const ExtractionBench bench(
        {.type = "emmc", .block_kb = "512", .page_kb = "4", .spare_bytes = {}, .two_kilobytes_data = true},
        [] {
            Firmware firmware = sample_firmware();
            firmware.item("boot").data = patterned(50000, 3);
            return firmware;
        }());
    const ExtractionResult result = bench.extract();
    EXPECT_EQ(result.verdict, Verdict::kDiffers);
    EXPECT_TRUE(part_of(result, "boot").overwritten);
    EXPECT_FALSE(part_of(result, "rootfs").overwritten);
    EXPECT_EQ(read_file(bench.extracted("rootfs.img")), patterned(20001, 5));
    EXPECT_EQ(read_file(bench.extracted("FlashData")), patterned(3000, 1));
}

// ---- boot block ----

TEST(Extraction, TakesTheSecondBootBlockWhenTheFirstIsBad) {
    const Firmware firmware = firmware_of_all_kinds(false);
    const ExtractionBench bench(kEmmc, firmware);
    bench.damage("out_image.img", 64 * kSector, 8);
    EXPECT_EQ(bench.extract().verdict, Verdict::kSame);
    expect_data(bench.into(), plain_data(firmware));
}

TEST(Extraction, ExtractsNoStagesWithoutABootBlock) {
    const ExtractionBench bench(kSpiNand);
    bench.damage("idblock.img", 0, 8);
    const ExtractionResult result = bench.extract();
    EXPECT_EQ(result.verdict, Verdict::kDiffers);
    EXPECT_EQ(part_of(result, "FlashData").verdict, Verdict::kMissing);
    EXPECT_EQ(part_of(result, "FlashBoot").note, "no boot block of this build's key is in the target");
    EXPECT_EQ(names_in(bench.into()), (Names{"parameter.img", "boot.img", "misc.img", "rootfs.img"}));
}

TEST(Extraction, TakesWholeSectorsWhereLengthsDoNotFit) {
    ExtractionBench bench(kSpiNand);
    Firmware other = sample_firmware();
    other.boot.loader.entries[0].data = patterned(9000, 11);
    bench.pack(other);
    const ExtractionResult result = bench.extract();
    // The header says 4 sectors of FlashBoot as well, as does the firmware.
    EXPECT_EQ(part_of(result, "FlashData").note, "whole sectors: its length is not that of the firmware");
    EXPECT_EQ(part_of(result, "FlashBoot").note, "");
    EXPECT_EQ(read_file(bench.extracted("FlashData")), padded(patterned(3000, 1), 4096));
}

TEST(Extraction, TakesABareBootContainer) {
    const Bytes container = sample_firmware().boot.build();
    const CheckBench bench(kSpiNand, container, "loader.bin");
    CheckOptions options = options_of(kSpiNand, bench.firmware());
    options.target = bench.out_dir();
    options.chip.extract_directory = bench.directory() / "data";
    EXPECT_EQ(run_extraction(options, {}).verdict, Verdict::kSame);
    expect_data(bench.directory() / "data",
                {{"FlashData", patterned(3000, 1)}, {"FlashBoot", patterned(2048, 2)}});
}

// ---- targets that are not whole ----

TEST(Extraction, LeavesOutAFileThatIsMissing) {
    const ExtractionBench bench(kSlcNand);
    fs::remove(bench.out("boot.img"));
    const ExtractionResult result = bench.extract();
    EXPECT_EQ(result.verdict, Verdict::kDiffers);
    EXPECT_EQ(part_of(result, "boot").verdict, Verdict::kMissing);
    EXPECT_EQ(part_of(result, "boot").note, "boot.img is not in the target");
    EXPECT_FALSE(fs::exists(bench.extracted("boot.img")));
    EXPECT_TRUE(fs::exists(bench.extracted("rootfs.img")));
}

TEST(Extraction, EndsAFileWhereTheTargetEnds) {
    const ExtractionBench bench(kSlcNand);
    fs::resize_file(bench.out("rootfs.img"), 5 * 2112 + kUnit + 1000);
    const ExtractionResult result = bench.extract();
    EXPECT_EQ(result.verdict, Verdict::kDiffers);
    EXPECT_EQ(part_of(result, "rootfs").missing, 20001U - 11 * kUnitData);
    EXPECT_EQ(read_file(bench.extracted("rootfs.img")), slice(patterned(20001, 5), 0, 11 * kUnitData));
}

TEST(Extraction, LeavesOutAPartThatTheTargetEndsBefore) {
    const ExtractionBench bench(kEmmc, sample_firmware());
    fs::resize_file(bench.out("out_image.img"), (0x100 + 0xC0 + 8192) * kSector);
    const ExtractionResult result = bench.extract();
    EXPECT_EQ(result.verdict, Verdict::kDiffers);
    EXPECT_EQ(part_of(result, "rootfs").note, "the target ends before it");
    EXPECT_EQ(part_of(result, "misc").verdict, Verdict::kSame);
    EXPECT_FALSE(fs::exists(bench.extracted("rootfs.img")));
}

// ---- dumps of chips ----

Placement placed_at(const std::string& file, const std::vector<uint64_t>& blocks) {
    Placement placement;
    placement.file = file;
    placement.placed = !blocks.empty();
    placement.blocks = blocks;
    return placement;
}

/// Block i of the file becomes a block of the dump, with so many bytes after each page.
void put_blocks(Bytes& dump, const Bytes& file, const Placement& at, std::size_t page, std::size_t spare,
                std::size_t skip) {
    constexpr std::size_t kPages = 64;
    for (std::size_t i = 0; i < file.size() / page; ++i) {
        const std::size_t place = skip + (at.blocks[i / kPages] * kPages + i % kPages) * (page + spare);
        if (dump.size() < place + page + spare)
            dump.resize(place + page + spare, 0xFF);
        put_bytes_at(dump, place, slice(file, i * page, page));
    }
}

void expect_data_of_dump(const Conversion& conversion, std::size_t spare, std::size_t skip) {
    Firmware firmware = sample_firmware();
    firmware.item("rootfs").data = patterned(300001, 5);  // 3 erase blocks
    ExtractionBench bench(conversion, firmware);
    const std::vector<Placement> placements{placed_at("idblock.img", {2}), placed_at("parameter.img", {4}),
                                            placed_at("boot.img", {0}), placed_at("misc.img", {3}),
                                            placed_at("rootfs.img", {5, 7, 8})};
    Bytes dump(skip, 0x11);
    for (const Placement& at : placements)
        put_blocks(dump, bench.output(at.file), at, bench.page_bytes(), spare, skip);
    const fs::path path = bench.directory() / "dump.bin";
    write_file(path, dump);
    bench.options.target = path;
    bench.options.chip.skip = skip;
    bench.options.chip.dump_spare = spare;
    const ExtractionResult result = bench.extract_from_dump(placements);
    EXPECT_EQ(result.target_kind, "dump");
    EXPECT_EQ(result.verdict, Verdict::kSame) << extraction_text(result, {});
    expect_data(bench.into(), plain_data(firmware));
}

TEST(Extraction, ClosesUpTheSkipsOfADump) {
    expect_data_of_dump(kSlcNand, 0, 0);
    expect_data_of_dump(kSlcNand, 0, 4096);
    expect_data_of_dump(kSpiNand, 0, 0);
    expect_data_of_dump(kSpiNand, 64, 100);
}

TEST(Extraction, LeavesOutWhatADumpHasNot) {
    ExtractionBench bench(kSlcNand);
    bench.options.target = bench.out("boot.img");
    const ExtractionResult result =
        bench.extract_from_dump({placed_at("boot.img", {0}), placed_at("misc.img", {})});
    EXPECT_EQ(result.verdict, Verdict::kDiffers);
    EXPECT_EQ(names_in(bench.into()), Names{"boot.img"});
    EXPECT_EQ(part_of(result, "misc").note, "misc.img is not in the target");
}

TEST(Extraction, NamesPlacesOfADumpByItsBlocks) {
    ExtractionBench bench(kSlcNand);
    Bytes dump(100 + 3 * 64 * 2112, 0xFF);
    Bytes file = bench.output("boot.img");
    flip_bits(file, 2112 + kUnit, 30, 1);
    put_bytes_at(dump, 100 + 2 * 64 * 2112, slice(file, 0, 64 * 2112));
    const fs::path path = bench.directory() / "dump.bin";
    write_file(path, dump);
    bench.options.target = path;
    bench.options.chip.skip = 100;
    bench.options.only = {"boot"};
    const ExtractionResult result = bench.extract_from_dump({placed_at("boot.img", {2})});
    const Json document = Json::parse(extraction_json(result));
    const Json unit = document.at("files").at(3).at("uncorrectable").at(0);
    EXPECT_EQ(unit.dump(), R"({"block":2,"offset":273604,"page":1,"position":3072,"unit":1,"units":1})");
}

// ---- without a firmware ----

ExtractionResult extract_pages(const ExtractionBench& bench, const fs::path& file, uint64_t skip = 0,
                               uint64_t spare = 0) {
    CheckOptions options = bench.options;
    options.conversion.settings.in_firmware.clear();
    options.target = file;
    options.chip.skip = skip;
    options.chip.dump_spare = spare;
    return run_extraction(options, {});
}

class PagesAlone : public testing::TestWithParam<NandGeometry> {};

TEST_P(PagesAlone, GiveAllTheirData) {
    const ExtractionBench bench(GetParam().conversion());
    Bytes file = bench.output("boot.img");
    const Bytes data = read_slc_file(file, GetParam().of_reader()).data;
    flip_bits(file, 0, 16, 3);
    const fs::path path = bench.directory() / "chip.bin";
    write_file(path, Bytes(77, 0x55) + file);
    const ExtractionResult result = extract_pages(bench, path, 77);
    EXPECT_EQ(result.verdict, Verdict::kSame) << extraction_text(result, {});
    expect_data(bench.into(), {{"chip.bin.data", data}});
}

INSTANTIATE_TEST_SUITE_P(Geometries, PagesAlone, testing::ValuesIn(all_nand_geometries()),
                         [](const auto& tested) { return tested.param.name(); });

TEST(Extraction, GivesErasedPagesAsFF) {
    const ExtractionBench bench(kSlcNand);
    const fs::path path = bench.directory() / "chip.bin";
    Bytes dump(4 * 2112, 0xFF);
    flip_bits(dump, 2112, 5, 4);
    write_file(path, dump);
    const ExtractionResult result = extract_pages(bench, path);
    EXPECT_EQ(result.verdict, Verdict::kSame);
    EXPECT_EQ(part_of(result, "chip.bin").counts.units.erased, 8U);
    EXPECT_EQ(part_of(result, "chip.bin").counts.units.cleared, 5U);
    expect_data(bench.into(), {{"chip.bin.data", Bytes(4 * 2048, 0xFF)}});
}

TEST(Extraction, SaysWhatIsNoWholePageOfADump) {
    const ExtractionBench bench(kSlcNand);
    const fs::path path = bench.directory() / "chip.bin";
    write_file(path, Bytes(2 * 2112 + 100, 0xFF));
    const ExtractionResult result = extract_pages(bench, path);
    EXPECT_EQ(result.verdict, Verdict::kDiffers);
    EXPECT_EQ(part_of(result, "chip.bin").surplus, 100U);
    expect_data(bench.into(), {{"chip.bin.data", Bytes(2 * 2048, 0xFF)}});
}

TEST(Extraction, OfLessThanAPageIsTrouble) {
    const ExtractionBench bench(kSlcNand);
    const fs::path path = bench.directory() / "chip.bin";
    write_file(path, Bytes(2112, 0xFF));
    const std::vector<std::pair<uint64_t, std::string>> headers{
        {1, "the dump has 2111 bytes after its header, which is less than a page of 2112"},
        {2112, "the dump has 0 bytes after its header, which is less than a page of 2112"},
        {INT64_MAX, "the dump has 0 bytes after its header, which is less than a page of 2112"}};
    for (const auto& [header, reason] : headers) {
        const ExtractionResult result = extract_pages(bench, path, header);
        EXPECT_EQ(result.verdict, Verdict::kTrouble);
        EXPECT_EQ(result.error, reason);
    }
    write_file(path, {});
    EXPECT_EQ(extract_pages(bench, path).error, "the dump has 0 bytes, which is less than a page of 2112");
    EXPECT_FALSE(fs::exists(bench.into()));
}

TEST(Extraction, SaysWhatIsNoWholePageOf2kPages) {
    ExtractionBench bench(kSlcNand);
    bench.options.conversion.settings.page_size = 4;
    bench.options.conversion.settings.oob_size = 128;
    bench.options.conversion.settings.page_2k = true;  // a page of 4 KB takes two pages
    const fs::path path = bench.directory() / "chip.bin";
    write_file(path, Bytes(3 * 4224, 0xFF));
    const ExtractionResult result = extract_pages(bench, path);
    EXPECT_EQ(result.verdict, Verdict::kDiffers);
    EXPECT_EQ(part_of(result, "chip.bin").surplus, 4224U);
    expect_data(bench.into(), {{"chip.bin.data", Bytes(4096, 0xFF)}});
    write_file(path, Bytes(4224, 0xFF));
    EXPECT_EQ(extract_pages(bench, path).error, "the dump has 4224 bytes, which is less than a page of 8448");
}

TEST(Extraction, OfPagesWhoseSizeWrapsIsTrouble) {
    ExtractionBench bench(kSpiNand);
    const fs::path path = bench.directory() / "chip.bin";
    write_file(path, Bytes(10000, 0xFF));
    bench.options.conversion.settings.page_size = uint32_t{4} << 20;  // KB: 2 to the power of 32 bytes
    const ExtractionResult result = extract_pages(bench, path, 0, 1);
    EXPECT_EQ(result.verdict, Verdict::kTrouble);
    EXPECT_EQ(result.error, "page size is out of range");
}

TEST(Extraction, TakesTheSpareAreaOffASpiNandDump) {
    const ExtractionBench bench(kSpiNand);
    const fs::path path = bench.directory() / "chip.bin";
    const Bytes data = patterned(3 * 2048, 6);
    Bytes dump;
    for (std::size_t page = 0; page < 3; ++page)
        dump = dump + slice(data, page * 2048, 2048) + Bytes(64, 0xEE);
    write_file(path, dump);
    EXPECT_EQ(extract_pages(bench, path, 0, 64).verdict, Verdict::kSame);
    expect_data(bench.into(), {{"chip.bin.data", data}});
}

TEST(Extraction, ListsAllUnitsOfAWrongGeometry) {
    const ExtractionBench bench(kSlcNand);
    const fs::path path = bench.directory() / "chip.bin";
    const Bytes noise = patterned(10 * 2112, 8);
    write_file(path, noise);
    const ExtractionResult result = extract_pages(bench, path);
    EXPECT_EQ(result.verdict, Verdict::kDiffers);
    EXPECT_EQ(part_of(result, "chip.bin").counts.units.beyond, 20U);
    Bytes data;
    for (std::size_t unit = 0; unit < 20; ++unit)
        data = data + slice(noise, unit / 2 * 2112 + unit % 2 * kUnit, kUnitData);
    expect_data(bench.into(), {{"chip.bin.data", data}});
}

}  // namespace
