#include "check/judge/second_opinion.h"

#include "support/bytes.h"
#include "support/conversion.h"
#include "support/expected/boot_block.h"
#include "support/expected/gpt.h"
#include "support/expected/parameter.h"
#include "support/expected/run.h"
#include "support/firmware_builder.h"
#include "support/output_of.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

using namespace test_support;

using Findings = std::vector<std::string>;

// Reads from an offset of the bytes on. Nothing past their end can be read.
ReadPart reader(const Bytes& bytes, uint64_t start = 0) {
    return [&bytes, start](uint64_t offset, std::size_t size, uint8_t* out) {
        if (start + offset > bytes.size() || size > bytes.size() - start - offset)
            return false;
        std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(start + offset), size, out);
        return true;
    };
}

Findings findings_of(const std::function<void(SecondOpinion&)>& judge) {
    SecondOpinion opinion;
    judge(opinion);
    EXPECT_EQ(opinion.findings.size(), std::min<uint64_t>(opinion.findings_found, 20));
    Findings all = opinion.findings;
    all.insert(all.end(), opinion.remarks.begin(), opinion.remarks.end());
    return all;
}

bool has(const Findings& findings, const std::string& finding) {
    return std::count(findings.begin(), findings.end(), finding) == 1;
}

Bytes output_of_conversion(const Firmware& firmware, const Conversion& conversion, const std::string& name) {
    const TemporaryDirectory directory;
    firmware.write(directory / "fw.img");
    std::filesystem::create_directory(directory / "out");
    output_of([&] { EXPECT_EQ(convert_by_call(conversion, directory / "fw.img", directory / "out"), 0); });
    return read_file(directory / "out" / name);
}

TEST(AddFinding, KeepsTwentyAndCountsAll) {
    SecondOpinion opinion;
    for (int i = 0; i < 25; ++i)
        add_finding(opinion, std::to_string(i));
    EXPECT_EQ(opinion.findings_found, 25U);
    ASSERT_EQ(opinion.findings.size(), 20U);
    EXPECT_EQ(opinion.findings.back(), "19");
}

// ---- GPT ----

constexpr std::size_t kHeader = 512;
constexpr std::size_t kEntries = 1024;

Findings gpt_findings(const Bytes& table) {
    return findings_of([&](SecondOpinion& opinion) { judge_gpt(reader(table), opinion); });
}

// The sample's table after a change, with checksums that are right.
Findings gpt_findings_after(const std::function<void(Bytes&)>& change) {
    Bytes table = gpt_table(sample_gpt());
    change(table);
    repair_gpt_checksums(table);
    return gpt_findings(table);
}

std::size_t entry_at(std::size_t number) {
    return kEntries + (number - 1) * 128;
}

TEST(JudgeGpt, TablesOfConversionsAreRight) {
    const Firmware firmware = sample_firmware({.gpt = true});
    EXPECT_EQ(gpt_findings(output_of_conversion(firmware, {}, "out_image.img")), Findings{});
    EXPECT_EQ(gpt_findings(output_of_conversion(firmware, {.type = "spinand"}, "gpt.img")), Findings{});
    EXPECT_EQ(gpt_findings(gpt_table(sample_gpt())), Findings{});
    EXPECT_EQ(gpt_findings(gpt_table({})), Findings{});
}

TEST(JudgeGpt, FullTableIsRight) {
    std::vector<GptEntry> entries;
    for (uint64_t i = 0; i < 128; ++i)
        entries.push_back({.name = "p", .first = 34 + i, .last = 34 + i});
    EXPECT_EQ(gpt_findings(gpt_table(entries)), Findings{});
}

TEST(JudgeGpt, TableForTheSizeOfADiskIsRight) {
    const std::vector<GptEntry> entries{{.name = "a", .first = 34, .last = 99966}};
    Bytes table = gpt_table(entries, 100000);
    EXPECT_EQ(gpt_findings(table), Findings{});
    put32_at(table, 458, 99999);
    put_bytes_at(table, 447, {0x00, 0x02, 0x00});
    put_bytes_at(table, 451, {0xFF, 0xFF, 0xFF});
    EXPECT_EQ(gpt_findings(table), Findings{});
}

struct BentField {
    std::size_t offset;
    Bytes value;
    std::string finding;
};

