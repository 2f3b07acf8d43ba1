// Chunks are walked without a firmware: from bytes in memory into a file.

#include "storage/sparse_expander.h"

#include "io/byte_buffer.h"
#include "partition_fixture.h"
#include "storage/results.h"
#include "support/sparse_builder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <string>

namespace storage_test {
namespace {

using test_support::patterned;
using test_support::SparseChunk;
using test_support::SparseImage;

constexpr std::size_t kMiB = 1024 * 1024;
constexpr std::size_t kExcess = 64 * kMiB;

class SparseExpanderTest : public ::testing::Test {
protected:
    SparseExpanderTest() { m_file.open(path()); }

    std::string path() const { return (m_directory / "expanded.img").string(); }

    // Expands the image in pieces of a page; what it prints stays in m_output.
    void expand(const SparseImage& image, std::size_t page_size, uint64_t output_size = 0) {
        const Bytes bytes = image.build();
        sparse_header_t header;
        std::memcpy(&header, bytes.data(), sizeof(header));
        const auto read = [&](uint64_t position, uint32_t size, uint8_t* out) {
            ++m_reads;
            m_longest_read = std::max(m_longest_read, size);
            if (position > bytes.size() + m_hole)
                return false;
            if (position < bytes.size())  // after them is a hole: nothing is copied
                std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(position),
                            std::min<uint64_t>(size, bytes.size() - position), out);
            return size <= bytes.size() + m_hole - position;
        };
        ByteBuffer page(page_size);
        Progress progress("");
        SparseExpander expander(header, read, output_size, {page.data(), page_size}, m_fill_byte, m_file,
                                progress);
        m_output = output_of([&] { m_result = expander.expand(); });
        m_written = expander.written();
    }

    // The file as it stands; size bytes from the offset on.
    Bytes piece(uint64_t offset, std::size_t size) {
        m_file.flush();
        std::ifstream file(path(), std::ios::binary);
        file.seekg(static_cast<std::streamoff>(offset));
        Bytes bytes(size);
        file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(size));
        EXPECT_EQ(file.gcount(), static_cast<std::streamsize>(size));
        return bytes;
    }
    Bytes contents() {
        m_file.flush();
        return test_support::read_file(path());
    }

    test_support::TemporaryDirectory m_directory{};
    WriteFailure m_failure{};
    OutputFile m_file{&m_failure};
    uint8_t m_fill_byte = 0;
    uint64_t m_hole = 0;  // bytes of the image that can be read but do not matter
    int m_reads = 0;
    uint32_t m_longest_read = 0;
    int m_result = 1;
    uint64_t m_written = 0;
    std::string m_output{};
};

TEST_F(SparseExpanderTest, AllKindsOfChunksAreAppended) {
    const SparseImage image{.block_size = 1000,
                            .chunks = {SparseChunk::raw(patterned(2500, 1), 1000),
                                       SparseChunk::fill(0x04030201, 1), SparseChunk::dont_care(2),
                                       SparseChunk::crc(7), SparseChunk::unknown(0x1234, {}),
                                       SparseChunk::raw({9}, 1000)}};
    m_fill_byte = 0xEE;
    expand(image, 512);
    EXPECT_EQ(m_result, kDone);
    Bytes expected = patterned(2500, 1);
    for (int i = 0; i < 250; ++i)
        test_support::put_bytes(expected, {1, 2, 3, 4});
    expected.resize(5500, 0xEE);
    expected.push_back(9);
    EXPECT_TRUE(same_bytes(contents(), expected));
    EXPECT_EQ(m_written, expected.size());
}

TEST_F(SparseExpanderTest, RawDataIsReadInLongPieces) {
    expand({.block_size = 1024, .chunks = {SparseChunk::raw(patterned(3 * kMiB, 1), 1024)}}, 2048);
    EXPECT_TRUE(same_bytes(contents(), patterned(3 * kMiB, 1)));
    EXPECT_EQ(m_longest_read, OutputBuffer::kBlockSize);
}

TEST_F(SparseExpanderTest, LongPieceThatFailedIsTheLastOne) {
    SparseImage image{.chunks = {SparseChunk::raw(patterned(5000, 1))}};
    image.chunks[0].total_size = 12 + 9000;
    expand(image, 1024);
    EXPECT_EQ(m_result, kRawDataUnreadable);
    EXPECT_EQ(m_reads, 1 + 1 + 5) << "the chunk header, the long piece, four pages and one that fails";
}

TEST_F(SparseExpanderTest, EachUnreadablePartHasItsCode) {
    SparseImage header{.chunks = {SparseChunk::raw(patterned(100, 1))}};
    header.total_chunks = 2;
    expand(header, 1024);
    EXPECT_EQ(m_result, kChunkHeaderUnreadable);
    EXPECT_EQ(m_output.substr(m_output.rfind("failed")), line("failed to get sparse chunk"));

    SparseImage raw{.chunks = {SparseChunk::raw(patterned(5000, 1))}};
    raw.chunks[0].total_size = 12 + 9000;
    expand(raw, 1024);
    EXPECT_EQ(m_result, kRawDataUnreadable);
    EXPECT_EQ(m_written, 4096U) << "the whole pages before it";
    EXPECT_EQ(m_output.substr(m_output.rfind("failed")), line("failed to get raw chunk data"));

    SparseImage fill{.chunks = {SparseChunk::fill(1, 1)}};
    fill.chunks[0].data.clear();
    expand(fill, 1024);
    EXPECT_EQ(m_result, kFillValueUnreadable);
    EXPECT_EQ(m_output, line("failed to get fill chunk data"));
}

