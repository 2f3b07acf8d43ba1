// Conversions that fail on the way: the lines up to the one that says why, and the output as far as it came.

#include "support/expected/boot_block.h"
#include "support/expected/image.h"
#include "support/process_limits.h"
#include "support/sparse_builder.h"
#include "support/workbench.h"

#include <functional>
#include <sys/stat.h>

namespace {

using namespace test_support;

const Conversion kEmmc;

// Sectors that stay in out_image.img, zeros but for the boot blocks.
constexpr std::size_t kBootBlocks = 1088 + 1024;

struct Failure {
    std::string situation;
    std::function<Bytes()> firmware;
    std::string printed;  // after "writing idblock...", up to the coloured line
    std::string error;
    std::size_t left = kBootBlocks;
};

std::string situation_of(const testing::TestParamInfo<Failure>& tested) {
    return tested.param.situation;
}

class FailureTest : public testing::TestWithParam<Failure> {};

TEST_P(FailureTest, HasItsLineAndKeepsWhatIsWritten) {
    const Failure& failure = GetParam();
    const Workbench bench;
    bench.pack(failure.firmware());
    bench.expect(kEmmc, kCreationFailed,
                 line("writing idblock...") + failure.printed + error_line(failure.error));
    EXPECT_EQ(bench.output_names(), Names{"out_image.img"});
    const Bytes copy = zero_padded(boot_block(sample_firmware()), 512 * kIb);
    Bytes left = ExpectedImage().write(64, copy).write(1088, copy).bytes();
    left.resize(failure.left * kSectorSize, 0);
    EXPECT_TRUE(same_bytes(bench.output("out_image.img"), left));
}

// The sample firmware, bent.
std::function<Bytes()> bent(const std::function<void(Firmware&)>& bend) {
    return [bend] {
        Firmware firmware = sample_firmware();
        bend(firmware);
        return firmware.build();
    };
}

// The sample firmware with bytes changed or cut off.
std::function<Bytes()> bent_bytes(const std::function<void(Bytes&, const FirmwareLayout&)>& bend) {
    return [bend] {
        Bytes bytes = sample_firmware().build();
        bend(bytes, sample_firmware().layout());
        return bytes;
    };
}

// The analyzer does not see that std::function frees what it holds.
// NOLINTBEGIN(clang-analyzer-cplusplus.NewDeleteLeaks)

// ---- boot block ----

// The largest stage that 16 bits can count in sectors of whole 2 KB units.
constexpr uint32_t kLargestStage = 65532 * kSectorSize;

Failure no_loader(const std::string& situation, int code, const std::function<void(BootEntryList&)>& bend) {
    return {situation, bent([bend](Firmware& firmware) { bend(firmware.boot.loader); }), "",
            "failed to write idblock,ret=" + std::to_string(code), 0};
}

// An entry that is there, but not its data: FlashData is entry 0, FlashBoot entry 1.
Failure unreadable(const std::string& situation, int reason,
                   const std::function<void(BootEntryList&)>& bend) {
    Failure failure = no_loader(situation, -4, bend);
    failure.printed = line("Failed to create idblock,ret=" + std::to_string(reason));
    return failure;
}

using Loader = BootEntryList;

const std::vector<Failure> kBootBlockFailures{
    no_loader("NoEntries", -1, [](Loader& loader) { loader.entries.clear(); }),
    no_loader("NoFlashBoot", -1, [](Loader& loader) { loader.entries[1].name = "Flashboots"; }),
    no_loader("NoFlashData", -2, [](Loader& loader) { loader.entries.erase(loader.entries.begin()); }),
    no_loader("FlashBootAfterTheCount", -1, [](Loader& loader) { loader.count = 1; }),
    no_loader("TableOutside", -1, [](Loader& loader) { loader.table_offset = 0xFFFFFFF0; }),
    no_loader("FlashBootOfTooManySectors", -1,
              [](Loader& loader) { loader.entries[1].data_size = kLargestStage + 1; }),
    no_loader("FlashDataOfTooManySectors", -2,
              [](Loader& loader) { loader.entries[0].data_size = kLargestStage + 1; }),
    unreadable("FlashBootTooLong", -2, [](Loader& loader) { loader.entries[1].data_size = kLargestStage; }),
    unreadable("FlashDataTooLong", -4, [](Loader& loader) { loader.entries[0].data_size = kLargestStage; }),
    unreadable("FlashBootOutside", -2, [](Loader& loader) { loader.entries[1].data_offset = 0x7FFFFFFF; }),
    unreadable("FlashDataOutside", -4, [](Loader& loader) { loader.entries[0].data_offset = 0xFFFFFFFF; }),
    unreadable("BothOutside", -2,
               [](Loader& loader) {
                   for (BootEntry& entry : loader.entries)
                       entry.data_offset = 0x7FFFFFFF;
               }),
};

INSTANTIATE_TEST_SUITE_P(BootBlock, FailureTest, testing::ValuesIn(kBootBlockFailures), situation_of);

// ---- item table ----

const std::string kNoHeader = "failed to get header of firmware";
const std::string kNoTable = "failed to get extended info of firmware";
const std::string kNoItems = "not found any of partition items in the firmware";
const std::string kNoParameter = "not found parameter in the firmware";
const std::string kNoBuffer = "failed to create param buffer";

Failure cut(const std::string& situation, uint64_t bytes_of_package, const std::string& error) {
    return {situation, bent_bytes([bytes_of_package](Bytes& bytes, const FirmwareLayout& where) {
                bytes.resize(where.package_offset + bytes_of_package);
            }),
            "", error};
}

Failure counted(const std::string& situation, int32_t count, std::optional<uint16_t> extension,
                const std::string& error) {
    return {situation, bent([count, extension](Firmware& firmware) {
                firmware.item_count = count;
                firmware.item_count_extension = extension;
                firmware.items.back().data.resize(100000, 0);  // a large table ends inside the file
            }),
            "", error};
}

Failure without_parameter(const std::string& situation, const std::function<void(Firmware&)>& bend) {
    return {situation, bent(bend), "", kNoParameter};
}

const std::vector<Failure> kTableFailures{
    cut("EndsBeforeTheHeader", 0, kNoHeader),
    cut("EndsAtItsFirstByte", 1, kNoHeader),
    cut("EndsInTheHeader", 1931, kNoHeader),
    cut("EndsAtTheEndOfTheHeader", 1932, kNoTable),
    cut("EndsInTheTable", 2047, kNoTable),
    {"PackageAfterTheFile", bent_bytes([](Bytes& bytes, const FirmwareLayout&) {
         put32_at(bytes, head_field::kPackageOffset, 0xFFFFFFFF);
     }),
     "", kNoHeader},
    counted("Of584Items", 584, std::nullopt, kNoTable),
    counted("Of65535Items", 65535, std::nullopt, kNoTable),
    counted("OfItemsThatWrapToALength", 0x01249249, std::nullopt, kNoTable),
    counted("Of584ItemsByTheExtension", 583, 1, kNoTable),
    counted("Of584ItemsAfterANegativeCount", 584 - 65535, 65535, kNoTable),
    counted("OfAsManyAs31BitsCount", 0x7FFFFFFF, std::nullopt, kNoTable),
    counted("OfMoreThan31BitsCount", 0x7FFFFFFF, 65535, kNoTable),
    counted("OfNoItem", 0, std::nullopt, kNoItems),
    counted("OfMinusOneItem", -1, std::nullopt, kNoItems),
    counted("OfNoItemByTheExtension", -20, 20, kNoItems),
    counted("OfMinusOneItemByTheExtension", -21, 20, kNoItems),
    counted("OfALengthBelowZero", -100, std::nullopt, kNoTable),
    counted("OfMinus65536Items", -65536, std::nullopt, kNoTable),
    counted("OfTheLeastCountButOne", INT32_MIN + 1, std::nullopt, kNoTable),
    counted("OfTheLeastCount", INT32_MIN, std::nullopt, kNoTable),
    without_parameter("NoParameter",
                      [](Firmware& firmware) { firmware.items.erase(firmware.items.begin()); }),
    without_parameter("ParameterInUpperCase",
                      [](Firmware& firmware) { firmware.items[0].name = "Parameter"; }),
    without_parameter("ParameterWithMoreAfterIt",
                      [](Firmware& firmware) { firmware.items[0].name = "parameter1"; }),
    without_parameter("ParameterNotPlaced",
                      [](Firmware& firmware) { firmware.items[0].flash_offset = kNotPlaced; }),
    without_parameter("ParameterAfterTheCount",
                      [](Firmware& firmware) {
                          std::swap(firmware.items[0], firmware.items[1]);
                          firmware.item_count = 1;
                      }),
};

INSTANTIATE_TEST_SUITE_P(ItemTable, FailureTest, testing::ValuesIn(kTableFailures), situation_of);

// With 27 bytes of it an item cannot even be asked for its header, with 28 it can.
TEST(FailureLines, NameUnreadableItemsBeforeTheMissingParameter) {
    Firmware firmware = sample_firmware();
    firmware.items.resize(1);
    firmware.items[0].name = "boot";
    firmware.md5.clear();
    for (const std::size_t size : {27U, 28U}) {
        Bytes bytes = firmware.build();
        bytes.resize(firmware.layout().item_data[0] + size);
        const Workbench bench;
        bench.pack(bytes);
        bench.expect(kEmmc, kCreationFailed,
                     line("writing idblock...") + (size == 27 ? line("failed to get sparse info") : "") +
                         error_line(kNoParameter));
    }
}

// ---- parameter and GPT ----

Failure parameter(const std::string& situation, const std::function<void(Item&)>& bend,
                  const std::string& error = kNoBuffer) {
    return {situation, bent([bend](Firmware& firmware) { bend(firmware.items[0]); }), "", error};
}

Failure small_parameter(const std::string& situation, const std::function<void(Item&)>& bend) {
    Failure failure = parameter(situation, bend, "failed to write parameter,ret=-1");
    failure.printed = line("start to write partitions...gpt=0") + preparing_line("parameter", 0x2000) +
                      line("writing parameter...") + line("partition size is too small");
    failure.left = 0x2000;
    return failure;
}

Failure gpt(const std::string& situation, const std::string& text, const std::string& reason, int code) {
    Failure failure = parameter(
        situation, [text](Item& item) { item.data = parameter_record(text); },
        "failed to write gpt,ret=" + std::to_string(code));
    failure.printed = line("start to write partitions...gpt=1") + preparing_line("gpt", 0) +
                      line("writing gpt...") + line(reason);
    return failure;
}

std::string text_with_partitions(uint32_t count) {
    std::vector<Partition> partitions;
    for (uint32_t i = 0; i < count; ++i)
        partitions.push_back({"p" + std::to_string(i), 0x2000 + i, 1});
    return parameter_text(partitions, true);
}

const std::vector<Failure> kParameterFailures{
    parameter("LongerThanTheFile", [](Item& item) { item.size = 0x100000; }),
    parameter("AsLongAs32BitsCount", [](Item& item) { item.size = 0xFFFFFFFF; }),
    {"AfterTheFile", bent_bytes([](Bytes& bytes, const FirmwareLayout& where) {
         put32_at(bytes, where.item_records[0] + item_field::kOffset, 0x7FFFFFFF);
     }),
     "", kNoBuffer},
    small_parameter("InNoSector", [](Item& item) { item.part_size = 0; }),
    small_parameter("In3Pages", [](Item& item) { item.part_size = 12; }),
    small_parameter("Of17PagesIn64", [](Item& item) { item.data.resize(16 * 2048 + 1, ' '); }),
    gpt("GptWithoutAList", "TYPE: GPT\nCMDLINE: nothing\n", "failed to parse gpt parameter file", -2),
    gpt("Gpt129Partitions", text_with_partitions(129), "too many partitions for gpt", -3),
    gpt("Gpt1000Partitions", text_with_partitions(1000), "too many partitions for gpt", -3),
};

INSTANTIATE_TEST_SUITE_P(Parameter, FailureTest, testing::ValuesIn(kParameterFailures), situation_of);

// The trailer is missing, and a byte of the last item: of both, only the item's byte is missed.
TEST(LastByte, OfTheFirmwareIsNeeded) {
    Firmware firmware = sample_firmware();
    firmware.items.resize(1);
    for (const bool parameter_alone : {false, true}) {
        const Firmware tested = parameter_alone ? firmware : sample_firmware();
        const Workbench bench;
        Bytes bytes = tested.build();
        bytes.resize(tested.layout().item_data.back() + tested.items.back().data.size());
        bench.pack(bytes);
        EXPECT_EQ(bench.call(kEmmc).status, kConverted);
        bytes.pop_back();
        bench.pack(bytes);
        const Result result = bench.call(kEmmc);
        EXPECT_EQ(result.status, kCreationFailed);
        const std::string error = parameter_alone ? kNoBuffer : "failed to write rootfs,ret=-2";
        EXPECT_EQ(result.text.substr(result.text.find("\x1b[30;41m")), error_line(error));
    }
}

// ---- partitions ----

// All that is printed before the partition "boot".
const std::string kBeforeBoot = line("start to write partitions...gpt=0") +
                                preparing_line("parameter", 0x2000) + table_lines("parameter") +
                                preparing_line("boot", 0x2100) + line("writing boot...");

// The parameter item of the sample is empty here, so that its partition holds zeros.
Failure boot_item(const std::string& situation, const std::string& reason, int code, const Item& item) {
    return {situation, bent([item](Firmware& firmware) {
                firmware.items.resize(2);
                firmware.item_alignment = 1;
                firmware.md5.clear();  // the item's data ends the file
                firmware.items[0].data.clear();
                firmware.items[1] = item;
                firmware.items[1].flash_offset = 0x100;
                firmware.items[1].name = "boot";
            }),
            kBeforeBoot + reason, "failed to write boot,ret=" + std::to_string(code), 0x2100};
}

const std::string kTooSmall = line("partition size is too small");

SparseImage sparse_of(uint32_t block_size, uint32_t blocks) {
    return {
        .block_size = block_size, .total_blocks = blocks, .chunks = {SparseChunk::raw(patterned(4096, 1))}};
}

const std::vector<Failure> kPartitionFailures{
    boot_item("OfNoSector", kTooSmall, -1, {.part_size = 0, .data = patterned(28, 1)}),
    boot_item("APageTooSmall", kTooSmall, -1, {.part_size = 8, .data = patterned(4097, 1)}),
    boot_item("TooSmallFor64Bits", kTooSmall, -1,
              {.part_size = 0x80, .data = patterned(5000, 1), .size = (uint64_t{1} << 32) + 5000}),
    boot_item("DataAfterTheFile", line("failed to get data from firmware"), -2,
              {.part_size = kGrowsToEnd, .data = patterned(28, 1), .size = uint64_t{1} << 33}),
    boot_item("SparseInNoSector", kTooSmall, -2, {.part_size = 0, .data = sparse_of(4096, 1).build()}),
    boot_item("SparseInHalf", kTooSmall, -2, {.part_size = 4, .data = sparse_of(4096, 1).build()}),
    boot_item("SparseOf12GiB", kTooSmall, -2,
              {.part_size = 0x10000, .data = sparse_of(0x80000000, 6).build()}),
};

INSTANTIATE_TEST_SUITE_P(Partition, FailureTest, testing::ValuesIn(kPartitionFailures), situation_of);

// Of the sample, the pages of rootfs before those that the file lacks.
TEST(CutFirmware, KeepsThePagesBeforeTheCut) {
    const Firmware firmware = sample_firmware();
    const Workbench bench;
    Bytes bytes = firmware.build();
    bytes.resize(firmware.layout().item_data[3] + 5 * 2048 + 100);
    bench.pack(bytes);
    const ExpectedRun whole = expected_run(firmware, kEmmc, bench.out_dir());
    const std::string half = redrawn("writing rootfs...50%");
    const std::string printed = whole.text.substr(0, whole.text.rfind(half) + half.size());
    bench.expect(kEmmc, kCreationFailed,
                 printed + line("failed to get data from firmware") +
                     error_line("failed to write rootfs,ret=-2"));
    EXPECT_TRUE(same_bytes(bench.output("out_image.img"),
                           slice(whole.files.at("out_image.img"), 0, 0x21C0 * 512 + 5 * 2048)));
}

TEST(CutFirmware, KeepsThePartitionsBeforeAFailedOne) {
    Firmware firmware = sample_firmware();
    const Workbench bench;
    const ExpectedRun whole = expected_run(firmware, kEmmc, bench.out_dir());
    firmware.items[2].part_size = 1;
    firmware.items[2].data = patterned(2049, 1);
    bench.pack(firmware);
    const std::string preparing = preparing_line("misc", 0x2180);
    bench.expect(kEmmc, kCreationFailed,
                 whole.text.substr(0, whole.text.find(preparing)) + preparing + line("writing misc...") +
                     kTooSmall + error_line("failed to write misc,ret=-1"));
    EXPECT_TRUE(
        same_bytes(bench.output("out_image.img"), slice(whole.files.at("out_image.img"), 0, 0x2180 * 512)));
}

// ---- sparse partitions ----

class SparseFailureTest : public testing::Test {
protected:
    // The sample with a sparse "boot" as its last item and last data.
    SparseFailureTest() {
        SparseImage image;
        image.chunks = {SparseChunk::raw(patterned(12288, 1)), SparseChunk::dont_care(2),
                        SparseChunk::fill(0x44332211, 3)};
        m_firmware.items.resize(2);
        m_firmware.items[1].part_size = kGrowsToEnd;
        m_firmware.items[1].data = image.build();
        m_firmware.md5.clear();
        m_firmware.item_alignment = 1;
        m_bench.pack(m_firmware);
    }