TEST(JudgeGpt, EveryFieldOfTheHeaderIsNamed) {
    const std::vector<BentField> fields{
        {8, {1}, "revision is 0x10001, not 0x10000"},
        {12, {91}, "header_size is 0x5b, not 0x5c"},
        {20, {1}, "reserved1 is 0x1, not 0x0"},
        {24, {2}, "my_lba is 0x2, not 0x1"},
        {32, {0xFF}, "last_usable_lba is 0xffffffdd, not 33 before the alternate_lba 0xffffffff"},
        {40, {35}, "first_usable_lba is 0x23, not 0x22"},
        {48, {0xDE}, "last_usable_lba is 0xffffffde, not 33 before the alternate_lba 0xfffffffe"},
        {56 + 7, {0x1F}, "disk_guid does not have the form of a random GUID"},
        {56 + 8, {0x7F}, "disk_guid does not have the form of a random GUID"},
        {72, {3}, "partition_entry_lba is 0x3, not 0x2"},
        {80, {127}, "num_partition_entries is 0x7f, not 0x80"},
        {84, {0, 1}, "sizeof_partition_entry is 0x100, not 0x80"},
        {92, {1}, "rest of the sector is not all zeros"},
        {511, {1}, "rest of the sector is not all zeros"},
    };
    for (const BentField& field : fields) {
        const Findings found = gpt_findings_after(
            [&](Bytes& table) { put_bytes_at(table, kHeader + field.offset, field.value); });
        EXPECT_EQ(found, Findings{"gpt header: " + field.finding});
    }
}

TEST(JudgeGpt, EveryBitOfTheHeaderIsFound) {
    Bytes table = gpt_table(sample_gpt());
    for (std::size_t bit = 0; bit < 8 * 92; ++bit) {
        const auto mask = static_cast<uint8_t>(1U << bit % 8);
        table[kHeader + bit / 8] ^= mask;
        EXPECT_NE(gpt_findings(table), Findings{}) << bit;
        table[kHeader + bit / 8] ^= mask;
    }
}

TEST(JudgeGpt, EveryByteOfTheEntriesIsInTheChecksum) {
    Bytes table = gpt_table(sample_gpt());
    const std::string actual = "gpt header: partition_entry_array_crc32 is 0x";
    for (std::size_t byte = kEntries; byte < table.size(); byte += byte < kEntries + 512 ? 1 : 37) {
        table[byte] ^= 0x40;
        const Findings found = gpt_findings(table);
        ASSERT_FALSE(found.empty()) << byte;
        EXPECT_EQ(found.front().substr(0, actual.size()), actual) << byte;
        table[byte] ^= 0x40;
    }
}

TEST(JudgeGpt, WrongHeaderChecksumIsNamed) {
    Bytes table = gpt_table(sample_gpt());
    const uint32_t right = get32(table, kHeader + 16);
    put32_at(table, kHeader + 16, 1);
    char text[80];
    std::snprintf(text, sizeof text, "gpt header: header_crc32 is 0x1, not 0x%x", right);
    EXPECT_EQ(gpt_findings(table), Findings{text});
}

TEST(JudgeGpt, MissingSignatureIsTheOnlyFindingOfTheHeader) {
    Bytes table = gpt_table(sample_gpt());
    put_text_at(table, kHeader, "EFI PARX", 8);
    EXPECT_EQ(gpt_findings(table), Findings{"gpt header: signature is not \"EFI PART\""});
}

TEST(JudgeGpt, EveryFieldOfTheProtectiveMbrIsNamed) {
    const std::vector<BentField> fields{
        {0, {1}, "boot code is not all zeros"},
        {445, {1}, "boot code is not all zeros"},
        {446, {0x80}, "boot indicator is 0x80, not 0x0"},
        {450, {0xEF}, "partition type is 0xef, not 0xee"},
        {454, {2}, "first sector is 0x2, not 0x1"},
        {458, {0xFD}, "number of sectors is 0xfffffffd, not 0xffffffff or the alternate_lba of the header"},
        {462, {1}, "space of the other partitions is not all zeros"},
        {509, {1}, "space of the other partitions is not all zeros"},
        {510, {0xAA}, "signature is 0xaaaa, not 0xaa55"},
        {511, {0x55}, "signature is 0x5555, not 0xaa55"},
    };
    for (const BentField& field : fields) {
        const Findings found =
            gpt_findings_after([&](Bytes& table) { put_bytes_at(table, field.offset, field.value); });
        EXPECT_EQ(found, Findings{"protective MBR: " + field.finding});
    }
}

