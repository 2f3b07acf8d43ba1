// The boot block: its sizes, one copy in memory, and the copies in the output.

#include "partition_fixture.h"
#include "storage/results.h"
#include "support/boot_rom.h"
#include "support/expected/boot_block.h"
#include "support/expected/image.h"

namespace storage_test {
namespace {

// A layout that puts the copies where the test wants them.
class PlacedStorage : public Recording<CStorage> {
public:
    using Recording<CStorage>::Recording;

    bool prepare_write_idblock() override {
        m_idb_copy = copies;
        m_idb_start_sector = first_sector;
        m_idb_second_start_sector = second_sector;
        m_idb_total_sector = total.value_or(m_idb_total_sector);
        return true;
    }

    uint8_t copies = 1;
    uint32_t first_sector = 0;
    uint32_t second_sector = 0;
    std::optional<uint32_t> total{};
};

class BootBlockTest : public StorageTest {
protected:
    // A fresh storage object on the firmware.
    void use(const Firmware& firmware, const Geometry& geometry = {}) {
        m_storage = make_base<PlacedStorage>(FLASH_NONE, geometry);
        m_storage->forward = true;
        load(*m_storage, firmware);
    }

    static Firmware firmware_with_stages(std::size_t data_bytes, std::size_t boot_bytes, bool scrambled) {
        Firmware firmware = sample_firmware({.scramble_stages = scrambled});
        firmware.boot.loader.entries = {{.name = "FlashData", .data = patterned(data_bytes, 21)},
                                        {.name = "FlashBoot", .data = patterned(boot_bytes, 22)}};
        return firmware;
    }

    // The sample firmware with one bent loader entry: 0 is FlashData, 1 is FlashBoot.
    template <typename Bend>
    static Firmware with_entry(std::size_t index, Bend bend) {
        Firmware firmware = sample_firmware();
        bend(firmware.boot.loader.entries[index]);
        return firmware;
    }

    // write_idblock into the file "block.img"; what the file holds then.
    Bytes written() {
        m_storage->m_fout.open(out_path("block.img").string());
        EXPECT_EQ(output_of([&] { EXPECT_EQ(m_storage->write_idblock(), 0); }), line("writing idblock..."));
        m_storage->m_fout.close();
        return read_file(out_path("block.img"));
    }

