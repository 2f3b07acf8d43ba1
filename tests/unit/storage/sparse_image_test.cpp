// Sparse partition images, rule by rule.

#include "sparse_fixture.h"

#include <gtest/gtest.h>

namespace storage_test {
namespace {

class SparseHeader : public SparseTest {
protected:
    // What is_sparse_image and get_sparse_size say of an item of these bytes; each may print this line.
    void expect_header(const Bytes& data, bool sparse, uint64_t size, const std::string& printed = "") {
        prepare(data);
        EXPECT_EQ(output_of([&] { EXPECT_EQ(m_storage->is_sparse_image(m_item), sparse); }), printed);
        EXPECT_EQ(output_of([&] { EXPECT_EQ(m_storage->get_sparse_size(m_item), size); }), printed);
    }

    static Bytes header(uint32_t block_size, uint32_t blocks) {
        return SparseImage{.block_size = block_size, .total_blocks = blocks, .chunks = {}}.build();
    }
};

TEST_F(SparseHeader, IsRecognisedByItsMagicAlone) {
    for (const std::size_t i : {0U, 1U, 2U, 3U}) {
        Bytes bent = header(4096, 3);
        bent[i] ^= 1;
        expect_header(bent, false, 12288);
    }
    Bytes rest_bent = Bytes(28, 0x01);
    put32_at(rest_bent, 0, SparseImage{}.magic);
    expect_header(rest_bent, true, 0x01010101U * 0x01010101U);
}

TEST_F(SparseHeader, GivesTheSizeAsA32BitProduct) {
    expect_header(header(4096, 3), true, 12288);
    expect_header(header(0xFFFFFFFF, 1), true, 0xFFFFFFFF);
    expect_header(header(4096, 0x100001), true, 4096);
    expect_header(header(0x10000, 0x10000), true, 0);
    expect_header(header(4096, 0), true, 0);
}

TEST_F(SparseHeader, ThatCannotBeReadIsNotSparseAndTheLargest) {
    for (const std::size_t size : {0U, 1U, 27U})
        expect_header(slice(header(4096, 1), 0, size), false, 0xFFFFFFFFFFFFFFFF,
                      line("failed to get sparse info"));
}

TEST_F(SparseHeader, OfALargeItemIsReadAfter4GiB) {
    const SparseImage image{.block_size = 1024, .chunks = {SparseChunk::raw(patterned(1500, 1), 1024)}};
    const Bytes bytes = image.build();
    write_firmware(firmware_with({{.name = "root", .part_size = 8, .data = bytes, .offset = 0x140000000}}));
    m_item = item_in(firmware_with({{.name = "root", .part_size = 8, .data = bytes}}), 0);
    m_item.offset = 0x40000000;
    const char mark[5] = {'H', 1, 0, 0, 0};
    std::memcpy(m_item.file + 50, mark, sizeof(mark));
    prepare_loaded();
    write_item();
    expect_modelled(bytes, {.part_sectors = 8});
    EXPECT_TRUE(m_storage->is_sparse_image(m_item));
    EXPECT_EQ(m_storage->get_sparse_size(m_item), 2048U);
}

// ---- chunks ----

class SparseChunks : public SparseTest {};

Bytes repeated(const Bytes& value, std::size_t count) {
    Bytes bytes;
    for (std::size_t i = 0; i < count; ++i)
        put_bytes(bytes, value);
    return bytes;
}

TEST_F(SparseChunks, AreExpandedByTheirKind) {
    const Bytes value{0x11, 0x22, 0x33, 0x44};
    const Bytes block = patterned(1024, 2);
    const SparseChunk raw_block = SparseChunk::raw(block, 1024);
    // Its 12 bytes are a don't-care chunk of one block.
    const Bytes hidden = slice(SparseImage{.chunks = {SparseChunk::dont_care(1)}}.build(), 28, 12);
    const struct {
        std::string situation;
        std::vector<SparseChunk> chunks;
        Bytes expanded{};  // fill bytes are after it
        uint32_t block_size = 1024;
        uint8_t fill_byte = 0;
    } cases[] = {
        {"raw data", {SparseChunk::raw(patterned(2500, 1), 1024)}, patterned(2500, 1)},
        {"a fill value in its byte order", {SparseChunk::fill(0x44332211, 2)}, repeated(value, 512)},
        {"a fill that ends in a part of its value, and the chunk after it",
         {SparseChunk::fill(0x44332211, 3), SparseChunk::raw({1, 2, 3, 4, 5, 6, 7}, 7)},
         repeated(value, 5) + Bytes{0xFF, 1, 2, 3, 4, 5, 6, 7},
         7,
         0xFF},
        {"such a fill after a page", {SparseChunk::fill(0x44332211, 1)}, repeated(value, 256), 1027, 0xEE},
        {"fill bytes for don't care, the value for a fill",
         {SparseChunk::fill(0, 1), SparseChunk::dont_care(1), SparseChunk::fill(0, 1)},
         Bytes(1024, 0) + Bytes(1024, 0xFF) + Bytes(1024, 0),
         1024,
         0xFF},
        {"a pattern does not leak into later chunks",
         {SparseChunk::fill(0x55555555, 3), SparseChunk::dont_care(3),
          SparseChunk::raw(patterned(500, 7), 500), SparseChunk::dont_care(1),
          SparseChunk::fill(0xAAAAAAAA, 1)},
         Bytes(1500, 0x55) + Bytes(1500, 0) + patterned(500, 7) + Bytes(500, 0) + Bytes(500, 0xAA),
         500},
        {"checksums are skipped", {SparseChunk::crc(0x12345678), raw_block, SparseChunk::crc(1)}, block},
        {"no blocks", {SparseChunk::fill(1, 0), SparseChunk::dont_care(0)}},
        {"blocks of no bytes", {SparseChunk::fill(1, 5), SparseChunk::dont_care(5)}, {}, 0},
        {"no chunks", {}},
        {"the block count of raw data is not its length",
         {SparseChunk{.blocks = 4, .data = patterned(100, 1)}, raw_block},
         patterned(100, 1) + block},
        {"a raw chunk of twelve bytes or less is its header",
         {SparseChunk{.total_size = 0}, SparseChunk{.total_size = 1}, SparseChunk{.total_size = 11},
          SparseChunk{.total_size = 12}, raw_block},
         block},
        {"a raw chunk of thirteen bytes",
         {SparseChunk{.blocks = 1, .data = {0x77}, .total_size = 13}},
         {0x77}},
        {"the data of an unknown chunk is a header, and the last header is not reached",
         {raw_block, SparseChunk::unknown(0xCAC5, hidden, 1), raw_block,
          SparseChunk::raw(patterned(1024, 3), 1024)},
         block + Bytes(1024, 0xEE) + block + Bytes(1024, 0xEE),
         1024,
         0xEE},
        {"unknown chunks without data",
         {SparseChunk::unknown(0x0000, {}), SparseChunk::unknown(0xCAC0, {}),
          SparseChunk::unknown(0xCAC5, {}), SparseChunk::unknown(0xC1CA, {}),
          SparseChunk::unknown(0xFFFF, {}), raw_block},
         block},
    };
    for (const auto& tested : cases) {
        SCOPED_TRACE(tested.situation);
        const SparseImage image{.block_size = tested.block_size, .chunks = tested.chunks};
        run_as_modelled(image, {.fill_byte = tested.fill_byte});
        Bytes expected = tested.expanded;
        expected.resize(round_up(declared_size(image.build()), 1024), tested.fill_byte);
        EXPECT_TRUE(same_bytes(m_storage->recorded_bytes(), expected));
    }
}

// ---- sizes and header fields ----

class SparsePages : public SparseTest {};

SparseImage one_raw(std::size_t size, uint32_t block_size) {
    return {.block_size = block_size, .chunks = {SparseChunk::raw(patterned(size, 9), block_size)}};
}

TEST_F(SparsePages, AreThoseOfPartitionOrExpandedSize) {
    const struct {
        ENUM_FLASH_TYPE type;
        uint32_t part_sectors;
        std::size_t pages;
    } cases[] = {{FLASH_EMMC, 6, 3},           {FLASH_EMMC, 7, 4},          {FLASH_NOR, 8, 4},
                 {FLASH_NOR, 1001, 501},       {FLASH_NONE, 6, 3},          {FLASH_NONE, 100, 50},
                 {FLASH_EMMC, kGrowsToEnd, 3}, {FLASH_NOR, kGrowsToEnd, 3}, {FLASH_SPI_NAND, 0, 3},
                 {FLASH_SLC_NAND, 1000, 3}};
    for (const auto& [type, part_sectors, pages] : cases) {
        run_as_modelled(one_raw(3000, 1000), {.type = type, .part_sectors = part_sectors, .fill_byte = 0xFF});
        EXPECT_EQ(m_storage->pages.size(), pages) << type << " " << part_sectors;
    }
}

TEST_F(SparsePages, MustFitThePartition) {
    const Bytes huge = SparseImage{.block_size = 0x80000000, .total_blocks = 4, .chunks = {}}.build();
    const Bytes three_pages = one_raw(2049, 1).build();
    for (const auto& [image, sectors] :
         {std::pair{three_pages, 0U}, {three_pages, 1U}, {three_pages, 4U}, {huge, 2U}}) {
        run(image, {.part_sectors = sectors});
        expect_refused(-2, line("writing root...") + line("partition size is too small"));
        EXPECT_FALSE(temporary_file_left());
    }
    run(three_pages, {.part_sectors = 5});  // the fifth sector opens the third page
    EXPECT_EQ(m_result, 0);
}

TEST_F(SparsePages, OfNoBytesAreNone) {
    for (const uint32_t sectors : {0U, kGrowsToEnd}) {
        run(one_raw(0, 1024).build(), {.part_sectors = sectors});
        expect_written({}, line("writing root...") + line("extracting root...") + line("") +
                               redrawn("writing root...OK"));
    }
    run_as_modelled(one_raw(0, 1024), {.part_sectors = 4, .fill_byte = 0xFF});
}

TEST_F(SparsePages, AreCountedIn32Bits) {
    run(SparseImage{.block_size = 0x80000000, .total_blocks = 0x800, .chunks = {}}.build());  // 2^32 pages
    expect_written({}, sparse_lines("root", std::vector<uint64_t>{}, 1, 0));
    run(SparseImage{.block_size = 0x200001, .total_blocks = 0x200001, .chunks = {}}.build());  // 2^32 + 4097
    expect_written(Bytes(std::size_t{4097} * 1024, 0),
                   sparse_lines("root", std::vector<uint64_t>{}, 1, 4097));
}

TEST_F(SparsePages, HeaderSizesVersionsAndMagicAreNotAskedFor) {
    SparseImage image = one_raw(2000, 1024);
    image.magic = 0x12345678;
    image.major_version = 99;
    image.minor_version = 0xFFFF;
    image.file_header_size = 40;
    image.chunk_header_size = 20;
    image.image_checksum = 0xDEADBEEF;
    image.chunks[0].reserved = 0xFFFF;
    run_as_modelled(image);
    EXPECT_TRUE(same_bytes(m_storage->recorded_bytes(), padded(patterned(2000, 9), 1024)));
}

TEST_F(SparsePages, ChunksAfterTheCountAreIgnored) {
    SparseImage image = one_raw(1024, 1024);
    image.chunks.push_back(SparseChunk::raw(patterned(1024, 1), 1024));
    image.total_chunks = 1;
    run_as_modelled(image, {.fill_byte = 0xEE});
    EXPECT_TRUE(same_bytes(m_storage->recorded_bytes(), patterned(1024, 9) + Bytes(1024, 0xEE)));
}

TEST_F(SparsePages, PageThatCannotBeWrittenChangesNothing) {
    const Bytes image = one_raw(3000, 1000).build();
    prepare(image, {.part_sectors = 10});
    m_storage = make_base<Refusing<SparseRecorder>>(FLASH_EMMC, {.page_kb = 1});
    ASSERT_EQ(m_storage->m_update_image_ptr->ObjectInit(firmware_path().string(), false), 0);
    write_item();
    expect_modelled(image, {.part_sectors = 10});
}

}  // namespace
}  // namespace storage_test
