#include "check/report/report.h"

#include "results.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

std::string plain(const CheckResult& result) {
    return text_report(result, {});
}
std::string verbose(const CheckResult& result) {
    return text_report(result, {false, true});
}

std::size_t lines_of(const std::string& text) {
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

std::size_t times(const std::string& text, const std::string& piece) {
    std::size_t count = 0;
    for (std::size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1))
        count++;
    return count;
}

std::string line_with(const std::string& text, const std::string& piece) {
    const std::size_t at = text.find(piece);
    if (at == std::string::npos)
        return "no line with " + piece;
    const std::size_t start = text.rfind('\n', at) + 1;  // 0 when the piece is in the first line
    return text.substr(start, text.find('\n', at) - start);
}

std::string last_line(const std::string& text) {
    const std::size_t start = text.rfind('\n', text.size() - 2) + 1;
    return text.substr(start, text.size() - 1 - start);
}

/// What stands in the verdict column of the only part.
std::string verdict_of(const PartResult& part, const Geometry& geometry) {
    CheckResult result = slc_result();
    result.geometry = geometry;
    result.parts = {part};
    const std::string text = plain(result);
    const std::size_t column = text.find("verdict");
    const std::size_t row = text.find('\n') + 1;
    return text.substr(row + column, text.find('\n', row) - row - column);
}

PartResult differing_file(uint64_t pages) {
    PartResult part = same_file("rootfs", 36765696);
    add_run(part, 100, 1, 1);
    part.differing_pages = pages;
    return part;
}

CheckResult with_many_differing(std::size_t files, std::size_t runs) {
    CheckResult result = slc_result();
    result.verdict = Verdict::kDiffers;
    result.parts.clear();
    for (std::size_t i = 0; i < files; i++) {
        PartResult part = same_file("part" + std::to_string(i), 2112 * 64);
        for (std::size_t run = 0; run < runs; run++)
            add_run(part, 2112 * run, 1, 1);
        part.differing_pages = runs;
        result.parts.push_back(part);
    }
    return result;
}

TEST(TextReport, OfADirectoryThatIsTheSame) {
    EXPECT_EQ(plain(slc_result()), "file          blocks   pages      bytes   verdict\n"
                                   "idblock.img        1      64     135168   same\n"
                                   "rootfs.img       272   17408   36765696   same\n"
                                   "second opinion: 34944 units and 17472 list indexes right\n"
                                   "same: 2 of 2 files; 35.1 MiB compared\n");
}

TEST(TextReport, OfADirectoryThatDiffers) {
    EXPECT_EQ(plain(slc_result_with_differences()),
              "file           blocks   pages      bytes   verdict\n"
              "idblock.img         1      64     135168   same\n"
              "rootfs.img        272   17408   36765696   differs: 2 pages\n"
              "userdata.img        3     192     405504   missing\n"
              "old.img                                    extra: not of this firmware\n"
              "\n"
              "rootfs.img: first difference at byte 1182731 (0x120c0b): is 0x41, should be 0x40\n"
              "  block 8, page 48 (page 560 of the file), byte 11 of unit 0: 1 bit differs, correctable\n"
              "  block 8, page 49 (page 561 of the file), bytes 100 to 111 of unit 1: 31 bits differ, not "
              "correctable\n"
              "second opinion: 34944 units and 17472 list indexes right\n"
              "differs: 1 of 3 files, 1 missing, 1 extra; 35.1 MiB compared\n");
}

TEST(TextReport, OfADevice) {
    EXPECT_EQ(plain(device_result()),
              "part                 first sector    sectors   verdict\n"
              "gpt                             0         36   same\n"
              "boot block, copy 1             64       1024   same\n"
              "boot block, copy 2           1088       1024   differs: 1 sector; copy 1 is good\n"
              "userdata                   178176       2048   ignored: 5 bytes differ\n"
              "rest of the device         180224   60891136   not compared, not empty\n"
              "\n"
              "boot block, copy 2: first difference at byte 558092 (0x8840c): is 0x41, should be 0x40\n"
              "  sector 1090, bytes 12 to 15: 9 bits differ\n"
              "device: read past the page cache\n"
              "second opinion: nothing was judged\n"
              "differs: 1 of 3 parts, 1 ignored; 1.0 MiB compared\n");
}

