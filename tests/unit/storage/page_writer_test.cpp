// Gaps, alignment and single pages of the output.

#include "partition_fixture.h"
#include "storage_fixture.h"
#include "support/expected/boot_block.h"
#include "support/process_limits.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace storage_test;
using namespace test_support;

using Storage = Recording<CStorage>;

class PageWriterTest : public StorageTest {
protected:
    // A storage object whose output file is open and holds `size` bytes of 'x'.
    void use(const Geometry& geometry, std::size_t size = 0) {
        m_storage = make_base<Storage>(FLASH_EMMC, geometry);
        m_storage->forward = true;
        m_storage->m_fout.open(out_path("out.img").string());
        write('x', size);
    }

    void write(char value, std::size_t size) {
        const std::string text(size, value);
        m_storage->m_fout.write(text.data(), static_cast<std::streamsize>(size));
    }

    std::vector<uint32_t> lengths() const {
        std::vector<uint32_t> all;
        for (const RecordedPage& page : m_storage->pages)
            all.push_back(page.length);
        return all;
    }

    uint64_t position() const { return static_cast<uint64_t>(m_storage->m_fout.tellp()); }

    Bytes written() {
        m_storage->close_output();
        EXPECT_EQ(m_storage->m_write_failure.error, 0);
        return read_file(out_path("out.img"));
    }
    uint64_t written_size() {
        m_storage->close_output();
        return std::filesystem::file_size(out_path("out.img"));
    }

    std::unique_ptr<Storage> m_storage;
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
            use({.page_kb = page_kb}, 777);
            EXPECT_TRUE(m_storage->fill_output_file(777 + missing));
            EXPECT_EQ(lengths(), gap_lengths(page, missing)) << page_kb << " KB, " << missing;
            EXPECT_EQ(position(), 777 + missing);
            Bytes expected(777, 'x');
            expected.resize(777 + missing, 0);
            EXPECT_TRUE(same_bytes(written(), expected)) << page_kb << " KB, " << missing;
        }
    }
}

TEST_F(PageWriterTest, LengthOfAGapStepIsThePageSizeModulo65536) {
    use({.page_kb = 96});
    EXPECT_TRUE(m_storage->fill_output_file(200000));
    // 98304 modulo 65536 as long as a page is missing, then the rest modulo 65536, then what is left.
    EXPECT_EQ(lengths(), (std::vector<uint32_t>{32768, 32768, 32768, 32768, 3392, 65536}));
    EXPECT_EQ(position(), 200000U);
}

TEST_F(PageWriterTest, PagesOf64KBCloseAGapInStepsOf65536) {
    use({.page_kb = 64});
    EXPECT_TRUE(m_storage->fill_output_file(200000));
    EXPECT_EQ(lengths(), (std::vector<uint32_t>{65536, 65536, 65536, 3392}));
    use({.page_kb = 128});
    EXPECT_TRUE(m_storage->fill_output_file(200000));
    EXPECT_EQ(lengths(), (std::vector<uint32_t>{65536, 65536, 3392, 65536}));
}

TEST_F(PageWriterTest, GapIsFilledWithTheFillByte) {
    use({}, 10);
    m_storage->m_fill_byte = 0xA5;
    EXPECT_TRUE(m_storage->fill_output_file(5000));
    Bytes expected(10, 'x');
    expected.resize(5000, 0xA5);
    EXPECT_TRUE(same_bytes(written(), expected));
}

TEST_F(PageWriterTest, NoGapMovesThePositionAlone) {
    for (const std::size_t offset : {std::size_t{0}, std::size_t{1}, std::size_t{4999}, std::size_t{5000}}) {
        use({}, 5000);
        EXPECT_TRUE(m_storage->fill_output_file(offset));
        EXPECT_TRUE(m_storage->pages.empty());
        EXPECT_EQ(position(), offset);
        write('y', 1);
        Bytes expected(std::max<std::size_t>(5000, offset + 1), 'x');
        expected[offset] = 'y';
        EXPECT_TRUE(same_bytes(written(), expected)) << offset;
    }
}

TEST_F(PageWriterTest, GapStartsAtTheEndWhereverThePositionIs) {
    use({}, 5000);
    m_storage->m_fout.seekp(10);
    EXPECT_TRUE(m_storage->fill_output_file(7000));
    Bytes expected(5000, 'x');
    expected.resize(7000, 0);
    EXPECT_TRUE(same_bytes(written(), expected));
}

