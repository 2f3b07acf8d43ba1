#include "storage/page_source.h"

#include "io/block_reader.h"
#include "partition_fixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <utility>
#include <vector>

namespace storage_test {
namespace {

using test_support::patterned;
using test_support::slice;

class PageSourceTest : public ::testing::Test {
protected:
    // The pages of m_image.
    PageSource source(uint32_t page_size) {
        return {[this](uint64_t position, uint32_t size, uint8_t* out) { return read(position, size, out); },
                m_image.size(), page_size, 0xEE};
    }

    bool read(uint64_t position, uint32_t size, uint8_t* out) {
        m_asked.emplace_back(position, size);
        if (position > m_readable || size > m_readable - position)
            return false;
        std::copy_n(m_image.begin() + static_cast<std::ptrdiff_t>(position), size, out);
        return true;
    }

    static Bytes bytes(std::span<uint8_t> pages) { return {pages.begin(), pages.end()}; }

    Bytes m_image{};
    uint64_t m_readable =
        std::numeric_limits<uint64_t>::max();  // bytes of the image, up to the first bad one
    std::vector<std::pair<uint64_t, uint32_t>> m_asked{};
};

TEST_F(PageSourceTest, EveryPageComesOnceInOrder) {
    for (const uint32_t page_size : {1024U, 2048U, 3072U, 65536U, 1048576U}) {
        m_image = patterned(1200000, page_size);
        const auto pages = static_cast<uint32_t>((m_image.size() - 1) / page_size + 1);
        PageSource images = source(page_size);
        Bytes all;
        for (uint32_t done = 0; done < pages;) {
            const Bytes run = bytes(images.pages(done, pages - done));
            ASSERT_NE(run.size(), 0U);
            ASSERT_EQ(run.size() % page_size, 0U);
            test_support::put_bytes(all, run);
            done += static_cast<uint32_t>(run.size() / page_size);
        }
        EXPECT_TRUE(same_bytes(all, padded(m_image, page_size, 0xEE))) << page_size;
    }
}

TEST_F(PageSourceTest, RunIsTheWholePagesOf128KiB) {
    m_image = Bytes(3000000, 1);
    const struct {
        uint32_t page_size;
        std::size_t run;
    } cases[] = {{1024, 131072}, {3072, 43 * 3072}, {65536, 131072}, {131073, 131073}, {1048576, 1048576}};
    for (const auto& wanted : cases) {
        EXPECT_EQ(source(wanted.page_size).pages(0, 1000).size(), wanted.run) << wanted.page_size;
        EXPECT_GE(wanted.run, BlockReader::kBlockSize) << "read past the block of small pieces";
    }
}

TEST_F(PageSourceTest, NoMorePagesThanAskedFor) {
    m_image = patterned(100000, 1);
    PageSource images = source(1024);
    EXPECT_EQ(bytes(images.pages(3, 2)), slice(m_image, 3072, 2048));
    EXPECT_EQ(bytes(images.pages(0, 1)), slice(m_image, 0, 1024));
    EXPECT_EQ(m_asked, (std::vector<std::pair<uint64_t, uint32_t>>{{3072, 2048}, {0, 1024}}));
}

TEST_F(PageSourceTest, PagesAfterTheImageAreFillBytes) {
    m_image = patterned(1500, 1);
    PageSource images = source(1024);
    EXPECT_EQ(bytes(images.pages(0, 4)), padded(m_image, 4096, 0xEE));
    EXPECT_EQ(bytes(images.pages(7, 1)), Bytes(1024, 0xEE));
}

TEST_F(PageSourceTest, ChangedPagesAreReadAfresh) {
    m_image = patterned(5000, 1);
    PageSource images = source(1024);
    const std::span<uint8_t> run = images.pages(0, 5);
    std::fill(run.begin(), run.end(), uint8_t{0x77});
    EXPECT_EQ(bytes(images.pages(0, 5)), padded(m_image, 5120, 0xEE));
}

TEST_F(PageSourceTest, PagesBeforeTheBadOneAreStillShown) {
    m_image = patterned(10000, 1);
    m_readable = 3000;
    PageSource images = source(1024);
    EXPECT_EQ(bytes(images.pages(0, 10)), slice(m_image, 0, 1024));
    EXPECT_EQ(bytes(images.pages(1, 9)), slice(m_image, 1024, 1024));
    EXPECT_TRUE(images.pages(2, 8).empty());
}

TEST_F(PageSourceTest, RunThatFailedIsTheLastOne) {
    m_image = patterned(10000, 1);
    m_readable = 3000;
    PageSource images = source(1024);
    images.pages(0, 5);
    images.pages(1, 4);
    EXPECT_EQ(m_asked, (std::vector<std::pair<uint64_t, uint32_t>>{{0, 5 * 1024}, {0, 1024}, {1024, 1024}}));
}

TEST_F(PageSourceTest, OffsetsBeyond4GiBAreExact) {
    std::vector<uint64_t> asked;
    PageSource images([&](uint64_t position, uint32_t, uint8_t*) { return asked.push_back(position), true; },
                      std::numeric_limits<uint64_t>::max(), 2048, 0);
    EXPECT_EQ(images.pages(0xFFFFFFFF, 1).size(), 2048U);
    EXPECT_EQ(asked, std::vector<uint64_t>{0xFFFFFFFFULL * 2048});
}

TEST_F(PageSourceTest, PageHasMemoryForAWholePage) {
    for (const uint32_t page_size : {1024U, 3072U, 1048576U}) {
        PageSource images = source(page_size);
        ASSERT_TRUE(images);
        std::fill_n(images.page(), page_size, uint8_t{1});
    }
}

TEST_F(PageSourceTest, NoMemoryForAPageIsTold) {
    if (!kMemoryCanBeLimited)
        GTEST_SKIP() << "needs a build without sanitizers";
    const MemoryLimit limit(256 * 1024 * 1024);
    EXPECT_FALSE(source(1024 * 1024 * 1024));
}

}  // namespace
}  // namespace storage_test
