// Units of SLC NAND pages wait for others and are encoded together; every byte is as if each had come alone,
// whatever a derived class does with encoder and stream around them.

#include "common/bch.h"
#include "slc_fixture.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <sstream>
#include <utility>

namespace storage_test {
namespace {

class SlcGroupingTest : public SlcPage {
protected:
    // A file in which the fill page is made already.
    std::unique_ptr<SlcStorage> open_ready(const SlcCase& chip) const {
        auto storage = open(chip);
        write(*storage, Bytes(chip.page_size(), 0));
        return storage;
    }

    // Codewords that are encoded by the action.
    static uint64_t encoded_by(const std::function<void()>& action) {
        const uint64_t before = bch_encoded_codewords();
        action();
        return bch_encoded_codewords() - before;
    }

    Bytes written_one_by_one(const SlcCase& chip, const Bytes& data) const {
        const auto storage = open(chip);
        for (std::size_t at = 0; at < data.size(); at += chip.page_size()) {
            write(*storage, slice(data, at, chip.page_size()));
            storage->m_fout.flush();
        }
        storage->close_output();
        return file_bytes();
    }

    const Bytes m_three_pages = patterned(std::size_t{3} * 2048, 1);
};

// Runs of 1 to 9 pages of data with a fill page after each, then pages enough for more than a block of
// output.
Bytes runs_of_pages(const SlcCase& chip) {
    const std::size_t size = chip.page_size();
    Bytes pages;
    for (uint32_t length = 1; length < 10; ++length)
        pages = std::move(pages) + patterned(length * size, length) + Bytes(size, 0);
    return std::move(pages) + mixed_pages(chip) + patterned(1200000 / size * size, 77);
}

TEST_F(SlcGroupingTest, PagesAreAsIfEachCameAlone) {
    std::vector<SlcCase> chips = all_slc_cases();
    chips.push_back({.page_kb = 64, .spare = 2048});
    chips.push_back({.page_kb = 64, .spare = 2048, .page_2k = true});
    chips.push_back({.page_kb = 512, .spare = 16384});
    for (const SlcCase& chip : chips) {
        const Bytes data = runs_of_pages(chip);
        EXPECT_TRUE(same_bytes(written(chip, data), written_one_by_one(chip, data))) << chip.name();
    }
}

TEST_F(SlcGroupingTest, FillPagesAreEncodedOnce) {
    for (const SlcCase& chip : all_slc_cases()) {
        const auto storage = open(chip);
        const Bytes fill(std::size_t{100} * chip.page_size(), 0);
        const auto write_out = [&] {
            write(*storage, fill);
            storage->m_fout.flush();
        };
        EXPECT_EQ(encoded_by(write_out), chip.units()) << chip.name();
        EXPECT_EQ(encoded_by(write_out), 0U) << chip.name();
    }
}

TEST_F(SlcGroupingTest, EveryUnitIsEncodedOnce) {
    for (const SlcCase& chip : all_slc_cases()) {
        const auto storage = open_ready(chip);
        const Bytes data = patterned(std::size_t{301} * chip.page_size(), 1) + Bytes(chip.page_size(), 0);
        EXPECT_EQ(encoded_by([&] {
                      write(*storage, data);
                      storage->close_output();
                  }),
                  301U * chip.units())
            << chip.name();
    }
}

TEST_F(SlcGroupingTest, EightUnitsAreEncodedAtATime) {
    for (const SlcCase& chip :
         {SlcCase{.page_kb = 1, .spare = 32}, SlcCase{.page_kb = 2, .spare = 64},
          SlcCase{.page_kb = 3, .spare = 96}, SlcCase{.page_kb = 4, .spare = 128},
          SlcCase{.page_kb = 4, .spare = 128, .page_2k = true}, SlcCase{.page_kb = 9, .spare = 288}}) {
        const auto storage = open_ready(chip);
        uint64_t encoded = 0;
        for (uint32_t pages = 1; pages < 20; ++pages) {
            encoded += encoded_by([&] { write(*storage, patterned(chip.page_size(), pages)); });
            EXPECT_EQ(encoded, pages * chip.units() / 8 * 8) << pages << " of " << chip.name();
        }
    }
}

TEST_F(SlcGroupingTest, FillPagesDoNotEndAGroup) {
    const auto storage = open_ready({});
    const Bytes data = patterned(std::size_t{2} * 2048, 1);
    EXPECT_EQ(encoded_by([&] { write(*storage, data + Bytes(2048, 0)); }), 0U);
    EXPECT_EQ(encoded_by([&] { write(*storage, data); }), 8U);
}

TEST_F(SlcGroupingTest, WaitingUnitsAreEncodedBeforeTheyLeave) {
    const std::function<void(std::unique_ptr<SlcStorage>&)> ways[] = {
        [](auto& storage) { storage->m_fout.flush(); },
        [](auto& storage) { storage->m_fout.seekp(0); },
        [](auto& storage) { storage->close_output(); },
        [](auto& storage) { storage.reset(); },
    };
    for (const auto& leave : ways) {
        auto storage = open({});
        write(*storage, m_three_pages);
        leave(storage);
        EXPECT_TRUE(same_bytes(file_bytes(), slow_flash_pages(m_three_pages, {})));
    }
}

TEST_F(SlcGroupingTest, PageBesideABadStreamDoesNotWait) {
    const auto storage = open({});
    storage->m_fout.setstate(std::ios_base::failbit);
    write(*storage, patterned(2048, 1));
    storage->m_fout.clear();
    const Bytes kept = patterned(2112, 2);
    storage->m_fout.write(reinterpret_cast<const char*>(kept.data()), 2112);
    storage->close_output();
    EXPECT_TRUE(same_bytes(file_bytes(), kept));
}

TEST_F(SlcGroupingTest, FailedFileLeavesNothingInTheNext) {
    const auto storage = open({});
    write(*storage, m_three_pages);  // six units wait
    storage->m_fout.give_up(EIO);
    storage->switch_output("next.img");
    const Bytes next = patterned(10000, 2);
    storage->m_fout.write(reinterpret_cast<const char*>(next.data()), 10000);
    storage->m_fout.flush();
    write(*storage, patterned(2048, 3));
    storage->close_output();
    EXPECT_TRUE(same_bytes(slice(read_file(storage->m_out_file), 0, 10000), next));
}

TEST_F(SlcGroupingTest, NothingIsEncodedForAFileThatFailed) {
    const auto storage = open({});
    storage->m_fout.give_up(ENOSPC);
    EXPECT_EQ(encoded_by([&] { write(*storage, m_three_pages + Bytes(2048, 0)); }), 0U);
}

TEST_F(SlcGroupingTest, AnotherCodeBetweenPagesChangesNothing) {
    const auto storage = open({});
    const Bytes data = m_three_pages + Bytes(2048, 0);
    write(*storage, data);
    bch_init(24);
    write(*storage, data);
    storage->m_fout.flush();
    EXPECT_EQ(MaxBitsNum, 24U) << "the other code stays";
    storage->close_output();
    bch_init(16);
    EXPECT_TRUE(same_bytes(file_bytes(), slow_flash_pages(data + data, {})));
}

TEST_F(SlcGroupingTest, AnotherStreamBufferGetsParity) {
    const auto storage = open({});
    const Bytes data = m_three_pages + Bytes(2048, 0);
    std::stringbuf other;
    std::ostream& stream = storage->m_fout;
    std::streambuf* const own = stream.rdbuf(&other);
    write(*storage, data);
    stream.rdbuf(own);
    EXPECT_TRUE(same_bytes(to_bytes(other.str()), slow_flash_pages(data, {})));
}

}  // namespace
}  // namespace storage_test
