// Firmware beyond 4 GiB: the large-item marks carry offsets and sizes of more than 32 bits. The files are
// mostly holes.

#include "support/sparse_builder.h"
#include "support/workbench.h"

namespace {

using namespace test_support;

constexpr uint64_t kGib = 1024 * kMib;

// The parameter item of the sample, and one item "far" whose data starts at `offset` of the package.
Firmware with_far_item(uint64_t offset, Bytes data) {
    Firmware firmware = sample_firmware();
    firmware.items.resize(1);
    firmware.items.push_back({.name = "far",
                              .part_size = kGrowsToEnd,
                              .flash_offset = 0x200,
                              .data = std::move(data),
                              .offset = offset});
    return firmware;
}

void expect_far_item(const Firmware& firmware, const Bytes& partition) {
    const Workbench bench(firmware);
    for (const std::string type : {"emmc", "spinor"}) {
        SCOPED_TRACE(type);
        const auto result = bench.convert({type, "64", "2"});
        ASSERT_EQ(result.exit_status, 0) << result.out;
        EXPECT_TRUE(same_bytes(
            read_file_at(bench.out("out_image.img"), 0x2200 * kSectorSize, partition.size()), partition))
            << "partition";
    }
    const auto result = bench.convert({"spinand", "64", "2"});
    ASSERT_EQ(result.exit_status, 0) << result.out;
    EXPECT_TRUE(same_bytes(read_file_at(bench.out("far.img"), 0, partition.size()), partition)) << "far.img";
}

TEST(LargeFirmware, HoldsAnItemBeyond4Gigabytes) {
    const Bytes data = patterned(300001, 1);
    const Firmware firmware = with_far_item(5 * kGib + 2048, data);
    ASSERT_GT(firmware.layout().package_size, 4 * kGib);
    expect_far_item(firmware, data);
}

TEST(LargeFirmware, HoldsAnItemAcrossTheEdgeOf4Gigabytes) {
    const Firmware near = with_far_item(0, {});
    const uint64_t package = near.layout().package_offset;
    const Bytes data = patterned(300001, 2);
    expect_far_item(with_far_item(4 * kGib - 150000, data), data);
    expect_far_item(with_far_item(4 * kGib - package - 1, data), data);  // across that of the file
    expect_far_item(with_far_item(4 * kGib - package, data), data);
}

TEST(LargeFirmware, HoldsASparseItemBeyond4Gigabytes) {
    SparseImage image;
    image.chunks = {SparseChunk::raw(patterned(100000, 1)), SparseChunk::dont_care(7),
                    SparseChunk::fill(0x11223344, 5)};
    const Bytes sparse = image.build();
    expect_far_item(with_far_item(6 * kGib, sparse), expected_sparse_partition(sparse, 2048));
}

TEST(LargeFirmware, MayMarkItemsThatAreNotLarge) {
    Firmware firmware = with_far_item(70000, patterned(5000, 1));
    firmware.items[1].force_large_marks = true;
    firmware.force_large_package_mark = true;
    expect_far_item(firmware, firmware.items[1].data);
}

// Of an item of 8193 pages the file holds 100: that they are a percent of it shows how large it is taken for.
TEST(LargeFirmware, HoldsAnItemLargerThan4Gigabytes) {
    const std::size_t page_size = 512 * kIb;
    Firmware firmware = with_far_item(70000, patterned(5000, 1));
    firmware.items[0].part_size = 0x4000;
    firmware.items[1].size = 4 * kGib + 1;
    firmware.items[1].islands = {{.at = 100 * page_size - 100, .bytes = patterned(100, 2)}};
    firmware.md5.clear();
    const Workbench bench(firmware);
    fs::resize_file(bench.firmware(), firmware.layout().item_data[1] + 101 * page_size - 1);

    const Conversion nand{"spinand", "1024", "512"};
    const fs::path out = bench.out_dir();
    bench.expect(nand, kCreationFailed,
                 opening_lines() + preparing_line("parameter", out) + table_lines("parameter") +
                     preparing_line("far", out) + line("writing far...") +
                     redrawn("writing far...1%") +  // page 82
                     line("failed to get data from firmware") + error_line("failed to write far,ret=-2"),
                 By::program);
    Bytes partition = firmware.items[1].data;
    partition.resize(100 * page_size, 0);
    put_bytes_at(partition, 100 * page_size - 100, firmware.items[1].islands[0].bytes);
    EXPECT_TRUE(same_bytes(bench.output("far.img"), partition)) << "far.img";
}

// The parameter item lies in the first 4 GiB by agreement; its marks are not looked at.
TEST(LargeFirmware, ReadsTheParameterItemWithoutItsMarks) {
    for (const bool gpt : {false, true}) {
        const Firmware firmware = sample_firmware({.gpt = gpt});
        const Workbench bench;
        Bytes bytes = firmware.build();
        const std::size_t record = firmware.layout().item_records[0];
        put8_at(bytes, record + item_field::kOffsetMark, 'H');
        put32_at(bytes, record + item_field::kOffsetHigh, 1);
        put8_at(bytes, record + item_field::kSizeMark, 'H');
        put32_at(bytes, record + item_field::kSizeHigh, 1);
        write_file(bench.firmware(), bytes);
        const GptEntries entries = gpt ? GptEntries(sample_gpt()) : std::nullopt;
        bench.expect({}, expected_run(firmware, {}, bench.out_dir(), entries), By::program);
    }
}

}  // namespace
