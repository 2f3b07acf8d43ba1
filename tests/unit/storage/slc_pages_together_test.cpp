// Pages of SLC NAND that lie side by side are encoded together; every byte is as if each had come alone.

#include "common/bch.h"
#include "slc_page_fixture.h"
#include "storage/console.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace storage_test {
namespace {

using test_support::slice;

class SlcPagesTogether : public SlcPage {
protected:
    // Writes whole pages of data that are known to follow each other.
    static void write_together(SlcStorage& storage, Bytes& data) {
        const auto count = static_cast<uint32_t>(data.size() / storage.m_page_size);
        uint32_t done = 0;
        const std::string output = output_of([&] {
            Progress progress("pages...");
            storage.write_pages(data.data(), count, done, count, progress);
        });
        EXPECT_EQ(done, count);
        EXPECT_EQ(output, progress_lines("pages...", count));
    }

    Bytes written_together(const SlcCase& chip, Bytes data) const {
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
    return std::move(pages) + mixed_pages(chip) + patterned(3500000 / size * size, 77);
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
    Bytes data = mixed_pages(chip) + patterned(std::size_t{300} * 2048, 3);
    const Bytes expected = slow_flash_pages(data, chip);
    for (const BchPath path : bch_tests::available_paths()) {
        const auto storage = open(chip);
        bch_select_path(path);
        write_together(*storage, data);
        storage->close_output();
        EXPECT_TRUE(same_bytes(test_support::read_file(file()), expected)) << bch_tests::path_name(path);
    }
}

TEST_F(SlcPagesTogether, AreEncodedOnce) {
    for (const SlcCase& chip : all_slc_cases()) {
        const auto storage = open(chip);
        write(*storage, Bytes(chip.page_size(), 0));  // makes the fill page
        Bytes data = patterned(std::size_t{301} * chip.page_size(), 1) + Bytes(chip.page_size(), 0);
        const uint64_t before = bch_encoded_codewords();
        write_together(*storage, data);
        EXPECT_EQ(bch_encoded_codewords() - before, 301U * chip.units()) << chip.name();
    }
}

// Writes the pages and tells how many codewords were encoded with the first of them.
uint64_t codewords_at_the_first_page(SlcStorage& storage, Bytes data) {
    storage.m_coming_end = data.data() + data.size();
    const uint64_t before = bch_encoded_codewords();
    EXPECT_TRUE(storage.write_page(data.data(), storage.m_page_size));
    const uint64_t encoded = bch_encoded_codewords() - before;
    for (std::size_t at = storage.m_page_size; at < data.size(); at += storage.m_page_size)
        EXPECT_TRUE(storage.write_page(data.data() + at, storage.m_page_size));
    storage.m_coming_end = nullptr;
    return encoded;
}

TEST_F(SlcPagesTogether, AreEightUnitsOrAllThatAreToCome) {
    for (const SlcCase& chip : {SlcCase{.page_kb = 1, .spare = 32}, SlcCase{.page_kb = 2, .spare = 64},
                                SlcCase{.page_kb = 3, .spare = 96}, SlcCase{.page_kb = 4, .spare = 128},
                                SlcCase{.page_kb = 8, .spare = 256}, SlcCase{.page_kb = 9, .spare = 288},
                                SlcCase{.page_kb = 1, .spare = 32, .page_2k = true}}) {
        const auto storage = open(chip);
        write(*storage, Bytes(chip.page_size(), 0));  // makes the fill page
        const uint32_t most = std::max(8 / chip.units(), 1U);
        for (uint32_t pages = 1; pages < 10; ++pages) {
            const Bytes data = patterned(pages * chip.page_size(), pages);
            EXPECT_EQ(codewords_at_the_first_page(*storage, data), std::min(pages, most) * chip.units())
                << pages << " of " << chip.name();
        }
    }
}

TEST_F(SlcPagesTogether, EndBeforeAFillPageAndWhereTheOutputHasNoRoom) {
    const SlcCase chip{};
    const auto storage = open(chip);
    write(*storage, Bytes(2048, 0));
    const Bytes data = patterned(std::size_t{2} * 2048, 1);
    EXPECT_EQ(codewords_at_the_first_page(*storage, data + Bytes(2048, 0) + data), 4U);

    while (storage->m_fout.buffer().room().size() / 2112 != 3)
        write(*storage, Bytes(2048, 0));
    EXPECT_EQ(codewords_at_the_first_page(*storage, data + data), 6U);
}

TEST_F(SlcPagesTogether, AreTwoOfThoseThatAPageOf4KilobytesMakes) {
    const SlcCase chip{.page_kb = 4, .spare = 128, .page_2k = true};
    const auto storage = open(chip);
    write(*storage, Bytes(4096, 0));
    EXPECT_EQ(codewords_at_the_first_page(*storage, patterned(4096, 1)), 4U);
    EXPECT_EQ(codewords_at_the_first_page(*storage, patterned(std::size_t{3} * 4096, 1)), 8U);
}

// What four pages become of which all but the first are other ones than were announced with it.
class SlcPagesOtherThanAnnounced : public SlcPagesTogether {
protected:
    Bytes announced = patterned(std::size_t{4} * 2048, 1);
    Bytes other = patterned(std::size_t{4} * 2048, 2);
    SlcCase chip{};
    std::unique_ptr<SlcStorage> storage = open(chip);

