// Conversions that fail on the way: the line that says why, the code, and the image as far as it came.

#include "cli/sample_runs.h"
#include "cli/workbench.h"

#include <functional>

namespace {

using namespace cli_test;
using namespace test_support;

constexpr std::size_t page_size = 2 * kib;
const Conversion emmc{"emmc", "512", "2"};

struct Failure {
    std::string situation;
    std::function<Bytes()> firmware;
    Transcript printed;  // behind "writing idblock...", up to the coloured line
    std::string error;
};

void PrintTo(const Failure& failure, std::ostream* out) {
    *out << failure.situation;
}

std::string situation_of(const testing::TestParamInfo<Failure>& tested) {
    return tested.param.situation;
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
        const Firmware firmware = sample_firmware();
        Bytes bytes = firmware.build();
        bend(bytes, firmware.layout());
        return bytes;
    };
}

class Creation : public testing::TestWithParam<Failure> {};

TEST_P(Creation, Fails) {
    const Failure& failure = GetParam();
    const Workbench bench;
    write_file(bench.firmware(), failure.firmware());
    Transcript expected = bench.echo(emmc).line("writing idblock...").then(failure.printed);
    expect_run(bench.convert(emmc), creation_failed, expected.error(failure.error).failure());
    EXPECT_EQ(bench.output_names(), Names{"out_image.img"});  // never removed
}

// ---- boot block ----

// The largest stage that 16 bits can count in sectors of whole 2 KB units.
constexpr uint32_t largest_stage = 65532 * sector_size;

std::function<Bytes()> with_entry(std::size_t index, const std::function<void(BootEntry&)>& bend) {
    return bent([index, bend](Firmware& firmware) { bend(firmware.boot.loader.entries.at(index)); });
}

std::function<Bytes()> with_loader(const std::function<void(BootEntryList&)>& bend) {
    return bent([bend](Firmware& firmware) { bend(firmware.boot.loader); });
}

Transcript not_created(const std::string& code) {
    return Transcript().line("Failed to create idblock,ret=" + code);
}

const std::vector<Failure> boot_block_failures{
    {"NoLoaderEntries",
     with_loader([](BootEntryList& loader) { loader.entries.clear(); }),
     {},
     "failed to write idblock,ret=-1"},
    {"NoFlashBoot",
     with_loader([](BootEntryList& loader) { loader.entries.pop_back(); }),
     {},
     "failed to write idblock,ret=-1"},
    {"NoFlashData",
     with_loader([](BootEntryList& loader) { loader.entries.erase(loader.entries.begin()); }),
     {},
     "failed to write idblock,ret=-2"},
    {"FlashBootBehindTheCount",
     with_loader([](BootEntryList& loader) { loader.count = 1; }),
     {},
     "failed to write idblock,ret=-1"},
    {"TableOutsideTheContainer",
     with_loader([](BootEntryList& loader) { loader.table_offset = 0xFFFFFFF0; }),
     {},
     "failed to write idblock,ret=-1"},
    {"FlashBootOfMoreSectorsThan16Bits",
     with_entry(1, [](BootEntry& entry) { entry.data_size = largest_stage + 1; }),
     {},
     "failed to write idblock,ret=-1"},
    {"FlashDataOfMoreSectorsThan16Bits",
     with_entry(0, [](BootEntry& entry) { entry.data_size = largest_stage + 1; }),
     {},
     "failed to write idblock,ret=-2"},
    {"FlashBootLongerThanTheContainer",
     with_entry(1, [](BootEntry& entry) { entry.data_size = largest_stage; }), not_created("-2"),
     "failed to write idblock,ret=-4"},
    {"FlashDataLongerThanTheContainer",
     with_entry(0, [](BootEntry& entry) { entry.data_size = largest_stage; }), not_created("-4"),
     "failed to write idblock,ret=-4"},
    {"FlashBootBehindTheContainer", with_entry(1, [](BootEntry& entry) { entry.data_offset = 0x7FFFFFFF; }),
     not_created("-2"), "failed to write idblock,ret=-4"},
    {"FlashDataBehindTheContainer", with_entry(0, [](BootEntry& entry) { entry.data_offset = 0xFFFFFFFF; }),
     not_created("-4"), "failed to write idblock,ret=-4"},
    {"BothStagesBehindTheContainer", with_loader([](BootEntryList& loader) {
         for (BootEntry& entry : loader.entries) {
             entry.data_offset = 0x7FFFFFFF;
         }
     }),
     not_created("-2"), "failed to write idblock,ret=-4"},
};