TEST(TextReport, OfTroubleBeforeAnythingWasRead) {
    CheckResult result;
    result.verdict = Verdict::kTrouble;
    result.error = "cannot read \"fw\n\033[2J.img\": No such file or directory\n";
    EXPECT_EQ(plain(result), "trouble: cannot read \"fw\\x0a\\x1b[2J.img\": No such file or directory\n");
}

TEST(TextReport, SaysTroubleAfterTheTable) {
    CheckResult result = device_result();
    result.verdict = Verdict::kTrouble;
    result.parts[0].unreadable = 512;
    EXPECT_EQ(last_line(plain(result)), "trouble: 512 bytes unreadable");
    EXPECT_EQ(line_with(plain(result), "gpt"),
              "gpt                             0         36   same where read; 512 bytes unreadable");
    result.parts[0].unreadable = 0;
    EXPECT_EQ(last_line(plain(result)), "trouble: no answer");
}

TEST(TextReport, OfADeviceReadThroughTheCache) {
    CheckResult result = device_result();
    result.past_the_cache = false;
    EXPECT_EQ(line_with(plain(result), "cache"),
              "device: read through the page cache, which may not be what it holds");
}

TEST(TextVerdict, CountsPagesOfFiles) {
    EXPECT_EQ(verdict_of(differing_file(1), slc_geometry()), "differs: 1 page");
    EXPECT_EQ(verdict_of(differing_file(2), nand_geometry()), "differs: 2 pages");
}

TEST(TextVerdict, CountsSectorsWhenAllRunsAreListed) {
    PartResult part = same_part("gpt", 0, 36);
    add_run(part, 500, 20, 20);
    part.differing_pages = 1;
    EXPECT_EQ(verdict_of(part, image_geometry()), "differs: 2 sectors");
    part.runs_found = 2;
    EXPECT_EQ(verdict_of(part, image_geometry()), "differs: 1 page");
}

TEST(TextVerdict, AddsWhatElseIsWrong) {
    PartResult part = differing_file(2);
    part.missing = 3;
    EXPECT_EQ(verdict_of(part, slc_geometry()), "differs: 2 pages; shorter by 3 bytes");
    part.missing = 0;
    part.surplus = 1;
    part.unreadable = 512;
    part.note = "erased\nbefore";
    EXPECT_EQ(verdict_of(part, slc_geometry()),
              "differs: 2 pages; longer by 1 byte; 512 bytes unreadable; erased\\x0abefore");
}

TEST(TextVerdict, OfAFileThatIsOnlyTooShort) {
    PartResult part = same_file("rootfs", 4096);
    part.verdict = Verdict::kDiffers;
    part.missing = 96;
    EXPECT_EQ(verdict_of(part, slc_geometry()), "differs: shorter by 96 bytes");
}

TEST(TextVerdict, OfAPartThatIsIgnored) {
    PartResult part = same_file("rootfs", 4096);
    part.verdict = Verdict::kIgnored;
    EXPECT_EQ(verdict_of(part, slc_geometry()), "ignored");
    part.differing = 1;
    EXPECT_EQ(verdict_of(part, slc_geometry()), "ignored: 1 byte differs");
    part.differing = 0;
    part.missing = 4096;
    EXPECT_EQ(verdict_of(part, slc_geometry()), "ignored: missing");
}

TEST(TextVerdict, KeepsANoteOfAPartThatIsTheSame) {
    PartResult part = same_file("rootfs", 4096);
    part.note = "equal to rootfs_b";
    EXPECT_EQ(verdict_of(part, slc_geometry()), "same; equal to rootfs_b");
}

TEST(TextTable, RoundsBlocksAndPagesUp) {
    CheckResult result = slc_result();
    result.parts = {same_file("misc", 64 * 2112 + 1)};
    EXPECT_EQ(line_with(plain(result), "misc.img"), "misc.img        2      65   135169   same");
}