    void write_first_of_announced() {
        storage->m_coming_end = announced.data() + announced.size();
        EXPECT_TRUE(storage->write_page(announced.data(), 2048));
    }
    void write_rest(Bytes& data) {
        for (std::size_t page = 1; page < 4; ++page)
            EXPECT_TRUE(storage->write_page(data.data() + page * 2048, 2048));
        storage->m_coming_end = nullptr;
        storage->close_output();
    }
};

TEST_F(SlcPagesOtherThanAnnounced, FromAnotherPlaceAreTakenFromThere) {
    write_first_of_announced();
    storage->m_coming_end = other.data() + other.size();
    write_rest(other);
    EXPECT_TRUE(same_bytes(test_support::read_file(file()),
                           slow_flash_pages(slice(announced, 0, 2048) + slice(other, 2048, 6144), chip)));
}

TEST_F(SlcPagesOtherThanAnnounced, WithAnotherListIndexGetThatOne) {
    write_first_of_announced();
    storage->m_bch_list_index = 100;
    write_rest(announced);
    EXPECT_TRUE(same_bytes(test_support::read_file(file()),
                           slow_flash_pages(slice(announced, 0, 2048), chip) +
                               slow_flash_pages(slice(announced, 2048, 6144), chip, 100)));
}

TEST_F(SlcPagesTogether, OfAFileThatFailedAreNoneOfTheNext) {
    const SlcCase chip{};
    const auto storage = make<SlcStorage>(chip.geometry(), false);
    Bytes data = patterned(std::size_t{4096} * 2048, 1);
    storage->m_fout.open("/dev/full", std::ios_base::out);
    write_together(*storage, data);
    EXPECT_EQ(storage->m_write_failure.error, ENOSPC);

    STRUCT_QZIMAGE_ITEM item{};
    std::strcpy(item.file, "next.img");
    output_of([&] { EXPECT_TRUE(storage->prepare_write_partition(item)); });
    write_together(*storage, data);
    storage->close_output();
    EXPECT_TRUE(same_bytes(test_support::read_file(storage->m_out_file), slow_flash_pages(data, chip)));
}

TEST_F(SlcPagesTogether, AreRefusedOneByOne) {
    const auto storage = open({.page_kb = 2, .spare = 63});
    Bytes data = patterned(std::size_t{3} * 2048, 1);
    uint32_t done = 0;
    const std::string output = output_of([&] {
        Progress progress("pages...");
        storage->write_pages(data.data(), 3, done, 3, progress);
    });
    const std::string refusal = error_line("size of oob is not enough");
    EXPECT_EQ(output, refusal + redrawn("pages...33%") + refusal + redrawn("pages...66%") + refusal +
                          redrawn("pages...100%"));
}

}  // namespace
}  // namespace storage_test