INSTANTIATE_TEST_SUITE_P(BootBlock, Creation, testing::ValuesIn(boot_block_failures), situation_of);

TEST(Creation, WritesNothingOfABootBlockThatItCannotBuild) {
    for (const Failure& failure : boot_block_failures) {
        SCOPED_TRACE(failure.situation);
        const Workbench bench;
        write_file(bench.firmware(), failure.firmware());
        bench.convert(emmc);
        EXPECT_EQ(fs::file_size(bench.out("out_image.img")), 0U);
    }
}

// ---- item table ----

std::function<Bytes()> with_count(int32_t count, std::optional<uint16_t> extension = std::nullopt) {
    return bent([count, extension](Firmware& firmware) {
        firmware.item_count = count;
        firmware.item_count_extension = extension;
        firmware.items.back().data.resize(100000, 0);  // the file does not end before a large table does
    });
}

std::function<Bytes()> cut_behind_package_start(uint64_t bytes_left) {
    return bent_bytes([bytes_left](Bytes& bytes, const FirmwareLayout& where) {
        bytes.resize(where.package_offset + bytes_left);
    });
}

const std::string no_header = "failed to get header of firmware";
const std::string no_table = "failed to get extended info of firmware";
const std::string no_items = "not found any of partition items in the firmware";
const std::string no_parameter = "not found parameter in the firmware";
const std::string no_buffer = "failed to create param buffer";

const std::vector<Failure> table_failures{
    {"FileEndsBeforeTheHeader", cut_behind_package_start(0), {}, no_header},
    {"FileEndsInTheHeader", cut_behind_package_start(1931), {}, no_header},
    {"FileEndsBehindTheHeader", cut_behind_package_start(1932), {}, no_table},
    {"FileEndsInTheTable", cut_behind_package_start(2047), {}, no_table},
    {"PackageBehindTheFile",
     bent_bytes([](Bytes& bytes, const FirmwareLayout&) {
         put32_at(bytes, head_field::package_offset, 0xFFFFFFFF);
     }),
     {},
     no_header},
    {"Of584Items", with_count(584), {}, no_table},
    {"Of584ItemsWithTheExtension", with_count(584 - 65535, 65535), {}, no_table},
    {"OfAsManyItemsAs31BitsCount", with_count(0x7FFFFFFF), {}, no_table},
    {"OfMoreItemsThan31BitsCount", with_count(0x7FFFFFFF, 65535), {}, no_table},
    {"OfNoItem", with_count(0), {}, no_items},
    {"OfMinusOneItem", with_count(-1), {}, no_items},
    {"OfNoItemWithTheExtension", with_count(-20, 20), {}, no_items},
    {"WithoutParameter",
     bent([](Firmware& firmware) { firmware.items.erase(firmware.items.begin()); }),
     {},
     no_parameter},
    {"ParameterInUpperCase",
     bent([](Firmware& firmware) { firmware.items[0].name = "PARAMETER"; }),
     {},
     no_parameter},
    {"ParameterWithMoreBehindIt",
     bent([](Firmware& firmware) { firmware.items[0].name = "parameter1"; }),
     {},
     no_parameter},
    {"ParameterNotPlaced",
     bent([](Firmware& firmware) { firmware.items[0].flash_offset = not_placed; }),
     {},
     no_parameter},
    {"ParameterBehindTheCount",
     bent([](Firmware& firmware) {
         std::swap(firmware.items[0], firmware.items[1]);
         firmware.item_count = 1;
     }),
     {},
     no_parameter},
};

