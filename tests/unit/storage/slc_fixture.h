#pragma once

// What the tests of SLC NAND share: its members in the open, flash pages in a file of their own, and the page
// format made with the slow encoder.

#include "partition_fixture.h"
#include "support/expected/flash_pages.h"
#include "support/slc_reader.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace storage_test {

// A storage class on CSlcStorage with the members that this one adds.
template <typename Base>
class SlcMembers : public Base {
public:
    using Base::Base;

    using Base::m_bch_list_index;
    using Base::m_bch_list_step;
    using Base::m_bch_size;
};
using SlcStorage = SlcMembers<Exposed<CSlcStorage>>;
using SlcRecorder = SlcMembers<Recording<CSlcStorage>>;

struct SlcCase {
    uint32_t page_kb = 2;
    uint32_t spare = 64;
    bool page_2k = false;
    bool page_list = false;
    uint32_t block_kb = 128;

    uint32_t page_size() const { return page_kb * 1024; }
    uint32_t units() const { return page_kb; }
    uint32_t flash_page_size() const { return page_size() + spare; }
    uint32_t list_step() const { return page_list ? 1 : 4; }
    // Flash pages that one page of data takes.
    uint32_t factor() const { return page_2k ? (page_kb + 1) / 2 : 1; }

    Geometry geometry() const {
        return {.block_kb = block_kb, .page_kb = page_kb, .oob_bytes = spare, .page_2k = page_2k};
    }
    SlcGeometry reader() const {
        return {.page_size = page_size(),
                .spare_size = spare,
                .two_kilobytes_data = page_2k,
                .list_step = list_step()};
    }
    std::string name() const {
        return std::to_string(page_kb) + " KB pages, " + std::to_string(spare) + " spare bytes" +
               (page_2k ? ", 2 KB of data" : "") + (page_list ? ", page list" : "");
    }
};

// Many page sizes, both flags, spare areas from the smallest that holds the parity to roomy and odd ones.
inline std::vector<SlcCase> all_slc_cases() {
    std::vector<SlcCase> cases;
    for (const uint32_t page_kb : {1U, 2U, 3U, 4U, 7U, 8U}) {
        for (const bool page_2k : {false, true}) {
            for (const bool page_list : {false, true}) {
                cases.push_back({page_kb, 32 * page_kb + (page_list ? 1 : 0), page_2k, page_list});
                cases.push_back({page_kb, 32 * page_kb + (page_list ? 64 : 1000), page_2k, page_list});
            }
        }
    }
    return cases;
}

// The flash pages of whole pages of data by the slow encoder, from the list index on.
inline Bytes slow_flash_pages(const Bytes& data, const SlcCase& chip, uint32_t list_index = 0,
                              uint8_t fill_byte = 0) {
    return slc_flash_pages(data,
                           {.page_size = chip.page_size(),
                            .spare = chip.spare,
                            .two_kilobytes_data = chip.page_2k,
                            .list_step = chip.list_step()},
                           list_index, fill_byte);
}

// Pages of every kind: random data, a fill page, an erased page, data that ends in the first unit, and data
// of which only one 2 KB piece or one unit is not fill bytes.
inline Bytes mixed_pages(const SlcCase& chip) {
    const std::size_t size = chip.page_size();
    Bytes last_byte(size, 0);
    last_byte.back() = 1;
    Bytes first_byte(size, 0);
    first_byte.front() = 0x80;
    return patterned(2 * size, 31) + Bytes(2 * size, 0) + Bytes(size, 0xFF) +
           padded(patterned(700, 5), size) + last_byte + Bytes(size, 0) + first_byte + patterned(size, 32);
}

class SlcPage : public StorageTest {
protected:
    std::filesystem::path file() const { return m_directory / "pages.img"; }
    Bytes file_bytes() const { return read_file(file()); }

    std::unique_ptr<SlcStorage> open(const SlcCase& chip) const {
        auto storage = make<SlcStorage>(chip.geometry(), chip.page_list);
        storage->m_fout.open(file().string(), std::ios_base::out | std::ios_base::trunc);
        EXPECT_TRUE(storage->m_fout.is_open());
        return storage;
    }

    // Writes whole pages of data one by one; nothing may be printed.
    static void write(SlcStorage& storage, Bytes data) {
        ASSERT_EQ(data.size() % storage.m_page_size, 0U);
        const std::string output = output_of([&] {
            for (std::size_t at = 0; at < data.size(); at += storage.m_page_size)
                EXPECT_TRUE(storage.write_page(data.data() + at, storage.m_page_size));
        });
        EXPECT_EQ(output, "");
    }

    // What stands in the file after those pages.
    Bytes written(const SlcCase& chip, const Bytes& data) const {
        write(*open(chip), data);
        return file_bytes();
    }
};

}  // namespace storage_test