// The number of steps goes by the lengths, but with 2 KB of data per page every step takes whole pages.
TEST_F(PageWriterTest, GapWithTwoKBPerPageTakesWholePages) {
    const struct {
        uint32_t page_kb;
        uint64_t missing, written;
    } cases[] = {{1, 1025, 2048},   {2, 32768, 32768}, {2, 32769, 34816},
                 {4, 32768, 65536}, {4, 1, 8192},      {3, 3072, 6144},
                 {3, 6145, 18432},  {8, 8192, 32768},  {96, 98304, 2 * 48 * 98304}};
    for (const auto& wanted : cases) {
        use({.page_kb = wanted.page_kb, .page_2k = true}, 100);
        EXPECT_TRUE(m_storage->fill_output_file(100 + wanted.missing));
        EXPECT_EQ(lengths(), gap_lengths(wanted.page_kb * 1024, wanted.missing));
        EXPECT_EQ(written_size(), 100 + wanted.written) << wanted.page_kb << " KB, " << wanted.missing;
    }
}

// Beyond tens of megabytes the rest goes to the output in one piece: a gap of terabytes must not take hours.
TEST_F(PageWriterTest, GapOfManyPagesGoesNotPageByPage) {
    use({.page_kb = 1}, 3);
    const uint64_t offset = 70000ULL * 1024 + 5;
    EXPECT_TRUE(m_storage->fill_output_file(offset));
    EXPECT_LT(m_storage->pages.size(), 70000U);
    EXPECT_EQ(position(), offset);
    write('y', 1);
    EXPECT_EQ(written_size(), offset + 1);

    use({.page_kb = 3, .page_2k = true});
    EXPECT_TRUE(m_storage->fill_output_file(66000ULL * 3072 + 1));
    EXPECT_LT(m_storage->pages.size(), 66000U);
    EXPECT_EQ(written_size(), 66001ULL * 6144);
}

TEST_F(PageWriterTest, GapOfTerabytesTakesMoments) {
    use({.page_kb = 1});
    EXPECT_TRUE(m_storage->fill_output_file(uint64_t{1} << 41));
    EXPECT_EQ(position(), uint64_t{1} << 41);
    EXPECT_LT(m_storage->pages.size(), 100000U);
    m_storage->m_fout.give_up(ECANCELED);  // no file of terabytes is left behind
}

