#pragma once

// What eMMC and NOR have in common: one image of the whole device.

#include "expected_image.h"
#include "partition_fixture.h"
#include "storage_fixture.h"

#include <cstdint>
#include <string>

namespace storage_test {

class WholeDeviceTest : public StorageTest {
protected:
    // Writes the boot block of the firmware into out_image.img and gives that back.
    template <typename Storage>
    Bytes boot_area(Storage& storage, const test_support::Firmware& firmware) {
        write_firmware(firmware);
        EXPECT_TRUE(storage.storage_init());
        EXPECT_EQ(output_of([&] { EXPECT_EQ(storage.write_idblock(), 0); }), "writing idblock...\n");
        storage.close_output();
        return out_image();
    }

    // The boot block of the firmware, each copy filled up with zeros to `copy_size` bytes, at sector 64 and
    // then at `second_sector`.
    template <typename Storage>
    void expect_copies(Storage& storage, const test_support::Firmware& firmware, uint64_t second_sector,
                       uint64_t copy_size) {
        const Bytes copy = zero_padded(boot_block(firmware), copy_size);
        ExpectedImage expected;
        expected.place(64 * 512, copy);
        expected.place(second_sector * 512, copy);
        EXPECT_TRUE(same_bytes(boot_area(storage, firmware), expected.bytes()));
    }

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
        write_firmware(test_support::sample_firmware());
        ASSERT_TRUE(storage.storage_init());
        storage.m_fout.write("abc", 3);
        EXPECT_EQ(output_of([&] { EXPECT_TRUE(storage.prepare_write_idblock()); }), "");
        EXPECT_EQ(storage.m_fout.tellp(), 3);
        storage.close_output();
        EXPECT_EQ(test_support::to_text(out_image()), "abc");
    }
};

}  // namespace storage_test
