// The flash page of SLC NAND: units of data, system bytes and parity, and what it costs to make them.

#include "common/bch.h"
#include "slc_page_fixture.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace storage_test {
namespace {

using test_support::all_bytes_are;
using test_support::get32;
using test_support::patterned;
using test_support::slice;

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

TEST_F(SlcPage, OfTwoKilobytesHasTheTabledOffsets) {
    const Bytes data = patterned(2048, 1);
    const Bytes page = written({.page_kb = 2, .spare = 64}, data);
    ASSERT_EQ(page.size(), 2112U);
    EXPECT_EQ(slice(page, 0, 1024), slice(data, 0, 1024));
    EXPECT_EQ(get32(page, 1024), 0U);
    EXPECT_EQ(slice(page, 1028, 28), test_support::bch_slow_parity(page.data(), 16));
    EXPECT_EQ(slice(page, 1056, 1024), slice(data, 1024, 1024));
    EXPECT_EQ(get32(page, 2080), 0xFFFFFFFFU);
    EXPECT_EQ(slice(page, 2084, 28), test_support::bch_slow_parity(page.data() + 1056, 16));
}

TEST_F(SlcPage, SpareBytesAfterTheUnitsStayErased) {
    const Bytes data = patterned(2048, 1);
    const Bytes page = written({.page_kb = 2, .spare = 128}, data);
    ASSERT_EQ(page.size(), 2176U);
    EXPECT_TRUE(all_bytes_are(page, 0xFF, 2112, 64));
    EXPECT_EQ(slice(page, 0, 2112), written({.page_kb = 2, .spare = 64}, data));
}

TEST_F(SlcPage, EqualsTheSlowEncodersForEveryGeometry) {
    for (const SlcCase& chip : all_slc_cases()) {
        const Bytes data = mixed_pages(chip);
        const Bytes found = written(chip, data);
        EXPECT_TRUE(same_bytes(found, slow_flash_pages(data, chip))) << chip.name();
    }
}

TEST_F(SlcPage, IsReadBackCleanForEveryGeometry) {
    for (const SlcCase& chip : all_slc_cases()) {
        const Bytes data = mixed_pages(chip);
        const auto contents = test_support::read_slc_file(written(chip, data), chip.reader());
        EXPECT_EQ(contents.error_text(), "") << chip.name();
        EXPECT_TRUE(same_bytes(contents.data, data)) << chip.name();
        EXPECT_EQ(contents.physical_pages, data.size() / chip.page_size() * chip.factor()) << chip.name();
    }
}

TEST_F(SlcPage, FourKilobytesWithTwoOfDataTakeTwoFlashPages) {
    const SlcCase chip{.page_kb = 4, .spare = 128, .page_2k = true};
    const Bytes data = patterned(4096, 9);
    const Bytes pages = written(chip, data);
    ASSERT_EQ(pages.size(), 2U * 4224U);
    for (std::size_t page = 0; page < 2; ++page) {
        const std::size_t start = page * 4224;
        EXPECT_EQ(slice(pages, start, 1024), slice(data, page * 2048, 1024));
        EXPECT_EQ(get32(pages, start + 1024), 4 * page) << "each flash page takes the next list index";
        EXPECT_EQ(slice(pages, start + 1056, 1024), slice(data, page * 2048 + 1024, 1024));
        for (const std::size_t unit : {2U, 3U}) {
            const std::size_t at = start + unit * 1056;
            EXPECT_TRUE(all_bytes_are(pages, 0, at, 1024));
            EXPECT_EQ(get32(pages, at + 1024), 0xFFFFFFFFU);
            EXPECT_EQ(slice(pages, at + 1028, 28), test_support::bch_slow_parity(pages.data() + at, 16));
        }
    }
}

TEST_F(SlcPage, OddNumberOfKilobytesEndsInAHalfPiece) {
    // The second flash page holds the third kilobyte; nothing of the first page may shine through after it.
    const SlcCase chip{.page_kb = 3, .spare = 96, .page_2k = true};
    const Bytes data = patterned(3072, 9);
    const Bytes pages = written(chip, data);
    ASSERT_EQ(pages.size(), 2U * 3168U);
    EXPECT_EQ(slice(pages, 3168, 1024), slice(data, 2048, 1024));
    EXPECT_TRUE(all_bytes_are(pages, 0, 3168 + 1056, 1024));
    EXPECT_TRUE(all_bytes_are(pages, 0, 3168 + 2112, 1024));
    for (const uint32_t page_kb : {5U, 7U}) {
        const SlcCase larger{.page_kb = page_kb, .spare = 32 * page_kb, .page_2k = true};
        const Bytes more = patterned(std::size_t{3} * larger.page_size(), page_kb);
        EXPECT_TRUE(same_bytes(written(larger, more), slow_flash_pages(more, larger))) << larger.name();
    }
}

TEST_F(SlcPage, TwoKilobytesFlagChangesNothingForPagesOfTwo) {
    const SlcCase plain{.page_kb = 2, .spare = 100};
    const SlcCase with_flag{.page_kb = 2, .spare = 100, .page_2k = true};
    EXPECT_TRUE(same_bytes(written(with_flag, mixed_pages(plain)), written(plain, mixed_pages(plain))));
}

TEST_F(SlcPage, ListIndexCountsFlashPages) {
    for (const bool page_list : {false, true}) {
        for (const bool page_2k : {false, true}) {
            const SlcCase chip{.page_kb = 4, .spare = 128, .page_2k = page_2k, .page_list = page_list};
            const Bytes pages = written(chip, patterned(3 * 4096, 1));
            ASSERT_EQ(pages.size(), (page_2k ? 6U : 3U) * 4224U);
            for (std::size_t i = 0; i < pages.size() / 4224; ++i)
                EXPECT_EQ(get32(pages, i * 4224 + 1024), i * (page_list ? 1 : 4)) << chip.name();
        }
    }
}

TEST_F(SlcPage, ListIndexWrapsAt32Bits) {
    const SlcCase chip{};
    const auto storage = open(chip);
    storage->m_bch_list_index = 0xFFFFFFFC;
    const Bytes data = patterned(2048, 2) + Bytes(2048, 0);
    write(*storage, data);
    EXPECT_EQ(storage->m_bch_list_index, 4U);
    storage->close_output();
    EXPECT_TRUE(same_bytes(test_support::read_file(file()), slow_flash_pages(data, chip, 0xFFFFFFFC)));
}

TEST_F(SlcPage, LengthIsIgnored) {
    const SlcCase chip{};
    Bytes data = patterned(2048, 2);
    const auto storage = open(chip);
    for (const uint32_t length : {0U, 1U, 2047U, 2049U, 0xFFFFFFFFU})
        EXPECT_TRUE(storage->write_page(data.data(), length));
    storage->close_output();
    EXPECT_TRUE(same_bytes(test_support::read_file(file()),
                           slow_flash_pages(data + data + data + data + data, chip)));
}

TEST_F(SlcPage, ErasedDataLeavesAllUnitsButTheFirstErased) {
    const Bytes page = written({.page_kb = 8, .spare = 300}, Bytes(8192, 0xFF));
    EXPECT_TRUE(all_bytes_are(page, 0xFF, 1056, 8192 + 300 - 1056));
    EXPECT_TRUE(all_bytes_are(page, 0xFF, 0, 1024));
    EXPECT_EQ(get32(page, 1024), 0U);
    EXPECT_FALSE(all_bytes_are(page, 0xFF, 1028, 28)) << "the list index is under the parity";
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
        test_support::put_bytes(expected, slow_flash_pages(all, chip, index, fill_byte));
        index += 32;
    }
    storage->close_output();
    EXPECT_TRUE(same_bytes(test_support::read_file(file()), expected));
}

