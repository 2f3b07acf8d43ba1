// Sparse partition images: what is printed while they are expanded, and what comes out.

#include "cli/sparse_runs.h"

namespace {

using namespace cli_test;
using namespace test_support;

const Conversion emmc{"emmc", "4", "2"};
const Conversion nand{"spinand", "4", "2"};

struct SparseCase {
    std::string situation;
    SparseImage image;
    uint32_t sectors = grows_to_end;  // of the partition on eMMC
    Conversion conversion = emmc;
};

void PrintTo(const SparseCase& tested, std::ostream* out) {
    *out << tested.situation;
}

// An image of these chunks, with whatever else differs from a proper one.
SparseImage image_of(const std::vector<SparseChunk>& chunks, uint32_t block_size = 4096) {
    SparseImage image;
    image.block_size = block_size;
    image.chunks = chunks;
    return image;
}

SparseImage declaring(SparseImage image, uint32_t total_blocks) {
    image.total_blocks = total_blocks;
    return image;
}

SparseChunk raw(std::size_t bytes, uint32_t seed, uint32_t block_size = 4096) {
    return SparseChunk::raw(patterned(bytes, seed), block_size);
}

SparseChunk with_total_size(SparseChunk chunk, uint32_t total_size) {
    chunk.total_size = total_size;
    return chunk;
}

const std::vector<SparseChunk> all_kinds{raw(12288, 1),
                                         SparseChunk::fill(0x44332211, 3),
                                         SparseChunk::dont_care(5),
                                         SparseChunk::crc(0x12345678),
                                         SparseChunk::fill(0, 1),
                                         raw(4096, 2)};

class SparsePartition : public testing::TestWithParam<SparseCase> {};

TEST_P(SparsePartition, IsExpanded) {
    const SparseCase& tested = GetParam();
    const std::size_t page_size = std::stoul(tested.conversion.page_kb) * kib;
    const Bytes sparse = tested.image.build();
    const std::optional<uint32_t> sectors =
        tested.sectors == grows_to_end ? std::nullopt : std::optional(tested.sectors);
    const Bytes expanded = expected_sparse_partition(sparse, page_size, 0, sectors);

    const Workbench bench(with_system(sparse, tested.sectors));
    Transcript expected = start_of_system(bench, tested.conversion);
    expected.sparse_image("system", expansion_pieces(tested.image, page_size), declared_size(tested.image),
                          expanded.size() / page_size);
    expect_run(bench.convert(tested.conversion), 0, expected.success());

    ExpectedImage partition(page_size);
    partition.at(0x2200).write(expanded).pad_to_block(std::stoul(tested.conversion.block_kb) * kib);
    const std::size_t start = 0x2200 * sector_size;
    expect_same_bytes(system_bytes(bench), slice(partition.bytes(), start, partition.bytes().size() - start),
                      "partition");
    EXPECT_EQ(bench.output_names(), Names{"out_image.img"});  // the temporary file is gone
}

SparseImage with_other_header_sizes() {
    SparseImage image = image_of({raw(4096, 1)});
    image.file_header_size = 32;
    image.chunk_header_size = 16;
    image.major_version = 9;
    image.image_checksum = 1;
    return image;
}

const std::vector<SparseCase> sparse_cases{
    {"OfAllKindsOfChunks", image_of(all_kinds)},
    {"OfAllKindsOfChunksInALargerPartition", image_of(all_kinds), 300},
    {"OfAllKindsOfChunksOnNor", image_of(all_kinds), 104, {"spinor", "4", "1"}},
    {"OfAllKindsOfChunksIn3KilobytePages", image_of(all_kinds), 105, {"emmc", "5", "3"}},
    {"OfAllKindsOfChunksIn64KilobytePages", image_of(all_kinds), grows_to_end, {"emmc", "64", "16"}},
    {"ThatFillsItsPartition", image_of({raw(8192, 1)}), 16},
    {"ThatEndsAByteBehindAPage", image_of({raw(8193, 1, 2731)}, 2731)},
    {"OfBlocksThatAreNoMultipleOfFour",
     image_of({SparseChunk::fill(0x44332211, 5), raw(4 * 1023, 2, 1023), SparseChunk::fill(0xAABBCCDD, 1)},
              1023)},
    {"OfBlocksOfOneByte", image_of({SparseChunk::fill(0x44332211, 2), raw(3, 2, 1),
                                    SparseChunk::dont_care(5000), SparseChunk::fill(0x11111111, 3)},
                                   1)},
    {"OfHolesAlone", image_of({SparseChunk::dont_care(100)})},
    {"OfNoChunks", declaring(image_of({}), 7)},
    {"OfNothing", image_of({}), 16},
    {"WhoseChunksStopShortOfItsSize", declaring(image_of({raw(6000, 1)}), 10)},
    {"WhoseChunksGoBeyondItsSize", declaring(image_of({raw(40960, 1)}), 2)},
    {"WhoseChunksGoBeyondItsPartition", declaring(image_of({raw(40960, 1)}), 2), 20},
    {"OfSize0WhoseChunksWrite", declaring(image_of({raw(10000, 1)}), 0), 8},
    {"OfSize0WhoseChunksWriteAndWhosePartitionGrows", declaring(image_of({raw(10000, 1)}), 0)},
    {"WithRawChunksWithoutData", image_of({with_total_size(raw(0, 1), 0), with_total_size(raw(0, 1), 11),
                                           with_total_size(raw(0, 1), 12), raw(4096, 2)})},
    {"WithAnUnknownChunkWithoutData", image_of({SparseChunk::unknown(0xCAC5, {}, 3), raw(4096, 2)}), 64},
    {"WhoseHeaderDeclaresOtherHeaderSizes", with_other_header_sizes()},
    {"OfMoreThan100Pages", image_of({raw(99999, 1), SparseChunk::fill(7, 60), raw(4096, 2)})},
};

std::string situation_of(const testing::TestParamInfo<SparseCase>& tested) {
    return tested.param.situation;
}

INSTANTIATE_TEST_SUITE_P(Sparse, SparsePartition, testing::ValuesIn(sparse_cases), situation_of);

TEST(SparseImage, OnNandTakesThePagesOfItsOwnSize) {
    const SparseImage image = image_of(all_kinds);
    const Workbench bench(with_system(image.build(), 1));  // whatever the partition's size is
    Transcript expected = start_of_nand_system(bench, nand);
    expected.sparse_image("system", expansion_pieces(image, 2048), 53248, 26);
    expect_run(bench.convert(nand), 0, expected.success());
    EXPECT_EQ(bench.output_names(), (Names{"idblock.img", "parameter.img", "system.img"}));
    expect_same_bytes(bench.output("system.img"), expand(image.build(), 2048), "system.img");
}

// The data of an unknown chunk is read as the next chunk header: here a fill chunk in disguise.
TEST(SparseImage, ReadsTheDataOfAnUnknownChunkAsAChunk) {
    Bytes disguised;
    put16(disguised, SparseChunk::fill_type);
    put16(disguised, 0);
    put32(disguised, 1);
    put32(disguised, 16);
    put32(disguised, 0xCAFEBABE);
    SparseImage image = image_of({SparseChunk::unknown(0x1234, disguised), SparseChunk::dont_care(1)});
    image.total_chunks = 3;
    image.total_blocks = 2;
    const Workbench bench(with_system(image.build(), 16));
    Transcript expected = start_of_system(bench, emmc);
    expected.sparse_image("system", {2048, 2048, 2048, 2048}, 8192, 4);
    expect_run(bench.convert(emmc), 0, expected.success());
    Bytes partition(8192, 0);
    for (std::size_t i = 0; i < 4096; i += 4) {
        put32_at(partition, i, 0xCAFEBABE);
    }
    expect_same_bytes(system_bytes(bench), partition, "partition");
}

// Only 32 items can be told apart: an item takes over what is known of the one 32 places before it.
TEST(SparseImage, IsSeenInTheItem32PlacesBehindIt) {
    SparseImage image = image_of({raw(4096, 1)});
    Firmware firmware = with_system(image.build(), 8);
    for (int i = 2; i < 33; ++i) {
        firmware.items.push_back({.name = "unplaced", .flash_offset = not_placed});
    }
    Item plain{.name = "plain", .part_size = 8, .flash_offset = 0x300, .data = patterned(4096, 2)};
    put32_at(plain.data, sparse_field::total_blocks, 0);
    put32_at(plain.data, sparse_field::total_chunks, 0);
    firmware.items.push_back(plain);

    const Workbench bench(firmware);
    Transcript expected = start_of_system(bench, emmc);
    expected.sparse_image("system", {2048, 2048}, 4096, 2)
        .line("preparing plain at 0x00002300")
        .sparse_image("plain", {}, 0, 2);
    expect_run(bench.convert(emmc), 0, expected.success());
    EXPECT_TRUE(all_bytes_are(bench.output("out_image.img"), 0, 0x2300 * sector_size, 4096));
}

TEST(SparseImage, IsSeenInTheItem32PlacesBeforeIt) {
    Firmware firmware = with_system(Bytes(4096, 0), 8);  // of no chunks, when it is read as a sparse image
    for (int i = 2; i < 33; ++i) {
        firmware.items.push_back({.name = "unplaced", .flash_offset = not_placed});
    }
    const SparseImage image = image_of({raw(4096, 1)});
    firmware.items.push_back(
        {.name = "sparse", .part_size = 8, .flash_offset = 0x300, .data = image.build()});

    const Workbench bench(firmware);
    Transcript expected = start_of_system(bench, emmc);
    expected.sparse_image("system", {}, 0, 2)
        .line("preparing sparse at 0x00002300")
        .sparse_image("sparse", {2048, 2048}, 4096, 2);
    expect_run(bench.convert(emmc), 0, expected.success());
}

TEST(SparseImage, IsNotSeenInTheItem31PlacesBeforeOrBehindIt) {
    const Item plain{.name = "plain", .part_size = 8, .flash_offset = 0x300, .data = patterned(4096, 2)};
    for (const bool sparse_first : {false, true}) {
        SCOPED_TRACE(sparse_first);
        Firmware firmware = with_system(image_of({raw(4096, 1)}).build(), 8);
        for (int i = 2; i < 32; ++i) {
            firmware.items.push_back({.name = "unplaced", .flash_offset = not_placed});
        }
        firmware.items.push_back(plain);
        if (!sparse_first) {
            std::swap(firmware.items[1], firmware.items[32]);
        }
        const Workbench bench(firmware);
        ASSERT_EQ(bench.convert(emmc).exit_status, 0);
        const Bytes image = bench.output("out_image.img");
        expect_same_bytes(slice(image, 0x2300 * sector_size, 4096), plain.data, "plain");
        expect_same_bytes(slice(image, 0x2200 * sector_size, 4096), patterned(4096, 1), "system");
    }
}

TEST(SparseImage, IsExpandedInTheOutputDirectoryWithAndWithoutASlash) {
    const Bytes sparse = image_of(all_kinds).build();
    const Workbench bench(with_system(sparse, grows_to_end));
    for (const std::string end : {"", "/"}) {
        const std::string out = bench.out_dir().string() + end;
        // A directory in its place shows where the temporary file would go.
        fs::create_directory(bench.out("unsparse_tmp.bin"));
        const auto blocked = run(emmc.arguments(bench.firmware(), out));
        EXPECT_NE(
            blocked.out.find("failed to create " + bench.out("unsparse_tmp.bin").string() + ",err=21\n"),
            std::string::npos)
            << blocked.out;
        fs::remove(bench.out("unsparse_tmp.bin"));
        EXPECT_EQ(run(emmc.arguments(bench.firmware(), out)).exit_status, 0);
    }
}

TEST(SparseImage, ReplacesAnEarlierTemporaryFile) {
    const Bytes sparse = image_of(all_kinds).build();
    const Workbench bench(with_system(sparse, grows_to_end));
    write_file(bench.out("unsparse_tmp.bin"), Bytes(200000, 0xEE));
    EXPECT_EQ(bench.convert(emmc).exit_status, 0);
    expect_same_bytes(system_bytes(bench), expected_sparse_partition(sparse, 2048), "partition");
    EXPECT_FALSE(fs::exists(bench.out("unsparse_tmp.bin")));
}

// What goes beyond both the declared size and the partition is dropped anyway, so only 64 MiB of it are
// expanded.
TEST(SparseImage, WithAFillOf16TerabytesEndsInMoments) {
    SparseImage image = declaring(image_of({SparseChunk::fill(0x04030201, 0xFFFFFFFF), raw(4096, 1)}), 256);
    const std::size_t page_size = 4 * kib;
    const Conversion large_pages{"emmc", "4", "4"};
    const uint32_t sectors = 4096;  // 2 MiB, twice the declared size
    const Workbench bench(with_system(image.build(), sectors));

    const uint64_t kept = sectors * sector_size + (uint64_t{64} << 20);
    Transcript expected = start_of_system(bench, large_pages);
    expected.sparse_image("system", std::vector<uint64_t>(kept / page_size, page_size), uint64_t{1} << 20,
                          sectors * sector_size / page_size);
    expect_run(bench.convert(large_pages, {.timeout_seconds = 60}), 0, expected.success());
    Bytes partition(sectors * sector_size);
    for (std::size_t i = 0; i < partition.size(); i += 4) {
        put32_at(partition, i, 0x04030201);
    }
    expect_same_bytes(system_bytes(bench), partition, "partition");
    EXPECT_FALSE(fs::exists(bench.out("unsparse_tmp.bin")));
}

}  // namespace
