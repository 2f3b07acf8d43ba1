#include "check/report/ecc_report.h"

#include "results.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <string>
#include <vector>

namespace {

using Json = nlohmann::ordered_json;

EccResult clean_result() {
    EccResult result;
    result.conversion = {"slc", 128, 2, 64, false, false, "development"};
    result.geometry = slc_geometry();
    result.target_kind = "dump";
    result.target_path = "chip.bin";
    result.max_flips = 16;
    result.judged = true;
    result.units.units = 16384;
    result.units.flips[0] = 16384;
    result.units.erased = result.units.erased_right = 5120;
    result.pages = 8192;
    result.blocks = 128;
    result.erased_blocks = 40;
    result.indexes = {.pages = 5632, .runs = 3, .step = 4, .out_of_order = 0};
    return result;
}

EccResult flipped_result() {
    EccResult result = clean_result();
    result.units.flips[0] = 16301;
    result.units.flips[1] = 80;
    result.units.flips[2] = 3;
    result.units.cleared = 40;
    result.units.set = 46;
    result.worst = UnitPlace{8, 48, 0};
    result.flipped_blocks = {{.block = 8, .flipped_bits = 2, .worst = 2, .beyond = 0},
                             {.block = 9, .flipped_bits = 84, .worst = 1, .beyond = 0}};
    result.flipped_blocks_found = 2;
    return result;
}

EccResult hopeless_result() {
    EccResult result = flipped_result();
    result.units.flips[0] -= 12;
    result.units.beyond = 12;
    for (uint64_t page = 0; page < kMostListedUnits; ++page)
        result.beyond.push_back({9, page, 1});
    result.lost = {{{9, 3, 1}, 12, 128}, {{10, 0, 0}, 128, 128}, {{11, 5, 1}, 1, 128}};
    result.lost_blocks = 5;
    result.flipped_blocks[1].beyond = 12;
    result.indexes.out_of_order = 2;
    result.tail_bytes = 12;
    result.tail_pages = 1;
    result.verdict = Verdict::kDiffers;
    return result;
}

EccResult misread_result() {
    EccResult result;
    result.conversion = {"slc", 128, 2, 64, false, false, "development"};
    result.geometry = slc_geometry();
    result.target_kind = "dump";
    result.target_path = "chip.bin";
    result.diagnoses = {{"page-or-spare-size", "not pages of 2 KB; it looks like pages of 4 KB"}};
    result.verdict = Verdict::kDiffers;
    return result;
}

EccResult troubled_result() {
    EccResult result;
    result.target_path = "chip.bin";
    result.error = "chip\n.bin failed to open";
    result.verdict = Verdict::kTrouble;
    return result;
}

std::string text_of(const EccResult& result) {
    return ecc_text(result, {});
}

Json document_of(const EccResult& result) {
    return Json::parse(ecc_json(result));
}

TEST(EccText, OfACleanDump) {
    EXPECT_EQ(text_of(clean_result()),
              "dump             128 blocks of 64 pages, 16384 units; 40 blocks erased\n"
              "flips per unit   0: 16384   1 to 16: 0   beyond: 0\n"
              "1 to 0: 0   0 to 1: 0   bit error rate 0\n"
              "list indexes: 3 runs, step 4, right\n"
              "same: all units correct or correctable; 0 bits flipped\n");
}

TEST(EccText, OfFlips) {
    EXPECT_EQ(text_of(flipped_result()),
              "dump             128 blocks of 64 pages, 16384 units; 40 blocks erased\n"
              "flips per unit   0: 16301   1: 80   2: 3   3 to 16: 0   beyond: 0\n"
              "1 to 0: 40   0 to 1: 46   bit error rate 9.0e-07   worst unit: 2 flips at block 8, page 48, "
              "unit 0\n"
              "list indexes: 3 runs, step 4, right\n"
              "same: all units correct or correctable; 86 bits flipped\n");
}

TEST(EccText, OfUnitsBeyond) {
    const std::string text = text_of(hopeless_result());
    EXPECT_EQ(text.substr(text.find("not correctable:")),
              "not correctable: block 9, 12 of 128 units, the first in page 3\n"
              "not correctable: block 10, all 128 units\n"
              "not correctable: block 11, page 5, unit 1\n"
              "and units of 2 more blocks\n"
              "list indexes: 3 runs, step 4, 2 pages out of order\n"
              "after the units: 12 bytes not 0xFF, in 1 page\n"
              "differs: 12 of 16384 units not correctable, in 5 blocks; 86 bits flipped\n");
}

TEST(EccText, BlocksThatArePassedOver) {
    EccResult result = clean_result();
    result.passed_blocks = 1;
    EXPECT_TRUE(text_of(result).starts_with(
        "dump             128 blocks of 64 pages, 16384 units; 40 blocks erased, 1 block passed over\n"));
    result.erased_blocks = 0;
    EXPECT_TRUE(text_of(result).starts_with(
        "dump             128 blocks of 64 pages, 16384 units; 1 block passed over\n"));
}

TEST(EccText, OfUnitsOverTheLimit) {
    EccResult result = flipped_result();
    result.max_flips = 1;
    result.verdict = Verdict::kDiffers;
    EXPECT_TRUE(text_of(result).ends_with("differs: 3 units with more than 1 flip; 86 bits flipped\n"));
    result.units.beyond = 1;
    result.lost_blocks = 1;
    EXPECT_TRUE(text_of(result).ends_with("differs: 1 of 16384 units not correctable, in 1 block, 3 units "
                                          "with more than 1 flip; 86 bits flipped\n"));
}

TEST(EccText, WarningsThatCount) {
    EccResult result = clean_result();
    result.warnings = {"one", "two"};
    result.verdict = Verdict::kDiffers;
    EXPECT_TRUE(
        text_of(result).ends_with("warning: one\nwarning: two\ndiffers: 2 warnings; 0 bits flipped\n"));
}

TEST(EccText, ManyWarningsAreCounted) {
    EccResult result = clean_result();
    result.warnings = std::vector<std::string>(12, "again");
    EXPECT_NE(text_of(result).find("warning: again\nand 2 more warnings\nsame"), std::string::npos);
}

TEST(EccText, BlocksWithVerbose) {
    EccResult result = hopeless_result();
    result.flipped_blocks_found = 3;
    const std::string text = ecc_text(result, {.color = false, .verbose = true});
    EXPECT_NE(text.find("block 8: 2 flipped bits, at most 2 in a unit; 0 units not correctable\n"
                        "block 9: 84 flipped bits, at most 1 in a unit; 12 units not correctable\n"
                        "and 1 more block\n"),
              std::string::npos);
    EXPECT_EQ(text_of(result).find("block 8: "), std::string::npos);
}

TEST(EccText, LastBlockThatIsNotWhole) {
    EccResult result = clean_result();
    result.pages_of_last = 3;
    result.erased_blocks = 0;
    EXPECT_TRUE(text_of(result).starts_with(
        "dump             127 blocks of 64 pages and 1 block of 3 pages, 16384 units\n"));
    result.blocks = 1;
    EXPECT_TRUE(text_of(result).starts_with("dump             1 block of 3 pages, 16384 units\n"));
}

TEST(EccText, UnknownStepIsLeftOut) {
    EccResult result = clean_result();
    result.indexes = {.pages = 1, .runs = 1, .step = 0, .out_of_order = 0};
    EXPECT_NE(text_of(result).find("list indexes: 1 run, right\n"), std::string::npos);
    result.indexes = {};
    EXPECT_EQ(text_of(result).find("list indexes"), std::string::npos);
}

TEST(EccText, OfAWrongGeometry) {
    EXPECT_EQ(text_of(misread_result()), "geometry: not pages of 2 KB; it looks like pages of 4 KB\n"
                                         "differs: the geometry is wrong\n");
}

TEST(EccText, OfTrouble) {
    EXPECT_EQ(text_of(troubled_result()), "trouble: chip\\x0a.bin failed to open\n");
}

TEST(EccText, VerdictInColor) {
    EXPECT_NE(ecc_text(clean_result(), {.color = true, .verbose = false}).find("\033[32msame\033[0m: "),
              std::string::npos);
    EXPECT_NE(ecc_text(misread_result(), {.color = true, .verbose = false}).find("\033[31mdiffers\033[0m: "),
              std::string::npos);
}

TEST(EccJson, HasItsKeysInOrder) {
    for (const EccResult& result : {clean_result(), misread_result(), troubled_result()}) {
        std::vector<std::string> keys;
        const Json document = document_of(result);
        for (const auto& [key, value] : document.items())
            keys.push_back(key);
        EXPECT_EQ(keys, (std::vector<std::string>{"schema", "program", "verdict", "status", "conversion",
                                                  "target", "dump", "ecc", "blocks", "blocks_found",
                                                  "diagnoses", "warnings", "error"}));
    }
}

TEST(EccJson, OfFlips) {
    const Json document = document_of(flipped_result());
    EXPECT_EQ(document["verdict"], "same");
    EXPECT_EQ(document["status"], 0);
    EXPECT_EQ(document["conversion"]["spare"], 64);
    EXPECT_EQ(document["target"].dump(), R"({"kind":"dump","path":"chip.bin"})");
    EXPECT_EQ(document["dump"].dump(),
              R"({"pages":8192,"blocks":128,"pages_of_block":64,)"
              R"("erased_blocks":40,"passed_blocks":0,"tail_bytes":0,"tail_pages":0})");
    Json ecc = document["ecc"];
    EXPECT_NEAR(ecc["bit_error_rate"].get<double>(), 86.0 / (11264.0 * 8448), 1e-15);
    ecc.erase("bit_error_rate");
    EXPECT_EQ(ecc.dump(), R"({"units":16384,"flips":[16301,80,3,0,0,0,0,0,0,0,0,0,0,0,0,0,0],)"
                          R"("uncorrectable":0,"erased":5120,"set":46,"cleared":40,"over_limit":0,)"
                          R"("worst":{"flips":2,"block":8,"page":48,"unit":0},)"
                          R"("indexes":{"pages":5632,"runs":3,"step":4,"out_of_order":0},)"
                          R"("uncorrectable_units":[]})");
    EXPECT_EQ(document["blocks"][1].dump(), R"({"block":9,"flipped_bits":84,"worst":1,"uncorrectable":0})");
    EXPECT_EQ(document["blocks_found"], 2);
    EXPECT_TRUE(document["error"].is_null());
}

TEST(EccJson, OfUnitsBeyond) {
    const Json document = document_of(hopeless_result());
    EXPECT_EQ(document["status"], 1);
    EXPECT_EQ(document["ecc"]["uncorrectable"], 12);
    EXPECT_EQ(document["ecc"]["uncorrectable_units"].size(), kMostListedUnits);
    EXPECT_EQ(document["ecc"]["uncorrectable_units"][2].dump(), R"({"block":9,"page":2,"unit":1})");
}

TEST(EccJson, WhatIsNotKnownIsNull) {
    EccResult result = clean_result();
    result.units.erased_right = result.units.flips[0];
    result.indexes.step = 0;
    const Json ecc = document_of(result)["ecc"];
    EXPECT_TRUE(ecc["worst"].is_null());
    EXPECT_TRUE(ecc["bit_error_rate"].is_null());
    EXPECT_TRUE(ecc["indexes"]["step"].is_null());
}

TEST(EccJson, OfAWrongGeometry) {
    const Json document = document_of(misread_result());
    EXPECT_TRUE(document["dump"].is_null());
    EXPECT_TRUE(document["ecc"].is_null());
    EXPECT_EQ(document["diagnoses"][0]["code"], "page-or-spare-size");
}

TEST(EccJson, OfTrouble) {
    const Json document = document_of(troubled_result());
    EXPECT_EQ(document["status"], 2);
    EXPECT_EQ(document["error"], "chip\n.bin failed to open");
    EXPECT_TRUE(document["target"]["kind"].is_null());
    EXPECT_TRUE(document["ecc"].is_null());
}

}  // namespace