TEST(TextTable, NamesAFileLeftOverByAConversion) {
    CheckResult result = slc_result();
    result.extra = {"unsparse_tmp.bin"};
    EXPECT_EQ(line_with(plain(result), "unsparse"),
              "unsparse_tmp.bin                               extra: left over by a conversion that failed");
    EXPECT_EQ(last_line(plain(result)), "same: 2 of 2 files, 1 extra; 35.1 MiB compared");
}

TEST(TextTable, HasARowForAMissingFileWithoutAPart) {
    CheckResult result = slc_result();
    result.verdict = Verdict::kDiffers;
    result.missing = {"gone.img", "rootfs.img"};
    EXPECT_EQ(line_with(plain(result), "gone"), "gone.img                                  missing");
    EXPECT_EQ(last_line(plain(result)), "differs: 0 of 3 files, 1 missing; 35.1 MiB compared");
}

TEST(TextTable, HasOneRowForAnImageThatIsMissing) {
    CheckResult result = device_result();
    result.target_kind = "directory";
    result.verdict = Verdict::kDiffers;
    result.rest = {};
    result.parts.pop_back();
    for (PartResult& part : result.parts) {
        part = same_part(part.name, part.offset / kSector, part.bytes / kSector);
        part.verdict = Verdict::kMissing;
        part.compared = 0;
        part.missing = part.bytes;
    }
    result.missing = {"out_image.img"};
    result.extra = {"old.img"};
    for (const std::string& text : {plain(result), verbose(result)})
        EXPECT_EQ(text, "part            first sector   sectors   verdict\n"
                        "out_image.img                            missing\n"
                        "old.img                                  extra: not of this firmware\n"
                        "second opinion: nothing was judged\n"
                        "differs: 0 of 3 parts, 3 missing, 1 extra; 0 bytes compared\n");
}

TEST(TextTable, SaysWhatTheRestHolds) {
    CheckResult result = device_result();
    result.target_kind = "image";
    result.rest.content = RestOfTarget::Content::kEmpty;
    EXPECT_EQ(line_with(plain(result), "rest"),
              "rest of the image          180224   60891136   not compared, empty");
    result.target_kind = "stream";
    result.rest.content = RestOfTarget::Content::kUnknown;
    EXPECT_EQ(line_with(plain(result), "rest"),
              "rest of the stream         180224   60891136   not compared");
    result.rest.bytes = 0;
    EXPECT_EQ(times(plain(result), "rest"), 0u);
}

TEST(TextTable, EscapesAndShortensNames) {
    CheckResult result = slc_result();
    result.parts[0].file = "\033[2J\nx\xFF";
    result.parts[1].file = std::string(300, 'n');
    const std::string text = plain(result);
    std::string padded = "\\x1b[2J\\x0ax\\xff";
    padded.resize(43, ' ');
    EXPECT_EQ(line_with(text, "2J").substr(0, 43), padded);
    EXPECT_EQ(line_with(text, "nnn").substr(0, 37), std::string(37, 'n'));
    EXPECT_EQ(line_with(text, "nnn").substr(37, 6), "...   ");
    EXPECT_EQ(times(text, "\033"), 0u);
}

TEST(TextTable, CountsTheRowsThatAreTooMany) {
    CheckResult result = slc_result();
    result.parts.clear();
    for (int i = 0; i < 60; i++)
        result.parts.push_back(same_file("part" + std::to_string(i), 2112));
    result.parts[59].verdict = Verdict::kIgnored;
    const std::string text = plain(result);
    EXPECT_EQ(line_with(text, "and "), "and 20 more: 20 same (all with --verbose)");
    EXPECT_EQ(times(text, "part59.img"), 1u);
    EXPECT_EQ(times(text, "part39.img"), 0u);
    EXPECT_EQ(lines_of(text), 1u + 40 + 1 + 2);
    EXPECT_EQ(lines_of(verbose(result)), 1u + 60 + 2);
}

TEST(TextTable, CountsEachCopyOfARowThatIsTooMany) {
    CheckResult result = image_with_copies();
    const std::vector<PartResult> copies(result.parts.begin() + 2, result.parts.end());
    result.parts.clear();
    for (uint64_t i = 0; i < 40; i++)
        result.parts.push_back(same_part("part" + std::to_string(i), i, 1));
    result.parts.insert(result.parts.end(), copies.begin(), copies.end());
    EXPECT_EQ(line_with(plain(result), "and "), "and 8 more: 8 same (all with --verbose)");
}

