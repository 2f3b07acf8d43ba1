// Sparse partition images, rule by rule.

#include "sparse_fixture.h"

#include <gtest/gtest.h>

namespace storage_test {
namespace {

using test_support::patterned;
using test_support::slice;
using test_support::SparseChunk;
using test_support::SparseImage;

class SparseHeader : public SparseTest {
protected:
    std::unique_ptr<SparseRecorder> loaded(const Bytes& data) {
        const auto firmware = firmware_with({{.name = "root", .data = data}});
        auto storage = make_base<SparseRecorder>(FLASH_EMMC);
        load(*storage, firmware);
        m_item = item_in(firmware, 0);
        return storage;
    }

    std::pair<bool, std::string> is_sparse(const Bytes& data) {
        const auto storage = loaded(data);
        bool sparse = false;
        std::string output = output_of([&] { sparse = storage->is_sparse_image(m_item); });
        return {sparse, std::move(output)};
    }

    std::pair<uint64_t, std::string> size_of(const Bytes& data) {
        const auto storage = loaded(data);
        uint64_t size = 0;
        std::string output = output_of([&] { size = storage->get_sparse_size(m_item); });
        return {size, std::move(output)};
    }

    static Bytes header(uint32_t block_size, uint32_t blocks) {
        return SparseImage{.block_size = block_size, .total_blocks = blocks, .chunks = {}}.build();
    }
};

TEST_F(SparseHeader, IsRecognisedByItsMagicAlone) {
    const Bytes good = header(4096, 1);
    EXPECT_EQ(is_sparse(good), std::pair(true, std::string()));
    EXPECT_EQ(is_sparse(slice(good, 0, 4) + Bytes(24, 0xEE)), std::pair(true, std::string()));
    for (std::size_t i = 0; i < 4; ++i) {
        Bytes bent = good;
        bent[i] ^= 1;
        EXPECT_EQ(is_sparse(bent), std::pair(false, std::string())) << i;
    }
}

TEST_F(SparseHeader, ThatCannotBeReadIsNotSparse) {
    const Bytes good = header(4096, 1);
    const std::pair<bool, std::string> failure{false, line("failed to get sparse info")};
    for (const std::size_t size : {0U, 1U, 27U})
        EXPECT_EQ(is_sparse(slice(good, 0, size)), failure) << size;
    EXPECT_EQ(is_sparse(good), std::pair(true, std::string()));
}

TEST_F(SparseHeader, GivesTheSizeAsA32BitProduct) {
    EXPECT_EQ(size_of(header(4096, 3)), std::pair(uint64_t{12288}, std::string()));
    EXPECT_EQ(size_of(header(0xFFFFFFFF, 1)), std::pair(uint64_t{0xFFFFFFFF}, std::string()));
    EXPECT_EQ(size_of(header(4096, 0x100001)), std::pair(uint64_t{4096}, std::string()));
    EXPECT_EQ(size_of(header(0x10000, 0x10000)), std::pair(uint64_t{0}, std::string()));
    EXPECT_EQ(size_of(header(4096, 0)), std::pair(uint64_t{0}, std::string()));
    EXPECT_EQ(size_of(Bytes(28, 0x01)), std::pair(uint64_t{0x01010101U * 0x01010101U}, std::string()))
        << "the magic is not asked for";
}

TEST_F(SparseHeader, ThatCannotBeReadHasTheLargestSize) {
    EXPECT_EQ(size_of(slice(header(4096, 1), 0, 27)),
              std::pair(uint64_t{0xFFFFFFFFFFFFFFFF}, line("failed to get sparse info")));
}

TEST_F(SparseHeader, OfALargeItemIsReadAfter4GiB) {
    const Bytes image =
        SparseImage{.block_size = 1024, .chunks = {SparseChunk::raw(patterned(1500, 1), 1024)}}.build();
    auto firmware = firmware_with({{.name = "root", .part_size = 8, .data = image, .offset = 0x140000000}});
    write_firmware(firmware);
    std::memset(&m_item, 0, sizeof(m_item));
    std::strcpy(m_item.name, "root");
    m_item.part_size = 8;
    m_item.offset = 0x40000000;
    const char mark[5] = {'H', 1, 0, 0, 0};
    std::memcpy(m_item.file + 50, mark, sizeof(mark));
    m_item.size = static_cast<uint32_t>(image.size());
    run_loaded();
    expect_modelled(image, {.part_sectors = 8});
    EXPECT_TRUE(m_storage->is_sparse_image(m_item));
    EXPECT_EQ(m_storage->get_sparse_size(m_item), 2048U);
}

// ---- chunks ----

class SparseChunks : public SparseTest {
protected:
    // The bytes that the chunks of an image with that block size expand to, padded to pages.
    Bytes expanded(std::vector<SparseChunk> chunks, uint32_t block_size = 1024, uint8_t fill_byte = 0) {
        const Bytes image = SparseImage{.block_size = block_size, .chunks = std::move(chunks)}.build();
        run(image, {.fill_byte = fill_byte});
        expect_modelled(image, {.fill_byte = fill_byte});
        return m_storage->recorded_bytes();
    }
};

TEST_F(SparseChunks, RawIsCopied) {
    const Bytes data = patterned(2500, 1);
    EXPECT_TRUE(same_bytes(expanded({SparseChunk::raw(data, 1024)}), padded(data, 1024)));
}

TEST_F(SparseChunks, FillRepeatsItsValueInItsByteOrder) {
    Bytes expected;
    for (int i = 0; i < 512; ++i)
        test_support::put32(expected, 0x44332211);
    const Bytes found = expanded({SparseChunk::fill(0x44332211, 2)});
    EXPECT_TRUE(same_bytes(found, expected));
    EXPECT_EQ(slice(found, 0, 5), (Bytes{0x11, 0x22, 0x33, 0x44, 0x11}));
}

TEST_F(SparseChunks, FillOfAnOddLengthEndsInTheFillByte) {
    // 3 blocks of 7 bytes: five whole values and one byte; the next chunk goes on after it.
    const Bytes found =
        expanded({SparseChunk::fill(0x44332211, 3), SparseChunk::raw({1, 2, 3, 4, 5, 6, 7}, 7)}, 7, 0xFF);
    Bytes expected;
    for (int i = 0; i < 5; ++i)
        test_support::put_bytes(expected, {0x11, 0x22, 0x33, 0x44});
    EXPECT_EQ(slice(found, 0, 28), (expected + Bytes{0xFF, 1, 2, 3, 4, 5, 6, 7}));

    // Pieces are pages: after the 256 values of the first one, three bytes are too few for another.
    const Bytes long_fill = expanded({SparseChunk::fill(0x44332211, 1)}, 1027, 0xEE);
    EXPECT_EQ(slice(long_fill, 1020, 10),
              (Bytes{0x11, 0x22, 0x33, 0x44, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE}));
}

TEST_F(SparseChunks, DontCareTakesTheFillByteAndFillItsValue) {
    const Bytes found =
        expanded({SparseChunk::fill(0, 1), SparseChunk::dont_care(1), SparseChunk::fill(0, 1)}, 1024, 0xFF);
    EXPECT_TRUE(same_bytes(found, Bytes(1024, 0) + Bytes(1024, 0xFF) + Bytes(1024, 0)));
}

TEST_F(SparseChunks, FillPatternDoesNotLeakIntoLaterChunks) {
    const Bytes found = expanded({SparseChunk::fill(0x55555555, 3), SparseChunk::dont_care(3),
                                  SparseChunk::raw(patterned(500, 7), 500), SparseChunk::dont_care(1),
                                  SparseChunk::fill(0xAAAAAAAA, 1)},
                                 500);
    EXPECT_TRUE(same_bytes(found, padded(Bytes(1500, 0x55) + Bytes(1500, 0) + patterned(500, 7) +
                                             Bytes(500, 0) + Bytes(500, 0xAA),
                                         1024)));
}

TEST_F(SparseChunks, ChecksumIsSkippedUnread) {
    const Bytes data = patterned(1024, 3);
    EXPECT_TRUE(same_bytes(
        expanded({SparseChunk::crc(0x12345678), SparseChunk::raw(data, 1024), SparseChunk::crc(1)}), data));
}

TEST_F(SparseChunks, OfNoBlocksWriteNothing) {
    EXPECT_EQ(expanded({SparseChunk::fill(1, 0), SparseChunk::dont_care(0)}), Bytes{});
    EXPECT_EQ(expanded({SparseChunk::fill(1, 5), SparseChunk::dont_care(5)}, 0), Bytes{});
    EXPECT_EQ(expanded({}), Bytes{});
}

TEST_F(SparseChunks, RawLengthComesFromItsTotalSizeAlone) {
    SparseChunk chunk = SparseChunk::raw(patterned(100, 1), 1024);
    chunk.blocks = 4;  // counts for the header's total only
    EXPECT_TRUE(same_bytes(expanded({chunk, SparseChunk::raw(patterned(10, 2), 1024)}),
                           padded(patterned(100, 1) + patterned(10, 2), 5 * 1024)));
}

TEST_F(SparseChunks, RawOfTwelveBytesOrLessAdvancesByItsHeader) {
    for (const uint32_t total_size : {0U, 1U, 11U, 12U}) {
        SparseChunk empty = SparseChunk::raw({}, 1024);
        empty.total_size = total_size;
        EXPECT_TRUE(
            same_bytes(expanded({empty, SparseChunk::raw(patterned(1024, 2), 1024)}), patterned(1024, 2)))
            << total_size;
    }
    SparseChunk one_byte = SparseChunk::raw({0x77}, 1024);
    one_byte.total_size = 13;
    EXPECT_TRUE(same_bytes(expanded({one_byte}), padded({0x77}, 1024)));
}

TEST_F(SparseChunks, UnknownOnesDataIsTakenForTheNextHeader) {
    // Its 12 bytes of data are a don't-care chunk of one block; the fifth header is then never reached.
    const Bytes hidden = slice(SparseImage{.chunks = {SparseChunk::dont_care(1)}}.build(), 28, 12);
    const Bytes first = patterned(1024, 1);
    const Bytes second = patterned(1024, 2);
    const Bytes found = expanded({SparseChunk::raw(first, 1024), SparseChunk::unknown(0xCAC5, hidden, 1),
                                  SparseChunk::raw(second, 1024), SparseChunk::raw(patterned(1024, 3), 1024)},
                                 1024, 0xEE);
    EXPECT_TRUE(same_bytes(found, first + Bytes(1024, 0xEE) + second + Bytes(1024, 0xEE)));
}

TEST_F(SparseChunks, UnknownOnesWithoutDataAreSkipped) {
    const Bytes data = patterned(1024, 1);
    for (const uint16_t type : std::vector<uint16_t>{0x0000, 0xCAC0, 0xCAC5, 0xC1CA, 0xFFFF})
        EXPECT_TRUE(
            same_bytes(expanded({SparseChunk::unknown(type, {}), SparseChunk::raw(data, 1024)}), data))
            << type;
}

// ---- sizes and header fields ----

class SparsePages : public SparseTest {};

SparseImage one_raw(std::size_t size, uint32_t block_size) {
    return {.block_size = block_size, .chunks = {SparseChunk::raw(patterned(size, 9), block_size)}};
}

TEST_F(SparsePages, TemporaryFileIsPaddedOnlyAfterAPartialPage) {
    run(one_raw(4096, 1024).build());
    ASSERT_TRUE(m_storage->temporary_file);
    EXPECT_EQ(m_storage->temporary_file->size(), 4096U);
    run(one_raw(4097, 1).build(), {.fill_byte = 0xEE});
    ASSERT_TRUE(m_storage->temporary_file);
    EXPECT_TRUE(same_bytes(*m_storage->temporary_file, padded(patterned(4097, 9), 1024, 0xEE)));
}

TEST_F(SparsePages, CoverTheWholePartitionOnEmmcAndNor) {
    const Bytes image = one_raw(3000, 1000).build();
    for (const ENUM_FLASH_TYPE type : {FLASH_EMMC, FLASH_NOR, FLASH_NONE}) {
        for (const uint32_t sectors : {6U, 7U, 8U, 100U, 1001U}) {
            const SparseSettings settings{.type = type, .part_sectors = sectors, .fill_byte = 0xFF};
            run(image, settings);
            expect_modelled(image, settings);
            EXPECT_EQ(m_storage->pages.size(), (sectors + 1) / 2);
        }
    }
}

TEST_F(SparsePages, AreThoseOfTheExpandedSizeOnNandOrGrowing) {
    const Bytes image = one_raw(3000, 1000).build();
    for (const SparseSettings& settings :
         {SparseSettings{.type = FLASH_SPI_NAND, .part_sectors = 0},
          SparseSettings{.type = FLASH_SLC_NAND, .part_sectors = 1000}, SparseSettings{.type = FLASH_EMMC},
          SparseSettings{.type = FLASH_NOR}}) {
        run(image, settings);
        expect_modelled(image, settings);
        EXPECT_EQ(m_storage->pages.size(), 3U);
    }
}

TEST_F(SparsePages, MustFitThePartition) {
    const std::string refusal = line("writing root...") + line("partition size is too small");
    for (const uint32_t sectors : {0U, 1U, 4U}) {  // the fifth sector opens the third page
        run(one_raw(2049, 1).build(), {.part_sectors = sectors});
        expect_refused(-2, refusal);
        EXPECT_FALSE(temporary_file_left());
    }
    run(one_raw(2049, 1).build(), {.part_sectors = 5});
    EXPECT_EQ(m_result, 0);
    run(SparseImage{.block_size = 0x80000000, .total_blocks = 4, .chunks = {}}.build(), {.part_sectors = 2});
    expect_refused(-2, refusal);  // 8 GiB: the size is a 64-bit product
}

TEST_F(SparsePages, OfNoBytesAreNone) {
    for (const uint32_t sectors : {0U, test_support::kGrowsToEnd}) {
        run(one_raw(0, 1024).build(), {.part_sectors = sectors});
        expect_written({}, line("writing root...") + line("extracting root...") + line("") +
                               redrawn("writing root...OK"));
    }
    run(one_raw(0, 1024).build(), {.part_sectors = 4, .fill_byte = 0xFF});
    expect_modelled(one_raw(0, 1024).build(), {.part_sectors = 4, .fill_byte = 0xFF});
    EXPECT_EQ(m_storage->recorded_bytes(), Bytes(2048, 0xFF));
}

TEST_F(SparsePages, AreCountedIn32Bits) {
    run(SparseImage{.block_size = 0x80000000, .total_blocks = 0x800, .chunks = {}}.build());  // 2^32 pages
    expect_written({}, sparse_lines("root", std::vector<uint64_t>{}, 1, 0));
    run(SparseImage{.block_size = 0x200001, .total_blocks = 0x200001, .chunks = {}}.build());  // 2^32 + 4097
    expect_written(Bytes(std::size_t{4097} * 1024, 0),
                   sparse_lines("root", std::vector<uint64_t>{}, 1, 4097));
}

TEST_F(SparsePages, AfterWhatTheChunksWriteAreFilled) {
    SparseImage image = one_raw(1500, 1024);
    image.total_blocks = 7;
    const SparseSettings settings{.part_sectors = 20, .fill_byte = 0xEE};
    run(image.build(), settings);
    expect_modelled(image.build(), settings);
    EXPECT_TRUE(same_bytes(m_storage->recorded_bytes(), padded(patterned(1500, 9), 10 * 1024, 0xEE)));
}

TEST_F(SparsePages, BeyondThePartitionAreDropped) {
    SparseImage image = one_raw(5000, 1024);
    image.total_blocks = 1;
    run(image.build(), {.type = FLASH_SPI_NAND});
    expect_modelled(image.build(), {.type = FLASH_SPI_NAND});
    EXPECT_TRUE(same_bytes(m_storage->recorded_bytes(), patterned(1024, 9)));
    // What the partition has room for beyond the declared size is taken.
    run(image.build(), {.part_sectors = 6});
    expect_modelled(image.build(), {.part_sectors = 6});
    EXPECT_TRUE(same_bytes(m_storage->recorded_bytes(), slice(patterned(5000, 9), 0, 3072)));
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
    run(image.build());
    expect_modelled(image.build(), {});
    EXPECT_TRUE(same_bytes(m_storage->recorded_bytes(), padded(patterned(2000, 9), 1024)));
}

TEST_F(SparsePages, ChunksAfterTheCountAreIgnored) {
    SparseImage image = one_raw(1024, 1024);
    image.chunks.push_back(SparseChunk::raw(patterned(1024, 1), 1024));
    image.total_chunks = 1;
    run(image.build(), {.fill_byte = 0xEE});
    expect_modelled(image.build(), {.fill_byte = 0xEE});
    EXPECT_TRUE(same_bytes(m_storage->recorded_bytes(), patterned(1024, 9) + Bytes(1024, 0xEE)));
}

TEST_F(SparsePages, PageThatCannotBeWrittenChangesNothing) {
    const Bytes image = one_raw(3000, 1000).build();
    const auto firmware = firmware_with({{.name = "root", .part_size = 10, .data = image}});
    auto storage = make_base<Refusing<Recording<CStorage>>>(FLASH_EMMC, {.page_kb = 1});
    load(*storage, firmware);
    m_item = item_in(firmware, 0);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(storage->write_sparse_image(m_item), 0); }),
              sparse_lines("root", image, 1024, 5));
    EXPECT_EQ(storage->pages.size(), 5U);
    EXPECT_FALSE(temporary_file_left());
}

}  // namespace
}  // namespace storage_test
