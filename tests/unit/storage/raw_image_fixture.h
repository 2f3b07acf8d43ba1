#pragma once

// A storage object that records the pages of one plain image.

#include "partition_fixture.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>

namespace storage_test {

class RawImageTest : public StorageTest {
protected:
    // A storage object of that type with one item "boot" in its firmware.
    void use(ENUM_FLASH_TYPE type, const Geometry& geometry, const Bytes& data,
             uint32_t part_size = kGrowsToEnd) {
        Firmware firmware = sample_firmware();
        firmware.items = {{.name = "boot", .part_size = part_size, .data = data}};
        use(type, geometry, firmware);
    }

    void use(ENUM_FLASH_TYPE type, const Geometry& geometry, const Firmware& firmware) {
        m_storage = make_base<Recording<CStorage>>(type, geometry);
        m_storage->m_image_fill_page_num = kUntouched;
        load(*m_storage, firmware);
        m_item = item_in(firmware, 0);
    }

    void expect_written(const std::string& output, int result = 0) {
        int actual = 1;
        EXPECT_EQ(output_of([&] { actual = m_storage->write_image(m_item); }), output);
        EXPECT_EQ(actual, result);
    }

    // The pages hold the data and zeros, `pages` in all.
    void expect_pages(const Bytes& data, uint32_t pages) {
        EXPECT_EQ(m_storage->pages.size(), pages);
        for (const RecordedPage& page : m_storage->pages)
            ASSERT_EQ(page.length, m_storage->m_page_size);
        EXPECT_TRUE(same_bytes(m_storage->recorded_bytes(),
                               zero_padded(data, uint64_t{pages} * m_storage->m_page_size)));
        EXPECT_EQ(m_storage->m_image_fill_page_num, pages);
    }

    std::unique_ptr<Recording<CStorage>> m_storage;
    STRUCT_QZIMAGE_ITEM m_item{};
};

}  // namespace storage_test