    Firmware m_firmware = sample_firmware();
    Workbench m_bench{};
};

TEST_F(SparseFailureTest, EndsInTheCodeOfWhatIsMissing) {
    const Bytes whole = m_firmware.build();
    const uint64_t start = m_firmware.layout().item_data[1];
    for (const auto& [missing, code] : {std::pair{5U, -4}, std::pair{4U, -6}, std::pair{1000U, -5}}) {
        SCOPED_TRACE(missing);
        Bytes bytes = whole;
        bytes.resize(bytes.size() - missing);
        const Bytes image = slice(bytes, start, bytes.size() - start);
        const SparseExpansion expansion = expand_sparse(image, 2048);
        ASSERT_EQ(expansion.status, code);
        m_bench.pack(bytes);
        m_bench.expect(kEmmc, kCreationFailed,
                       line("writing idblock...") + kBeforeBoot.substr(0, kBeforeBoot.rfind("writing boot")) +
                           sparse_lines("boot", image, 2048, 0, code) +
                           error_line("failed to write boot,ret=" + std::to_string(code)));
        EXPECT_TRUE(same_bytes(m_bench.output("unsparse_tmp.bin"), expansion.image));
        EXPECT_EQ(fs::file_size(m_bench.out("out_image.img")), 0x2100 * kSectorSize);
    }
    m_bench.pack(m_firmware);  // the next run is whole
    m_bench.expect(kEmmc, expected_run(m_firmware, kEmmc, m_bench.out_dir()));
}

TEST_F(SparseFailureTest, NeedsItsTemporaryFile) {
    const fs::path temporary = m_bench.out("unsparse_tmp.bin");
    std::vector<Obstacle> obstacles = kObstacles;
    obstacles.push_back({"the open output: ", EBUSY, [](const fs::path& file, const fs::path&) {
                             fs::create_symlink("out_image.img", file);
                         }});
    obstacles.push_back({"a pipe: ", ESPIPE, [](const fs::path& file, const fs::path&) {
                             ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);
                         }});
    for (const Obstacle& obstacle : obstacles) {
        m_bench.expect_blocked(obstacle, temporary, kEmmc, kCreationFailed,
                               line("writing idblock...") + kBeforeBoot +
                                   not_created(temporary, obstacle.error) +
                                   error_line("failed to write boot,ret=-3"));
        EXPECT_EQ(fs::file_size(m_bench.out("out_image.img")), 0x2100 * kSectorSize)
            << "what is written stays";
    }
    EXPECT_TRUE(same_bytes(read_file(m_bench.firmware()), m_firmware.build()));
}