    std::unique_ptr<PlacedStorage> m_storage = make_base<PlacedStorage>(FLASH_NONE);
};

// ---- sizes ----

constexpr uint16_t kUntouchedSectors = 77;

// Sectors that do not fit 16 bits are left as they were.
TEST_F(BootBlockTest, LoaderEntriesTakeWholeUnitsOf2KB) {
    const struct {
        uint32_t bytes;
        uint16_t sectors;
    } cases[] = {{0, 0},         {1, 4},           {511, 4},         {512, 4},        {513, 4},
                 {2047, 4},      {2048, 4},        {2049, 8},        {3000, 8},       {4096, 8},
                 {4097, 12},     {0xFFFF, 128},    {0x10000, 128},   {0x10001, 132},  {33552384, 65532},
                 {33552385, 77}, {0x02000000, 77}, {0x80000000, 77}, {0xFFFFFFFF, 77}};
    for (const auto& wanted : cases) {
        use(with_entry(0, [&](auto& entry) { entry.data_size = wanted.bytes; }));
        uint16_t sectors = kUntouchedSectors;
        uint32_t size = 0;
        EXPECT_EQ(m_storage->get_loader_size_from_name("fLASHdATA", sectors, size),
                  wanted.sectors != kUntouchedSectors);
        EXPECT_EQ(sectors, wanted.sectors) << wanted.bytes;
        EXPECT_EQ(size, wanted.bytes);
    }
}

TEST_F(BootBlockTest, AbsentEntryLeavesTheSectorCountUntouched) {
    uint16_t sectors = kUntouchedSectors;
    uint32_t size = 0;
    EXPECT_FALSE(m_storage->get_loader_size_from_name("FlashData", sectors, size)) << "nothing is loaded";
    EXPECT_EQ(m_storage->create_idblock(Bytes(8192).data(), 8, 4, 3000, 2048), kFlashBootAbsent);
    use(sample_firmware());
    // "MemoryInit" is there, but in another table.
    for (const char* name : {"FlashHead", "", "FlashDat", "FlashDataX", "MemoryInit"})
        EXPECT_FALSE(m_storage->get_loader_size_from_name(name, sectors, size)) << name;
    EXPECT_EQ(sectors, kUntouchedSectors);
}

TEST_F(BootBlockTest, TotalIsHeaderAndStagesInWholePages) {
    const struct {
        uint32_t page_kb, data_sectors, boot_sectors, total;
    } cases[] = {{2, 4, 0, 8},  {2, 0, 4, 8},         {2, 4, 4, 12},       {2, 8, 4, 16},
                 {2, 0, 0, 4},  {4, 4, 4, 16},        {4, 4, 0, 8},        {4, 0, 0, 8},
                 {1, 4, 4, 12}, {1, 0, 0, 4},         {3, 4, 4, 12},       {3, 8, 4, 18},
                 {3, 0, 0, 6},  {64, 8, 4, 128},      {64, 120, 4, 128},   {64, 120, 8, 256},
                 {5, 4, 4, 20}, {2, 65532, 4, 65540}, {3, 65532, 4, 65544}};
    for (const auto& [page_kb, data_sectors, boot_sectors, total] : cases)
        EXPECT_EQ(make_base<PlacedStorage>(FLASH_NONE, {.page_kb = page_kb})
                      ->compute_idb_total_sector(data_sectors, boot_sectors),
                  total)
            << page_kb << " KB, " << data_sectors << " + " << boot_sectors;
}

// ---- one copy in memory ----

TEST_F(BootBlockTest, HeaderSectorsAreFilledWhole) {
    for (const uint8_t flag : {uint8_t{0}, uint8_t{1}, uint8_t{2}, uint8_t{255}}) {
        Firmware firmware = sample_firmware();
        firmware.boot.rc4_flag = flag;
        use(firmware);
        for (const uint16_t data_sectors : {uint16_t{8}, uint16_t{65532}}) {  // the sum has 16 bits
            Bytes sector(512, 0xEE);
            m_storage->make_idb_sector0(sector.data(), data_sectors, 8);
            EXPECT_EQ(sector, header_sector0(flag == 0 ? 0 : 1, data_sectors, 8)) << int{flag};
        }
    }
    Bytes sector(512, 0xEE);
    m_storage->make_idb_sector1(sector.data());
    EXPECT_EQ(sector, header_sector1());
}

TEST_F(BootBlockTest, StagesOfAnyLengthStandOnTheirSectors) {
    const std::size_t lengths[] = {0, 1, 440, 511, 512, 513, 2047, 2048, 2049, 4096, 70000};
    for (const std::size_t data_length : lengths)
        for (const std::size_t boot_length : lengths) {
            const Firmware firmware = firmware_with_stages(data_length, boot_length, data_length % 2 == 1);
            use(firmware);
            const Bytes expected = boot_block(firmware);
            const auto& stages = firmware.boot.loader.entries;
            Bytes block(expected.size(), 0);
            EXPECT_EQ(m_storage->create_idblock(
                          block.data(), stage_sectors(stages[0].data), stage_sectors(stages[1].data),
                          static_cast<uint32_t>(data_length), static_cast<uint32_t>(boot_length)),
                      kDone);
            EXPECT_TRUE(same_bytes(block, expected)) << data_length << " and " << boot_length;
        }
}

TEST_F(BootBlockTest, BytesAroundTheStagesAreTheCallers) {
    const Firmware firmware = firmware_with_stages(3000, 2048, true);
    use(firmware);
    Bytes buffer(8192 + 512, 0xEE);
    EXPECT_EQ(m_storage->create_idblock(buffer.data(), 8, 4, 3000, 2048), kDone);
    Bytes expected = boot_block(firmware) + Bytes(512, 0xEE);
    std::fill(expected.begin() + 5048, expected.begin() + 6144, uint8_t{0xEE});
    EXPECT_TRUE(same_bytes(buffer, expected));
}

TEST_F(BootBlockTest, EachMissingOrUnreadableStageHasItsCode) {
    const std::size_t end = sample_firmware().boot.build().size();
    const auto no_name = [](BootEntry& entry) { entry.name += 's'; };
    const auto outside = [](BootEntry& entry) { entry.data_offset = 0xFFFFFF00; };
    const auto at_end = [end](BootEntry& entry) {
        entry.data_offset = static_cast<uint32_t>(end - entry.data.size());
    };
    const auto past_end = [end](BootEntry& entry) {
        entry.data_offset = static_cast<uint32_t>(end - entry.data.size() + 1);
    };
    Firmware neither = with_entry(0, no_name);
    neither.boot.loader.entries[1].name = "FlashBoots";
    const struct {
        const char* situation;
        Firmware firmware;
        int code;
        uint32_t data_size = 3000, boot_size = 2048;
    } cases[] = {{"nothing missing", sample_firmware(), kDone},
                 {"no FlashBoot", with_entry(1, no_name), kFlashBootAbsent},
                 {"neither", neither, kFlashBootAbsent},
                 {"no FlashData", with_entry(0, no_name), kFlashDataAbsent},
                 {"FlashBoot far outside", with_entry(1, outside), kFlashBootUnreadable},
                 {"FlashData far outside", with_entry(0, outside), kFlashDataUnreadable},
                 {"FlashBoot up to the end", with_entry(1, at_end), kDone},
                 {"FlashData up to the end", with_entry(0, at_end), kDone},
                 {"FlashBoot a byte outside", with_entry(1, past_end), kFlashBootUnreadable},
                 {"FlashData a byte outside", with_entry(0, past_end), kFlashDataUnreadable},
                 // A size that is not the entry's would write past the buffer of the entry.
                 {"another size for FlashBoot", sample_firmware(), kFlashBootUnreadable, 3000, 2047},
                 {"another size for FlashData", sample_firmware(), kFlashDataUnreadable, 2999, 2048}};
    for (const auto& wanted : cases) {
        SCOPED_TRACE(wanted.situation);
        use(wanted.firmware);
        Bytes block(8192, 0x77);
        EXPECT_EQ(m_storage->create_idblock(block.data(), 8, 4, wanted.data_size, wanted.boot_size),
                  wanted.code);
        EXPECT_EQ(all_bytes_are(block, 0x77, 0, block.size()), wanted.code != kDone);
    }
}

TEST_F(BootBlockTest, WildSizeIsRefusedBeforeAnyMemory) {
    if (!kMemoryCanBeLimited)
        GTEST_SKIP() << "needs a build without sanitizers or emulator";
    constexpr uint32_t kWild = 33000000;
    for (const std::size_t index : {0U, 1U}) {
        use(with_entry(index, [&](auto& entry) { entry.data_size = kWild; }));
        Bytes block(8192, 0x77);
        const MemoryLimit limit(1024 * 1024);
        EXPECT_EQ(m_storage->create_idblock(block.data(), 8, 4, index == 0 ? kWild : 3000,
                                            index == 1 ? kWild : 2048),
                  index == 0 ? kFlashDataUnreadable : kFlashBootUnreadable);
        EXPECT_TRUE(all_bytes_are(block, 0x77, 0, block.size()));
    }
}

// ---- copies in the output ----

TEST_F(BootBlockTest, OneCopyIsWrittenPageByPage) {
    const Firmware firmware = sample_firmware({.scramble_stages = true});
    use(firmware);
    EXPECT_TRUE(same_bytes(written(), boot_block(firmware)));
    EXPECT_EQ(m_storage->m_idb_total_sector, 16U);
    ASSERT_EQ(m_storage->pages.size(), 4U);
    for (const RecordedPage& page : m_storage->pages)
        EXPECT_EQ(page.length, 2048U);
}

TEST_F(BootBlockTest, AtMostTwoCopiesAreWrittenAnywhere) {
    const Firmware firmware = sample_firmware();
    const struct {
        uint8_t copies;
        uint32_t first, second;
    } cases[] = {{0, 5, 40}, {1, 5, 40}, {2, 5, 40},  {3, 5, 40}, {255, 5, 40},
                 {2, 20, 0}, {2, 20, 3}, {2, 20, 20}, {2, 20, 29}};  // before or over the first copy
    for (const auto& [copies, first, second] : cases) {
        use(firmware);
        m_storage->copies = copies;
        m_storage->first_sector = first;
        m_storage->second_sector = second;
        ExpectedImage expected;
        expected.write(first, boot_block(firmware));
        if (copies > 1)
            expected.write(second, boot_block(firmware));
        EXPECT_TRUE(same_bytes(written(), expected.bytes())) << int{copies} << " copies, " << second;
    }
}

TEST_F(BootBlockTest, LayoutMayChangeTheSectorsOfTheBlock) {
    const Firmware firmware = sample_firmware({.scramble_stages = true});
    const struct {
        const char* situation;
        uint32_t page_kb, total;
        std::size_t bytes;
    } cases[] = {{"1001 sectors are 167 pages of 6 sectors", 3, 1001, 167 * 3072},
                 {"a page larger than the block", 64, 16, 65536},
                 {"no sectors", 2, 0, 0}};
    for (const auto& [situation, page_kb, total, bytes] : cases) {
        use(firmware, {.page_kb = page_kb});
        m_storage->total = total;
        EXPECT_TRUE(same_bytes(written(), zero_padded(boot_block(firmware), bytes))) << situation;
        EXPECT_EQ(m_storage->pages.size(), bytes / (page_kb * 1024)) << situation;
    }
}

TEST_F(BootBlockTest, EmptyStageLiesAnywhere) {
    const auto end = static_cast<uint32_t>(sample_firmware().boot.build().size());
    for (const uint32_t offset : {0U, end - 1, end, end + 1, 0x00F00000U, 0xFFFFFFFFU})
        for (const std::size_t index : {0U, 1U}) {
            const Firmware firmware = with_entry(index, [offset](auto& entry) {
                entry.data.clear();
                entry.data_offset = offset;
            });
            use(firmware);
            EXPECT_TRUE(same_bytes(written(), boot_block(firmware))) << offset << ", entry " << index;
        }
}

TEST_F(BootBlockTest, BootRomReadsBothStagesBack) {
    for (const bool scrambled : {false, true}) {
        const Firmware firmware = firmware_with_stages(5121, 40000, scrambled);
        use(firmware, {.page_kb = 1});
        m_storage->first_sector = 64;
        const BootBlock found = read_boot_block(written(), 64);
        ASSERT_TRUE(found.found);
        EXPECT_EQ(found.errors, std::vector<std::string>());
        EXPECT_EQ(found.rc4_flag, scrambled ? 1U : 0U);
        EXPECT_EQ(found.chip_tag, "QZ28");
        EXPECT_TRUE(found.reserved_zero);
        EXPECT_EQ(slice(found.stage1, 0, 5121), firmware.boot.loader.entries[0].data);
        EXPECT_EQ(slice(found.stage2, 0, 40000), firmware.boot.loader.entries[1].data);
    }
}

}  // namespace
}  // namespace storage_test
