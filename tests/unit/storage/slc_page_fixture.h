#pragma once

// Flash pages of SLC NAND in a file of their own.

#include "../common/bch_encoding.h"
#include "slc_fixture.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>

namespace storage_test {

using test_support::patterned;

class SlcPage : public StorageTest {
protected:
    std::filesystem::path file() const { return m_directory / "pages.img"; }

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
        const auto storage = open(chip);
        write(*storage, data);
        storage->close_output();
        return test_support::read_file(file());
    }
};

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

}  // namespace storage_test