// ---- the output image ----

TEST(OutputImage, ThatCannotBeCreatedEndsTheRun) {
    const Firmware firmware = sample_firmware();
    const Workbench bench(firmware);
    const fs::path image = bench.out("out_image.img");
    for (const Obstacle& obstacle : kObstacles)
        for (const std::string type : {"emmc", "spinor"})
            bench.expect_blocked(obstacle, image, {.type = type}, kInitFailed,
                                 not_created(image, obstacle.error));
    EXPECT_TRUE(same_bytes(read_file(bench.firmware()), firmware.build()));
}

// ---- the firmware as its own output ----

// Firmware and output directory may be written in several ways; the line names the output as it was written.
TEST(OwnFirmware, IsSeenThroughEverySpelling) {
    const Firmware firmware = sample_firmware();
    Workbench bench;
    const std::string out = bench.out_dir();
    firmware.write(bench.out("out_image.img"));
    fs::create_directory_symlink("out", bench.directory() / "link");
    fs::create_symlink("out/out_image.img", bench.directory() / "fw.img");
    for (const std::string& spelling :
         {out, out + "/.", out + "/../out", bench.directory().string() + "/link"}) {
        for (const auto& [from, to] :
             std::map<std::string, std::string>{{spelling + "/out_image.img", out},
                                                {out + "/out_image.img", spelling},
                                                {bench.firmware().string(), spelling}}) {
            SCOPED_TRACE(from + " to " + to);
            EXPECT_EQ(output_of([from = from, to = to] {
                          EXPECT_EQ(convert_by_call(kEmmc, from, to), kInitFailed);
                      }),
                      not_created(to + "/out_image.img", EBUSY));
            EXPECT_TRUE(same_bytes(bench.output("out_image.img"), firmware.build()));
        }
    }
}

// NOLINTEND(clang-analyzer-cplusplus.NewDeleteLeaks)

}  // namespace
