#pragma once

// A storage object on a firmware of given loader stages, whose layout puts the copies of the boot block where
// the test wants them.

#include "storage_fixture.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace storage_test {

inline test_support::Firmware firmware_with_stages(const Bytes& flash_data, const Bytes& flash_boot,
                                                   bool scrambled = false) {
    test_support::Firmware firmware = test_support::sample_firmware({.scramble_stages = scrambled});
    firmware.boot.loader.entries = {{.name = "FlashData", .data = flash_data},
                                    {.name = "FlashBoot", .data = flash_boot}};
    return firmware;
}

// A layout that puts the copies where the test wants them.
class PlacedStorage : public Recording<CStorage> {
public:
    using Recording<CStorage>::Recording;

    bool prepare_write_idblock() override {
        m_idb_copy = copies;
        m_idb_start_sector = first_sector;
        m_idb_second_start_sector = second_sector;
        if (total)
            m_idb_total_sector = *total;
        return prepared;
    }
    bool post_write_idblock() override {
        ++ended;
        return false;  // nobody asks
    }

    uint8_t copies = 1;
    uint32_t first_sector = 0;
    uint32_t second_sector = 0;
    std::optional<uint32_t> total{};
    bool prepared = true;
    int ended = 0;
};

class BootBlockTest : public StorageTest {
protected:
    void SetUp() override { use({}); }

    // A fresh storage object.
    void use(const Geometry& geometry) {
        m_storage = make_base<PlacedStorage>(FLASH_NONE, geometry);
        m_storage->forward = true;
    }

    void load_stages(const Bytes& flash_data, const Bytes& flash_boot, bool scrambled = false) {
        load(*m_storage, firmware_with_stages(flash_data, flash_boot, scrambled));
    }

    // create_idblock into a zeroed buffer of just the size that it needs.
    Bytes created(uint16_t data_sectors, uint16_t boot_sectors, uint32_t data_size, uint32_t boot_size,
                  int expected_result = 0) {
        Bytes buffer((4U + data_sectors + boot_sectors) * 512U, 0);
        const int result =
            m_storage->create_idblock(buffer.data(), data_sectors, boot_sectors, data_size, boot_size);
        EXPECT_EQ(result, expected_result);
        return buffer;
    }

    // write_idblock into the file "block.img"; what the file holds then.
    Bytes written(int expected_result = 0, const std::string& expected_output = "writing idblock...\n") {
        m_storage->m_fout.open(out_path("block.img").string());
        int result = 1;
        EXPECT_EQ(output_of([&] { result = m_storage->write_idblock(); }), expected_output);
        EXPECT_EQ(result, expected_result);
        m_storage->m_fout.close();
        return test_support::read_file(out_path("block.img"));
    }

    std::unique_ptr<PlacedStorage> m_storage;
};

}  // namespace storage_test