INSTANTIATE_TEST_SUITE_P(ItemTable, Creation, testing::ValuesIn(table_failures), situation_of);

// ---- parameter and GPT ----

std::function<Bytes()> with_parameter(const std::function<void(Item&)>& bend) {
    return bent([bend](Firmware& firmware) { bend(firmware.items.at(0)); });
}

Transcript start_of_parameter() {
    return Transcript()
        .line("start to write partitions...gpt=0")
        .line("preparing parameter at 0x00002000")
        .line("writing parameter...")
        .line("partition size is too small");
}

Transcript start_of_gpt(const std::string& reason) {
    return Transcript()
        .line("start to write partitions...gpt=1")
        .line("preparing gpt at 0x00000000")
        .line("writing gpt...")
        .line(reason);
}

std::function<Bytes()> with_text(const std::string& text) {
    return with_parameter([text](Item& item) { item.data = parameter_record(text); });
}

std::string text_with_partitions(uint32_t count) {
    std::vector<Partition> partitions;
    for (uint32_t i = 0; i < count; ++i) {
        partitions.push_back({"p" + std::to_string(i), 0x2000 + i, 1});
    }
    return parameter_text(partitions, true);
}

const std::vector<Failure> parameter_failures{
    {"LongerThanTheFile", with_parameter([](Item& item) { item.size = 0x100000; }), {}, no_buffer},
    {"AsLongAs32BitsCount", with_parameter([](Item& item) { item.size = 0xFFFFFFFF; }), {}, no_buffer},
    {"BehindTheFile",
     bent_bytes([](Bytes& bytes, const FirmwareLayout& where) {
         put32_at(bytes, where.item_records[0] + item_field::offset, 0x7FFFFFFF);
     }),
     {},
     no_buffer},
    {"InNoSector", with_parameter([](Item& item) { item.part_size = 0; }), start_of_parameter(),
     "failed to write parameter,ret=-1"},
    {"In3Pages", with_parameter([](Item& item) { item.part_size = 12; }), start_of_parameter(),
     "failed to write parameter,ret=-1"},
    {"Of17PagesIn64", with_parameter([](Item& item) { item.data.resize(16 * page_size + 1, ' '); }),
     start_of_parameter(), "failed to write parameter,ret=-1"},
    {"OfGptWithoutAPartitionList", with_text("TYPE: GPT\nCMDLINE: nothing\n"),
     start_of_gpt("failed to parse gpt parameter file"), "failed to write gpt,ret=-2"},
    {"OfGptWith129Partitions", with_text(text_with_partitions(129)),
     start_of_gpt("too many partitions for gpt"), "failed to write gpt,ret=-3"},
    {"OfGptWith1000Partitions", with_text(text_with_partitions(1000)),
     start_of_gpt("too many partitions for gpt"), "failed to write gpt,ret=-3"},
};

INSTANTIATE_TEST_SUITE_P(Parameter, Creation, testing::ValuesIn(parameter_failures), situation_of);

TEST(Creation, WritesNothingOfAGptThatHasTooManyPartitions) {
    Firmware firmware = sample_firmware();
    firmware.items[0].data = parameter_record(text_with_partitions(129));
    const Workbench bench(firmware);
    ASSERT_EQ(bench.convert(emmc).exit_status, creation_failed);
    ExpectedImage image(page_size);
    const Bytes block = boot_block(firmware.boot, 1024);
    image.at(64).write(block).at(1088).write(block);
    expect_same_bytes(bench.output("out_image.img"), image.bytes(), "out_image.img");
}

// ---- plain partitions ----

