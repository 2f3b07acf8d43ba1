// Where the stages of a boot block may lie in the boot container.

#include "partition_fixture.h"
#include "storage/results.h"
#include "support/boot_rom.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

namespace storage_test {
namespace {

using test_support::BootBlock;
using test_support::Firmware;
using test_support::read_boot_block;
using test_support::sample_firmware;
using test_support::slice;

constexpr std::size_t kFlashData = 0;
constexpr std::size_t kFlashBoot = 1;

// A firmware in which the loader entry has no data, and an offset of its own.
Firmware with_empty_stage(std::size_t entry, uint32_t offset) {
    Firmware firmware = sample_firmware();
    firmware.boot.loader.entries[entry].data.clear();
    firmware.boot.loader.entries[entry].data_offset = offset;
    return firmware;
}

class BootBlockBoundsTest : public StorageTest {
protected:
    // write_idblock of the firmware into block.img.
    int write(const Firmware& firmware, std::string* output = nullptr) {
        m_storage = make_base<Recording<CStorage>>(FLASH_NONE);
        m_storage->forward = true;
        load(*m_storage, firmware);
        m_storage->m_fout.open(out_path("block.img").string());
        int result = 1;
        const std::string printed = output_of([&] { result = m_storage->write_idblock(); });
        if (output != nullptr)
            *output = printed;
        m_storage->close_output();
        return result;
    }

    BootBlock written() const { return read_boot_block(test_support::read_file(out_path("block.img")), 0); }

    std::unique_ptr<Recording<CStorage>> m_storage{};
};

TEST_F(BootBlockBoundsTest, EmptyStageLiesAnywhere) {
    const auto end = static_cast<uint32_t>(sample_firmware().boot.build().size());
    for (const uint32_t offset : {0U, end - 1, end, end + 1, 0x00F00000U, 0xFFFFFFFFU}) {
        SCOPED_TRACE(offset);
        const Firmware no_data = with_empty_stage(kFlashData, offset);
        ASSERT_EQ(write(no_data), kDone);
        BootBlock block = written();
        EXPECT_TRUE(block.found);
        EXPECT_EQ(block.errors, std::vector<std::string>());
        EXPECT_EQ(block.boot_data_size, 0U);
        EXPECT_EQ(block.boot_code_size, 4U);
        EXPECT_EQ(slice(block.stage2, 0, 2048), no_data.boot.loader.entries[kFlashBoot].data);

        const Firmware no_boot = with_empty_stage(kFlashBoot, offset);
        ASSERT_EQ(write(no_boot), kDone);
        block = written();
        EXPECT_TRUE(block.found);
        EXPECT_EQ(block.boot_data_size, 8U);
        EXPECT_EQ(block.boot_code_size, 8U);
        EXPECT_EQ(slice(block.stage1, 0, 3000), no_boot.boot.loader.entries[kFlashData].data);
    }
}

TEST_F(BootBlockBoundsTest, EmptyStageOutsideLetsTheRunSucceed) {
    const Firmware firmware = with_empty_stage(kFlashData, 0x00F00000);
    write_firmware(firmware);
    const auto expect_created = [](CStorage& storage) {
        const std::string output = output_of([&] {
            ASSERT_TRUE(storage.storage_init());
            EXPECT_TRUE(storage.create_image());
        });
        EXPECT_EQ(output.substr(0, output.find('\n') + 1), line("writing idblock..."));
        EXPECT_EQ(output.substr(output.rfind("creating")), line("creating programming image ok."));
    };
    expect_created(*make<CEmmcStorage>());
    const Bytes& stage = firmware.boot.loader.entries[kFlashBoot].data;
    for (const uint64_t sector : {64U, 1088U}) {
        const BootBlock copy = read_boot_block(out_image(), sector);
        EXPECT_TRUE(copy.found) << sector;
        EXPECT_EQ(copy.stage1, Bytes());
        EXPECT_EQ(slice(copy.stage2, 0, stage.size()), stage) << sector;
    }
    expect_created(*make<CSpiStorage>());
    EXPECT_TRUE(read_boot_block(test_support::read_file(out_path("idblock.img")), 0).found);
}

TEST_F(BootBlockBoundsTest, OneByteOutsideFailsTheBlock) {
    const Bytes container = sample_firmware().boot.build();
    for (const std::size_t entry : {kFlashData, kFlashBoot}) {
        Firmware firmware = sample_firmware();
        auto& stage = firmware.boot.loader.entries[entry];
        const auto size = static_cast<uint32_t>(stage.data.size());
        stage.data_offset = static_cast<uint32_t>(container.size()) - size + 1;
        std::string output;
        EXPECT_EQ(write(firmware, &output), kIdblockNotCreated);
        EXPECT_EQ(output,
                  line("writing idblock...") + line(entry == kFlashData ? "Failed to create idblock,ret=-4"
                                                                        : "Failed to create idblock,ret=-2"));
        EXPECT_TRUE(m_storage->pages.empty());
        stage.data_offset = static_cast<uint32_t>(container.size()) - size;
        EXPECT_EQ(write(firmware), kDone);
    }
}

TEST_F(BootBlockBoundsTest, WildSizeIsRefusedBeforeAnyMemory) {
    if (!kMemoryCanBeLimited)
        GTEST_SKIP() << "needs a build without sanitizers";
    constexpr uint32_t kWild = 33000000;
    const int codes[] = {kFlashDataUnreadable, kFlashBootUnreadable};
    for (const std::size_t entry : {kFlashData, kFlashBoot}) {
        Firmware firmware = sample_firmware();
        firmware.boot.loader.entries[entry].data_size = kWild;
        const auto storage = make_base<Exposed<CStorage>>(FLASH_NONE);
        load(*storage, firmware);
        uint16_t sectors = 0;
        uint32_t size = 0;
        EXPECT_TRUE(storage->get_loader_size_from_name(entry == kFlashData ? "FlashData" : "FlashBoot",
                                                       sectors, size));
        EXPECT_EQ(size, kWild);
        Bytes block(64 * 512, 0x77);
        const MemoryLimit limit(1024 * 1024);
        EXPECT_EQ(storage->create_idblock(block.data(), 8, 4, entry == kFlashData ? kWild : 3000,
                                          entry == kFlashBoot ? kWild : 2048),
                  codes[entry]);
        EXPECT_TRUE(test_support::all_bytes_are(block, 0x77, 0, block.size()));
    }
}

}  // namespace
}  // namespace storage_test
