// The files of the two NAND types: their names, files that cannot be created, and a spare area that is too
// small.

#include "support/expected/image.h"
#include "support/sparse_builder.h"
#include "support/workbench.h"

namespace {

using namespace test_support;

Firmware small_sample() {
    Firmware firmware = sample_firmware();
    firmware.items[0].part_size = 64;
    return firmware;
}

class NandFilesTest : public testing::TestWithParam<std::string> {
protected:
    // The run fails after these lines.
    void expect_failure(const std::string& text) const { m_bench.expect(m_nand, kCreationFailed, text); }

    // All that is printed before the file is created.
    std::string before(const std::string& name) const {
        const std::string text = expected_run(m_firmware, m_nand, m_bench.out_dir()).text;
        return name == "idblock" ? line("writing idblock...")
                                 : text.substr(0, text.find("preparing " + name + " saving"));
    }

    std::string refused(const std::string& name, int error) const {
        return before(name) + not_created(m_bench.out_dir().string() + "/" + name + ".img", error) +
               error_line(name == "idblock" ? "failed to write idblock,ret=-3" : "failed to prepare " + name);
    }

    // Packs the firmware as it has become, and converts it.
    void expect_converted() const {
        m_bench.pack(m_firmware);
        m_bench.expect(m_nand, expected_run(m_firmware, m_nand, m_bench.out_dir()));
    }