// Up to the announcement of the partition "boot".
Transcript start_of_boot() {
    return Transcript()
        .line("start to write partitions...gpt=0")
        .line("preparing parameter at 0x00002000")
        .parameter_partition()
        .line("preparing boot at 0x00002100")
        .line("writing boot...");
}

std::function<Bytes()> with_boot(std::size_t bytes, uint32_t sectors) {
    return bent([bytes, sectors](Firmware& firmware) {
        firmware.item("boot").data = patterned(bytes, 1);
        firmware.item("boot").part_size = sectors;
    });
}

Transcript too_small() {
    return start_of_boot().line("partition size is too small");
}

const std::vector<Failure> partition_failures{
    {"OfNoSector", with_boot(1, 0), too_small(), "failed to write boot,ret=-1"},
    {"APageTooSmall", with_boot(2 * page_size + 1, 8), too_small(), "failed to write boot,ret=-1"},
    {"TooSmallForASizeOf64Bits", bent_bytes([](Bytes& bytes, const FirmwareLayout& where) {
         put8_at(bytes, where.item_records[1] + item_field::size_mark, 'H');
         put32_at(bytes, where.item_records[1] + item_field::size_high, 1);
     }),
     too_small(), "failed to write boot,ret=-1"},
};

INSTANTIATE_TEST_SUITE_P(Partition, Creation, testing::ValuesIn(partition_failures), situation_of);

TEST(Creation, KeepsThePagesBeforeThoseThatTheFirmwareLacks) {
    const Firmware firmware = sample_firmware();
    const Workbench bench;
    Bytes bytes = firmware.build();
    bytes.resize(firmware.layout().item_data[3] + 5 * page_size + 100);
    write_file(bench.firmware(), bytes);

    Transcript expected = bench.echo(emmc).line("writing idblock...").then(start_of_boot());
    expected.redraw("writing boot...3%");
    for (int page = 2; page <= 32; ++page) {
        expected.redraw("writing boot..." + std::to_string(100 * page / 32) + "%");
    }
    expected.redraw("writing boot...OK")
        .line("preparing misc at 0x00002180")
        .plain_image("misc", 16)
        .line("preparing rootfs at 0x000021c0")
        .line("writing rootfs...");
    for (const char* percent : {"10%", "20%", "30%", "40%", "50%"}) {
        expected.redraw(std::string("writing rootfs...") + percent);
    }
    expected.line("failed to get data from firmware").error("failed to write rootfs,ret=-2").failure();
    expect_run(bench.convert(emmc), creation_failed, expected);

    Bytes image =
        sample_raw_image(firmware, false, ExpectedImage(page_size), page_size, 512 * kib, 1024, 1088);
    image.resize(0x21C0 * sector_size + 5 * page_size);
    expect_same_bytes(bench.output("out_image.img"), image, "out_image.img");
}

TEST(Creation, WantsOneByteMoreThanTheFirmwareHas) {
    const Firmware firmware = sample_firmware();
    const Workbench bench;
    Bytes bytes = firmware.build();
    bytes.resize(firmware.layout().item_data[3] + 20001);
    write_file(bench.firmware(), bytes);
    EXPECT_EQ(bench.convert(emmc).exit_status, 0);
    bytes.pop_back();
    write_file(bench.firmware(), bytes);
    EXPECT_EQ(bench.convert(emmc).exit_status, creation_failed);
}

// ---- memory ----

TEST(Creation, FailsWhenThereIsNoMemoryForAPage) {
    if (address_sanitizer) {
        GTEST_SKIP() << "the address sanitizer needs the address space";
    }
    const Workbench bench(sample_firmware());
    const Conversion gigabyte_pages{"emmc", "1048576", "1048576"};
    expect_run(bench.convert(gigabyte_pages, {.address_space_limit = uint64_t{256} << 20}), creation_failed,
               bench.echo(gigabyte_pages)
                   .line("writing idblock...")
                   .error("failed to write idblock,ret=-5")
                   .failure());
}

}  // namespace
