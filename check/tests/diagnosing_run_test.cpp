// What the program says when one thing explains all that differs: the report names it and stays short.

#include "check_bench.h"
#include "support/bch_judge.h"
#include "support/boot_rom.h"
#include "support/sparse_builder.h"

namespace {

using namespace check_test;

constexpr std::size_t kMostLines = 19;

/// The document and the text name these reasons, and the text fits a screen.
void expect_diagnosis(const CheckBench& bench, const Conversion& checked_as, const std::string& codes,
                      const std::string& words) {
    const Json document = bench.document_as(checked_as);
    EXPECT_EQ(document.at("verdict"), "differs") << document.at("error");
    EXPECT_EQ(codes_of(document), codes);
    const RunResult run = bench.check_as(checked_as);
    EXPECT_EQ(run.exit_status, kDiffers);
    EXPECT_EQ(run.err, "");
    EXPECT_LE(split(run.out, '\n').size(), kMostLines) << run.out;
    std::size_t named = 0;
    for (const std::string& text : split(run.out, '\n'))
        if (text.starts_with("looks like: ")) {
            ++named;
            EXPECT_NE(text.find(words), std::string::npos) << text;
            EXPECT_TRUE(text.ends_with("[" + codes + "]")) << text;
        }
    EXPECT_EQ(named, 1U) << run.out;
    EXPECT_TRUE(last_line(run.out).starts_with("differs: ")) << run.out;
}

// ---- other options ----

struct OtherOptions {
    std::string name;
    Conversion made;
    Conversion checked;
    std::string code;
    std::string words;
};

class DiagnosisOfOptions : public testing::TestWithParam<OtherOptions> {};

TEST_P(DiagnosisOfOptions, NamesTheOption) {
    const CheckBench bench(GetParam().made);
    expect_diagnosis(bench, GetParam().checked, GetParam().code, GetParam().words);
}

INSTANTIATE_TEST_SUITE_P(
    Options, DiagnosisOfOptions,
    testing::Values(
        OtherOptions{"PageListLeftOut", with_page_list(kSlcNand), kSlcNand, "page-list",
                     "made with --page_list"},
        OtherOptions{"PageListGiven", kSlcNand, with_page_list(kSlcNand), "page-list",
                     "made without --page_list"},
        OtherOptions{"TwoKbLeftOutOfSlc", with_two_kb(with(kSlcNand, "256", "4", "128")),
                     with(kSlcNand, "256", "4", "128"), "2k-data", "made with -2"},
        OtherOptions{"TwoKbGivenForSlc", with(kSlcNand, "256", "4", "128"),
                     with_two_kb(with(kSlcNand, "256", "4", "128")), "2k-data", "made without -2"},
        OtherOptions{"TwoKbLeftOutOfSpiNand", with_two_kb(with(kSpiNand, "256", "4")),
                     with(kSpiNand, "256", "4"), "2k-data", "made with -2"},
        OtherOptions{"TwoKbGivenForEmmc", with(kEmmc, "512", "4"), with_two_kb(with(kEmmc, "512", "4")),
                     "2k-data", "made without -2"},
        OtherOptions{"BlocksOfSlc", with(kSlcNand, "256", "2", "64"), kSlcNand, "block-size",
                     "made for erase blocks of 256 KB (-b 256)"},
        OtherOptions{"BlocksOfSpiNand", with(kSpiNand, "64", "2"), kSpiNand, "block-size", "(-b 64)"},
        OtherOptions{"BlocksOfEmmc", with(kEmmc, "256", "2"), kEmmc, "block-size", "(-b 256)"},
        OtherOptions{"SpareOfSlc", with(kSlcNand, "128", "2", "128"), kSlcNand, "page-or-spare-size",
                     "made for pages of 2 KB (-p 2) with 128 bytes of spare area (-s 128)"},
        OtherOptions{"PagesOfSlc", with(kSlcNand, "128", "4", "256"), with(kSlcNand, "128", "2", "256"),
                     "page-or-spare-size",
                     "made for pages of 4 KB (-p 4) with 256 bytes of spare area (-s 256)"},
        OtherOptions{"PagesOfSpiNand", with_two_kb(with(kSpiNand, "128", "8")),
                     with_two_kb(with(kSpiNand, "128", "4")), "page-or-spare-size",
                     "made for pages of 8 KB (-p 8)"},
        OtherOptions{"PagesOfEmmc", with_two_kb(with(kEmmc, "512", "8")),
                     with_two_kb(with(kEmmc, "512", "4")), "page-or-spare-size",
                     "made for pages of 8 KB (-p 8)"},
        OtherOptions{"PagesOfSpiNor", with_two_kb(with(kSpiNor, "128", "8")),
                     with_two_kb(with(kSpiNor, "128", "4")), "page-or-spare-size",
                     "made for pages of 8 KB (-p 8)"},
        OtherOptions{"PagesAndSpareOfSlc", with(kSlcNand, "128", "4", "224"), kSlcNand, "page-or-spare-size",
                     "made for pages of 4 KB (-p 4) with 224 bytes of spare area (-s 224)"}),
    [](const auto& made) { return made.param.name; });

// ---- the boot block's key ----

/// Sectors of the boot blocks of an image that are scrambled with the key: the header's two outer sectors and
/// those of both stages, each with a keystream that starts anew.
void scramble_again(Bytes& image, std::size_t block, std::size_t stage_bytes, const Bytes& keystream) {
    const std::vector<std::size_t> header{0, 2, 3};
    std::vector<std::size_t> sectors = header;
    for (std::size_t at = 4; at < 4 + stage_bytes / kSectorSize; ++at)
        sectors.push_back(at);
    for (const std::size_t sector : sectors)
        for (std::size_t i = 0; i < kSectorSize; ++i)
            image.at(block + sector * kSectorSize + i) ^= keystream[i];
}

TEST(DiagnosisOfBootBlock, NamesAnotherKey) {
    const CheckBench bench(kEmmc, sample_firmware({.gpt = true, .scramble_stages = true}));
    Bytes image = bench.output("out_image.img");
    const Bytes keystream = rc4_scrambled(Bytes(kSectorSize, 0), "one key");
    const Json parts = bench.document().at("parts");
    std::size_t blocks = 0;
    for (const Json& part : parts)
        if (part.at("name").get<std::string>().starts_with("boot block")) {
            scramble_again(image, part.at("first_sector").get<std::size_t>() * kSectorSize, 4096, keystream);
            ++blocks;
        }
    ASSERT_GE(blocks, 2U);
    write_file(bench.out("out_image.img"), image);
    expect_diagnosis(bench, kEmmc, "rc4-key", "built with another key");
}

/// The same in the pages of SLC NAND, with the parity of the new data.
void scramble_units_again(Bytes& file, const Bytes& keystream) {
    constexpr std::size_t page_bytes = 2112;
    constexpr std::size_t unit_bytes = 1056;
    constexpr std::size_t data_bytes = 1024;
    const auto place_of_unit = [&](std::size_t unit) {
        return unit / 2 * page_bytes + unit % 2 * unit_bytes;
    };
    constexpr std::size_t units = 6;  // of the header and 4096 bytes of the stages
    Bytes data;
    for (std::size_t unit = 0; unit < units; ++unit)
        put_bytes(data, slice(file, place_of_unit(unit), data_bytes));
    scramble_again(data, 0, 4096, keystream);
    for (std::size_t unit = 0; unit < units; ++unit) {
        const std::size_t place = place_of_unit(unit);
        put_bytes_at(file, place, slice(data, unit * data_bytes, data_bytes));
        put_bytes_at(file, place + kBchMessageBytes, bch_slow_parity(file.data() + place, 16));
    }
}

TEST(DiagnosisOfBootBlock, NamesAnotherKeyInAFile) {
    const Bytes keystream = rc4_scrambled(Bytes(kSectorSize, 0), "one key");
    for (const Conversion& conversion : {kSpiNand, kSlcNand}) {
        SCOPED_TRACE(conversion.type);
        const CheckBench bench(conversion, sample_firmware({.gpt = true, .scramble_stages = true}));
        Bytes file = bench.output("idblock.img");
        if (conversion.type == "slc")
            scramble_units_again(file, keystream);
        else
            scramble_again(file, 0, 4096, keystream);
        write_file(bench.out("idblock.img"), file);
        expect_diagnosis(bench, conversion, "rc4-key", "built with another key");
        const Json ecc = bench.document().at("ecc");
        EXPECT_EQ(ecc.is_null() ? 0 : ecc.at("wrong_units").get<int>(), 0);
    }
}

// ---- the partition table ----

constexpr std::size_t kHeader = kSectorSize;
constexpr std::size_t kEntries = 2 * kSectorSize;
constexpr std::size_t kEntryBytes = 128;

TEST(DiagnosisOfGpt, NamesOtherGuids) {
    for (const Conversion& conversion : {kEmmc, kSpiNand, kSpiNor}) {
        SCOPED_TRACE(conversion.type);
        const CheckBench bench(conversion);
        const std::string file = conversion.is_whole_device() ? "out_image.img" : "gpt.img";
        Bytes image = bench.output(file);
        put_bytes_at(image, kHeader + 56, patterned(16, 11));
        for (std::size_t entry = 0; entry < 2; ++entry)
            put_bytes_at(image, kEntries + entry * kEntryBytes + 16,
                         patterned(16, 12 + static_cast<uint32_t>(entry)));
        repair_gpt_checksums(image);
        write_file(bench.out(file), image);
        expect_diagnosis(bench, conversion, "gpt-guids", "only GUIDs of the GPT differ");
    }
}

/// The sample with a partition table that says how large the medium is, as a partitioning tool leaves it.
void adapt_to_disk(const CheckBench& bench, uint64_t sectors) {
    Bytes image = bench.output("out_image.img");
    put_integer_at<uint64_t>(image, kHeader + 32, sectors - 1);
    put_integer_at<uint64_t>(image, kHeader + 48, sectors - 34);
    put32_at(image, 446 + 12, static_cast<uint32_t>(sectors - 1));
    repair_gpt_checksums(image);
    write_file(bench.out("out_image.img"), image);
}

TEST(DiagnosisOfGpt, NamesATableThatWasAdapted) {
    const CheckBench bench(kEmmc);
    adapt_to_disk(bench, 61071360);
    expect_diagnosis(bench, kEmmc, "gpt-adapted", "the partitions are unchanged");
    EXPECT_EQ(bench.check({"--ignore=gpt"}).exit_status, kSame);
    EXPECT_EQ(bench.document().at("second_opinion").at("findings"), Json::array());
}

TEST(DiagnosisOfGpt, NamesATableThatSgdiskMoved) {
    const fs::path sgdisk = find_program("sgdisk");
    if (sgdisk.empty())
        GTEST_SKIP() << "missing tool: sgdisk";
    const CheckBench bench(kEmmc);
    const fs::path image = bench.out("out_image.img");
    // The table is made for a medium of 2 TiB, so it is adapted to a larger one.
    std::error_code error;
    fs::resize_file(image, 4096ULL * 1024 * kMib, error);
    if (error)
        GTEST_SKIP() << "no file of 4 TiB here: " << error.message();
    const RunResult moved = run_program(sgdisk, {"-e", image});
    const Json document = bench.document({"--only=gpt"});
    EXPECT_EQ(document.at("verdict"), "differs") << moved.out << moved.err;
    EXPECT_EQ(codes_of(document), "gpt-adapted") << moved.out << moved.err;
}

TEST(DiagnosisOfGpt, IsSilentAboutAMovedPartition) {
    const CheckBench bench(kEmmc);
    Bytes image = bench.output("out_image.img");
    put_integer_at<uint64_t>(image, kEntries + 32, get64(image, kEntries + 32) + 8);
    repair_gpt_checksums(image);
    write_file(bench.out("out_image.img"), image);
    const Json document = bench.document();
    EXPECT_EQ(document.at("verdict"), "differs");
    EXPECT_EQ(codes_of(document), "");
}

TEST(OddTable, ThatIsSoByTheFirmware) {
    Firmware firmware = sample_firmware({.gpt = true});
    firmware.items.front() = parameter_item(
        parameter_text(
            {{"boot", 0x2000, 0x100}, {"misc", 0x2080, 0x40}, {"rootfs:grow", 0x20C0, std::nullopt}}, true),
        0x100);
    for (const Conversion& conversion : {kEmmc, kSlcNand})
        EXPECT_EQ(CheckBench(conversion, firmware).document().at("warnings"),
                  Json::array(
                      {"odd, but so by the firmware: gpt entry 2: overlaps entry 1 from sector 0x2080 on",
                       "odd, but so by the firmware: gpt entry 3: overlaps entry 1 from sector 0x20c0 on"}));
}

TEST(OddTable, ThatWasChangedIsNotOfTheFirmware) {
    const CheckBench bench(kEmmc);
    Bytes image = bench.output("out_image.img");
    put_integer_at<uint64_t>(image, kEntries + 40, get64(image, kEntries + 40) + 8);
    repair_gpt_checksums(image);
    write_file(bench.out("out_image.img"), image);
    const Json document = bench.document();
    EXPECT_EQ(part_of(document, "gpt").at("verdict"), "differs");
    EXPECT_EQ(
        document.at("warnings"),
        Json::array({"odd in the table of the target: gpt entry 2: overlaps entry 1 from sector 0x2080 on"}));
}

// ---- what was written, or not ----

/// Partitions that hold no padding.
Firmware with_full_partitions(uint32_t seed) {
    Firmware firmware = sample_firmware({.gpt = true});
    for (uint32_t i = 0; i < 6; ++i)
        firmware.items.insert(firmware.items.begin() + 3,
                              partition_item("data" + std::to_string(i), 0x2200 + i * 0x100, 0x100,
                                             patterned(0x100 * kSectorSize, seed + i)));
    firmware.item("rootfs").flash_offset = 0x3000;
    firmware.item("rootfs").data = patterned(0x100 * kSectorSize, seed + 9);
    return firmware;
}

class DiagnosisOfFirmware : public testing::TestWithParam<Conversion> {};

TEST_P(DiagnosisOfFirmware, NamesAnotherOne) {
    const CheckBench bench(GetParam(), with_full_partitions(40));
    Firmware other = with_full_partitions(60);
    other.boot.loader.entries = {{.name = "FlashData", .data = patterned(3000, 21)},
                                 {.name = "FlashBoot", .data = patterned(2048, 22)}};
    bench.pack(other);
    expect_diagnosis(bench, GetParam(), "other-firmware", "made from another firmware");
}

TEST_P(DiagnosisOfFirmware, NamesASmallOneWithMuchPadding) {
    const CheckBench bench(GetParam());
    Firmware other = sample_firmware({.gpt = true});
    for (const std::string name : {"boot", "misc", "rootfs"})
        other.item(name).data = patterned(other.item(name).data.size(), 77);
    bench.pack(other);
    expect_diagnosis(bench, GetParam(), "other-firmware", "made from another firmware");
}

TEST_P(DiagnosisOfFirmware, IsSilentAboutOneItemOfAnother) {
    const CheckBench bench(GetParam());
    Firmware other = sample_firmware({.gpt = true});
    other.item("rootfs").data = patterned(other.item("rootfs").data.size(), 77);
    bench.pack(other);
    const Json document = bench.document();
    EXPECT_EQ(document.at("verdict"), "differs");
    EXPECT_EQ(codes_of(document), "");
}

TEST_P(DiagnosisOfFirmware, IsSilentAboutWrongPadding) {
    const CheckBench bench(GetParam());
    // The data of each item stays. Some of the padding after it is changed.
    const bool image = GetParam().is_whole_device();
    const std::map<std::string, uint64_t> sectors{{"boot", 0x2000}, {"misc", 0x2080}, {"rootfs", 0x20C0}};
    for (const auto& [name, first] : sectors) {
        const uint64_t padding = name == "rootfs" ? 20001 + 5000 : 20000;
        const std::string file = image ? "out_image.img" : name + ".img";
        const uint64_t place = (image ? first * kSectorSize : 0) + padding;
        if (place + 4000 <= fs::file_size(bench.out(file)))
            bench.damage(file, place, 4000);
    }
    const Json document = bench.document({"--no-second-opinion"});
    EXPECT_EQ(document.at("verdict"), "differs");
    EXPECT_EQ(codes_of(document), "");
}

INSTANTIATE_TEST_SUITE_P(Types, DiagnosisOfFirmware, testing::ValuesIn(kFourTypes),
                         [](const auto& made) { return made.param.type; });

TEST(DiagnosisOfContent, NamesWhatIsBlank) {
    for (const Conversion& conversion : kFourTypes)
        for (const uint8_t value : {uint8_t{0}, uint8_t{0xFF}}) {
            SCOPED_TRACE(conversion.type + " " + std::to_string(value));
            const CheckBench bench(conversion);
            for (const auto& [name, bytes] : bench.outputs())
                write_file(bench.out(name), Bytes(bytes.size(), value));
            expect_diagnosis(bench, conversion, "blank", "nothing was written here");
        }
}

TEST(DiagnosisOfContent, NamesAHoleWithoutBytesBlank) {
    const CheckBench bench(kEmmc);
    const uint64_t size = fs::file_size(bench.out("out_image.img"));
    fs::resize_file(bench.out("out_image.img"), 0);
    fs::resize_file(bench.out("out_image.img"), size);
    expect_diagnosis(bench, kEmmc, "blank", "nothing was written here");
}

TEST(DiagnosisOfContent, NamesTheGoodCopyOfABootBlock) {
    const CheckBench bench(kEmmc);
    for (const auto& [damaged, good] : {std::pair{1, 2}, std::pair{2, 1}}) {
        const std::string name = "boot block, copy " + std::to_string(damaged);
        const uint64_t sector = part_of(bench.document(), name).at("first_sector");
        const uint64_t place = sector * kSectorSize + 3000;
        bench.damage("out_image.img", place);
        const Json document = bench.document();
        EXPECT_EQ(codes_of(document), "copy-good");
        EXPECT_EQ(part_of(document, name).at("note"), "copy " + std::to_string(good) + " is good");
        expect_diagnosis(bench, kEmmc, "copy-good", "another copy of what differs is good");
        bench.damage("out_image.img", place);
    }
}

TEST(DiagnosisOfContent, NamesTheGoodCopyOfAParameter) {
    const CheckBench bench(kEmmc, sample_firmware());
    const std::string name = "parameter, copy 3";
    const uint64_t sector = part_of(bench.document(), name).at("first_sector");
    bench.damage("out_image.img", sector * kSectorSize + 9);
    expect_diagnosis(bench, kEmmc, "copy-good", "another copy of what differs is good");
    EXPECT_EQ(part_of(bench.document(), name).at("note"), "copy 1 is good");
}

TEST(DiagnosisOfContent, OfAllParameterCopiesFitsAScreen) {
    const CheckBench bench(kEmmc, sample_firmware());
    const Json parts = bench.document().at("parts");
    for (const Json& part : parts)
        if (part.at("name").get<std::string>().starts_with("parameter"))
            bench.damage("out_image.img", part.at("first_sector").get<uint64_t>() * kSectorSize + 20, 30);
    const RunResult run = bench.check();
    EXPECT_EQ(run.exit_status, kDiffers);
    EXPECT_LE(split(run.out, '\n').size(), kMostLines) << run.out;
    EXPECT_NE(run.out.find("; the same in copies 2 to 8\n"), std::string::npos) << run.out;
    EXPECT_TRUE(last_line(run.out).starts_with("differs: 8 of ")) << run.out;
}

TEST(DiagnosisOfContent, EndsSoonForAFirmwareOfTerabytes) {
    SparseImage terabyte;
    terabyte.chunks = {SparseChunk::fill(0x12345678, 0x10000000)};
    Firmware firmware = with_gpt();
    firmware.item("rootfs").data = terabyte.build();
    for (const Conversion& conversion : {kEmmc, kSpiNand}) {
        SCOPED_TRACE(conversion.type);
        const CheckBench bench(conversion);
        firmware.write(bench.firmware());
        for (const auto& entry : fs::directory_iterator(bench.out_dir()))
            write_file(entry.path(), patterned(entry.file_size(), 99));
        const RunResult run = bench.check();
        EXPECT_FALSE(run.timed_out);
        EXPECT_EQ(run.exit_status, kDiffers) << run.out;
        EXPECT_NE(run.out.find("[other-firmware]\n"), std::string::npos) << run.out;
    }
}

/// rootfs takes terabytes, which its file does not have.
void expect_end_without_them(const Conversion& conversion, Firmware firmware) {
    SCOPED_TRACE(conversion.type);
    const CheckBench bench(conversion, firmware);
    SparseImage terabyte;
    terabyte.chunks = {SparseChunk::fill(0x12345678, 0x10000000)};
    firmware.item("rootfs").data = terabyte.build();
    firmware.write(bench.firmware());
    const RunResult run = bench.check();
    EXPECT_FALSE(run.timed_out);
    EXPECT_EQ(run.exit_status, kDiffers) << run.out;
}

TEST(DiagnosisOfContent, EndsSoonForTerabytesWithoutAGpt) {
    for (const Conversion& conversion : {kSpiNand, kSlcNand})
        expect_end_without_them(conversion, without_gpt());
}

TEST(DiagnosisOfContent, EndsSoonForTerabytesBeforeTheTable) {
    for (Firmware firmware : {with_gpt(), without_gpt()}) {
        std::swap(firmware.items.front(), firmware.item("rootfs"));
        ASSERT_EQ(firmware.items.front().name, "rootfs");
        for (const Conversion& conversion : {kEmmc, kSpiNand})
            expect_end_without_them(conversion, firmware);
    }
}

TEST(DiagnosisOfContent, IsSilentAboutOneWrongByte) {
    for (const Conversion& conversion : kFourTypes) {
        SCOPED_TRACE(conversion.type);
        const CheckBench bench(conversion);
        const std::string file = conversion.is_whole_device() ? "out_image.img" : "rootfs.img";
        bench.damage(file, fs::file_size(bench.out(file)) - 1);
        const Json document = bench.document();
        EXPECT_EQ(document.at("verdict"), "differs");
        EXPECT_EQ(codes_of(document), "");
    }
}

}  // namespace