TEST(JudgeGpt, EveryFieldOfEveryEntryIsNamed) {
    std::vector<GptEntry> entries;
    for (uint64_t i = 0; i < 128; ++i)
        entries.push_back({.name = "p", .first = 1000 + 10 * i, .last = 1009 + 10 * i});
    const Bytes right = gpt_table(entries);
    for (std::size_t number = 1; number <= 128; ++number) {
        const auto expect = [&](std::size_t offset, const Bytes& value, const std::string& finding) {
            Bytes table = right;
            put_bytes_at(table, entry_at(number) + offset, value);
            repair_gpt_checksums(table);
            EXPECT_TRUE(has(gpt_findings(table), "gpt entry " + std::to_string(number) + ": " + finding))
                << number << ": " << finding;
        };
        expect(0, Bytes(16, 0), "partition_type_guid is not set, but other fields are");
        expect(16, Bytes(16, 0), "unique_partition_guid is not set");
        expect(32, {33, 0}, "starting_lba is 0x21, before first_usable_lba 0x22");
        expect(40, {0, 0, 0, 0, 1}, "ending_lba is 0x100000000, after last_usable_lba 0xffffffdd");
        expect(48, {5}, "attributes is 0x5, not 0x0 or 0x4");
        expect(55, {1}, "attributes is 0x100000000000000, not 0x0 or 0x4");
    }
}

TEST(JudgeGpt, EntryThatEndsBeforeItsStartIsNamed) {
    EXPECT_EQ(gpt_findings(gpt_table({{.name = "a", .first = 100, .last = 99}})),
              Findings{"gpt entry 1: ending_lba is 0x63, before starting_lba 0x64"});
}

TEST(JudgeGpt, EntriesThatOverlapAreNamed) {
    const auto table_of = [](const std::vector<std::pair<uint64_t, uint64_t>>& ranges) {
        std::vector<GptEntry> entries;
        for (const auto& [first, last] : ranges)
            entries.push_back({.name = "p", .first = first, .last = last});
        return gpt_table(entries);
    };
    EXPECT_EQ(gpt_findings(table_of({{100, 199}, {200, 299}})), Findings{});
    EXPECT_EQ(gpt_findings(table_of({{100, 200}, {200, 299}})),
              Findings{"gpt entry 2: overlaps entry 1 from sector 0xc8 on"});
    EXPECT_EQ(gpt_findings(table_of({{200, 299}, {100, 200}})),
              Findings{"gpt entry 1: overlaps entry 2 from sector 0xc8 on"});
    EXPECT_EQ(gpt_findings(table_of({{100, 1000}, {200, 299}, {900, 950}, {1001, 1002}})),
              (Findings{"gpt entry 2: overlaps entry 1 from sector 0xc8 on",
                        "gpt entry 3: overlaps entry 1 from sector 0x384 on"}));
}

TEST(JudgeGpt, GuidThatIsUsedTwiceIsNamed) {
    const Bytes guid(16, 7);
    EXPECT_EQ(gpt_findings(gpt_table({{.name = "a", .first = 100, .last = 199, .guid = guid},
                                      {.name = "b", .first = 200, .last = 299},
                                      {.name = "a", .first = 300, .last = 399, .guid = guid}})),
              Findings{"gpt entry 3: unique_partition_guid is that of entry 1"});
}

TEST(JudgeGpt, TableThatCannotBeReadIsAFinding) {
    EXPECT_EQ(gpt_findings(Bytes(34 * 512 - 1, 0)), Findings{"gpt: its 34 sectors cannot be read"});
}

TEST(JudgeGpt, EmptyTargetIsNoFlood) {
    EXPECT_EQ(gpt_findings(Bytes(34 * 512, 0)), (Findings{"protective MBR: partition type is 0x0, not 0xee",
                                                          "protective MBR: first sector is 0x0, not 0x1",
                                                          "protective MBR: signature is 0x0, not 0xaa55",
                                                          "gpt header: signature is not \"EFI PART\""}));
}

// ---- boot block ----

Findings boot_findings(const Bytes& block) {
    return findings_of([&](SecondOpinion& opinion) {
        judge_boot_block("boot block", reader(block), block.size(), opinion);
    });
}