TEST(TextTable, CountsExtraFilesThatAreTooMany) {
    CheckResult result = slc_result();
    for (int i = 0; i < 10000; i++)
        result.extra.push_back("photo" + std::to_string(i));
    EXPECT_EQ(line_with(plain(result), "and "), "and 9962 more: 2 same, 9960 extra (all with --verbose)");
}

TEST(TextDetails, SayWhereARunStartsThatIsLong) {
    CheckResult result = slc_result_with_differences();
    result.parts[1].runs = {{kUnit - 1, 5000, 20000, 0x40, 0x41}};
    result.parts[1].runs_found = 1;
    EXPECT_EQ(line_with(plain(result), "  block 0"),
              "  block 0, page 0 (page 0 of the file), 5000 bytes from byte "
              "1055 of unit 0: 20000 bits differ, not correctable");
    result.geometry = nand_geometry();
    EXPECT_EQ(line_with(plain(result), "  block 0"),
              "  block 0, page 0 (page 0 of the file), 5000 bytes from byte 1055: 20000 bits differ");
    result.geometry = image_geometry();
    EXPECT_EQ(line_with(plain(result), "  sector 2"),
              "  sector 2, 5000 bytes from byte 31: 20000 bits differ");
}

TEST(TextDetails, CountTheRunsThatAreNotListed) {
    CheckResult result = slc_result_with_differences();
    result.parts[1].runs_found = 40;
    EXPECT_EQ(line_with(plain(result), "  and "), "  and 38 more");
}

TEST(TextDetails, FillAtMostTwentyLines) {
    EXPECT_EQ(times(plain(with_many_differing(1, 10)), "\n  block"), 10u);
    EXPECT_EQ(times(plain(with_many_differing(2, 9)), "\n  block"), 18u);
    EXPECT_EQ(times(plain(with_many_differing(2, 9)), "  and "), 0u);
    EXPECT_EQ(times(plain(with_many_differing(2, 10)), "\n  block"), 17u);
    EXPECT_EQ(line_with(plain(with_many_differing(2, 10)), "  and "), "  and 3 more");
    for (const std::size_t files : {2u, 3u, 7u, 19u, 20u}) {
        const std::string text = plain(with_many_differing(files, 30));
        EXPECT_EQ(times(text, "first difference"), files);
        EXPECT_LE(lines_of(text), 1 + files + 1 + 20 + 2) << text;
    }
}

TEST(TextOneThing, FillsFewerThanTwentyLines) {
    for (const std::size_t runs : {1u, 10u, 30u})
        for (const std::size_t other_files : {0u, 7u, 100u}) {
            CheckResult result = with_many_differing(1, runs);
            for (std::size_t i = 0; i < other_files; i++)
                result.parts.push_back(same_file("other" + std::to_string(i), 4096));
            result.target_kind = "device";
            result.warnings.assign(5, "something is ignored");
            result.opinion.findings.assign(10, "a unit is wrong");
            result.opinion.findings_found = 1000;
            result.diagnoses = {{"copy-good", "another copy is good"}};
            EXPECT_LT(lines_of(plain(result)), 20u) << plain(result);
            EXPECT_EQ(times(plain(result), "part0.img: first difference"), 1u);
            EXPECT_EQ(times(verbose(result), "\n  block"), runs);
        }
}

TEST(TextOneThing, KeepsTheTableWhereItFits) {
    CheckResult result = with_many_differing(1, 4);
    for (int i = 0; i < 8; i++)
        result.parts.push_back(same_file("other" + std::to_string(i), 4096));
    EXPECT_EQ(times(plain(result), "   same\n"), 8u);
    EXPECT_EQ(times(plain(result), "\n  block"), 4u);
    EXPECT_EQ(times(plain(result), "and "), 1u) << "but in the second opinion";
}

TEST(TextCopies, ThatLieSideBySideShareARow) {
    EXPECT_EQ(plain(image_with_copies()), "part                       first sector   sectors   verdict\n"
                                          "boot block, copy 1                   64         8   same\n"
                                          "boot block, copy 2                 1088         8   same\n"
                                          "parameter, copies 1 to 8           8192       264   same\n"
                                          "second opinion: nothing was judged\n"
                                          "same: 10 of 10 parts; 140.0 KiB compared\n");
    EXPECT_EQ(times(verbose(image_with_copies()), "\nparameter, copy "), 8u);
}

