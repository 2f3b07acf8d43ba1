// Reports of the dump of a chip.

#include "check/report/report.h"

#include "results.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::ordered_json;

/// A file of clean units, but for these.
PartResult placed_file(const std::string& name, uint64_t block, uint64_t blocks) {
    PartResult part = same_file(name, blocks * slc_geometry().block);
    part.offset = block * slc_geometry().block;
    part.found_at = block;
    part.units.units = part.units.flips[0] = blocks * 128;
    return part;
}

void flip(PartResult& part, uint32_t flips, uint64_t offset) {
    --part.units.flips[0];
    ++part.units.flips[flips];
    part.units.cleared += flips;
    part.worst_unit = offset;
}

/// Two files that are as they should be. Four blocks were skipped, and 122 are erased.
CheckResult chip_result() {
    CheckResult result = slc_result();
    result.geometry.chip = true;
    result.target_kind = "dump";
    result.target_path = "chip.bin";
    result.parts = {placed_file("idblock", 0, 1), placed_file("rootfs", 8, 512)};
    PartResult& rootfs = result.parts[1];
    flip(rootfs, 1, 8 * result.geometry.block);
    flip(rootfs, 3, 10 * result.geometry.block + 2 * result.geometry.page + kUnit);
    rootfs.units.set = 1;
    for (const uint64_t block : std::vector<uint64_t>{9, 40, 41, 300})
        rootfs.skipped.push_back({block, SkippedBlock::Reason::kContent});
    result.chip = UnitCounts();
    for (const PartResult& part : result.parts)
        result.chip->add(part.units);
    result.blocks_of_chip = {.all = 640, .used = 513, .bad = 4, .erased = 122, .other = 1};
    result.flipped_blocks = {{.block = 8, .flipped_bits = 1, .worst = 1, .beyond = 0}};
    result.opinion.units = result.chip->units;
    return result;
}

std::string plain(const CheckResult& result) {
    return text_report(result, {});
}

TEST(ChipReport, OfADumpThatIsTheSame) {
    EXPECT_EQ(plain(chip_result()),
              "file          found at   blocks   skipped   flips   worst unit   verdict\n"
              "idblock.img          0        1         -       0            0   same\n"
              "rootfs.img           8      512         4       5            3   same\n"
              "  skipped: 9 40 41 300 (by content; marker bytes say nothing in this page format)\n"
              "flips per unit   0: 65662   1: 1   2: 0   3: 1   4 to 16: 0   beyond: 0\n"
              "1 to 0: 4   0 to 1: 1   bit error rate 9.0e-09   erased blocks: 122\n"
              "second opinion: 65664 units and 32832 list indexes right\n"
              "same: 2 of 2 files; 5 blocks bad or foreign\n");
}

TEST(ChipReport, OfADumpThatDiffers) {
    CheckResult result = chip_result();
    result.verdict = Verdict::kDiffers;
    PartResult& rootfs = result.parts[1];
    rootfs.verdict = Verdict::kDiffers;
    rootfs.differing = 900;
    rootfs.differing_pages = 1;
    rootfs.units.beyond = rootfs.runs_found = 3;
    const uint64_t page = 9 * result.geometry.block + 7 * result.geometry.page;
    rootfs.runs = {{page, 1000, 4000, 0, 1, DifferenceRun::Holds::kOtherData},
                   {page + kUnit + 3, 100, 17, 0, 1, DifferenceRun::Holds::kRuined},
                   {page + result.geometry.page, 1056, 4100, 0, 0xFF, DifferenceRun::Holds::kErased}};
    result.chip->beyond = 3;
    PartResult userdata = same_file("userdata", 135168);
    userdata.verdict = Verdict::kMissing;
    userdata.compared = 0;
    userdata.missing = userdata.bytes;
    result.parts.push_back(userdata);
    result.missing = {"userdata.img"};
    EXPECT_EQ(plain(result),
              "file           found at   blocks   skipped   flips   worst unit   verdict\n"
              "idblock.img           0        1         -       0            0   same\n"
              "rootfs.img            8      512         4       5            3   differs: 1 page\n"
              "  skipped: 9 40 41 300 (by content; marker bytes say nothing in this page format)\n"
              "userdata.img          -        1         -       0            0   missing\n"
              "\n"
              "rootfs.img: first difference at byte 1231296 (0x12c9c0): is 0x01, should be 0x00\n"
              "  block 9, page 7 (page 583 of the dump), bytes 0 to 999 of unit 0: 4000 bits differ, not "
              "correctable: "
              "it holds other valid data\n"
              "  block 9, page 7 (page 583 of the dump), bytes 3 to 102 of unit 1: 17 bits differ, not "
              "correctable\n"
              "  block 9, page 8 (page 584 of the dump), bytes 0 to 1055 of unit 0: 4100 bits differ, not "
              "correctable: it is erased\n"
              "flips per unit   0: 65662   1: 1   2: 0   3: 1   4 to 16: 0   beyond: 3\n"
              "1 to 0: 4   0 to 1: 1   bit error rate 9.0e-09   erased blocks: 122\n"
              "second opinion: 65664 units and 32832 list indexes right\n"
              "differs: 1 of 3 files, 1 missing; 5 blocks bad or foreign\n");
}