    Firmware m_firmware = small_sample();
    Workbench m_bench{m_firmware};
    Conversion m_nand{GetParam(), "16", "2", "64"};
};

INSTANTIATE_TEST_SUITE_P(Types, NandFilesTest, testing::Values("spinand", "slc"),
                         [](const testing::TestParamInfo<std::string>& tested) { return tested.param; });

TEST_P(NandFilesTest, MustBeCreated) {
    for (const std::string name : {"idblock", "parameter", "boot", "rootfs"}) {
        const fs::path file = m_bench.out(name + ".img");
        for (const Obstacle& obstacle : kObstacles)
            m_bench.expect_blocked(obstacle, file, m_nand, kCreationFailed, refused(name, obstacle.error));
    }
    EXPECT_EQ(m_bench.output_names(), (Names{"boot.img", "idblock.img", "misc.img", "parameter.img"}));
    EXPECT_TRUE(same_bytes(read_file(m_bench.firmware()), m_firmware.build()));
}

TEST_P(NandFilesTest, MustBeCreatedForTheGpt) {
    m_bench.pack(sample_firmware({.gpt = true}));
    for (const Obstacle& obstacle : kObstacles)
        m_bench.expect_blocked(obstacle, m_bench.out("gpt.img"), m_nand, kCreationFailed,
                               opening_lines(0, true) + not_created(m_bench.out("gpt.img"), obstacle.error) +
                                   error_line("failed to prepare gpt"));
}

TEST_P(NandFilesTest, NeedTheirDirectory) {
    fs::remove(m_bench.out_dir());
    expect_failure(refused("idblock", ENOENT));
}

TEST_P(NandFilesTest, DoNotLeaveTheDirectory) {
    const std::string text = before("boot");
    fs::create_directory(m_bench.out("sub"));
    for (const std::string name :
         {"../escaped", "/escaped", "sub/boot", "sub/", "boot/", "./boot", "a/../b"}) {
        SCOPED_TRACE(name);
        m_firmware.items[1].name = name;
        m_bench.pack(m_firmware);
        expect_failure(text + not_created(m_bench.out_dir().string() + "/" + name + ".img", EINVAL) +
                       error_line("failed to prepare " + name));
        EXPECT_EQ(m_bench.output_names(), (Names{"idblock.img", "parameter.img", "sub"}));
        EXPECT_EQ(names_in(m_bench.directory()), (Names{"fw.img", "out"}));
        EXPECT_TRUE(fs::is_empty(m_bench.out("sub")));
    }
}

TEST_P(NandFilesTest, AreFoundInADirectoryWithAndWithoutASlash) {
    const ExpectedRun expected = expected_run(m_firmware, m_nand, m_bench.out_dir());
    for (const std::string end : {"/", "//"}) {
        const std::string out = m_bench.out_dir().string() + end;
        EXPECT_EQ(output_of([&] { EXPECT_EQ(convert_by_call(m_nand, m_bench.firmware(), out), 0); }).size(),
                  expected.text.size() + 4 * (end.size() - 1));
        m_bench.expect_files(expected.files);
    }
}

TEST_P(NandFilesTest, AreWrittenWhateverSizeAndPlaceSay) {
    const ExpectedRun expected = expected_run(m_firmware, m_nand, m_bench.out_dir());
    m_firmware.items[1].part_size = 0;
    m_firmware.items[1].flash_offset = 0xFFFFFFFE;
    m_bench.pack(m_firmware);
    m_bench.expect(m_nand, expected);
}

TEST_P(NandFilesTest, OfOneNameReplaceEachOther) {
    m_firmware.items[1].data = patterned(30 * kIb, 1);
    m_firmware.items[2].name = "boot";
    expect_converted();
}

TEST_P(NandFilesTest, AreNamedAsTheItemsStand) {
    m_firmware.items[1].name = " a name:with .things ";
    m_firmware.items[2].name = "";
    m_firmware.items[3].name = "..";
    expect_converted();
    EXPECT_EQ(m_bench.output_names(),
              (Names{" a name:with .things .img", "...img", ".img", "idblock.img", "parameter.img"}));
}

TEST_P(NandFilesTest, ThatEndAtABlockBoundaryAreNotPadded) {
    m_firmware.items[1].data = patterned(16 * kIb, 1);
    m_firmware.items[2].data = patterned(16 * kIb + 1, 2);
    expect_converted();
    const uint64_t pages = fs::file_size(m_bench.out("misc.img")) / 16;
    EXPECT_EQ(fs::file_size(m_bench.out("boot.img")), 8 * pages);
}

TEST_P(NandFilesTest, KeepThePagesBeforeACut) {
    const ExpectedRun whole = expected_run(m_firmware, m_nand, m_bench.out_dir());
    Bytes bytes = m_firmware.build();
    bytes.resize(m_firmware.layout().item_data[1] + 2 * 2048 + 10);
    m_bench.pack(bytes);
    std::string text = before("boot").replace(0, opening_lines().size(), opening_lines(2));
    expect_failure(text + preparing_line("boot", m_bench.out_dir()) + line("writing boot...") +
                   redrawn("writing boot...33%") + redrawn("writing boot...66%") +
                   line("failed to get data from firmware") + error_line("failed to write boot,ret=-2"));
    const std::size_t page = GetParam() == "slc" ? 2112 : 2048;
    EXPECT_TRUE(same_bytes(m_bench.output("boot.img"), slice(whole.files.at("boot.img"), 0, 2 * page)));
}

TEST_P(NandFilesTest, StayEmptyForAParameterPartitionThatIsTooSmall) {
    m_firmware.items[0].part_size = 15;
    m_firmware.items[0].data.resize(2049, ' ');
    m_bench.pack(m_firmware);
    expect_failure(opening_lines() + preparing_line("parameter", m_bench.out_dir()) +
                   line("writing parameter...") + line("partition size is too small") +
                   error_line("failed to write parameter,ret=-1"));
    EXPECT_EQ(m_bench.output("parameter.img"), Bytes());
}

// ---- sparse and large partitions ----

// The parameter partition holds four copies; rootfs is sparse: 18,000 bytes, of which the chunks write
// 17,500.
TEST(Partitions, OfEveryKindGoToEveryType) {
    SparseImage rootfs{.block_size = 1000, .chunks = {}};
    rootfs.chunks = {SparseChunk::raw(patterned(7000, 41), 1000),
                     SparseChunk::dont_care(5),
                     SparseChunk::crc(0x12345678),
                     SparseChunk::fill(0x5A5A5A5A, 3),
                     SparseChunk::unknown(0xCAC5, {}),
                     SparseChunk::raw(patterned(2500, 42), 1000)};
    Firmware firmware = sample_firmware();
    firmware.items[0].part_size = 60 * 4;
    firmware.items[0].data.resize(9 * 2048, ' ');
    firmware.items[1].part_size = 300;
    firmware.items[1].data = rootfs.build();
    firmware.items[3].data = rootfs.build();
    rootfs.magic ^= 1;  // not a sparse image
    firmware.items[2].data = rootfs.build();
    firmware.items[2].part_size = 64;
    for (const Conversion& conversion :
         {Conversion{"emmc", "512", "2"}, Conversion{"spinor", "4", "1"}, Conversion{"emmc", "5", "3"},
          Conversion{"emmc", "64", "16"}, Conversion{"emmc", "64", "4", "", true},
          Conversion{"spinand", "128", "2"}, Conversion{"spinand", "64", "3", "", true},
          Conversion{"slc", "24", "2", "64"}, Conversion{"slc", "24", "4", "224", true}}) {
        SCOPED_TRACE(testing::PrintToString(conversion));
        expect_converted(firmware, conversion);
    }
}

// ---- the text of a GPT ----

TEST(GptText, BecomesTheTable) {
    using namespace std::string_literals;
    Firmware firmware = sample_firmware();
    firmware.items.resize(1);
    firmware.items[0].flash_offset = 0x3000;
    firmware.items[0].data = parameter_record(
        "#TYPE: MBR\r\nmtdparts of nothing\r\n type:gpt\r\n"
        "CMDLINE: "
        "xmtdparts=a,b:0x800@0x4000(boot:bootable),0x10@0x8000(B:x-BootAble,grow),0x10@0x9000(a\xC3),"
        "nonsense,-@0x10000(Data:GROW)\nmtdparts=c:0x1@0x2(two)\nuuid: dATA = "
        "00112233-445566778899AABBCCDDEEFF \n");
    const GptEntries entries{{{.name = "boot\0bootable"s, .first = 0x4000, .last = 0x47FF, .attributes = 4},
                              {.name = "a\xC3", .first = 0x9000, .last = 0x900F},
                              {.name = "Data\0GROW"s,
                               .first = 0x10000,
                               .last = kLastUsableSector,
                               .guid = Bytes{0x33, 0x22, 0x11, 0x00, 0x55, 0x44, 0x77, 0x66, 0x88, 0x99, 0xAA,
                                             0xBB, 0xCC, 0xDD, 0xEE, 0xFF}}}};
    expect_converted(firmware, {"spinor", "4", "2"}, entries);
    expect_converted(firmware, {"spinand", "1", "3"}, entries);
}

// ---- spare area ----

TEST(SpareArea, ThatIsTooSmallDropsEveryPageWithALine) {
    SparseImage sparse;
    sparse.block_size = 1000;
    sparse.chunks = {SparseChunk::raw(patterned(7000, 41), 1000), SparseChunk::dont_care(2)};
    Firmware firmware = sample_firmware();
    firmware.items[3].data = sparse.build();
    const auto dropped = [](int pages) {
        std::string lines;
        for (int page = 0; page < pages; ++page)
            lines += error_line("size of oob is not enough");
        return lines;
    };
    for (const std::string spare : {"1", "32", "63"}) {
        SCOPED_TRACE(spare);
        const Workbench bench(firmware);
        // One line for every page that is not written, in front of the percentage that the page comes to. A
        // block has eight pages; the lines of the fill pages follow at each end.
        const auto pages = [&](const std::string& name, int count) {
            std::string lines;
            for (int page = 1; page <= count; ++page)
                lines += dropped(1) +
                         redrawn("writing " + name + "..." + std::to_string(100 * page / count) + "%");
            return lines + redrawn("writing " + name + "...OK") + dropped(8 - count);
        };
        const fs::path out = bench.out_dir();
        std::string expected = line("writing idblock...") + dropped(4 + 4) +
                               line("start to write partitions...gpt=0") + preparing_line("parameter", out) +
                               line("writing parameter...") + dropped(64) + redrawn("writing parameter...OK");
        expected += preparing_line("boot", out) + line("writing boot...") + pages("boot", 3);
        expected += preparing_line("misc", out) + line("writing misc...") + pages("misc", 1);
        expected += preparing_line("rootfs", out) + line("writing rootfs...") + line("extracting rootfs...");
        for (const int percent : {22, 45, 68, 77, 100})  // 2,048 bytes thrice, 856, 2,000 of 9,000
            expected += redrawn("extracting... rootfs..." + std::to_string(percent) + "%");
        expected += line("") + pages("rootfs", 5) + line("creating programming image ok.");
        bench.expect({"slc", "16", "2", spare}, kConverted, expected);
        EXPECT_EQ(bench.outputs(), (Files{{"boot.img", {}},
                                          {"idblock.img", {}},
                                          {"misc.img", {}},
                                          {"parameter.img", {}},
                                          {"rootfs.img", {}}}));
    }
}

TEST(SpareArea, OfAByteLessIsNotEnough) {
    const Workbench bench(sample_firmware());
    for (const auto& [page_kb, spare] : std::vector<std::pair<std::string, std::string>>{
             {"1", "31"}, {"3", "95"}, {"4", "127"}, {"8", "255"}}) {
        SCOPED_TRACE(page_kb);
        const Result result = bench.call({"slc", "96", page_kb, spare});
        EXPECT_EQ(result.status, kConverted);
        EXPECT_NE(result.text.find(error_line("size of oob is not enough")), std::string::npos);
        EXPECT_EQ(fs::file_size(bench.out("rootfs.img")), 0U);
    }
}

}  // namespace