// A block whose header sectors are given without scrambling.
Bytes sample_block(bool scrambled, const std::function<void(Bytes&)>& change = {}) {
    const Firmware firmware = sample_firmware({.scramble_stages = scrambled});
    Bytes block = boot_block(firmware);
    const auto scramble = [&block] {
        for (const std::size_t sector : {0U, 2U, 3U})
            put_bytes_at(block, sector * 512, rc4_scrambled(slice(block, sector * 512, 512)));
    };
    if (change) {
        scramble();
        change(block);
        scramble();
    }
    return block;
}

TEST(JudgeBootBlock, BlocksOfConversionsAreRight) {
    for (const bool scrambled : {false, true}) {
        const Firmware firmware = sample_firmware({.scramble_stages = scrambled});
        EXPECT_EQ(boot_findings(sample_block(scrambled)), Findings{});
        EXPECT_EQ(boot_findings(output_of_conversion(firmware, {.type = "spinand"}, "idblock.img")),
                  Findings{});
        const Bytes image = output_of_conversion(firmware, {}, "out_image.img");
        for (const uint64_t sector : {64U, 1088U})
            EXPECT_EQ(findings_of([&](SecondOpinion& opinion) {
                          judge_boot_block("boot block", reader(image, sector * 512), 1024 * 512, opinion);
                      }),
                      Findings{});
    }
}

TEST(JudgeBootBlock, StagesWhoseSizesWrapAreRight) {
    Bytes block = sample_block(false, [](Bytes& header) {
        put16_at(header, 506, 40000);
        put16_at(header, 508, static_cast<uint16_t>(40000 + 40000));
    });
    block.resize(std::size_t{512} * 80004, 0);
    EXPECT_EQ(boot_findings(block), Findings{});
    block.resize(std::size_t{512} * 80003);
    EXPECT_EQ(
        boot_findings(block),
        Findings{"boot block: header sector 0: the stages (usBootDataSize 0x9c40, usBootCodeSize 0x3880) "
                 "need 80004 sectors, there are 80003"});
}

TEST(JudgeBootBlock, EveryFieldIsNamed) {
    const std::vector<BentField> fields{
        {0, {0}, "0: dwTag is 0xff0aa00, not 0xff0aa55"},
        {4, {1}, "0: reserved is not all zeros"},
        {8, {2}, "0: uiRc4Flag is 0x2, not 0x0 or 0x1"},
        {12, {5}, "0: usBootCode1Offset is 0x5, not 0x4"},
        {14, {5}, "0: usBootCode2Offset is 0x5, not 0x4"},
        {16, {1}, "0: reserved1 is not all zeros"},
        {505, {1}, "0: reserved1 is not all zeros"},
        {506, {7}, "0: usBootDataSize is 0x7, not whole units of 4 sectors"},
        {508, {11}, "0: usBootCodeSize is 0xb, not whole units of 4 sectors"},
        {508, {16}, "0: the stages (usBootDataSize 0x8, usBootCodeSize 0x10) need 20 sectors, there are 16"},
        {508, {4}, "0: the stages (usBootDataSize 0x8, usBootCodeSize 0x4) need 65544 sectors, there are 16"},
        {510, {1}, "0: usCrc is 0x1, not 0x0"},
        {512, {13}, "1: usSysReservedBlock is 0xd, not 0xc"},
        {514, {0}, "1: usDisk0Size is 0xff00, not 0xffff"},
        {516, {1}, "1: reserved0 is not all zeros"},
        {521, {1}, "1: reserved0 is not all zeros"},
        {522, {'R'}, "1: uiChipTag is 0x38325a52, not 0x38325a51"},
        {526, {1}, "1: reserved is not all zeros"},
        {1023, {1}, "1: reserved is not all zeros"},
        {1024, {1}, "2: the sector is not all zeros"},
        {2047, {1}, "3: the sector is not all zeros"},
    };
    for (const BentField& field : fields) {
        const Bytes block =
            sample_block(true, [&](Bytes& header) { put_bytes_at(header, field.offset, field.value); });
        EXPECT_EQ(boot_findings(block), Findings{"boot block: header sector " + field.finding});
    }
}

