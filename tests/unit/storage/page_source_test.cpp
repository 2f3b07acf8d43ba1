#include "storage/page_source.h"

#include "io/block_reader.h"
#include "partition_fixture.h"

#include <limits>

namespace storage_test {
namespace {

using Asked = std::vector<std::pair<uint64_t, uint32_t>>;  // positions and sizes

class PageSourceTest : public ::testing::Test {
protected:
    // The pages of m_image.
    PageSource source(uint32_t page_size) {
        return {[this](uint64_t position, uint32_t size, uint8_t* out) { return read(position, size, out); },
                m_image.size(), page_size, 0xEE};
    }

    bool read(uint64_t position, uint32_t size, uint8_t* out) {
        m_asked.emplace_back(position, size);
        if (position + size > m_readable)
            return false;
        std::copy_n(m_image.begin() + static_cast<std::ptrdiff_t>(position), size, out);
        return true;
    }

    static Bytes bytes(std::span<uint8_t> pages) { return {pages.begin(), pages.end()}; }

    Bytes m_image{};
    uint64_t m_readable =
        std::numeric_limits<uint64_t>::max();  // bytes of the image before the first bad one
    Asked m_asked{};
};

TEST_F(PageSourceTest, EveryPageComesOnceInOrder) {
    for (const uint32_t page_size : {1024U, 2048U, 3072U, 65536U, 1048576U}) {
        m_image = patterned(1200000, page_size);
        const auto pages = static_cast<uint32_t>((m_image.size() - 1) / page_size + 1);
        PageSource images = source(page_size);
        Bytes all;
        while (all.size() < uint64_t{pages} * page_size) {
            const auto done = static_cast<uint32_t>(all.size() / page_size);
            const Bytes run = bytes(images.pages(done, pages - done));
            ASSERT_NE(run.size(), 0U);
            ASSERT_EQ(run.size() % page_size, 0U);
            put_bytes(all, run);
        }
        EXPECT_TRUE(same_bytes(all, padded(m_image, page_size, 0xEE))) << page_size;
        std::fill_n(images.page(), page_size, uint8_t{1});  // there is memory for a page
    }
}

TEST_F(PageSourceTest, RunIsTheWholePagesOf128KiB) {
    m_image = Bytes(3000000, 1);
    for (const auto& [page_size, run] : {std::pair{1024U, 131072U},
                                         {3072U, 43U * 3072},
                                         {65536U, 131072U},
                                         {131073U, 131073U},
                                         {1048576U, 1048576U}}) {
        EXPECT_EQ(source(page_size).pages(0, 1000).size(), run) << page_size;
        EXPECT_GE(run, BlockReader::kBlockSize) << "read past the block of small pieces";
    }
}

TEST_F(PageSourceTest, NoMorePagesThanAskedFor) {
    m_image = patterned(100000, 1);
    PageSource images = source(1024);
    EXPECT_EQ(bytes(images.pages(3, 2)), slice(m_image, 3072, 2048));
    EXPECT_EQ(bytes(images.pages(0, 1)), slice(m_image, 0, 1024));
    EXPECT_EQ(m_asked, (Asked{{3072, 2048}, {0, 1024}}));
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
    std::ranges::fill(images.pages(0, 5), uint8_t{0x77});
    EXPECT_EQ(bytes(images.pages(0, 5)), padded(m_image, 5120, 0xEE));
}

TEST_F(PageSourceTest, PagesBeforeTheBadOneAreStillShown) {
    m_image = patterned(10000, 1);
    m_readable = 3000;
    PageSource images = source(1024);
    EXPECT_EQ(bytes(images.pages(0, 10)), slice(m_image, 0, 1024));
    EXPECT_EQ(bytes(images.pages(1, 9)), slice(m_image, 1024, 1024));
    EXPECT_TRUE(images.pages(2, 8).empty());
    // The run that failed is the last one.
    EXPECT_EQ(m_asked, (Asked{{0, 10000}, {0, 1024}, {1024, 1024}, {2048, 1024}}));
}

TEST_F(PageSourceTest, OffsetsBeyond4GiBAreExact) {
    PageSource images(
        [this](uint64_t at, uint32_t size, uint8_t*) { return m_asked.emplace_back(at, size), true; },
        std::numeric_limits<uint64_t>::max(), 2048, 0);
    EXPECT_EQ(images.pages(0xFFFFFFFF, 1).size(), 2048U);
    EXPECT_EQ(m_asked, (Asked{{0xFFFFFFFFULL * 2048, 2048}}));
}

TEST_F(PageSourceTest, NoMemoryForAPageIsTold) {
    if (!kMemoryCanBeLimited)
        GTEST_SKIP() << "needs a build without sanitizers or emulator";
    const MemoryLimit limit(256 * 1024 * 1024);
    EXPECT_FALSE(source(1024 * 1024 * 1024));
}

}  // namespace
}  // namespace storage_test
