// What the reports of an extraction say.

#include "check/report/extraction_report.h"
#include "extraction_bench.h"
#include "results.h"

namespace {

using namespace check_test;

ExtractedPart extracted(const std::string& name, uint64_t bytes) {
    ExtractedPart part;
    part.name = name;
    part.file = name + ".img";
    part.bytes = bytes;
    part.places = {.page = 2112, .block = 64 * 2112};
    part.counts.units.units = part.counts.units.flips[0] = bytes / 1024;
    return part;
}

ExtractedPart left_out(const std::string& name, const std::string& why) {
    ExtractedPart part = extracted(name, 0);
    part.verdict = Verdict::kMissing;
    part.note = why;
    return part;
}

ExtractionResult result_of(std::vector<ExtractedPart> parts) {
    ExtractionResult result;
    result.conversion = slc_result().conversion;
    result.geometry = slc_geometry();
    result.firmware_path = "fw.img";
    result.firmware_bytes = 1000;
    result.target_kind = "directory";
    result.target_path = "out";
    result.directory = "data";
    result.parts = std::move(parts);
    return result;
}

TEST(ExtractionText, HasARowForEachFile) {
    ExtractedPart boot = extracted("boot", 5000);
    boot.counts.units.flips[0] = 3;
    boot.counts.units.flips[2] = 1;
    boot.counts.units.set = 2;
    ExtractedPart misc = extracted("misc", 0);
    misc.verdict = Verdict::kIgnored;
    EXPECT_EQ(extraction_text(result_of({boot, extracted("rootfs", 3072), misc}), {}),
              "file         bytes   flips   worst unit   verdict\n"
              "boot.img      5000       2            2   same\n"
              "rootfs.img    3072       0            0   same\n"
              "misc.img                                  ignored\n"
              "flips per unit   0: 6   1: 0   2: 1   3 to 16: 0   beyond: 0\n"
              "1 to 0: 0   0 to 1: 2   bit error rate 3.4e-05\n"
              "same: 2 of 2 files; 7.8 KiB extracted, 2 bits corrected\n");
}

TEST(ExtractionText, ListsWhatIsNotRight) {
    ExtractedPart boot = extracted("boot", 5000);
    boot.verdict = Verdict::kDiffers;
    boot.counts.units.beyond = 13;
    for (uint64_t unit = 0; unit < 10; ++unit)
        boot.counts.bad_units.push_back({unit * 2048, 64 * 2112 + unit * 2112});
    boot.counts.bad_units[1].units = 2;
    boot.counts.erased_pages = 1;
    ExtractionResult result = result_of({boot, left_out("../x", "its name has a '/'")});
    result.verdict = Verdict::kDiffers;
    result.warnings = {"one\ntwo"};
    const std::string text = extraction_text(result, {});
    EXPECT_TRUE(text.starts_with(
        "file       bytes   flips   worst unit   verdict\n"
        "boot.img    5000       0            0   differs: 13 units not correctable, 1 page erased\n"
        "../x.img                                not extracted: its name has a '/'\n"
        "boot.img: not corrected, written as read:\n"
        "  byte 0 of the data: block 1, page 0, unit 0 of the target\n"
        "  byte 2048 of the data: block 1, page 1, unit 0 of the target and 1 unit after it\n"))
        << text;
    EXPECT_TRUE(text.ends_with("  and 2 more units\n"
                               "flips per unit   0: 4   1 to 16: 0   beyond: 13\n"
                               "1 to 0: 0   0 to 1: 0   bit error rate 0\n"
                               "warning: one\\x0atwo\n"
                               "differs: 1 of 2 files, 1 not extracted, 13 units not correctable; "
                               "4.8 KiB extracted, 0 bits corrected\n"))
        << text;
}

TEST(ExtractionText, IsBounded) {
    std::vector<ExtractedPart> parts;
    for (int i = 0; i < 500; ++i) {
        parts.push_back(extracted("part" + std::to_string(i), 1024));
        parts.back().verdict = Verdict::kDiffers;
        parts.back().counts.units.beyond = 1000;
        parts.back().counts.bad_units.resize(10);
    }
    ExtractionResult result = result_of(parts);
    result.verdict = Verdict::kDiffers;
    result.warnings.resize(100, "w");
    EXPECT_LT(split(extraction_text(result, {}), '\n').size(), 90U);
    EXPECT_GT(split(extraction_text(result, {.verbose = true}), '\n').size(), 5000U);
}

TEST(ExtractionText, OfAnImageHasNoUnits) {
    ExtractionResult result = result_of({extracted("boot", 5000)});
    result.geometry = image_geometry();
    EXPECT_EQ(extraction_text(result, {}), "file       bytes   verdict\n"
                                           "boot.img    5000   same\n"
                                           "same: 1 of 1 file; 4.8 KiB extracted\n");
}

TEST(ExtractionText, EndsWithTheTrouble) {
    ExtractionResult result = result_of({});
    result.verdict = Verdict::kTrouble;
    result.error = "data/x failed to be written: No space left on device";
    EXPECT_EQ(extraction_text(result, {}), "trouble: data/x failed to be written: No space left on device\n");
}

TEST(ExtractionJson, HasAllThatWasFound) {
    ExtractedPart boot = extracted("boot", 5000);
    boot.verdict = Verdict::kDiffers;
    boot.counts.units.beyond = 1;
    boot.counts.bad_units.push_back({1024, 2112 + 1056});
    boot.overwritten = true;
    ExtractionResult result = result_of({boot, left_out("\xFF", "its name")});
    result.verdict = Verdict::kDiffers;
    const Json document = Json::parse(extraction_json(result));
    EXPECT_EQ(document.at("schema"), 1);
    EXPECT_EQ(document.at("verdict"), "differs");
    EXPECT_EQ(document.at("status"), 1);
    EXPECT_EQ(document.at("conversion").at("type"), "slc");
    EXPECT_EQ(document.at("firmware").dump(), R"({"bytes":1000,"path":"fw.img"})");
    EXPECT_EQ(document.at("target").dump(), R"({"kind":"directory","path":"out"})");
    EXPECT_EQ(document.at("directory"), "data");
    EXPECT_EQ(document.at("error"), nullptr);
    const Json& first = document.at("files").at(0);
    EXPECT_EQ(first.at("file"), "boot.img");
    EXPECT_EQ(first.at("verdict"), "differs");
    EXPECT_EQ(first.at("ecc").at("uncorrectable"), 1);
    EXPECT_EQ(first.at("ecc").at("flips").size(), 17U);
    EXPECT_EQ(first.at("uncorrectable").dump(),
              R"([{"block":0,"offset":3168,"page":1,"position":1024,"unit":1,"units":1}])");
    EXPECT_EQ(first.at("overwritten"), true);
    const Json& second = document.at("files").at(1);
    EXPECT_EQ(second.at("name"), "\\xff");
    EXPECT_EQ(second.at("name_hex"), "ff");
    EXPECT_EQ(second.at("file"), nullptr);
    EXPECT_EQ(second.at("verdict"), "missing");
    EXPECT_EQ(second.at("ecc"), nullptr);
    EXPECT_EQ(second.at("note"), "its name");
}

TEST(ExtractionJson, IsOneDocumentInTrouble) {
    ExtractionResult result;
    result.verdict = Verdict::kTrouble;
    result.error = "no";
    const Json document = Json::parse(extraction_json(result));
    EXPECT_EQ(document.at("status"), 2);
    EXPECT_EQ(document.at("error"), "no");
    EXPECT_EQ(document.at("firmware"), nullptr);
    EXPECT_EQ(document.at("files").dump(), "[]");
}

TEST(ExtractionWarning, NamesAUnitThatIsNearTheLimit) {
    for (const unsigned count : {12U, 13U}) {
        ExtractionBench bench(kSlcNand);
        Bytes file = bench.output("boot.img");
        flip_bits(file, 0, count, 1);
        write_file(bench.out("boot.img"), file);
        for (const bool strict : {false, true}) {
            bench.options.strict = strict;
            bench.options.chip.force = true;
            const ExtractionResult result = bench.extract();
            EXPECT_EQ(result.warnings.size(), count > 12 ? 1U : 0U);
            EXPECT_EQ(result.verdict, strict && count > 12 ? Verdict::kDiffers : Verdict::kSame);
            for (const std::string& warning : result.warnings)
                EXPECT_EQ(warning, "boot: a unit has 13 flipped bits; 16 can be corrected");
        }
    }
}

}  // namespace
