// The boot block on its way into the output.

#include "boot_block_fixture.h"
#include "partition_fixture.h"
#include "support/boot_rom.h"
#include "support/expected/boot_block.h"
#include "support/expected/image.h"
#include "support/process_limits.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

namespace {

using namespace storage_test;
using namespace test_support;

TEST_F(BootBlockTest, OneCopyIsWrittenPageByPage) {
    const Firmware firmware = sample_firmware({.scramble_stages = true});
    load(*m_storage, firmware);
    EXPECT_TRUE(same_bytes(written(), boot_block(firmware)));
    EXPECT_EQ(m_storage->m_idb_total_sector, 16U);
    ASSERT_EQ(m_storage->pages.size(), 4U);
    for (const RecordedPage& page : m_storage->pages)
        EXPECT_EQ(page.length, 2048U);
    EXPECT_EQ(m_storage->ended, 1);
}

TEST_F(BootBlockTest, AtMostTwoCopiesAreWritten) {
    const Firmware firmware = sample_firmware();
    for (const uint8_t copies : {uint8_t{0}, uint8_t{1}, uint8_t{2}, uint8_t{3}, uint8_t{255}}) {
        use({});
        load(*m_storage, firmware);
        m_storage->copies = copies;
        m_storage->first_sector = 5;
        m_storage->second_sector = 40;
        ExpectedImage expected;
        expected.write(5, boot_block(firmware));
        if (copies > 1)
            expected.write(40, boot_block(firmware));
        EXPECT_TRUE(same_bytes(written(), expected.bytes())) << int{copies};
    }
}

TEST_F(BootBlockTest, SecondCopyMayLieBeforeOrOverTheFirst) {
    const Firmware firmware = sample_firmware();
    for (const uint32_t second : {0U, 3U, 20U, 29U}) {
        use({});
        load(*m_storage, firmware);
        m_storage->copies = 2;
        m_storage->first_sector = 20;
        m_storage->second_sector = second;
        ExpectedImage expected;
        expected.write(20, boot_block(firmware)).write(second, boot_block(firmware));
        EXPECT_TRUE(same_bytes(written(), expected.bytes())) << second;
    }
}

TEST_F(BootBlockTest, LayoutMayEnlargeTheBlockByZeros) {
    // 1001 sectors are 167 pages of 6 sectors: the last page ends in zeros.
    use({.page_kb = 3});
    const Firmware firmware = sample_firmware({.scramble_stages = true});
    load(*m_storage, firmware);
    m_storage->total = 1001;
    EXPECT_TRUE(same_bytes(written(), zero_padded(boot_block(firmware), 167 * 3072)));
    EXPECT_EQ(m_storage->pages.size(), 167U);
}

TEST_F(BootBlockTest, PageLargerThanTheBlockIsFilledWithZeros) {
    use({.page_kb = 64});
    const Firmware firmware = sample_firmware();
    load(*m_storage, firmware);
    m_storage->total = 16;
    EXPECT_TRUE(same_bytes(written(), zero_padded(boot_block(firmware), 65536)));
}

TEST_F(BootBlockTest, BlockOfNoSectorsWritesNothing) {
    load(*m_storage, sample_firmware());
    m_storage->total = 0;
    m_storage->copies = 2;
    EXPECT_EQ(written(), Bytes());
    EXPECT_EQ(m_storage->ended, 1);
}

TEST_F(BootBlockTest, BootRomReadsBothStagesBack) {
    for (const bool scrambled : {false, true}) {
        use({.page_kb = 1});
        const Bytes flash_data = patterned(5121, 31);
        const Bytes flash_boot = patterned(40000, 32);
        load_stages(flash_data, flash_boot, scrambled);
        m_storage->first_sector = 64;
        const BootBlock found = read_boot_block(written(), 64);
        ASSERT_TRUE(found.found);
        EXPECT_EQ(found.errors, std::vector<std::string>());
        EXPECT_EQ(found.rc4_flag, scrambled ? 1U : 0U);
        EXPECT_EQ(found.chip_tag, "QZ28");
        EXPECT_TRUE(found.reserved_zero);
        EXPECT_EQ(slice(found.stage1, 0, flash_data.size()), flash_data);
        EXPECT_EQ(slice(found.stage2, 0, flash_boot.size()), flash_boot);
    }
}

// ---- failures ----

TEST_F(BootBlockTest, EachFailureHasItsCodeAndWritesNothing) {
    Firmware no_boot = sample_firmware();
    no_boot.boot.loader.entries[1].name = "FlashBoots";
    load(*m_storage, no_boot);
    EXPECT_EQ(written(-1), Bytes());

    use({});
    Firmware no_data = sample_firmware();
    no_data.boot.loader.entries[0].name = "FlashDatas";
    load(*m_storage, no_data);
    EXPECT_EQ(written(-2), Bytes());

    use({});
    Firmware huge_boot = sample_firmware();
    huge_boot.boot.loader.entries[1].data_size = 33552385;
    load(*m_storage, huge_boot);
    EXPECT_EQ(written(-1), Bytes());

    use({});
    Firmware huge_data = sample_firmware();
    huge_data.boot.loader.entries[0].data_size = 33552385;
    load(*m_storage, huge_data);
    EXPECT_EQ(written(-2), Bytes());

    use({});
    load(*m_storage, sample_firmware());
    m_storage->prepared = false;
    EXPECT_EQ(written(-3), Bytes());
    EXPECT_EQ(m_storage->ended, 0);
}

TEST_F(BootBlockTest, StageOutsideTheContainerFailsTheBuilder) {
    const int codes[] = {-4, -2};  // by loader entry
    for (std::size_t entry = 0; entry < 2; ++entry) {
        use({});
        Firmware firmware = sample_firmware();
        firmware.boot.loader.entries[entry].data_offset = 0x00F00000;
        load(*m_storage, firmware);
        m_storage->first_sector = 64;
        m_storage->copies = 2;
        EXPECT_EQ(written(-4, "writing idblock...\nFailed to create idblock,ret=" +
                                  std::to_string(codes[entry]) + "\n"),
                  Bytes());
        EXPECT_EQ(m_storage->ended, 0);
        EXPECT_TRUE(m_storage->pages.empty());
    }
}

TEST_F(BootBlockTest, BlockThatNoMemoryHoldsFails) {
    if (!kMemoryCanBeLimited)
        GTEST_SKIP() << "needs a build without sanitizers";
    load(*m_storage, sample_firmware());
    m_storage->total = 0x00800000;  // 4 GiB
    const MemoryLimit limit(256 * 1024 * 1024);
    EXPECT_EQ(written(-5), Bytes());
}

TEST_F(BootBlockTest, NothingReachesAnOutputThatHasFailed) {
    load(*m_storage, sample_firmware());
    m_storage->copies = 2;
    m_storage->second_sector = 64;
    m_storage->m_fout.open(out_path("block.img").string());
    m_storage->m_fout.give_up(EIO);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(m_storage->write_idblock(), 0); }), "writing idblock...\n");
    m_storage->close_output();
    EXPECT_EQ(read_file(out_path("block.img")), Bytes());
    EXPECT_EQ(m_storage->m_write_failure.error, EIO);
}

}  // namespace
