// SLC NAND pages keep their parity whatever a derived class does with encoder and stream around them.

#include "common/bch.h"
#include "slc_page_fixture.h"

#include <gtest/gtest.h>

#include <sstream>

namespace storage_test {
namespace {

class SlcSurroundingsTest : public SlcPage {
protected:
    SlcCase m_chip{};
    Bytes m_data = patterned(std::size_t{3} * 2048, 1) + Bytes(2048, 0);
};

TEST_F(SlcSurroundingsTest, AnotherCodeBetweenPagesChangesNothing) {
    const auto storage = open(m_chip);
    write(*storage, m_data);
    bch_init(24);
    write(*storage, m_data);
    storage->m_fout.flush();
    EXPECT_EQ(MaxBitsNum, 24U) << "the other code stays";
    storage->close_output();
    bch_init(16);
    EXPECT_TRUE(same_bytes(test_support::read_file(file()), slow_flash_pages(m_data + m_data, m_chip)));
}

TEST_F(SlcSurroundingsTest, AnotherStreamBufferGetsParity) {
    const auto storage = open(m_chip);
    std::stringbuf other;
    std::ostream& stream = storage->m_fout;
    std::streambuf* const own = stream.rdbuf(&other);
    write(*storage, m_data);
    stream.rdbuf(own);
    const std::string text = other.str();
    EXPECT_TRUE(same_bytes(Bytes(text.begin(), text.end()), slow_flash_pages(m_data, m_chip)));
}

TEST_F(SlcSurroundingsTest, MissingMemoryIsAskedForAgain) {
    if (!kMemoryCanBeLimited)
        GTEST_SKIP() << "needs a build without sanitizers";
    const SlcCase chip{.page_kb = 65536, .spare = 65536 * 32};
    Bytes data(chip.page_size(), 0);
    data[0] = 1;
    const auto storage = open(chip);
    ASSERT_TRUE(storage->write_page(data.data(), chip.page_size()));
    storage->m_fill_byte = 1;
    {
        const MemoryLimit limit(16 * 1024 * 1024);
        EXPECT_FALSE(storage->write_page(data.data(), chip.page_size()));
    }
    storage->m_fill_byte = 0;
    storage->m_fout.open(file().string());
    EXPECT_TRUE(storage->write_page(data.data(), chip.page_size()));
    storage->close_output();
    EXPECT_EQ(std::filesystem::file_size(file()), chip.flash_page_size());
}

}  // namespace
}  // namespace storage_test