TEST_F(SlcPage, IsTheSameOnEveryEncoderPath) {
    const SlcCase chip{.page_kb = 8, .spare = 256};
    const Bytes data = mixed_pages(chip);
    const Bytes expected = slow_flash_pages(data, chip);
    for (const BchPath& path : test_support::available_bch_paths()) {
        const auto storage = open(chip);
        bch_select_path(path);
        write(*storage, data);
        storage->close_output();
        EXPECT_TRUE(same_bytes(test_support::read_file(file()), expected)) << path.name;
    }
}

// ---- a spare area that is too small ----

TEST_F(SlcPage, IsDroppedWithALineWhenTheSpareAreaIsTooSmall) {
    for (const uint32_t page_kb : {1U, 2U, 3U, 4U, 8U}) {
        for (const uint32_t spare : {0U, 1U, 32 * page_kb - 1}) {
            const SlcCase chip{.page_kb = page_kb, .spare = spare};
            Bytes data = patterned(chip.page_size(), 1);
            const auto storage = open(chip);
            const std::string output = output_of([&] {
                EXPECT_FALSE(storage->write_page(data.data(), chip.page_size()));
                EXPECT_FALSE(storage->write_page(data.data(), chip.page_size()));
            });
            EXPECT_EQ(output,
                      error_line("size of oob is not enough") + error_line("size of oob is not enough"));
            EXPECT_EQ(storage->m_bch_list_index, 0U) << chip.name();
            storage->close_output();
            EXPECT_EQ(test_support::read_file(file()), Bytes{});
            EXPECT_EQ(storage->m_write_failure.error, 0);
        }
    }
}

