// Sparse images that cannot be expanded: line, code and the temporary file that stays.

#include "cli/sparse_runs.h"

#include <numeric>

namespace {

using namespace cli_test;
using namespace test_support;

const Conversion emmc{"emmc", "4", "2"};
constexpr std::size_t page_size = 2 * kib;

SparseImage all_kinds() {
    SparseImage image;
    image.chunks = {
        SparseChunk::raw(patterned(12288, 1)), SparseChunk::fill(0x44332211, 3), SparseChunk::dont_care(2),
        SparseChunk::unknown(0xCAC9, {}),      SparseChunk::crc(0x12345678),     SparseChunk::fill(0, 1),
        SparseChunk::raw(patterned(4096, 2))};
    return image;
}

// The first pieces, as many as make up `bytes`.
std::vector<uint64_t> pieces_of(const std::vector<uint64_t>& pieces, uint64_t bytes) {
    std::vector<uint64_t> first;
    for (uint64_t sum = 0; sum < bytes; sum += first.back()) {
        first.push_back(pieces.at(first.size()));
    }
    return first;
}

std::string reason_of(int status) {
    switch (status) {
    case -4:
        return "failed to get sparse chunk";
    case -5:
        return "failed to get raw chunk data";
    default:
        return "failed to get fill chunk data";
    }
}

// Lengths at which a cut falls before, at or behind the edge of something.
std::vector<std::size_t> edges(const SparseImage& image) {
    std::vector<std::size_t> lengths;
    const std::vector<std::size_t> offsets = image.chunk_offsets();
    const std::size_t end = image.build().size();
    for (std::size_t i = 0; i < offsets.size(); ++i) {
        const std::size_t header_end = offsets[i] + sparse_field::chunk_header_bytes;
        const std::size_t chunk_end = i + 1 < offsets.size() ? offsets[i + 1] : end;
        for (const std::size_t edge :
             {offsets[i], offsets[i] + 1, header_end - 1, header_end, header_end + 1, header_end + 3,
              header_end + page_size, header_end + page_size - 1, chunk_end - 1}) {
            if (edge >= offsets[i] && edge < chunk_end) {
                lengths.push_back(edge);
            }
        }
    }
    return lengths;
}

TEST(SparseImageCutOff, EndsInTheCodeOfWhatIsMissing) {
    const SparseImage image = all_kinds();
    const Bytes sparse = image.build();
    const Firmware firmware = with_system(sparse, grows_to_end);
    const Bytes whole = firmware.build();
    const uint64_t start = firmware.layout().item_data[1];
    const Workbench bench;
    std::set<int> codes;
    for (const std::size_t length : edges(image)) {
        SCOPED_TRACE(length);
        const SparseExpansion expansion = expand_sparse(slice(sparse, 0, length), page_size);
        ASSERT_NE(expansion.status, 0);
        codes.insert(expansion.status);
        write_file(bench.firmware(), slice(whole, 0, start + length));

        Transcript expected = start_of_system(bench, emmc);
        expected
            .extraction("system", pieces_of(expansion_pieces(image, page_size), expansion.image.size()),
                        declared_size(image))
            .line(reason_of(expansion.status))
            .error("failed to write system,ret=" + std::to_string(expansion.status))
            .failure();
        expect_run(bench.convert(emmc), creation_failed, expected);
        expect_same_bytes(bench.output("unsparse_tmp.bin"), expansion.image, "temporary file");
        EXPECT_EQ(fs::file_size(bench.out("out_image.img")), 0x2200 * sector_size);
    }
    EXPECT_EQ(codes, (std::set<int>{-6, -5, -4}));

    bench.pack(firmware);  // the next run works
    EXPECT_EQ(bench.convert(emmc).exit_status, 0);
    EXPECT_EQ(bench.output_names(), Names{"out_image.img"});
}

// The value of a CRC chunk is not even missed.
TEST(SparseImageCutOff, InsideItsLastCrcChunkIsWhole) {
    SparseImage image;
    image.chunks = {SparseChunk::raw(patterned(4096, 1)), SparseChunk::crc(0x12345678)};
    const Firmware firmware = with_system(image.build(), grows_to_end);
    const Workbench bench;
    Bytes bytes = firmware.build();
    bytes.resize(firmware.layout().item_data[1] + image.build().size() - 4);
    write_file(bench.firmware(), bytes);
    Transcript expected = start_of_system(bench, emmc);
    expected.sparse_image("system", {2048, 2048}, 4096, 2);
    expect_run(bench.convert(emmc), 0, expected.success());
}

// A header that cannot be read is no sparse image, unless the item 32 places before it was one.
TEST(SparseImageCutOff, InsideItsHeaderIsNoneOrEndsInACode) {
    Firmware firmware = with_system(all_kinds().build(), grows_to_end);
    for (int i = 2; i < 33; ++i) {
        firmware.items.push_back({.name = "unplaced", .flash_offset = not_placed});
    }
    firmware.items.push_back({.name = "short", .part_size = 8, .flash_offset = 0x300, .data = Bytes(28, 1)});
    const Workbench bench;
    Bytes bytes = firmware.build();
    bytes.resize(firmware.layout().item_data[33] + 27);
    write_file(bench.firmware(), bytes);
    Transcript expected = bench.echo(emmc);
    expected.start_of_raw_run(1)
        .line("preparing system at 0x00002200")
        .sparse_image("system", expansion_pieces(all_kinds(), page_size), declared_size(all_kinds()), 20)
        .line("preparing short at 0x00002300")
        .line("writing short...")
        .line("failed to get sparse header")
        .error("failed to write short,ret=-1");
    expect_run(bench.convert(emmc), creation_failed, expected.failure());
    EXPECT_EQ(bench.output_names(), Names{"out_image.img"});
}

TEST(SparseImageCutOff, InsideItsHeaderIsWrittenAsAPlainOne) {
    SparseImage image;
    const Firmware firmware = with_system(image.build(), grows_to_end);
    const Workbench bench;
    Bytes bytes = firmware.build();
    bytes.resize(firmware.layout().item_data[1] + 27);
    put32_at(bytes, firmware.layout().item_records[1] + item_field::size, 27);
    write_file(bench.firmware(), bytes);
    Transcript expected = bench.echo(emmc);
    expected.start_of_raw_run(1).line("preparing system at 0x00002200").plain_image("system", 1);
    expect_run(bench.convert(emmc), 0, expected.success());
    Bytes page = slice(image.build(), 0, 27);
    page.resize(page_size, 0);
    expect_same_bytes(slice(system_bytes(bench), 0, page_size), page, "partition");
}

TEST(SparseImage, WithAnotherMagicIsWrittenAsAPlainOne) {
    SparseImage image = all_kinds();
    image.magic ^= 1;
    const Bytes bytes = image.build();
    const Workbench bench(with_system(bytes, grows_to_end));
    Transcript expected = start_of_system(bench, emmc);
    expected.plain_image("system", pages_of(bytes.size(), page_size));
    expect_run(bench.convert(emmc), 0, expected.success());
    expect_same_bytes(slice(system_bytes(bench), 0, bytes.size()), bytes, "partition");
}

TEST(SparseImage, ThatDoesNotFitItsPartitionIsNotExpanded) {
    SparseImage image;
    image.chunks = {SparseChunk::raw(patterned(4096, 1))};
    SparseImage huge = image;
    huge.block_size = 0x80000000;
    huge.total_blocks = 6;
    struct {
        Bytes bytes;
        uint32_t sectors;
    } const cases[] = {{image.build(), 0}, {image.build(), 4}, {huge.build(), 0x10000}};
    for (const auto& [bytes, sectors] : cases) {
        SCOPED_TRACE(sectors);
        for (const std::string type : {"emmc", "spinor"}) {
            const Conversion conversion{type, "4", "2"};
            const Workbench bench(with_system(bytes, sectors));
            Transcript expected = start_of_system(bench, conversion);
            expected.line("writing system...")
                .line("partition size is too small")
                .error("failed to write system,ret=-2");
            expect_run(bench.convert(conversion), creation_failed, expected.failure());
            EXPECT_EQ(bench.output_names(), Names{"out_image.img"});
        }
    }
}

TEST(SparseImage, WhoseTemporaryFileCannotBeCreatedIsNotExpanded) {
    struct {
        std::string link;  // empty: a directory in its place
        std::string error;
    } const cases[] = {{"", "21"}, {"missing/file", "2"}, {"unsparse_tmp.bin", "40"}};
    for (const auto& [link, error] : cases) {
        SCOPED_TRACE(error);
        const Workbench bench(with_system(all_kinds().build(), grows_to_end));
        const fs::path temporary = bench.out("unsparse_tmp.bin");
        if (link.empty()) {
            fs::create_directory(temporary);
        } else {
            fs::create_symlink(link, temporary);
        }
        Transcript expected = start_of_system(bench, emmc);
        expected.line("writing system...")
            .line("failed to create " + temporary.string() + ",err=" + error)
            .error("failed to write system,ret=-3");
        expect_run(bench.convert(emmc), creation_failed, expected.failure());
    }
}

}  // namespace