// ---- the limit ----

TEST_F(SparseExpanderTest, PageOver64MiBIsAppendedUpToTheLimit) {
    constexpr std::size_t kPage = 80 * kMiB;
    const SparseChunk chunks[] = {SparseChunk::dont_care(kPage / 4096), SparseChunk::fill(0, kPage / 4096),
                                  SparseChunk{.total_size = 12 + kPage}};
    m_hole = 2 * kPage;
    for (const SparseChunk& chunk : chunks) {
        m_file.open(path());
        expand({.total_blocks = 1, .chunks = {chunk}}, kPage);
        EXPECT_EQ(m_result, kDone);
        EXPECT_EQ(m_written, kExcess + 4096);
        m_file.close();
        EXPECT_EQ(std::filesystem::file_size(path()), kExcess + 4096);
    }
}

TEST_F(SparseExpanderTest, PieceAcrossTheLimitIsCutThere) {
    constexpr std::size_t kLimit = kExcess + 3000;
    expand({.block_size = 1000,
            .total_blocks = 3,
            .chunks = {SparseChunk::raw(patterned(100, 1), 1000), SparseChunk::dont_care(67000),
                       SparseChunk::fill(0x77777777, 1000), SparseChunk::raw({1, 2, 3}, 1000)}},
           3072);
    EXPECT_EQ(m_result, kDone);
    EXPECT_EQ(m_written, kLimit);
    EXPECT_EQ(piece(0, 100), patterned(100, 1));
    constexpr std::size_t kFillAt = 100 + 67000 * 1000;
    EXPECT_EQ(piece(kFillAt - 1, kLimit - kFillAt + 1), Bytes{0} + Bytes(kLimit - kFillAt, 0x77));
    m_file.close();
    EXPECT_EQ(std::filesystem::file_size(path()), kLimit);
}

TEST_F(SparseExpanderTest, LimitCountsFromTheLargerSize) {
    const SparseImage image{.total_blocks = 5, .chunks = {SparseChunk::dont_care(0xFFFFFFFF)}};
    expand(image, 4096, 10000);
    EXPECT_EQ(m_written, kExcess + 20480);
    m_file.open(path());
    expand(image, 4096, 100000);
    EXPECT_EQ(m_written, kExcess + 100000);
}

TEST_F(SparseExpanderTest, FailedFileCountsTheImageAlone) {
    m_file.give_up(ENOSPC);
    expand({.total_blocks = 5, .chunks = {SparseChunk::dont_care(0xFFFFFFFF)}}, 4096, uint64_t{1} << 40);
    EXPECT_EQ(m_result, kDone);
    EXPECT_EQ(m_written, kExcess + 20480);
    EXPECT_EQ(contents(), Bytes());
}

TEST_F(SparseExpanderTest, CountStaysAtTheLimitBeyond64Bits) {
    m_file.give_up(ENOSPC);
    const SparseChunk chunk = SparseChunk::dont_care(0xFFFFFFFF);
    expand({.block_size = 0xFFFFFFFF, .total_blocks = 0xFFFFFFFF, .chunks = {chunk, chunk}}, 4096);
    EXPECT_EQ(m_result, kDone);
    EXPECT_EQ(m_written, uint64_t{0xFFFFFFFF} * 0xFFFFFFFF + kExcess);
}

// ---- a whole item ----

// Keeps the last page alone.
class LastPage : public Exposed<CStorage> {
public:
    using Exposed<CStorage>::Exposed;
    bool write_page(uint8_t* data, uint32_t length) override {
        page.assign(data, data + length);
        ++pages;
        return true;
    }
    Bytes page{};
    int pages = 0;
};

class HugeSparsePageTest : public StorageTest {};

TEST_F(HugeSparsePageTest, ChunkAcrossTheLimitLosesNoByte) {
    // The second chunk is one piece that ends 1 MiB after the limit: the page's size and 64 MiB.
    constexpr std::size_t kPage = 66 * kMiB;
    const SparseImage image{.block_size = kMiB,
                            .total_blocks = 1,
                            .chunks = {SparseChunk::dont_care(65), SparseChunk::fill(0x77777777, 66)}};
    const auto firmware = firmware_with({{.name = "root", .data = image.build()}});
    const auto storage = make_base<LastPage>(FLASH_SPI_NAND, {.page_kb = kPage / 1024});
    load(*storage, firmware);
    STRUCT_QZIMAGE_ITEM item = item_in(firmware, 0);
    output_of([&] { EXPECT_EQ(storage->write_sparse_image(item), kDone); });
    EXPECT_EQ(storage->pages, 1);
    EXPECT_TRUE(same_bytes(storage->page, Bytes(65 * kMiB, 0) + Bytes(kMiB, 0x77)));
}

}  // namespace
}  // namespace storage_test