TEST_F(PageWriterTest, GapOfManyPagesKeepsItsFillByte) {
    use({.page_kb = 1});
    m_storage->m_fill_byte = 0xA5;
    const std::size_t size = 65536 * 1024 + 2500;
    EXPECT_TRUE(m_storage->fill_output_file(size));
    EXPECT_TRUE(same_bytes(written(), Bytes(size, 0xA5)));
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

TEST_F(PageWriterTest, OutputOf4999168BytesIsPaddedToTheBlock) {
    use({.block_kb = 512, .page_kb = 2});
    m_storage->m_fout.write_fill('x', 1, 4999168);
    EXPECT_TRUE(m_storage->align_to_block());
    EXPECT_EQ(lengths(), std::vector<uint32_t>(119, 2048));
    Bytes expected(4999168, 'x');
    expected.resize(5242880, 0);
    EXPECT_TRUE(same_bytes(written(), expected));
}

TEST_F(PageWriterTest, PageThatDoesNotDivideABlockEndsAfterIt) {
    use({.block_kb = 512, .page_kb = 3});
    m_storage->m_fout.write_fill('x', 1, 4999168);
    EXPECT_TRUE(m_storage->align_to_block());
    EXPECT_EQ(lengths(), std::vector<uint32_t>(80, 3072));
    EXPECT_EQ(written_size(), 5244928U);
}

TEST_F(PageWriterTest, WholeBlocksGetNothing) {
    for (const std::size_t size : {std::size_t{0}, std::size_t{131072}, std::size_t{262144}}) {
        use({.block_kb = 128}, size);
        EXPECT_TRUE(m_storage->align_to_block());
        EXPECT_TRUE(m_storage->pages.empty());
        EXPECT_EQ(written_size(), size);
    }
}

TEST_F(PageWriterTest, OneByteTooManyTakesAnotherBlock) {
    const struct {
        std::size_t size, pages;
    } cases[] = {{1, 64}, {131071, 1}, {131073, 64}, {129024, 1}, {129023, 2}};
    for (const auto& wanted : cases) {
        use({.block_kb = 128}, wanted.size);
        EXPECT_TRUE(m_storage->align_to_block());
        EXPECT_EQ(lengths(), std::vector<uint32_t>(wanted.pages, 2048)) << wanted.size;
        EXPECT_EQ(written_size(), wanted.size + wanted.pages * 2048);
    }
}

TEST_F(PageWriterTest, BlockSmallerThanAPageIsPaddedWithAWholePage) {
    use({.block_kb = 1, .page_kb = 64}, 100);
    EXPECT_TRUE(m_storage->align_to_block());
    EXPECT_EQ(lengths(), std::vector<uint32_t>{65536});
    EXPECT_EQ(written_size(), 65636U);
}

TEST_F(PageWriterTest, AlignmentCountsFromTheEndWithTheFillByte) {
    use({.block_kb = 4}, 5000);
    m_storage->m_fill_byte = 0x5A;
    m_storage->m_fout.seekp(0);
    EXPECT_TRUE(m_storage->align_to_block());
    Bytes expected(5000, 'x');
    expected.resize(5000 + 2 * 2048, 0x5A);
    EXPECT_TRUE(same_bytes(written(), expected));
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

TEST_F(PageWriterTest, PageAppendsAsManyBytesAsItsLengthSays) {
    use({});
    Bytes data = patterned(10000, 1);
    Bytes expected;
    for (const uint32_t length : {2048U, 1U, 0U, 10000U, 2047U}) {
        EXPECT_TRUE(m_storage->write_page(data.data(), length));
        put_bytes(expected, slice(data, 0, length));
    }
    EXPECT_TRUE(same_bytes(written(), expected));
}

TEST_F(PageWriterTest, PageIsWrittenAtThePosition) {
    use({}, 5000);
    m_storage->m_fout.seekp(100);
    Bytes data = patterned(2048, 1);
    EXPECT_TRUE(m_storage->write_page(data.data(), 2048));
    Bytes expected(5000, 'x');
    put_bytes_at(expected, 100, data);
    EXPECT_TRUE(same_bytes(written(), expected));
}

// What a page of data becomes with 2 KB of it per flash page.
Bytes spread(const Bytes& data, uint8_t fill_byte) {
    Bytes pages;
    for (std::size_t at = 0; at < data.size(); at += 2048) {
        Bytes page = slice(data, at, std::min<std::size_t>(2048, data.size() - at));
        page.resize(data.size(), fill_byte);
        put_bytes(pages, page);
    }
    return pages;
}

TEST_F(PageWriterTest, TwoKBPerPageSpreadsThePage) {
    for (const uint32_t page_kb : {1U, 2U, 3U, 4U, 5U, 6U, 8U, 64U}) {
        use({.page_kb = page_kb, .page_2k = true});
        m_storage->m_fill_byte = 0xA5;
        m_storage->forward = false;  // the length is ignored: do not record it
        Bytes data = patterned(page_kb * 1024, page_kb);
        Bytes expected;
        for (const uint32_t length : {page_kb * 1024, 0U, 1U}) {
            EXPECT_TRUE(m_storage->CStorage::write_page(data.data(), length));
            put_bytes(expected, spread(data, 0xA5));
        }
        EXPECT_TRUE(same_bytes(written(), expected)) << page_kb;
    }
}

TEST_F(PageWriterTest, PageOf4KBWithTwoKBPerPageIsTwoPages) {
    use({.page_kb = 4, .page_2k = true});
    Bytes data = patterned(4096, 1);
    EXPECT_TRUE(m_storage->write_page(data.data(), 4096));
    Bytes expected = zero_padded(slice(data, 0, 2048), 4096);
    put_bytes(expected, zero_padded(slice(data, 2048, 2048), 4096));
    EXPECT_TRUE(same_bytes(written(), expected));
}

TEST_F(PageWriterTest, PageOfNoBytesWritesNothing) {
    use({.page_kb = 0, .page_2k = true});
    uint8_t data = 0;
    EXPECT_TRUE(m_storage->CStorage::write_page(&data, 2048));
    EXPECT_EQ(written_size(), 0U);
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

// ---- no memory ----

TEST_F(PageWriterTest, PageThatNoMemoryHoldsFailsWhatNeedsIt) {
    if (!kMemoryCanBeLimited)
        GTEST_SKIP() << "needs a build without sanitizers";
    use({.page_kb = 1024 * 1024}, 100);
    const MemoryLimit limit(256 * 1024 * 1024);
    EXPECT_FALSE(m_storage->fill_output_file(200));
    EXPECT_TRUE(m_storage->fill_output_file(50)) << "no gap, no page";
    EXPECT_EQ(m_storage->m_write_failure.error, 0);
    EXPECT_FALSE(m_storage->align_to_block());
    EXPECT_EQ(m_storage->m_write_failure.error, ENOMEM) << "nobody asks for the result of an alignment";
    EXPECT_TRUE(m_storage->pages.empty());
}

}  // namespace