TEST(TextCopies, WithAnotherVerdictHaveARowOfTheirOwn) {
    CheckResult result = image_with_copies();
    result.verdict = Verdict::kDiffers;
    add_run(result.parts[4], result.parts[4].offset + 9, 1, 1);
    result.parts[4].note = "copy 1 is good";
    const std::string text = plain(result);
    EXPECT_EQ(line_with(text, "parameter, copies 1"),
              "parameter, copies 1 and 2           8192        64   same");
    EXPECT_EQ(line_with(text, "parameter, copy 3 "),
              "parameter, copy 3                   8256        32   differs: 1 sector; copy 1 is good");
    EXPECT_EQ(line_with(text, "parameter, copies 4"),
              "parameter, copies 4 to 8            8288       168   same");
}

TEST(TextCopies, ThatDifferAlikeHaveTheirPlacesOnce) {
    CheckResult result = image_with_copies();
    result.verdict = Verdict::kDiffers;
    for (std::size_t copy = 2; copy < 10; copy++) {
        add_run(result.parts[copy], result.parts[copy].offset + 9, 1, 1);
        add_run(result.parts[copy], result.parts[copy].offset + 600, 2, 3);
    }
    EXPECT_EQ(plain(result),
              "part                       first sector   sectors   verdict\n"
              "boot block, copy 1                   64         8   same\n"
              "boot block, copy 2                 1088         8   same\n"
              "parameter, copies 1 to 8           8192       264   differs: 2 sectors\n"
              "\n"
              "parameter, copy 1: first difference at byte 4194313 (0x400009): is 0x41, should be 0x40; the "
              "same in copies 2 to 8\n"
              "  sector 8192, byte 9: 1 bit differs\n"
              "  sector 8193, bytes 88 to 89: 3 bits differ\n"
              "second opinion: nothing was judged\n"
              "differs: 8 of 10 parts; 140.0 KiB compared\n");
    EXPECT_EQ(times(verbose(result), "first difference"), 8u);
}

TEST(TextCopies, ThatDifferElsewhereHaveTheirOwnPlaces) {
    CheckResult result = image_with_copies();
    result.verdict = Verdict::kDiffers;
    for (const std::size_t copy : {2u, 3u, 5u, 9u})
        add_run(result.parts[copy], result.parts[copy].offset + (copy == 3 ? 8 : 9), 1, 1);
    const std::string text = plain(result);
    EXPECT_EQ(times(text, "first difference"), 2u);
    EXPECT_EQ(times(text, "; the same in copies 4 and 8\n"), 1u) << text;
    EXPECT_EQ(times(text, "parameter, copy 2: first difference"), 1u);
}

TEST(TextDetails, CountThePartsThatAreTooMany) {
    const std::string text = plain(with_many_differing(22, 1));
    EXPECT_EQ(times(text, "first difference"), 19u);
    EXPECT_EQ(line_with(text, "and 3 more"), "and 3 more files");
    EXPECT_EQ(times(plain(with_many_differing(20, 1)), "first difference"), 20u);
}

TEST(TextDetails, AreAllThereWhenVerbose) {
    const std::string text = verbose(with_many_differing(50, 30));
    EXPECT_EQ(times(text, "first difference"), 50u);
    EXPECT_EQ(times(text, "\n  block"), 1500u);
}

TEST(TextDetails, OfIgnoredPartsWhenVerbose) {
    EXPECT_EQ(times(plain(device_result()), "userdata: first"), 0u);
    EXPECT_EQ(times(verbose(device_result()), "userdata: first"), 1u);
}

TEST(TextDiagnosis, HasItsCodeAfterTheText) {
    CheckResult result = slc_result_with_differences();
    result.diagnoses = {{"only-cleared", "written over without an erase; erase it first"}};
    EXPECT_EQ(line_with(plain(result), "looks like"),
              "looks like: written over without an erase; erase it first [only-cleared]");
    EXPECT_EQ(times(plain(result), "first difference"), 1u);
}