TEST_F(SlcPage, SpareAreaIsCheckedAtEveryCall) {
    const SlcCase chip{};
    const auto storage = open(chip);
    Bytes data = patterned(2048, 1);
    EXPECT_TRUE(storage->write_page(data.data(), 2048));
    storage->m_oob_size = 63;
    EXPECT_EQ(output_of([&] { EXPECT_FALSE(storage->write_page(data.data(), 2048)); }),
              error_line("size of oob is not enough"));
    storage->m_oob_size = 64;
    EXPECT_TRUE(storage->write_page(data.data(), 2048));
    storage->close_output();
    EXPECT_TRUE(same_bytes(test_support::read_file(file()), slow_flash_pages(data + data, chip)));
}

// Refuses every page without a word.
class Refusing : public SlcStorage {
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
        const auto storage = make<Refusing>(chip.geometry(), false);
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
        EXPECT_EQ(test_support::read_file(file()), Bytes{});
        EXPECT_EQ(storage->m_write_failure.error, 0);
    }
}

TEST_F(SlcPage, EveryRefusedPageOfPaddingHasItsLine) {
    const SlcCase chip{.page_kb = 64, .spare = 31, .page_2k = true};
    const auto storage = open(chip);
    Bytes fill(chip.page_size(), 0);
    const std::string refusal = error_line("size of oob is not enough");
    std::string refusals;
    for (int i = 0; i < 100; ++i)
        refusals += refusal;
    EXPECT_EQ(output_of([&] { storage->write_fill_pages(fill.data(), 100, chip.page_size()); }), refusals);
}

TEST_F(SlcPage, ThatNoMemoryHoldsFailsTheFile) {
    if (!kMemoryCanBeLimited)
        GTEST_SKIP() << "needs a build without sanitizers";
    const auto storage = open({.page_kb = kHugePageKb, .spare = 32 * kHugePageKb});
    uint8_t byte = 0;
    const MemoryLimit limit(256 * 1024 * 1024);
    EXPECT_EQ(output_of([&] { EXPECT_FALSE(storage->write_page(&byte, 1)); }), "");
    EXPECT_EQ(storage->m_write_failure.path, file().string());
    EXPECT_EQ(storage->m_write_failure.error, ENOMEM);
    EXPECT_EQ(storage->m_bch_list_index, 0U);
}

// ---- cost, counted and not timed ----

class SlcPageCost : public SlcPage {
protected:
    static uint64_t codewords_for(SlcStorage& storage, const Bytes& data) {
        const uint64_t before = bch_encoded_codewords();
        write(storage, data);
        storage.m_fout.flush();  // units wait for others until then
        return bch_encoded_codewords() - before;
    }
};

TEST_F(SlcPageCost, FillPagesAreEncodedOnce) {
    for (const SlcCase& chip : all_slc_cases()) {
        const auto storage = open(chip);
        const Bytes fill(std::size_t{100} * chip.page_size(), 0);
        EXPECT_EQ(codewords_for(*storage, fill), chip.units()) << chip.name();
        EXPECT_EQ(codewords_for(*storage, fill), 0U) << chip.name();
    }
}

TEST_F(SlcPageCost, DataPagesCostOneCodewordPerKilobyte) {
    for (const SlcCase& chip : all_slc_cases()) {
        const auto storage = open(chip);
        codewords_for(*storage, Bytes(chip.page_size(), 0));
        const uint64_t found = codewords_for(*storage, patterned(std::size_t{10} * chip.page_size(), 1));
        EXPECT_EQ(found, 10U * chip.units()) << chip.name() << ": units after 2 KB of data are ready made";
    }
}

TEST_F(SlcPageCost, NothingIsEncodedAfterAFailedWrite) {
    const SlcCase chip{};
    auto storage = make<SlcStorage>(chip.geometry(), false);
    storage->m_fout.open("/dev/full", std::ios_base::out);
    const Bytes data = patterned(std::size_t{4096} * 2048, 1);
    const uint64_t before_it_showed =
        codewords_for(*storage, data);  // some are gathered before the first write
    EXPECT_LT(before_it_showed, 4096U);
    EXPECT_EQ(storage->m_write_failure.error, ENOSPC);
    EXPECT_EQ(codewords_for(*storage, data), 0U);
    EXPECT_EQ(codewords_for(*storage, Bytes(2048, 0)), 0U);
}

TEST_F(SlcPageCost, NothingIsEncodedWithoutRoomForTheParity) {
    const SlcCase chip{.page_kb = 2, .spare = 63};
    const auto storage = open(chip);
    Bytes data = patterned(2048, 1);
    const uint64_t before = bch_encoded_codewords();
    output_of([&] { storage->write_page(data.data(), 2048); });
    EXPECT_EQ(bch_encoded_codewords(), before);
}

}  // namespace
}  // namespace storage_test
