// Which items of the package are written, in which order and where.

#include "cli/sample_runs.h"
#include "cli/workbench.h"

namespace {

using namespace cli_test;
using namespace test_support;

constexpr std::size_t page_size = 2 * kib;
const Conversion emmc{"emmc", "512", "2"};

// A firmware without a GPT: the parameter item of the sample, and these behind it.
Firmware with_items(const std::vector<Item>& items) {
    Firmware firmware = sample_firmware();
    firmware.items.resize(1);
    firmware.items.insert(firmware.items.end(), items.begin(), items.end());
    return firmware;
}

Item plain_item(const std::string& name, uint32_t flash_offset, uint32_t sectors, std::size_t bytes,
                uint32_t seed) {
    return {.name = name, .part_size = sectors, .flash_offset = flash_offset, .data = patterned(bytes, seed)};
}

class ItemTable : public testing::Test {
protected:
    ItemTable() { printed.start_of_raw_run(); }

    // Starts the image: boot block copies and parameter partition.
    void lay_out(const Firmware& packed) {
        const Bytes block = boot_block(packed.boot, 1024);
        image.at(64).write(block).at(1088).write(block).at(0x2000).partition(
            sample_parameter_partition(packed, page_size), parameter_sectors);
    }

    void expect_conversion(const Firmware& packed) {
        const Workbench bench(packed);
        expect_run(bench.convert(emmc), 0, bench.echo(emmc).then(printed).success());
        expect_same_bytes(bench.output("out_image.img"), image.pad_to_block(512 * kib).bytes(),
                          "out_image.img");
    }