TEST(TextDiagnosis, ThatExplainsAllTakesTheDetailsOut) {
    for (const char* code :
         {"page-list", "2k-data", "rc4-key", "block-size", "page-or-spare-size", "other-firmware", "blank"}) {
        CheckResult result = slc_result_with_differences();
        result.diagnoses = {{code, "text"}};
        EXPECT_EQ(times(plain(result), "first difference"), 0u) << code;
        EXPECT_EQ(times(plain(result), "rootfs.img"), 1u) << code;
        EXPECT_EQ(times(verbose(result), "first difference"), 1u) << code;
    }
}

TEST(TextDiagnosis, ThatExplainsAllTakesManyRowsOut) {
    CheckResult result = with_many_differing(7, 10);
    result.parts[6].verdict = Verdict::kSame;
    result.diagnoses = {{"page-list", "--page_list is missing"}};
    EXPECT_EQ(plain(result), "6 of 7 files differ (all with --verbose)\n"
                             "second opinion: 34944 units and 17472 list indexes right\n"
                             "looks like: --page_list is missing [page-list]\n"
                             "differs: 6 of 7 files; 924.0 KiB compared\n");
    result.parts.pop_back();
    EXPECT_EQ(times(plain(result), "part5.img"), 1u);
}

TEST(TextDiagnosis, ThatExplainsAllKeepsTheReportShort) {
    for (const std::size_t parts : {6u, 100u}) {
        CheckResult result = with_many_differing(parts, 30);
        result.target_kind = "device";
        result.warnings.assign(100, "something is ignored");
        result.opinion.findings.assign(10, "a unit is wrong");
        result.opinion.findings_found = 1000;
        result.diagnoses.assign(10, {"blank", "nothing was written"});
        EXPECT_LT(lines_of(plain(result)), 20u) << plain(result);
    }
}

TEST(TextWarnings, AreEscapedAndLimited) {
    CheckResult result = slc_result();
    result.warnings.assign(12, "-x\033 is ignored");
    EXPECT_EQ(times(plain(result), "warning: -x\\x1b is ignored\n"), 10u);
    EXPECT_EQ(line_with(plain(result), "more warning"), "and 2 more warnings");
    EXPECT_EQ(times(verbose(result), "warning: "), 12u);
}

TEST(TextOpinion, IsNotThereWhenNotAskedFor) {
    CheckResult result = slc_result();
    result.opinion.asked = false;
    EXPECT_EQ(times(plain(result), "second opinion"), 0u);
}

TEST(TextOpinion, NamesWhatWasJudged) {
    CheckResult result = device_result();
    result.opinion.judged = {"GPT", "boot block", "parameter"};
    EXPECT_EQ(line_with(plain(result), "second"), "second opinion: GPT, boot block and parameter are right");
    result.opinion.judged = {"boot block"};
    EXPECT_EQ(line_with(plain(result), "second"), "second opinion: boot block is right");
    result = slc_result();
    result.opinion.judged = {"boot block"};
    EXPECT_EQ(line_with(plain(result), "second"),
              "second opinion: 34944 units, 17472 list indexes and boot block right");
}

TEST(TextOpinion, SaysThatNothingWasJudged) {
    CheckResult result = slc_result();
    result.opinion.units = 0;
    EXPECT_EQ(line_with(plain(result), "second"), "second opinion: nothing was judged");
    result.opinion.judged = {"GPT"};
    EXPECT_EQ(line_with(plain(result), "second"), "second opinion: GPT is right");
}

TEST(TextOpinion, StaysWhenTroubleCameAfterIt) {
    CheckResult result = device_result();
    result.verdict = Verdict::kTrouble;
    EXPECT_EQ(times(plain(result), "second"), 0u);
    result.opinion.judged = {"GPT"};
    EXPECT_EQ(line_with(plain(result), "second"), "second opinion: GPT is right");
}

TEST(TextOpinion, DoesNotCountIndexesOfPagesInPart) {
    CheckResult result = slc_result();
    result.opinion.units = 3;
    EXPECT_EQ(line_with(plain(result), "second"), "second opinion: 3 units and their list indexes right");
}