TEST(JudgeBootBlock, EveryByteOfTheHeaderIsFound) {
    Bytes block = sample_block(true);
    for (std::size_t byte = 0; byte < 2048; ++byte) {
        block[byte] ^= 0x80;
        EXPECT_EQ(boot_findings(block).size(), 1U) << byte;
        block[byte] ^= 0x80;
    }
}

TEST(JudgeBootBlock, OtherKeyIsSaid) {
    Bytes block = sample_block(true);
    for (const std::size_t sector : {0U, 2U, 3U})
        put_bytes_at(block, sector * 512,
                     rc4_scrambled(rc4_scrambled(slice(block, sector * 512, 512)), "some other key!!"));
    EXPECT_EQ(
        boot_findings(block),
        Findings{"boot block: header sector 0: is scrambled with another key than that of this program"});
}

TEST(JudgeBootBlock, HeaderThatCannotBeReadIsAFinding) {
    const Findings expected{"boot block: its 4 header sectors cannot be read"};
    EXPECT_EQ(boot_findings(Bytes(2047, 0)), expected);
    const Bytes block = sample_block(true);
    EXPECT_EQ(findings_of([&](SecondOpinion& opinion) {
                  judge_boot_block("boot block", reader(block, block.size() - 2047), 100000, opinion);
              }),
              expected);
}

TEST(JudgeBootBlock, EmptyTargetIsNoFlood) {
    EXPECT_EQ(boot_findings(Bytes(512 * 1024, 0)).size(), 1U);
}

// ---- copies ----

constexpr std::size_t kSlot = 200000;  // more than is read at once

Findings copy_findings(const Bytes& all, std::size_t copies) {
    std::vector<ReadPart> readers;
    for (std::size_t copy = 0; copy < copies; ++copy)
        readers.push_back(reader(all, copy * kSlot));
    return findings_of([&](SecondOpinion& opinion) { judge_copies("parameter", readers, kSlot, opinion); });
}

Bytes equal_copies(std::size_t copies) {
    Bytes all;
    for (std::size_t copy = 0; copy < copies; ++copy)
        put_bytes(all, patterned(kSlot, 1));
    return all;
}

TEST(JudgeCopies, EqualCopiesAreRight) {
    for (const std::size_t copies : {0U, 1U, 2U, 4U, 8U})
        EXPECT_EQ(copy_findings(equal_copies(copies), copies), Findings{});
}

TEST(JudgeCopies, CopiesOfConversionsAreRight) {
    const Firmware firmware = sample_firmware();
    const Bytes image = output_of_conversion(firmware, {}, "out_image.img");
    EXPECT_EQ(findings_of([&](SecondOpinion& opinion) {
                  judge_copies("boot block", {reader(image, 64 * 512), reader(image, 1088 * 512)}, 1024 * 512,
                               opinion);
              }),
              Findings{});
    std::vector<ReadPart> copies;
    for (uint64_t copy = 0; copy < 8; ++copy)
        copies.push_back(reader(image, (0x2000 + copy * 0x20) * 512));
    EXPECT_EQ(
        findings_of([&](SecondOpinion& opinion) { judge_copies("parameter", copies, 0x20 * 512, opinion); }),
        Findings{});
}

TEST(JudgeCopies, EveryCopyThatDiffersIsNamed) {
    for (std::size_t copy = 0; copy < 8; ++copy) {
        for (const std::size_t byte : {std::size_t{0}, std::size_t{65536}, std::size_t{131071}, kSlot - 1}) {
            Bytes all = equal_copies(8);
            all[copy * kSlot + byte] ^= 1;
            EXPECT_EQ(copy_findings(all, 8),
                      Findings{"parameter: copy " + std::to_string(copy + 1) + " differs from copy " +
                               (copy == 0 ? "2" : "1") + " at its byte " + std::to_string(byte)});
        }
    }
}

TEST(JudgeCopies, OneOfTwoCopiesDiffers) {
    Bytes all = equal_copies(2);
    all[5] ^= 1;
    EXPECT_EQ(copy_findings(all, 2), Findings{"parameter: copy 2 differs from copy 1 at its byte 5"});
}

TEST(JudgeCopies, CopyThatCannotBeReadIsNamed) {
    Bytes all = equal_copies(4);
    all.pop_back();
    EXPECT_EQ(copy_findings(all, 4), Findings{"parameter: copies 4 and 1 cannot be read and compared"});
}

}  // namespace