    Transcript printed{};
    ExpectedImage image{page_size};
};

TEST_F(ItemTable, WithTheParameterAloneIsEnough) {
    const Firmware packed = with_items({});
    lay_out(packed);
    expect_conversion(packed);
}

TEST_F(ItemTable, IsWrittenInItsOrderWhateverTheFlashOffsetsAre) {
    const Firmware packed =
        with_items({plain_item("high", 0x900, 8, 4096, 1), plain_item("low", 0x200, 8, 4096, 2)});
    lay_out(packed);
    printed.line("preparing high at 0x00002900").plain_image("high", 2);
    printed.line("preparing low at 0x00002200").plain_image("low", 2);
    image.at(0x2900).write(packed.items[1].data).at(0x2200).write(packed.items[2].data);
    expect_conversion(packed);
}

TEST_F(ItemTable, LetsALaterPartitionOverwriteAnEarlierOne) {
    const Firmware packed = with_items(
        {plain_item("wide", 0x200, 0x40, 0x40 * sector_size, 1), plain_item("over", 0x210, 8, 3000, 2)});
    lay_out(packed);
    printed.line("preparing wide at 0x00002200").plain_image("wide", 16);
    printed.line("preparing over at 0x00002210").plain_image("over", 2);
    image.at(0x2200).write(packed.items[1].data).at(0x2210).partition(packed.items[2].data, 8);
    expect_conversion(packed);
}

TEST_F(ItemTable, MayPlaceAPartitionOverTheBootBlockBecauseTheSectorWraps) {
    const Firmware packed = with_items({plain_item("wrapped", 0xFFFFE004, 8, 4096, 1)});
    lay_out(packed);
    printed.line("preparing wrapped at 0x00000004").plain_image("wrapped", 2);
    image.at(4).write(packed.items[1].data);
    expect_conversion(packed);
}

TEST_F(ItemTable, SkipsItemsThatAreNotPlacedWithoutLookingAtThem) {
    const Item unplaced_parameter{
        .name = "parameter", .flash_offset = not_placed, .data = to_bytes("12345678TYPE: GPT\n....")};
    const Firmware packed = with_items({plain_item("boot", 0x200, 8, 4096, 1), unplaced_parameter,
                                        plain_item("notes", not_placed, 0, 5000, 2)});
    lay_out(packed);
    printed.line("preparing boot at 0x00002200").plain_image("boot", 2);
    image.at(0x2200).write(packed.items[1].data);

    const Workbench bench;
    Bytes bytes = packed.build();
    for (const std::size_t i : {2U, 3U}) {  // nothing can be read there
        put32_at(bytes, packed.layout().item_records[i] + item_field::offset, 0x70000000);
    }
    write_file(bench.firmware(), bytes);
    expect_run(bench.convert(emmc), 0, bench.echo(emmc).then(printed).success());
    expect_same_bytes(bench.output("out_image.img"), image.pad_to_block(512 * kib).bytes(), "out_image.img");
}

TEST_F(ItemTable, LooksAtEmptyItemsButDoesNotWriteThem) {
    const Firmware packed =
        with_items({plain_item("empty", 0x200, 0, 0, 1), plain_item("boot", 0x200, 8, 4096, 2)});
    lay_out(packed);
    image.at(0x2200).write(packed.items[2].data);
    Bytes bytes = packed.build();
    put32_at(bytes, packed.layout().item_records[1] + item_field::offset, 0x10000000);

    Transcript expected;
    expected.start_of_raw_run(1).line("preparing boot at 0x00002200").plain_image("boot", 2);
    const Workbench bench;
    write_file(bench.firmware(), bytes);
    expect_run(bench.convert(emmc), 0, bench.echo(emmc).then(expected).success());
    expect_same_bytes(bench.output("out_image.img"), image.pad_to_block(512 * kib).bytes(), "out_image.img");
}

TEST_F(ItemTable, WritesAnEmptyParameterItem) {
    Firmware packed = with_items({});
    packed.items[0].data.clear();
    const Bytes block = boot_block(packed.boot, 1024);
    image.at(64).write(block).at(1088).write(block).at(0x2000).partition({}, parameter_sectors);
    expect_conversion(packed);
}

// The earlier one is an ordinary item, though one that nobody takes for a sparse image.
TEST_F(ItemTable, TakesTheLaterOfTwoParameterItems) {
    SparseImage sparse;
    sparse.chunks = {SparseChunk::fill(0x11223344, 1)};
    Firmware packed = with_items({});
    Item early = packed.items[0];
    early.data = sparse.build();
    early.part_size = 8;
    early.flash_offset = 0x300;
    packed.items.insert(packed.items.begin(), early);

    const Bytes block = boot_block(packed.boot, 1024);
    image.at(64).write(block).at(1088).write(block);
    image.at(0x2300).partition(early.data, 8);
    image.at(0x2000).partition(parameter_copies(packed.items[1].data, 8, 8 * page_size), parameter_sectors);
    printed = Transcript();
    printed.line("writing idblock...")
        .line("start to write partitions...gpt=0")
        .line("preparing parameter at 0x00002300")
        .plain_image("parameter", 2)
        .line("preparing parameter at 0x00002000")
        .parameter_partition();
    expect_conversion(packed);
}

TEST_F(ItemTable, EndsANameWithoutANulAfter32Bytes) {
    const std::string name = "a-name-that-takes-all-32-bytes..";
    ASSERT_EQ(name.size(), 32U);
    Item item = plain_item(name, 0x200, 8, 4096, 1);
    item.file = "the file name follows at once";
    const Firmware packed = with_items({item});
    lay_out(packed);
    printed.line("preparing " + name + " at 0x00002200").plain_image(name, 2);
    image.at(0x2200).write(packed.items[1].data);
    expect_conversion(packed);
}

TEST_F(ItemTable, MayHaveMoreThan16ItemsCountedByTheExtension) {
    std::vector<Item> items;
    for (uint32_t i = 0; i < 23; ++i) {
        items.push_back(plain_item("part" + std::to_string(i), 0x200 + 8 * i, 8, 1000 + i, i));
    }
    Firmware packed = with_items(items);
    packed.item_count_extension = 20;  // on top of 4
    lay_out(packed);
    for (std::size_t i = 1; i < packed.items.size(); ++i) {
        std::array<char, 16> place{};
        std::snprintf(place.data(), place.size(), "%08x", static_cast<unsigned>(0x2200 + 8 * (i - 1)));
        printed.line("preparing " + packed.items[i].name + " at 0x" + place.data())
            .plain_image(packed.items[i].name, 2);
        image.at(0x2200 + 8 * (i - 1)).partition(packed.items[i].data, 8);
    }
    expect_conversion(packed);

    packed.item_count_extension.reset();  // and in the fixed count alone
    expect_conversion(packed);
}

TEST_F(ItemTable, CountsWithoutTheExtensionWhenOneLetterOfItsMarkDiffers) {
    Firmware packed =
        with_items({plain_item("boot", 0x200, 8, 4096, 1), plain_item("misc", 0x300, 8, 4096, 2)});
    packed.item_count = 2;
    lay_out(packed);
    printed.line("preparing boot at 0x00002200").plain_image("boot", 2);
    image.at(0x2200).write(packed.items[1].data);
    image.pad_to_block(512 * kib);
    for (const std::string mark : {"UF", "uf", "Xf", "U "}) {
        SCOPED_TRACE(mark);
        const Workbench bench;
        Bytes bytes = packed.build();
        const std::size_t header = packed.layout().package_offset;
        put_text_at(bytes, header + package_field::count_extension_mark, mark, 2);
        put16_at(bytes, header + package_field::count_extension, 1);
        write_file(bench.firmware(), bytes);
        expect_run(bench.convert(emmc), 0, bench.echo(emmc).then(printed).success());
        expect_same_bytes(bench.output("out_image.img"), image.bytes(), "out_image.img");
    }
}

TEST_F(ItemTable, Holds583Items) {
    std::vector<Item> items;
    for (int i = 0; i < 582; ++i) {
        items.push_back({.name = "empty" + std::to_string(i), .flash_offset = not_placed});
    }
    items.back() = plain_item("last", 0x200, 8, 4096, 1);
    Firmware packed = with_items(items);
    packed.items.at(0).offset = 70000;
    lay_out(packed);
    printed.line("preparing last at 0x00002200").plain_image("last", 2);
    image.at(0x2200).write(packed.items.back().data);
    expect_conversion(packed);
}

// ---- sizes of plain partitions ----

TEST_F(ItemTable, FillsAPartitionWhoseImageIsAPageOrAByteMore) {
    const Firmware packed =
        with_items({plain_item("exact", 0x200, 12, 4096, 1), plain_item("more", 0x300, 12, 4097, 2),
                    plain_item("full", 0x400, 12, 12 * sector_size, 3), plain_item("one", 0x500, 1, 1, 4)});
    lay_out(packed);
    printed.line("preparing exact at 0x00002200").plain_image("exact", 3);
    printed.line("preparing more at 0x00002300").plain_image("more", 3);
    printed.line("preparing full at 0x00002400").plain_image("full", 3);
    printed.line("preparing one at 0x00002500").plain_image("one", 1);
    image.at(0x2200).partition(packed.items[1].data, 12);
    image.at(0x2300).partition(packed.items[2].data, 12);
    image.at(0x2400).partition(packed.items[3].data, 12);
    image.at(0x2500).partition(packed.items[4].data, 1);
    expect_conversion(packed);
}

TEST_F(ItemTable, WritesTheDataPagesAloneOfAPartitionThatGrows) {
    const Firmware packed = with_items({plain_item("exact", 0x200, grows_to_end, 4096, 1),
                                        plain_item("more", 0x300, grows_to_end, 4097, 2)});
    lay_out(packed);
    printed.line("preparing exact at 0x00002200").plain_image("exact", 2);
    printed.line("preparing more at 0x00002300").plain_image("more", 3);
    image.at(0x2200).write(packed.items[1].data).at(0x2300).write(packed.items[2].data);
    expect_conversion(packed);
}

TEST_F(ItemTable, ShowsWholePercentagesOfLargePartitions) {
    const Firmware packed = with_items(
        {plain_item("odd", 0x200, 4 * 333, 300000, 1), plain_item("hundred", 0x1000, 4 * 100, 1, 2)});
    lay_out(packed);
    printed.line("preparing odd at 0x00002200").plain_image("odd", 333);
    printed.line("preparing hundred at 0x00003000").plain_image("hundred", 100);
    image.at(0x2200).partition(packed.items[1].data, 4 * 333);
    image.at(0x3000).partition(packed.items[2].data, 4 * 100);
    expect_conversion(packed);
}

// The last partition ends at byte 4,999,168. It takes 119 pages of 2 KB to the end of the block, and 80 of 3
// KB beyond it.
TEST(Padding, ReachesTheBlockBoundaryOrGoesPastItByLessThanAPage) {
    const Workbench bench(with_items({plain_item("boot", 9164 - 8192, 600, 1, 1)}));
    for (const auto& [page_kb, size] :
         std::vector<std::pair<std::string, uint64_t>>{{"2", 5242880}, {"3", 5244928}}) {
        SCOPED_TRACE(page_kb);
        const auto result = bench.convert({"emmc", "512", page_kb});
        ASSERT_EQ(result.exit_status, 0) << result.out;
        EXPECT_EQ(fs::file_size(bench.out("out_image.img")), size);
    }
}

TEST(Padding, IsNotNeededAtABlockBoundary) {
    const Workbench bench(with_items({plain_item("boot", 0x300, 0x100, 1, 1)}));
    const auto result = bench.convert({"emmc", "128", "2"});
    ASSERT_EQ(result.exit_status, 0) << result.out;
    EXPECT_EQ(fs::file_size(bench.out("out_image.img")), 0x2400 * sector_size);
}

TEST(LargeImage, PlacesAPartitionBeyond4Gigabytes) {
    Firmware packed = with_items({plain_item("far", 0x00900000, 8, 4096, 1)});
    const Workbench bench(packed);
    Transcript expected = bench.echo(emmc);
    expected.start_of_raw_run().line("preparing far at 0x00902000").plain_image("far", 2);
    expect_run(bench.convert(emmc), 0, expected.success());

    const uint64_t start = 0x902000 * uint64_t{sector_size};
    EXPECT_EQ(fs::file_size(bench.out("out_image.img")), start + 512 * kib);
    std::ifstream image(bench.out("out_image.img"), std::ios::binary);
    image.seekg(static_cast<std::streamoff>(start));
    Bytes found(4096);
    image.read(reinterpret_cast<char*>(found.data()), static_cast<std::streamsize>(found.size()));
    expect_same_bytes(found, packed.items[1].data, "partition");
}

}  // namespace
