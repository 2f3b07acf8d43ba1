// Pages of SLC NAND that lie side by side are encoded together; every byte is as if each had come alone.

#include "common/bch.h"
#include "slc_page_fixture.h"
#include "storage/console.h"

#include <gtest/gtest.h>

namespace storage_test {
namespace {

using test_support::slice;

class SlcPagesTogether : public SlcPage {
protected:
    // Writes whole pages of data that are known to follow each other.
    static void write_together(SlcStorage& storage, Bytes data) {
        const auto count = static_cast<uint32_t>(data.size() / storage.m_page_size);
        uint32_t done = 0;
        output_of([&] {
            Progress progress("");
            storage.write_pages(data.data(), count, done, count, progress);
        });
        EXPECT_EQ(done, count);
    }

    Bytes written_together(const SlcCase& chip, const Bytes& data) const {
        const auto storage = open(chip);
        write_together(*storage, data);
        storage->close_output();
        return test_support::read_file(file());
    }
};

// Runs of 1 to 9 pages of data with a fill page behind each, then pages enough for several blocks of output.
Bytes runs_of_pages(const SlcCase& chip) {
    const std::size_t size = chip.page_size();
    Bytes pages;
    for (uint32_t length = 1; length < 10; ++length)
        pages = std::move(pages) + patterned(length * size, length) + Bytes(size, 0);
    return std::move(pages) + mixed_pages(chip) + patterned(700000 / size * size, 77);
}

TEST_F(SlcPagesTogether, AreAsIfEachCameAlone) {
    std::vector<SlcCase> chips = all_slc_cases();
    chips.push_back({.page_kb = 64, .spare = 2048});
    chips.push_back({.page_kb = 64, .spare = 2048, .page_2k = true});
    chips.push_back({.page_kb = 512, .spare = 16384});
    for (const SlcCase& chip : chips) {
        const Bytes data = runs_of_pages(chip);
        EXPECT_TRUE(same_bytes(written_together(chip, data), written(chip, data))) << chip.name();
    }
}

TEST_F(SlcPagesTogether, AreTheSameOnEveryEncoderPath) {
    const SlcCase chip{};
    const Bytes data = mixed_pages(chip) + patterned(std::size_t{300} * 2048, 3);
    const Bytes expected = slow_flash_pages(data, chip);
    for (const BchPath path : {BchPath::portable, BchPath::wide_rows, BchPath::carry_less,
                               BchPath::carry_less_256, BchPath::carry_less_512}) {
        if (!bch_path_available(path))
            continue;
        const auto storage = open(chip);
        bch_select_path(path);
        write_together(*storage, data);
        storage->close_output();
        EXPECT_TRUE(same_bytes(test_support::read_file(file()), expected));
    }
}

TEST_F(SlcPagesTogether, AreEncodedOnce) {
    for (const SlcCase& chip : all_slc_cases()) {
        const auto storage = open(chip);
        write(*storage, Bytes(chip.page_size(), 0));  // makes the fill page
        const Bytes data = patterned(std::size_t{301} * chip.page_size(), 1) + Bytes(chip.page_size(), 0);
        const uint64_t before = bch_encoded_codewords();
        write_together(*storage, data);
        EXPECT_EQ(bch_encoded_codewords() - before, 301U * chip.units()) << chip.name();
    }
}

TEST_F(SlcPagesTogether, AreNotTakenForOthersAtTheSamePlace) {
    // Pages that were encoded ahead and then did not come: their place in memory gets other data.
    const SlcCase chip{};
    const Bytes first = patterned(std::size_t{4} * 2048, 1);
    const Bytes second = patterned(std::size_t{4} * 2048, 2);
    Bytes data = first;
    const auto storage = open(chip);
    storage->m_coming_end = data.data() + data.size();
    EXPECT_TRUE(storage->write_page(data.data(), 2048));
    data = second;
    storage->m_bch_list_index = 0;
    for (std::size_t page = 1; page < 4; ++page)
        EXPECT_TRUE(storage->write_page(data.data() + page * 2048, 2048));
    storage->m_coming_end = nullptr;
    storage->close_output();
    EXPECT_TRUE(same_bytes(test_support::read_file(file()),
                           slow_flash_pages(slice(first, 0, 2048), chip) +
                               slow_flash_pages(slice(second, 2048, 3 * 2048), chip)));
}

TEST_F(SlcPagesTogether, AreFewerThanAGroupAtTheEndOfTheRun) {
    // What lies in memory behind the last page is none of the pages; a sanitizer sees a byte read there.
    for (std::size_t pages = 1; pages < 10; ++pages) {
        const SlcCase chip{};
        const Bytes data = patterned(pages * 2048, 5);
        EXPECT_TRUE(same_bytes(written_together(chip, data), slow_flash_pages(data, chip))) << pages;
    }
}

}  // namespace
}  // namespace storage_test