TEST(TextOpinion, ListsFindings) {
    CheckResult result = slc_result();
    result.verdict = Verdict::kDiffers;
    result.opinion.wrong_units = 2;
    result.opinion.wrong_indexes = 1;
    result.opinion.findings = {"rootfs.img: unit 1 of page 9 is wrong", "rootfs.img: \033"};
    result.opinion.findings_found = 3;
    const std::string text = plain(result);
    EXPECT_EQ(text.substr(text.find("second")),
              "second opinion: 2 of 34944 units wrong, 1 list index wrong\n"
              "  rootfs.img: unit 1 of page 9 is wrong\n"
              "  rootfs.img: \\x1b\n"
              "  and 1 more\n"
              "differs: 0 of 2 files, second opinion differs; 35.1 MiB compared\n");
}

TEST(TextOpinion, CountsFindingsWithoutUnits) {
    CheckResult result = device_result();
    result.opinion.findings = {"GPT: checksum of the header is wrong"};
    result.opinion.findings_found = 1;
    EXPECT_EQ(line_with(plain(result), "second"), "second opinion: 1 finding");
}

TEST(TextClosing, SaysWhatStrictMadeDifferent) {
    CheckResult result = device_result();
    result.parts.erase(result.parts.begin() + 2);
    result.warnings = {"-s is ignored"};
    result.rest_counts = result.warnings_count = true;
    EXPECT_EQ(last_line(plain(result)),
              "differs: 0 of 2 parts, 1 ignored, rest not empty, 1 warning; 530.0 KiB compared");
}

TEST(TextClosing, IsSilentAboutWhatDidNotMatter) {
    CheckResult result = device_result();
    result.parts.erase(result.parts.begin() + 2);
    result.warnings = {"-s is ignored"};
    result.opinion.findings = {"GPT: checksum of the header is wrong"};
    result.opinion.findings_found = 1;
    EXPECT_EQ(last_line(plain(result)),
              "differs: 0 of 2 parts, 1 ignored, second opinion differs; 530.0 KiB compared");
}

TEST(TextClosing, CountsOneFileInTheSingular) {
    CheckResult result = slc_result();
    result.parts.pop_back();
    EXPECT_EQ(last_line(plain(result)), "same: 1 of 1 file; 132.0 KiB compared");
}

TEST(TextColor, IsOnTheVerdictWordsAlone) {
    CheckResult result = slc_result_with_differences();
    result.warnings = {"-x is ignored"};
    const std::string text = text_report(result, {true, false});
    EXPECT_EQ(times(text, "\033[32msame\033[0m\n"), 1u);
    EXPECT_EQ(times(text, "\033[31mdiffers\033[0m: 2 pages\n"), 1u);
    EXPECT_EQ(times(text, "\033[31mmissing\033[0m\n"), 1u);
    EXPECT_EQ(times(text, "\033[33mextra\033[0m: not of this firmware\n"), 1u);
    EXPECT_EQ(times(text, "\n\033[33mwarning\033[0m: -x is ignored\n"), 1u);
    EXPECT_EQ(times(text, "\n\033[31mdiffers\033[0m: 1 of 3 files"), 1u);
    EXPECT_EQ(times(text, "\033"), 12u);
}

TEST(TextColor, ChangesNothingElse) {
    for (const CheckResult& result : {slc_result_with_differences(), device_result()}) {
        std::string text = text_report(result, {true, false});
        for (const char* escape : {"\033[31m", "\033[32m", "\033[33m", "\033[0m"})
            for (std::size_t at = text.find(escape); at != std::string::npos; at = text.find(escape))
                text.erase(at, std::string(escape).size());
        EXPECT_EQ(text, plain(result));
    }
}

TEST(TextReport, HasNoSpacesAtTheEndOfLines) {
    CheckResult result = slc_result_with_differences();
    result.warnings = {"ends in spaces   "};
    result.parts[1].note = "too ";
    for (const std::string& text : {plain(result), plain(device_result()), verbose(device_result())})
        EXPECT_EQ(times(text, " \n"), 0u) << text;
    EXPECT_EQ(line_with(plain(result), "warning"), "warning: ends in spaces");
}

}  // namespace
