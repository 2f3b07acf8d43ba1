// Which items of the package are written, in which order, where, and by which writer.

#include "support/expected/boot_block.h"
#include "support/expected/image.h"
#include "support/expected/parameter.h"
#include "support/sparse_builder.h"
#include "support/workbench.h"

namespace {

using namespace test_support;

const Conversion kEmmc;

Item plain(const std::string& name, uint32_t flash_offset, uint32_t sectors, std::size_t bytes,
           uint32_t seed) {
    return partition_item(name, flash_offset, sectors, patterned(bytes, seed));
}

// A firmware without a GPT: a parameter item, and these after it.
Firmware with_items(const std::vector<Item>& items) {
    Firmware firmware = sample_firmware();
    firmware.items.resize(1);
    firmware.items[0].part_size = 32;
    firmware.items.insert(firmware.items.end(), items.begin(), items.end());
    return firmware;
}

// Items that are not placed, up to so many items in all.
void fill_up(Firmware& firmware, std::size_t count) {
    while (firmware.items.size() < count)
        firmware.items.push_back({.name = "filler", .flash_offset = kNotPlaced});
}

// The image of a conversion that prints what the model does.
Bytes image_of(const Firmware& firmware) {
    const Workbench bench(firmware);
    bench.expect(kEmmc, expected_run(firmware, kEmmc, bench.out_dir()));
    return bench.output("out_image.img");
}

Bytes at_sector(const Bytes& image, std::size_t sector, std::size_t size) {
    return slice(image, sector * kSectorSize, size);
}

// ---- order and place ----

TEST(ItemTable, MayHoldTheParameterAlone) {
    const Firmware firmware = with_items({});
    ExpectedImage image;
    const Bytes copy = zero_padded(boot_block(firmware), 512 * kIb);
    image.write(64, copy).write(1088, copy);
    image.write(0x2000, parameter_pages(firmware.items[0].data, 2048, 8, 8, 1)).pad_to_block(512 * kIb);
    EXPECT_TRUE(same_bytes(image_of(firmware), image.bytes()));
}

TEST(ItemTable, IsWrittenInItsOrder) {
    const Firmware firmware = with_items({plain("high", 0x900, 8, 4096, 1), plain("low", 0x200, 8, 4096, 2)});
    const Bytes image = image_of(firmware);
    EXPECT_EQ(at_sector(image, 0x2900, 4096), patterned(4096, 1));
    EXPECT_EQ(at_sector(image, 0x2200, 4096), patterned(4096, 2));
}

TEST(ItemTable, LaterPartitionsOverwriteEarlierOnes) {
    const Bytes image = image_of(with_items(
        {plain("wide", 64, 80, 40960, 1), plain("over", 80, 4, 2048, 2), plain("end", 142, 8, 4096, 3)}));
    EXPECT_EQ(at_sector(image, 0x2040, 16 * 512), slice(patterned(40960, 1), 0, 16 * 512));
    EXPECT_EQ(at_sector(image, 0x2050, 2048), patterned(2048, 2));
    EXPECT_EQ(at_sector(image, 0x2054, 58 * 512), slice(patterned(40960, 1), 20 * 512, 58 * 512));
    EXPECT_EQ(at_sector(image, 0x208E, 4096), patterned(4096, 3));
}

TEST(ItemTable, SectorSumMayWrapToTheStart) {
    for (const uint32_t sector : {0U, 4U}) {
        const Bytes image = image_of(with_items({plain("boot", 0xFFFFE000 + sector, 4, 2048, 1)}));
        EXPECT_EQ(at_sector(image, sector, 2048), patterned(2048, 1));
    }
}

TEST(ItemTable, PartitionMayOverwriteABootBlockOfAGptImage) {
    Firmware firmware = sample_firmware({.gpt = true});
    firmware.items[1].flash_offset = 60;
    expect_converted(firmware, kEmmc, sample_gpt());
}

TEST(ItemTable, PartitionMayLieBeyond4Gigabytes) {
    const Workbench bench(with_items({plain("far", 0x00900000, 8, 4096, 1)}));
    bench.expect(kEmmc, kConverted,
                 opening_lines() + preparing_line("parameter", 0x2000) + table_lines("parameter") +
                     preparing_line("far", 0x902000) + writing_lines("far", 2) +
                     line("creating programming image ok."));
    const uint64_t start = 0x902000 * uint64_t{kSectorSize};
    EXPECT_EQ(fs::file_size(bench.out("out_image.img")), start + 512 * kIb);
    EXPECT_TRUE(same_bytes(read_file_at(bench.out("out_image.img"), start, 4096), patterned(4096, 1)));
}

// ---- which items are written ----

TEST(ItemTable, ItemsThatAreNotPlacedAreNotLookedAt) {
    const Item parameter{
        .name = "parameter", .flash_offset = kNotPlaced, .data = to_bytes("12345678TYPE: GPT\n....")};
    const Firmware firmware =
        with_items({plain("boot", 0x200, 8, 4096, 1), parameter, plain("notes", kNotPlaced, 0, 5000, 2)});
    Bytes bytes = firmware.build();
    for (const std::size_t i : {2U, 3U})  // nothing can be read there
        put32_at(bytes, firmware.layout().item_records[i] + item_field::kOffset, 0x70000000);
    const Workbench bench;
    bench.pack(bytes);
    bench.expect(kEmmc, expected_run(firmware, kEmmc, bench.out_dir()));
}

TEST(ItemTable, EmptyItemsAreLookedAtButNotWritten) {
    const Firmware firmware = with_items({plain("empty", 0x200, 64, 0, 1), plain("boot", 0x200, 8, 4096, 2)});
    ExpectedRun expected = expected_run(firmware, kEmmc, {});
    const Workbench bench(firmware);
    bench.expect(kEmmc, expected);

    Bytes bytes = firmware.build();
    put32_at(bytes, firmware.layout().item_records[1] + item_field::kOffset, 0xFFFFFF00);
    bench.pack(bytes);
    expected.text.replace(0, opening_lines().size(), opening_lines(1));
    bench.expect(kEmmc, expected);
}

TEST(ItemTable, EmptyParameterItemIsWritten) {
    Firmware firmware = with_items({});
    firmware.items[0].data.clear();
    EXPECT_EQ(at_sector(image_of(firmware), 0x2000, 8 * 2048), Bytes(8 * 2048, 0));
}

TEST(ItemTable, ItemsAfterTheCountAreNotLookedAt) {
    Firmware firmware = with_items({});
    const Workbench bench;
    const ExpectedRun one = expected_run(firmware, kEmmc, bench.out_dir());
    firmware.items.push_back(plain("boot", 64, 4, 7, 1));
    for (const auto& [count, expected] :
         {std::pair{1, one}, std::pair{2, expected_run(firmware, kEmmc, bench.out_dir())}}) {
        firmware.item_count = count;
        bench.pack(firmware);
        bench.expect(kEmmc, expected);
    }
}

// ---- the parameter item ----

TEST(ParameterItem, HasExactlyThatName) {
    const Bytes image = image_of(with_items(
        {plain("Parameter", 64, 4, 7, 1), plain("parameter2", 68, 4, 7, 2), plain("paramete", 72, 4, 7, 3)}));
    for (const uint32_t i : {1U, 2U, 3U})
        EXPECT_EQ(at_sector(image, 0x203C + 4 * i, 7), patterned(7, i));
}

// The earlier one is an ordinary item, though one that nobody takes for a sparse image.
TEST(ParameterItem, IsTheLaterOfTwo) {
    const Bytes sparse = SparseImage{.chunks = {SparseChunk::fill(0x11223344, 1)}}.build();
    Firmware firmware = with_items({});
    firmware.items.insert(firmware.items.begin(),
                          {.name = "parameter", .part_size = 8, .flash_offset = 64, .data = sparse});
    const Bytes image = image_of(firmware);
    EXPECT_EQ(at_sector(image, 0x2040, sparse.size()), sparse);
    EXPECT_EQ(at_sector(image, 0x2000, firmware.items[1].data.size()), firmware.items[1].data);
}

TEST(ParameterItem, ThatIsNotPlacedReplacesNone) {
    Firmware firmware = with_items({{.name = "parameter", .flash_offset = kNotPlaced, .data = Bytes(50, 7)}});
    EXPECT_EQ(at_sector(image_of(firmware), 0x2000, firmware.items[0].data.size()), firmware.items[0].data);
}

// ---- names ----

TEST(ItemName, MayFillItsField) {
    Item item = plain("a-name-that-takes-all-32-bytes..", 0x200, 8, 4096, 1);
    ASSERT_EQ(item.name.size(), 32U);
    item.file = "the file name follows at once";
    image_of(with_items({item}));
}

// ---- how many items ----

// The parameter, items that are not placed, and a partition at the end: `count` in all.
Firmware firmware_of(std::size_t count) {
    Firmware firmware = with_items({});
    fill_up(firmware, count - 1);
    firmware.items.push_back(plain("last", 64, 4, 7, 1));
    return firmware;
}

TEST(ItemCount, MayLeadBeyondThePackageHeader) {
    for (const std::size_t count : {16U, 17U, 18U, 35U, 36U, 582U, 583U})
        image_of(firmware_of(count));
}

// 583 records that are all zero but the first: they are empty, and nothing is read after the buffer.
TEST(ItemCount, Of583EndsWithTheBuffer) {
    Firmware firmware = with_items({});
    firmware.items[0].offset = 131072;
    firmware.item_count = 583;
    image_of(firmware);
}

TEST(ItemCount, IsTheSumWithItsExtension) {
    Firmware firmware = firmware_of(21);
    for (const uint16_t extension : {uint16_t{0}, uint16_t{20}, uint16_t{0x8000}, uint16_t{0xFFFF}}) {
        firmware.item_count_extension = extension;  // the fixed count, even below zero, makes up for it
        image_of(firmware);
    }
}

TEST(ItemCount, NeedsBothLettersBeforeTheExtension) {
    Firmware firmware = firmware_of(3);
    firmware.item_count = 2;
    Bytes bytes = firmware.build();
    const std::size_t header = firmware.layout().package_offset;
    put16_at(bytes, header + package_field::kCountExtension, 1);
    firmware.items.pop_back();
    for (const std::string mark : {"uf", "UF", "Ug", "Xf", "U "}) {
        SCOPED_TRACE(mark);
        put_text_at(bytes, header + package_field::kCountExtensionMark, mark, 2);
        const Workbench bench;
        bench.pack(bytes);
        bench.expect(kEmmc, expected_run(firmware, kEmmc, bench.out_dir()));
    }
}

// ---- sizes of plain partitions ----

TEST(PlainPartition, TakesThePagesOfItsSectors) {
    const Bytes image =
        image_of(with_items({plain("exact", 0x200, 12, 4096, 1), plain("more", 0x300, 12, 4097, 2),
                             plain("full", 0x400, 12, 6144, 3), plain("one", 0x500, 1, 1, 4)}));
    EXPECT_EQ(at_sector(image, 0x2200, 6144), zero_padded(patterned(4096, 1), 6144));
    EXPECT_EQ(at_sector(image, 0x2300, 6144), zero_padded(patterned(4097, 2), 6144));
    EXPECT_EQ(at_sector(image, 0x2400, 6144), patterned(6144, 3));
}

TEST(PlainPartition, ThatGrowsTakesItsDataPages) {
    image_of(with_items(
        {plain("exact", 0x200, kGrowsToEnd, 4096, 1), plain("more", 0x300, kGrowsToEnd, 4097, 2)}));
}

TEST(PlainPartition, ShowsWholePercentages) {
    image_of(with_items({plain("odd", 0x200, 4 * 333, 300000, 1), plain("hundred", 0x1000, 4 * 100, 1, 2)}));
}

// The last partition ends at byte 4,999,168: 119 pages of 2 KB before the end of the block, 80 of 3 KB go
// past it.
TEST(Padding, EndsAtTheBlockOrGoesPastItByLessThanAPage) {
    const Workbench bench(with_items({plain("boot", 9164 - 8192, 600, 1, 1)}));
    for (const auto& [conversion, size] : {std::pair{Conversion{"emmc", "512", "2"}, 5242880U},
                                           std::pair{Conversion{"emmc", "512", "3"}, 5244928U}}) {
        EXPECT_EQ(bench.call(conversion).status, kConverted);
        EXPECT_EQ(fs::file_size(bench.out("out_image.img")), size);
    }
}

TEST(Padding, IsNotNeededAtABlockBoundary) {
    const Workbench bench(with_items({plain("boot", 0x300, 0x100, 1, 1)}));
    EXPECT_EQ(bench.call({"emmc", "128", "2"}).status, kConverted);
    EXPECT_EQ(fs::file_size(bench.out("out_image.img")), 0x2400 * kSectorSize);
}

// ---- sparse items ----

// A sparse image of one block; written as it stands it would be shorter.
Bytes sparse_block() {
    return SparseImage{.chunks = {SparseChunk::fill(0x11223344, 1)}}.build();
}

// Data that the sparse writer takes for a header of one block without chunks: it writes zeros in its place.
Bytes data_like_a_header() {
    Bytes data = patterned(4096, 32);
    put32_at(data, sparse_field::kBlockSize, 4096);
    put32_at(data, sparse_field::kTotalBlocks, 1);
    put32_at(data, sparse_field::kTotalChunks, 0);
    return data;
}

TEST(SparseItem, IsExpanded) {
    const Bytes image = image_of(
        with_items({{.name = "system", .part_size = 16, .flash_offset = 64, .data = sparse_block()}}));
    EXPECT_EQ(get32(image, 0x2040 * 512), 0x11223344U);
    EXPECT_EQ(get32(image, 0x2040 * 512 + 4092), 0x11223344U);
    EXPECT_TRUE(all_bytes_are(image, 0, 0x2048 * 512, 4096));
}

// Items 32 apart share a mark: those 32 before or after a sparse one are taken for sparse, those 31 or 33 are
// not.
TEST(SparseItem, SharesItsMarkWithThose32PlacesAway) {
    for (const std::size_t sparse : {0U, 32U}) {
        SCOPED_TRACE(sparse);
        Firmware firmware = with_items({});
        firmware.items.insert(firmware.items.begin(), {.name = "first", .part_size = 8, .flash_offset = 64});
        firmware.items.push_back({.name = "second", .part_size = 8, .flash_offset = 96});
        fill_up(firmware, 31);
        firmware.items.push_back({.name = "31", .part_size = 8, .flash_offset = 128});
        firmware.items.push_back({.name = "32", .part_size = 8, .flash_offset = 160});
        firmware.items.push_back({.name = "33", .part_size = 8, .flash_offset = 192});
        for (const std::size_t i : {0U, 2U, 31U, 32U, 33U})
            firmware.items[i].data = i == sparse ? sparse_block() : data_like_a_header();
        const Workbench bench(firmware);
        const Result result = bench.call(kEmmc);
        EXPECT_EQ(result.status, kConverted);
        const std::string other = sparse == 0 ? "32" : "first";
        EXPECT_NE(result.text.find(sparse_lines(other, std::vector<uint64_t>{}, 4096, 2)), std::string::npos);
        const Bytes image = bench.output("out_image.img");
        EXPECT_EQ(at_sector(image, sparse == 0 ? 0x20A0 : 0x2040, 4096), Bytes(4096, 0));
        for (const std::size_t sector : {0x2060U, 0x2080U, 0x20C0U})
            EXPECT_EQ(at_sector(image, sector, 4096), data_like_a_header()) << sector;
    }
}

TEST(SparseItem, DoesTheParameterItem32PlacesAwayNoHarm) {
    Firmware firmware = with_items({});
    fill_up(firmware, 32);
    firmware.items.push_back({.name = "item32", .part_size = 8, .flash_offset = 128, .data = sparse_block()});
    image_of(firmware);
}

// A header that cannot be read is not a sparse one, and ends in a code where the item 32 places before was
// one.
TEST(SparseItem, WhoseHeaderIsCutIsPlainOrEndsInACode) {
    Firmware firmware =
        with_items({{.name = "system", .part_size = 16, .flash_offset = 64, .data = sparse_block()}});
    fill_up(firmware, 33);
    firmware.items.push_back({.name = "short", .part_size = 8, .flash_offset = 128, .data = Bytes(28, 1)});
    Bytes bytes = firmware.build();
    bytes.resize(firmware.layout().item_data[33] + 27);
    const Workbench bench;
    bench.pack(bytes);
    bench.expect(kEmmc, kCreationFailed,
                 opening_lines(1) + preparing_line("parameter", 0x2000) + table_lines("parameter") +
                     preparing_line("system", 0x2040) + sparse_lines("system", sparse_block(), 2048, 4) +
                     preparing_line("short", 0x2080) + line("writing short...") +
                     line("failed to get sparse header") + error_line("failed to write short,ret=-1"));

    firmware.items[1].data = slice(sparse_block(), 0, 27);
    firmware.items.resize(2);
    firmware.md5.clear();
    bytes = firmware.build();
    bytes.resize(firmware.layout().item_data[1] + 27);
    bench.pack(bytes);
    ExpectedRun expected = expected_run(firmware, kEmmc, bench.out_dir());
    expected.text.replace(0, opening_lines().size(), opening_lines(1));
    bench.expect(kEmmc, expected);
}

}  // namespace
