// Gaps, alignment and single pages of the output.

#include "partition_fixture.h"
#include "support/expected/flash_pages.h"

#include <cerrno>

namespace storage_test {
namespace {

class PageWriterTest : public StorageTest {
protected:
    // A storage object whose output file is open and holds `size` bytes of 'x'.
    void use(const Geometry& geometry, uint64_t size = 0) {
        m_storage = make_base<Recording<CStorage>>(FLASH_EMMC, geometry);
        m_storage->forward = true;
        m_storage->m_fout.open(out_path("out.img").string());
        m_storage->m_fout.write_fill('x', 1, size);
    }

    std::vector<uint32_t> lengths() const {
        std::vector<uint32_t> all;
        for (const RecordedPage& page : m_storage->pages)
            all.push_back(page.length);
        return all;
    }

    uint64_t position() const { return static_cast<uint64_t>(m_storage->m_fout.tellp()); }

    // The file has 'x' and fill bytes after it.
    void expect_padded(std::size_t size, std::size_t padded_size) {
        Bytes expected(size, 'x');
        expected.resize(padded_size, m_storage->m_fill_byte);
        EXPECT_TRUE(same_bytes(written(), expected));
    }

    Bytes written() {
        m_storage->close_output();
        EXPECT_EQ(m_storage->m_write_failure.error, 0);
        return read_file(out_path("out.img"));
    }
    uint64_t written_size() {
        m_storage->close_output();
        return std::filesystem::file_size(out_path("out.img"));
    }

