// The boot block in memory: sizes, header sectors, stages.

#include "boot_block_fixture.h"
#include "partition_fixture.h"
#include "support/expected/boot_block.h"

#include <gtest/gtest.h>

namespace {

using namespace storage_test;
using namespace test_support;

// ---- sizes of the loader entries ----

TEST_F(BootBlockTest, LoaderEntriesTakeWholeUnitsOf2KB) {
    const struct {
        uint32_t bytes;
        uint16_t sectors;
    } cases[] = {{0, 0},     {1, 4},        {511, 4},       {512, 4},       {513, 4},
                 {2047, 4},  {2048, 4},     {2049, 8},      {3000, 8},      {4096, 8},
                 {4097, 12}, {0xFFFF, 128}, {0x10000, 128}, {0x10001, 132}, {33552384, 65532}};
    for (const auto& wanted : cases) {
        use({});
        Firmware firmware = sample_firmware();
        firmware.boot.loader.entries[0].data_size = wanted.bytes;  // the data itself need not be there
        load(*m_storage, firmware);
        uint16_t sectors = 77;
        uint32_t size = 0;
        EXPECT_TRUE(m_storage->get_loader_size_from_name("FlashData", sectors, size)) << wanted.bytes;
        EXPECT_EQ(sectors, wanted.sectors) << wanted.bytes;
        EXPECT_EQ(size, wanted.bytes);
    }
}

TEST_F(BootBlockTest, EntryWhoseSectorsDoNotFit16BitsHasNoSize) {
    for (const uint32_t bytes : {33552385U, 0x02000000U, 0x80000000U, 0xFFFFFFFFU}) {
        use({});
        Firmware firmware = sample_firmware();
        firmware.boot.loader.entries[1].data_size = bytes;
        load(*m_storage, firmware);
        uint16_t sectors = 77;
        uint32_t size = 0;
        EXPECT_FALSE(m_storage->get_loader_size_from_name("FlashBoot", sectors, size)) << bytes;
        EXPECT_EQ(sectors, 77) << bytes;
    }
}

TEST_F(BootBlockTest, EntryIsFoundWhateverTheCaseOfItsName) {
    load(*m_storage, sample_firmware());
    uint16_t sectors = 0;
    uint32_t size = 0;
    EXPECT_TRUE(m_storage->get_loader_size_from_name("fLASHbOOT", sectors, size));
    EXPECT_EQ(sectors, 4);
    EXPECT_EQ(size, 2048U);
}

TEST_F(BootBlockTest, AbsentEntryLeavesTheSectorCountUntouched) {
    load(*m_storage, sample_firmware());
    uint16_t sectors = 77;
    uint32_t size = 0;
    // "MemoryInit" is there, but in another table.
    for (const char* name : {"FlashHead", "", "FlashDat", "FlashDataX", "MemoryInit"})
        EXPECT_FALSE(m_storage->get_loader_size_from_name(name, sectors, size)) << name;
    EXPECT_EQ(sectors, 77);
}

TEST_F(BootBlockTest, TableOutsideTheContainerHasNoEntries) {
    Firmware firmware = sample_firmware();
    firmware.boot.loader.table_offset = 0xFFFFFFF0;
    load(*m_storage, firmware);
    uint16_t sectors = 77;
    uint32_t size = 0;
    EXPECT_FALSE(m_storage->get_loader_size_from_name("FlashData", sectors, size));
    EXPECT_EQ(sectors, 77);
}

TEST_F(BootBlockTest, NothingIsFoundBeforeAFirmwareIsLoaded) {
    uint16_t sectors = 77;
    uint32_t size = 0;
    EXPECT_FALSE(m_storage->get_loader_size_from_name("FlashData", sectors, size));
    EXPECT_EQ(sectors, 77);
    created(8, 4, 3000, 2048, -1);
}

// ---- header sectors ----

TEST_F(BootBlockTest, FirstSectorSaysWhereTheStagesAre) {
    load(*m_storage, sample_firmware());
    Bytes sector(512, 0xEE);
    m_storage->make_idb_sector0(sector.data(), 8, 4);
    EXPECT_EQ(sector, header_sector0(0, 8, 4));
    EXPECT_EQ(get32(sector, 0), 0x0FF0AA55U);
    EXPECT_EQ(get32(sector, 8), 0U);
    EXPECT_EQ(get16(sector, 12), 4);
    EXPECT_EQ(get16(sector, 14), 4);
    EXPECT_EQ(get16(sector, 506), 8);
    EXPECT_EQ(get16(sector, 508), 12);
    EXPECT_EQ(get16(sector, 510), 0);
}

TEST_F(BootBlockTest, AnyRc4FlagOfTheContainerBecomesOne) {
    for (const uint8_t flag : {uint8_t{1}, uint8_t{2}, uint8_t{255}}) {
        use({});
        Firmware firmware = sample_firmware();
        firmware.boot.rc4_flag = flag;
        load(*m_storage, firmware);
        Bytes sector(512, 0xEE);
        m_storage->make_idb_sector0(sector.data(), 8, 4);
        EXPECT_EQ(sector, header_sector0(1, 8, 4)) << int{flag};
    }
}

TEST_F(BootBlockTest, SumOfTheStagesHas16Bits) {
    load(*m_storage, sample_firmware());
    Bytes sector(512, 0xEE);
    m_storage->make_idb_sector0(sector.data(), 65532, 8);
    EXPECT_EQ(get16(sector, 506), 65532);
    EXPECT_EQ(get16(sector, 508), 4);
}

TEST_F(BootBlockTest, SecondSectorCarriesTheChipTag) {
    Bytes sector(512, 0xEE);
    m_storage->make_idb_sector1(sector.data());
    EXPECT_EQ(sector, header_sector1());
    EXPECT_EQ(get32(sector, 10), 0x38325A51U);
}

// ---- size of the block ----

TEST_F(BootBlockTest, TotalIsHeaderAndStagesInWholePages) {
    const struct {
        uint32_t page_kb, data_sectors, boot_sectors, total;
    } cases[] = {
        {2, 4, 0, 8},
        {2, 0, 4, 8},
        {2, 4, 4, 12},
        {2, 8, 4, 16},
        {2, 0, 0, 4},
        {4, 4, 4, 16},
        {4, 4, 0, 8},
        {4, 0, 0, 8},
        {1, 4, 4, 12},
        {1, 0, 0, 4},
        {3, 4, 4, 12},
        {3, 8, 4, 18},
        {3, 0, 0, 6},
        {64, 8, 4, 128},
        {64, 120, 4, 128},
        {64, 120, 8, 256},
        {5, 4, 4, 20},
        {2, 65532, 65532, 131068},
        {3, 65532, 65532, 131070},
    };
    for (const auto& wanted : cases) {
        use({.page_kb = wanted.page_kb});
        EXPECT_EQ(m_storage->compute_idb_total_sector(wanted.data_sectors, wanted.boot_sectors), wanted.total)
            << wanted.page_kb << " KB, " << wanted.data_sectors << " + " << wanted.boot_sectors;
    }
}

// ---- one copy in memory ----

TEST_F(BootBlockTest, PlainStagesAreCopiedByteForByte) {
    const Bytes flash_data = patterned(3000, 11);
    const Bytes flash_boot = patterned(2048, 12);
    load_stages(flash_data, flash_boot);
    const Bytes block = created(8, 4, 3000, 2048);
    EXPECT_TRUE(same_bytes(block, boot_block(flash_data, flash_boot, false)));
    EXPECT_EQ(slice(block, 2048, 3000), flash_data);
    EXPECT_TRUE(all_bytes_are(block, 0, 5048, 6144 - 5048));
    EXPECT_EQ(slice(block, 6144, 2048), flash_boot);
    EXPECT_EQ(block.size(), 8192U);
}

TEST_F(BootBlockTest, ScrambledStagesEndWithTheirOwnBytes) {
    const Bytes flash_data = patterned(3000, 11);
    const Bytes flash_boot = patterned(2048, 12);
    load_stages(flash_data, flash_boot, true);
    const Bytes block = created(8, 4, 3000, 2048);
    EXPECT_TRUE(same_bytes(block, boot_block(flash_data, flash_boot, true)));
    // Every sector starts with the first byte of the keystream, the partial last one too.
    EXPECT_EQ(slice(block, 2048, 512), rc4_scrambled(slice(flash_data, 0, 512)));
    EXPECT_EQ(slice(block, 2048 + 2560, 440), rc4_scrambled(slice(flash_data, 2560, 440)));
    EXPECT_TRUE(all_bytes_are(block, 0, 5048, 6144 - 5048)) << "padding is not scrambled";
}

TEST_F(BootBlockTest, HeaderButTheSecondSectorIsScrambled) {
    for (const bool scrambled : {false, true}) {
        use({});
        load_stages(patterned(100, 1), patterned(100, 2), scrambled);
        const Bytes block = created(4, 4, 100, 100);
        EXPECT_EQ(slice(block, 0, 512), rc4_scrambled(header_sector0(scrambled ? 1 : 0, 4, 4)));
        EXPECT_EQ(slice(block, 512, 512), header_sector1());
        EXPECT_EQ(slice(block, 1024, 512), rc4_scrambled(Bytes(512, 0)));
        EXPECT_EQ(slice(block, 1536, 512), rc4_scrambled(Bytes(512, 0)));
    }
}

TEST_F(BootBlockTest, StagesOfAnyLengthStandOnTheirSectors) {
    const std::size_t lengths[] = {0, 1, 440, 511, 512, 513, 2047, 2048, 2049, 4096, 70000};
    for (const std::size_t data_length : lengths)
        for (const std::size_t boot_length : lengths) {
            const Bytes flash_data = patterned(data_length, 21);
            const Bytes flash_boot = patterned(boot_length, 22);
            use({});
            load_stages(flash_data, flash_boot, data_length % 2 == 1);
            const Bytes block =
                created(stage_sectors(flash_data), stage_sectors(flash_boot),
                        static_cast<uint32_t>(data_length), static_cast<uint32_t>(boot_length));
            EXPECT_TRUE(same_bytes(block, boot_block(flash_data, flash_boot, data_length % 2 == 1)))
                << data_length << " and " << boot_length;
        }
}

TEST_F(BootBlockTest, NothingIsWrittenAfterTheStages) {
    load_stages(patterned(3000, 11), patterned(2048, 12), true);
    Bytes buffer(8192 + 512, 0xEE);
    EXPECT_EQ(m_storage->create_idblock(buffer.data(), 8, 4, 3000, 2048), 0);
    EXPECT_TRUE(all_bytes_are(buffer, 0xEE, 8192, 512));
    EXPECT_EQ(slice(buffer, 0, 2048),
              slice(boot_block(patterned(3000, 11), patterned(2048, 12), true), 0, 2048));
    EXPECT_TRUE(all_bytes_are(buffer, 0xEE, 5048, 6144 - 5048)) << "the zeros between are the caller's";
}

TEST_F(BootBlockTest, EachMissingOrUnreadableStageHasItsCode) {
    const auto code_of = [this](const Firmware& firmware, uint32_t data_size, uint32_t boot_size) {
        use({});
        load(*m_storage, firmware);
        Bytes buffer(8192, 0);
        return m_storage->create_idblock(buffer.data(), 8, 4, data_size, boot_size);
    };
    const Firmware sample = sample_firmware();
    Firmware no_boot = sample;
    no_boot.boot.loader.entries[1].name = "FlashBoots";
    Firmware no_data = sample;
    no_data.boot.loader.entries[0].name = "FlashDatas";
    Firmware neither = no_boot;
    neither.boot.loader.entries[0].name = "FlashDatas";
    Firmware boot_outside = sample;
    boot_outside.boot.loader.entries[1].data_offset = 0xFFFFFF00;
    Firmware data_outside = sample;
    data_outside.boot.loader.entries[0].data_offset = 0xFFFFFF00;

    EXPECT_EQ(code_of(sample, 3000, 2048), 0);
    EXPECT_EQ(code_of(no_boot, 3000, 2048), -1);
    EXPECT_EQ(code_of(neither, 3000, 2048), -1);
    EXPECT_EQ(code_of(boot_outside, 3000, 2048), -2);
    EXPECT_EQ(code_of(no_data, 3000, 2048), -3);
    EXPECT_EQ(code_of(data_outside, 3000, 2048), -4);
    // A size that is not the entry's would write past the buffer of the entry.
    EXPECT_EQ(code_of(sample, 3000, 2047), -2);
    EXPECT_EQ(code_of(sample, 2999, 2048), -4);
}

}  // namespace