TEST(ChipReport, NamesWhyBlocksWereSkipped) {
    CheckResult result = chip_result();
    PartResult& rootfs = result.parts[1];
    rootfs.skipped = {{9, SkippedBlock::Reason::kListed},
                      {10, SkippedBlock::Reason::kContent},
                      {11, SkippedBlock::Reason::kMark}};
    result.geometry.spare_areas = false;
    const std::string text = plain(result);
    EXPECT_NE(text.find("  skipped: 10 (by content), 9 (by --bad-blocks), 11 (by their marks)\n"),
              std::string::npos)
        << text;
}

TEST(ChipReport, CountsBlocksWithoutTheSpareOfTheDump) {
    CheckResult result = chip_result();
    result.geometry.spare_areas = false;  // SPI NAND: its files have pages of 2048 bytes
    result.chip.reset();
    result.parts.resize(1);
    result.parts[0].bytes = uint64_t{64} * 64 * 2048;
    const std::string text = plain(result);
    EXPECT_NE(text.find("idblock.img          0       64         -       0            0   same\n"),
              std::string::npos)
        << text;
}

TEST(ChipReport, NamesTwentySkippedBlocks) {
    CheckResult result = chip_result();
    PartResult& rootfs = result.parts[1];
    rootfs.skipped.clear();
    for (uint64_t block = 1; block <= 25; ++block)
        rootfs.skipped.push_back({block, SkippedBlock::Reason::kListed});
    const std::string text = plain(result);
    EXPECT_NE(text.find(" 19 20 (by --bad-blocks) and 5 more\n"), std::string::npos) << text;
    const std::string all = text_report(result, {.verbose = true});
    EXPECT_NE(all.find(" 24 25 (by --bad-blocks)\n"), std::string::npos) << all;
}

TEST(ChipReport, AsJson) {
    const Json document = Json::parse(json_report(chip_result()));
    EXPECT_EQ(document["target"].dump(), R"({"kind":"dump","path":"chip.bin"})");
    EXPECT_EQ(document["ecc"].dump(),
              R"({"units":65664,"flips":[65662,1,0,1,0,0,0,0,0,0,0,0,0,0,0,0,0],"uncorrectable":0,)"
              R"("foreign":0,"erased":0,"set":1,"cleared":4,"wrong_units":0,"wrong_indexes":0})");
    EXPECT_EQ(document["dump"].dump(), R"({"blocks":640,"used":513,"bad":4,"erased":122,"other":1})");
    EXPECT_EQ(document["blocks"].dump(), R"([{"block":8,"flips":1,"worst":1,"uncorrectable":0}])");
    const Json& part = document["parts"][1];
    EXPECT_EQ(part["found_at"], 8);
    EXPECT_EQ(part["flips"], 5);
    EXPECT_EQ(part["skipped_blocks"].dump(), "[9,40,41,300]");
    EXPECT_EQ(part["skipped_because"].dump(), R"(["content","content","content","content"])");
    EXPECT_EQ(part["units"]["flips"][3], 1);
    EXPECT_EQ(part["worst_unit"].dump(), R"({"block":10,"page":2,"unit":1,"flips":3})");
    EXPECT_EQ(document["parts"][0]["worst_unit"], Json());
}

TEST(ChipReport, AsJsonOfUnitsThatDiffer) {
    CheckResult result = chip_result();
    PartResult& rootfs = result.parts[1];
    rootfs.verdict = Verdict::kDiffers;
    rootfs.runs = {{rootfs.offset, 1000, 4000, 0, 1, DifferenceRun::Holds::kOtherData}};
    rootfs.runs_found = 1;
    const Json document = Json::parse(json_report(result));
    EXPECT_EQ(document["parts"][1]["differences"].dump(),
              R"([{"offset":1081344,"length":1000,"block":8,"page":0,"unit":0,"flips":4000,"expected":0,)"
              R"("actual":1,"kind":"not-correctable","holds":"other-data"}])");
}

}  // namespace
