#pragma once

// What eMMC and NOR have in common: one image of the whole device.

#include "partition_fixture.h"

#include <cstdint>
#include <string>

namespace storage_test {

class WholeDeviceTest : public StorageTest {
protected:
    template <typename Storage>
    void expect_geometry(const Storage& storage, ENUM_FLASH_TYPE type, const Geometry& geometry) {
        EXPECT_EQ(storage.m_type, type);
        EXPECT_EQ(storage.m_block_size, geometry.block_kb * 1024);
        EXPECT_EQ(storage.m_block_size_sector, geometry.block_kb * 2);
        EXPECT_EQ(storage.m_page_size, geometry.page_kb * 1024);
        EXPECT_EQ(storage.m_page_size_sector, geometry.page_kb * 2);
        EXPECT_EQ(storage.m_oob_size, geometry.oob_bytes);
        EXPECT_EQ(storage.m_page_2k, geometry.page_2k);
        EXPECT_EQ(storage.m_in_firmware, firmware_path().string());
        EXPECT_EQ(storage.m_out_dir, out_dir().string());
    }

    // prepare_write_idblock only computes: position and content of the output stay.
    template <typename Storage>
    void expect_preparing_leaves_output(Storage& storage) {
        write_firmware(sample_firmware());
        ASSERT_TRUE(storage.storage_init());
        storage.m_fout.write("abc", 3);
        EXPECT_EQ(output_of([&] { EXPECT_TRUE(storage.prepare_write_idblock()); }), "");
        EXPECT_EQ(storage.m_fout.tellp(), 3);
        storage.close_output();
        EXPECT_EQ(to_text(out_image()), "abc");
    }
};

}  // namespace storage_test
