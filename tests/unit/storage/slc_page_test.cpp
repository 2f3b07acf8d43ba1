// The flash page of SLC NAND: units of data, system bytes and parity, and what it costs to make them.

#include "common/bch.h"
#include "slc_fixture.h"
#include "support/bch_paths.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace storage_test {
namespace {

TEST_F(SlcPage, ConstructionSetsTheFormat) {
    bch_init(24);
    const auto plain = make<SlcStorage>(SlcCase{}.geometry(), false);
    EXPECT_EQ(MaxBitsNum, 16U);
    EXPECT_EQ(plain->m_type, FLASH_SLC_NAND);
    EXPECT_EQ(plain->m_bch_size, 32U);
    EXPECT_EQ(plain->m_bch_list_index, 0U);
    EXPECT_EQ(plain->m_bch_list_step, 4);
    EXPECT_EQ(plain->m_fill_byte, 0);
    EXPECT_EQ(make<SlcStorage>(SlcCase{}.geometry(), true)->m_bch_list_step, 1);
}

TEST_F(SlcPage, IsThatOfSlowEncoderAndReaderInEveryGeometry) {
    for (const SlcCase& chip : all_slc_cases()) {
        SCOPED_TRACE(chip.name());
        const Bytes data = mixed_pages(chip);
        const Bytes found = written(chip, data);
        EXPECT_TRUE(same_bytes(found, slow_flash_pages(data, chip)));
        const SlcContents contents = read_slc_file(found, chip.reader());
        EXPECT_EQ(contents.error_text(), "");
        EXPECT_TRUE(same_bytes(contents.data, data));
        EXPECT_EQ(contents.physical_pages, data.size() / chip.page_size() * chip.factor());
    }
}

TEST_F(SlcPage, ListIndexWrapsAt32Bits) {
    const auto storage = open({});
    storage->m_bch_list_index = 0xFFFFFFFC;
    const Bytes data = patterned(2048, 2) + Bytes(2048, 0);
    write(*storage, data);
    EXPECT_EQ(storage->m_bch_list_index, 4U);
    storage->close_output();
    EXPECT_TRUE(same_bytes(file_bytes(), slow_flash_pages(data, {}, 0xFFFFFFFC)));
}

TEST_F(SlcPage, LengthIsIgnored) {
    Bytes data = patterned(2048, 2);
    const auto storage = open({});
    for (const uint32_t length : {0U, 1U, 2047U, 2049U, 0xFFFFFFFFU})
        EXPECT_TRUE(storage->write_page(data.data(), length));
    storage->close_output();
    EXPECT_TRUE(same_bytes(file_bytes(), slow_flash_pages(data + data + data + data + data, {})));
}

TEST_F(SlcPage, FillPagesFollowTheFillByte) {
    const SlcCase chip{.page_kb = 4, .spare = 130, .page_2k = true};
    const auto storage = open(chip);
    const Bytes data = Bytes(4096, 0) + patterned(4096, 1) + Bytes(4096, 0xFF);
    Bytes expected;
    uint32_t index = 0;
    for (const uint8_t fill_byte : Bytes{0x00, 0xFF, 0x5A, 0x00}) {  // the page made ready is made anew
        storage->m_fill_byte = fill_byte;
        const Bytes all = data + Bytes(4096, fill_byte);
        write(*storage, all);
        put_bytes(expected, slow_flash_pages(all, chip, index, fill_byte));
        index += 32;
    }
    storage->close_output();
    EXPECT_TRUE(same_bytes(file_bytes(), expected));
}

TEST_F(SlcPage, IsTheSameOnEveryEncoderPath) {
    const SlcCase chip{.page_kb = 8, .spare = 256};
    const Bytes data = mixed_pages(chip);
    const Bytes expected = slow_flash_pages(data, chip);
    for (const BchPath& path : available_bch_paths()) {
        const auto storage = open(chip);
        bch_select_path(path);
        write(*storage, data);
        storage->close_output();
        EXPECT_TRUE(same_bytes(file_bytes(), expected)) << path.name;
    }
}

// ---- a spare area that is too small ----

TEST_F(SlcPage, IsDroppedWithALineWhenTheSpareAreaIsTooSmall) {
    for (const uint32_t page_kb : {1U, 2U, 3U, 4U, 8U}) {
        for (const uint32_t spare : {0U, 1U, 32 * page_kb - 1}) {
            const SlcCase chip{.page_kb = page_kb, .spare = spare};
            SCOPED_TRACE(chip.name());
            Bytes data = patterned(chip.page_size(), 1);
            const auto storage = open(chip);
            const uint64_t encoded_before = bch_encoded_codewords();
            for (int page = 0; page < 2; ++page)
                EXPECT_EQ(
                    output_of([&] { EXPECT_FALSE(storage->write_page(data.data(), chip.page_size())); }),
                    error_line("size of oob is not enough"));
            EXPECT_EQ(storage->m_bch_list_index, 0U);
            storage->close_output();
            EXPECT_EQ(bch_encoded_codewords(), encoded_before);
            EXPECT_EQ(file_bytes(), Bytes{});
            EXPECT_EQ(storage->m_write_failure.error, 0);
        }
    }
}

TEST_F(SlcPage, SpareAreaIsCheckedAtEveryCall) {
    const auto storage = open({});
    Bytes data = patterned(2048, 1);
    EXPECT_TRUE(storage->write_page(data.data(), 2048));
    storage->m_oob_size = 63;
    EXPECT_EQ(output_of([&] { EXPECT_FALSE(storage->write_page(data.data(), 2048)); }),
              error_line("size of oob is not enough"));
    storage->m_oob_size = 64;
    EXPECT_TRUE(storage->write_page(data.data(), 2048));
    storage->close_output();
    EXPECT_TRUE(same_bytes(file_bytes(), slow_flash_pages(data + data, {})));
}

// Refuses every page without a word.
class RefusingAll : public SlcStorage {
public:
    using SlcStorage::SlcStorage;
    bool write_page(uint8_t* /*data*/, uint32_t /*length*/) override {
        ++asked;
        return false;
    }
    uint64_t asked = 0;
};

TEST_F(SlcPage, PaddingStopsAfter1048576Refusals) {
    for (const bool page_2k : {false, true}) {
        const SlcCase chip{.page_kb = 64, .spare = 31, .page_2k = page_2k};
        const auto storage = make<RefusingAll>(chip.geometry(), false);
        storage->m_fout.open(file().string(), std::ios_base::out | std::ios_base::trunc);
        Bytes fill(chip.page_size(), 0);
        storage->write_fill_pages(fill.data(), 2, chip.page_size());
        EXPECT_EQ(storage->asked, 2U);
        storage->write_fill_pages(fill.data(), 1048573, chip.page_size());
        storage->switch_output("next.img");
        storage->write_fill_pages(fill.data(), uint64_t{1} << 32, chip.page_size());
        EXPECT_EQ(storage->asked, 1048576U) << "in the whole run";
        storage->write_fill_pages(fill.data(), 1, chip.page_size());
        EXPECT_EQ(storage->asked, 1048576U);
        storage->close_output();
        EXPECT_EQ(file_bytes(), Bytes{});
        EXPECT_EQ(storage->m_write_failure.error, 0);
    }
}

// ---- memory ----

TEST_F(SlcPage, ThatNoMemoryHoldsFailsTheFile) {
    if (!kMemoryCanBeLimited)
        GTEST_SKIP() << "needs a build without sanitizers or emulator";
    const auto storage = open({.page_kb = kHugePageKb, .spare = 32 * kHugePageKb});
    uint8_t byte = 0;
    const MemoryLimit limit(256 * 1024 * 1024);
    EXPECT_EQ(output_of([&] { EXPECT_FALSE(storage->write_page(&byte, 1)); }), "");
    EXPECT_EQ(storage->m_write_failure.path, file().string());
    EXPECT_EQ(storage->m_write_failure.error, ENOMEM);
    EXPECT_EQ(storage->m_bch_list_index, 0U);
}

TEST_F(SlcPage, MissingMemoryIsAskedForAgain) {
    if (!kMemoryCanBeLimited)
        GTEST_SKIP() << "needs a build without sanitizers or emulator";
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