    std::unique_ptr<Recording<CStorage>> m_storage;
};

// ---- gaps ----

// The lengths that fill a gap: whole pages as far as they go, each modulo 65536.
std::vector<uint32_t> gap_lengths(uint64_t page_size, uint64_t missing) {
    std::vector<uint32_t> lengths;
    while (missing != 0) {
        auto length = static_cast<uint32_t>(std::min(page_size, missing) % 65536);
        if (length == 0)
            length = 65536;  // as much is missing, or the step would not have come to 0
        lengths.push_back(length);
        missing -= length;
    }
    return lengths;
}

TEST_F(PageWriterTest, GapIsClosedInPagesForEveryPageSize) {
    for (const uint32_t page_kb : {1U, 2U, 3U, 63U, 64U, 65U, 96U, 128U, 160U, 4096U}) {
        const uint64_t page = page_kb * 1024;
        for (const uint64_t missing :
             {uint64_t{1}, uint64_t{1023}, page - 1, page, page + 1, 2 * page, 2 * page + 7, uint64_t{65535},
              uint64_t{65536}, uint64_t{65537}, uint64_t{131072}, page + 65536, page + 65537}) {
            SCOPED_TRACE(std::to_string(page_kb) + " KB, " + std::to_string(missing));
            use({.page_kb = page_kb}, 777);
            m_storage->m_fill_byte = page_kb == 3 ? 0xA5 : 0;
            m_storage->m_fout.seekp(10);  // a gap starts at the end, wherever the position is
            EXPECT_TRUE(m_storage->fill_output_file(777 + missing));
            EXPECT_EQ(lengths(), gap_lengths(page, missing));
            EXPECT_EQ(position(), 777 + missing);
            expect_padded(777, 777 + missing);
        }
    }
}

// The page size modulo 65536 as long as a page is missing, then the rest modulo 65536, then what is left. A
// step that comes to 0 has 64 KB.
TEST_F(PageWriterTest, GapStepIsThePageSizeModulo64KB) {
    using Lengths = std::vector<uint32_t>;
    for (const auto& [page_kb, steps] : {std::pair{64U, Lengths{65536, 65536, 65536, 3392}},
                                         {96U, Lengths{32768, 32768, 32768, 32768, 3392, 65536}},
                                         {128U, Lengths{65536, 65536, 3392, 65536}}}) {
        use({.page_kb = page_kb});
        EXPECT_TRUE(m_storage->fill_output_file(200000));
        EXPECT_EQ(lengths(), steps);
        EXPECT_EQ(position(), 200000U);
    }
}

TEST_F(PageWriterTest, NoGapMovesThePositionAlone) {
    for (const std::size_t offset : {0U, 1U, 4999U, 5000U}) {
        use({}, 5000);
        EXPECT_TRUE(m_storage->fill_output_file(offset));
        EXPECT_TRUE(m_storage->pages.empty());
        EXPECT_EQ(position(), offset);
        m_storage->m_fout.write("y", 1);
        Bytes expected(std::max<std::size_t>(5000, offset + 1), 'x');
        expected[offset] = 'y';
        EXPECT_TRUE(same_bytes(written(), expected)) << offset;
    }
}

// The number of steps goes by the lengths, but with 2 KB of data per page every step takes whole pages.
TEST_F(PageWriterTest, GapWithTwoKBPerPageTakesWholePages) {
    const struct {
        uint32_t page_kb;
        uint64_t missing, bytes;
    } cases[] = {{1, 1025, 2048},   {2, 32768, 32768}, {2, 32769, 34816},
                 {4, 32768, 65536}, {4, 1, 8192},      {3, 3072, 6144},
                 {3, 6145, 18432},  {8, 8192, 32768},  {96, 98304, 2 * 48 * 98304}};
    for (const auto& [page_kb, missing, bytes] : cases) {
        use({.page_kb = page_kb, .page_2k = true}, 100);
        EXPECT_TRUE(m_storage->fill_output_file(100 + missing));
        EXPECT_EQ(lengths(), gap_lengths(page_kb * 1024, missing));
        EXPECT_EQ(written_size(), 100 + bytes) << page_kb << " KB, " << missing;
    }
}

// Beyond tens of megabytes the rest goes to the output in one piece: a gap of terabytes must not take hours.
TEST_F(PageWriterTest, GapOfManyPagesGoesNotPageByPage) {
    use({.page_kb = 1}, 3);
    m_storage->m_fill_byte = 0xA5;
    EXPECT_TRUE(m_storage->fill_output_file(70000 * 1024 + 5));
    EXPECT_LT(m_storage->pages.size(), 70000U);
    EXPECT_EQ(position(), 70000U * 1024 + 5);
    expect_padded(3, 70000 * 1024 + 5);

    use({.page_kb = 3, .page_2k = true});
    EXPECT_TRUE(m_storage->fill_output_file(66000ULL * 3072 + 1));
    EXPECT_LT(m_storage->pages.size(), 66000U);
    EXPECT_EQ(written_size(), 66001ULL * 6144);

    use({.page_kb = 1});
    EXPECT_TRUE(m_storage->fill_output_file(uint64_t{1} << 41));
    EXPECT_EQ(position(), uint64_t{1} << 41);
    EXPECT_LT(m_storage->pages.size(), 100000U);
    m_storage->m_fout.give_up(ECANCELED);  // no file of terabytes is left behind
}

TEST_F(PageWriterTest, NothingIsFilledAfterAFailedWrite) {
    use({}, 10);
    m_storage->m_fout.give_up(EIO);
    EXPECT_TRUE(m_storage->fill_output_file(uint64_t{1} << 40));
    EXPECT_TRUE(m_storage->align_to_block());
    EXPECT_TRUE(m_storage->pages.empty());
}

TEST_F(PageWriterTest, FillingEndsWithTheFirstFailedWrite) {
    use({.page_kb = 64});
    m_storage->m_fout.open("/dev/full");
    EXPECT_TRUE(m_storage->fill_output_file(uint64_t{1} << 40));
    EXPECT_LE(m_storage->pages.size(), 17U) << "no more than is gathered at once";
    EXPECT_EQ(m_storage->m_write_failure.error, ENOSPC);
}

// ---- alignment ----

TEST_F(PageWriterTest, OutputIsPaddedToTheBlockOrPastItsEnd) {
    const struct {
        const char* situation;
        uint32_t block_kb, page_kb;
        uint64_t size;
        std::size_t pages;
    } cases[] = {{"whole block", 128, 2, 131072, 0},
                 {"whole blocks", 128, 2, 262144, 0},
                 {"nothing", 128, 2, 0, 0},
                 {"a byte", 128, 2, 1, 64},
                 {"a byte less than a block", 128, 2, 131071, 1},
                 {"a byte more than a block", 128, 2, 131073, 64},
                 {"a page less than a block", 128, 2, 129024, 1},
                 {"a page and a byte less than a block", 128, 2, 129023, 2},
                 {"many blocks", 512, 2, 4999168, 119},
                 {"page that does not divide a block", 512, 3, 4999168, 80},
                 {"block smaller than a page", 1, 64, 100, 1}};
    for (const auto& [situation, block_kb, page_kb, size, pages] : cases) {
        SCOPED_TRACE(situation);
        use({.block_kb = block_kb, .page_kb = page_kb}, size);
        m_storage->m_fill_byte = 0x5A;
        m_storage->m_fout.seekp(0);
        EXPECT_TRUE(m_storage->align_to_block());
        EXPECT_EQ(lengths(), std::vector<uint32_t>(pages, page_kb * 1024));
        expect_padded(size, size + pages * page_kb * 1024);
    }
}

TEST_F(PageWriterTest, AlignmentBeyond4GiBIsExact) {
    // 4 GiB and a byte are 65537 bytes more than whole blocks of 96 KB.
    use({.block_kb = 96, .page_kb = 1});
    m_storage->m_fout.write_fill(0, 1, (uint64_t{1} << 32) + 1);
    EXPECT_TRUE(m_storage->align_to_block());
    EXPECT_EQ(lengths(), std::vector<uint32_t>(32, 1024));
    EXPECT_EQ(written_size(), (uint64_t{1} << 32) + 32769);
}

TEST_F(PageWriterTest, AlignmentWithTwoKBPerPageWritesWholePages) {
    use({.block_kb = 16, .page_kb = 4, .page_2k = true}, 8192);
    EXPECT_TRUE(m_storage->align_to_block());
    EXPECT_EQ(lengths(), std::vector<uint32_t>(2, 4096));
    EXPECT_EQ(written_size(), 8192U + 2 * 8192);
}

TEST_F(PageWriterTest, ClosedOutputNeedsNoAlignment) {
    use({}, 1);
    m_storage->close_output();
    EXPECT_TRUE(m_storage->align_to_block());
    EXPECT_TRUE(m_storage->pages.empty());
    EXPECT_TRUE(m_storage->m_fout.good());
}

// ---- pages ----

TEST_F(PageWriterTest, PageHasItsLengthAndItsPlace) {
    use({}, 20000);
    m_storage->m_fout.seekp(100);
    Bytes data = patterned(10000, 1);
    Bytes expected(20000, 'x');
    std::size_t at = 100;
    for (const uint32_t length : {2048U, 1U, 0U, 10000U, 2047U}) {
        EXPECT_TRUE(m_storage->write_page(data.data(), length));
        put_bytes_at(expected, at, slice(data, 0, length));
        at += length;
    }
    EXPECT_TRUE(same_bytes(written(), expected));
}

TEST_F(PageWriterTest, TwoKBPerPageSpreadsThePage) {
    for (const uint32_t page_kb : {0U, 1U, 2U, 3U, 4U, 5U, 6U, 8U, 64U}) {
        use({.page_kb = page_kb, .page_2k = true});
        m_storage->m_fill_byte = 0xA5;
        Bytes data = patterned(page_kb * 1024 + 1, page_kb);  // the byte after the page is not written
        const Bytes page = slice(data, 0, page_kb * 1024);
        for (const uint32_t length : {page_kb * 1024, 0U, 1U})  // the length is ignored
            EXPECT_TRUE(m_storage->write_page(data.data(), length));
        EXPECT_TRUE(same_bytes(written(), spread_pages(page + page + page, page.size(), 0xA5))) << page_kb;
    }
}

TEST_F(PageWriterTest, FailedPageDoesNotFailTheCall) {
    for (const bool page_2k : {false, true}) {
        use({.page_2k = page_2k});
        m_storage->m_fout.open("/dev/full");
        Bytes data = patterned(2048, 1);
        for (int i = 0; i < 1000; ++i)
            EXPECT_TRUE(m_storage->write_page(data.data(), 2048));
        EXPECT_EQ(m_storage->m_write_failure.path, "/dev/full");
        EXPECT_EQ(m_storage->m_write_failure.error, ENOSPC);
    }
}

TEST_F(PageWriterTest, PageThatNoMemoryHoldsFailsWhatNeedsIt) {
    if (!kMemoryCanBeLimited)
        GTEST_SKIP() << "needs a build without sanitizers or emulator";
    use({.page_kb = kHugePageKb}, 100);
    const MemoryLimit limit(256 * 1024 * 1024);
    EXPECT_FALSE(m_storage->fill_output_file(200));
    EXPECT_TRUE(m_storage->fill_output_file(50)) << "no gap, no page";
    EXPECT_EQ(m_storage->m_write_failure.error, 0);
    EXPECT_FALSE(m_storage->align_to_block());
    EXPECT_EQ(m_storage->m_write_failure.error, ENOMEM) << "nobody asks for the result of an alignment";
    EXPECT_TRUE(m_storage->pages.empty());
}

}  // namespace
}  // namespace storage_test
