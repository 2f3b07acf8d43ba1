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

constexpr std::size_t kExcess = 64 * kMib;

class SparseExpanderTest : public ::testing::Test {
protected:
    SparseExpanderTest() { m_file.open(path()); }

    std::string path() const { return (m_directory / "expanded.img").string(); }

    // Expands the image in pieces of a page, and lets it write so many bytes.
    void expand(const SparseImage& image, std::size_t page_size, uint64_t written, uint64_t output_size = 0) {
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
        SparseExpander expander(header, read, output_size, {page.data(), page_size}, 0, m_file, progress);
        output_of([&] { m_result = expander.expand(); });
        EXPECT_EQ(expander.written(), written);
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

    test_support::TemporaryDirectory m_directory{};
    WriteFailure m_failure{};
    OutputFile m_file{&m_failure};
    uint64_t m_hole = 0;  // bytes of the image that can be read but do not matter
    int m_reads = 0;
    uint32_t m_longest_read = 0;
    int m_result = 1;
};

TEST_F(SparseExpanderTest, RawDataIsReadInLongPieces) {
    const Bytes data = patterned(3 * kMib, 1);
    expand({.block_size = 1024, .chunks = {SparseChunk::raw(data, 1024)}}, 2048, data.size());
    EXPECT_TRUE(same_bytes(piece(0, data.size()), data));
    EXPECT_EQ(m_longest_read, OutputBuffer::kBlockSize);
}

TEST_F(SparseExpanderTest, LongPieceThatFailedIsTheLastOne) {
    SparseImage image{.chunks = {SparseChunk::raw(patterned(5000, 1))}};
    image.chunks[0].total_size = 12 + 9000;
    expand(image, 1024, 4096);
    EXPECT_EQ(m_result, kRawDataUnreadable);
    EXPECT_EQ(m_reads, 1 + 1 + 5) << "the chunk header, the long piece, four pages and one that fails";
}

// ---- the limit ----

TEST_F(SparseExpanderTest, PageOver64MiBIsAppendedUpToTheLimit) {
    constexpr std::size_t kPage = 80 * kMib;
    const SparseChunk chunks[] = {SparseChunk::dont_care(kPage / 4096), SparseChunk::fill(0, kPage / 4096),
                                  SparseChunk{.total_size = 12 + kPage}};
    m_hole = 2 * kPage;
    for (const SparseChunk& chunk : chunks) {
        m_file.open(path());
        expand({.total_blocks = 1, .chunks = {chunk}}, kPage, kExcess + 4096);
        EXPECT_EQ(m_result, kDone);
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
           3072, kLimit);
    EXPECT_EQ(m_result, kDone);
    EXPECT_EQ(piece(0, 100), patterned(100, 1));
    constexpr std::size_t kFillAt = 100 + 67000 * 1000;
    EXPECT_EQ(piece(kFillAt - 1, kLimit - kFillAt + 1), Bytes{0} + Bytes(kLimit - kFillAt, 0x77));
    m_file.close();
    EXPECT_EQ(std::filesystem::file_size(path()), kLimit);
}

TEST_F(SparseExpanderTest, ChunksAfterTheLimitAreStillRead) {
    SparseImage image{.total_blocks = 1, .chunks = {SparseChunk::dont_care(0xFFFFFFFF)}};
    expand(image, 4096, kExcess + 4096);
    EXPECT_EQ(m_result, kDone);
    image.chunks.push_back(SparseChunk{.data = Bytes(10), .total_size = 1000});
    m_file.open(path());
    expand(image, 4096, kExcess + 4096);
    EXPECT_EQ(m_result, kRawDataUnreadable);
}

TEST_F(SparseExpanderTest, LimitCountsFromTheLargerSize) {
    const SparseImage image{.total_blocks = 5, .chunks = {SparseChunk::dont_care(0xFFFFFFFF)}};
    expand(image, 4096, kExcess + 20480, 10000);
    m_file.open(path());
    expand(image, 4096, kExcess + 100000, 100000);
}

TEST_F(SparseExpanderTest, FailedFileCountsTheImageAlone) {
    m_file.give_up(ENOSPC);
    expand({.total_blocks = 5, .chunks = {SparseChunk::dont_care(0xFFFFFFFF)}}, 4096, kExcess + 20480,
           uint64_t{1} << 40);
    EXPECT_EQ(m_result, kDone);
    EXPECT_EQ(std::filesystem::file_size(path()), 0U);
}

TEST_F(SparseExpanderTest, CountStaysAtTheLimitBeyond64Bits) {
    m_file.give_up(ENOSPC);
    const SparseChunk chunk = SparseChunk::dont_care(0xFFFFFFFF);
    expand({.block_size = 0xFFFFFFFF, .total_blocks = 0xFFFFFFFF, .chunks = {chunk, chunk}}, 4096,
           uint64_t{0xFFFFFFFF} * 0xFFFFFFFF + kExcess);
    EXPECT_EQ(m_result, kDone);
}

}  // namespace
}  // namespace storage_test
