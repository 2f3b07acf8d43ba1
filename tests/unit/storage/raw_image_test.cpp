// How many pages a plain image takes, what they hold and what is printed.

#include "raw_image_fixture.h"

#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <utility>

namespace {

using namespace storage_test;
using namespace test_support;

// ---- how many pages ----

TEST_F(RawImageTest, WholePagesGetNoPaddingPage) {
    const Bytes data = patterned(3 * 2048, 1);
    use(FLASH_EMMC, {}, data);
    expect_written(writing_lines("boot", 3));
    expect_pages(data, 3);
}

TEST_F(RawImageTest, OneByteMoreTakesAPageOfItsOwn) {
    const Bytes data = patterned(3 * 2048 + 1, 1);
    use(FLASH_EMMC, {}, data);
    expect_written(writing_lines("boot", 4));
    expect_pages(data, 4);
    const Bytes& last = m_storage->pages.back().bytes;
    EXPECT_EQ(last[0], data.back());
    EXPECT_TRUE(all_bytes_are(last, 0, 1, 2047));
}

TEST_F(RawImageTest, SizesAroundAPageInEveryPageSize) {
    for (const uint32_t page_kb : {1U, 2U, 3U, 4U, 64U, 96U})
        for (const int off : {-1, 0, 1}) {
            const Bytes data = patterned(2U * page_kb * 1024 + static_cast<std::size_t>(off), page_kb);
            use(FLASH_NOR, {.page_kb = page_kb}, data);
            expect_written(writing_lines("boot", off == 1 ? 3 : 2));
            expect_pages(data, off == 1 ? 3 : 2);
        }
}

TEST_F(RawImageTest, RestIsFilledForAllTypesButNand) {
    const Bytes data = patterned(5000, 1);
    for (const ENUM_FLASH_TYPE type : {FLASH_NONE, FLASH_EMMC, FLASH_NOR}) {
        use(type, {}, data, 0x80);
        expect_written(writing_lines("boot", 32));
        expect_pages(data, 32);
    }
}

TEST_F(RawImageTest, NandFilesHoldTheDataPagesAlone) {
    const Bytes data = patterned(5000, 1);
    for (const ENUM_FLASH_TYPE type : {FLASH_SPI_NAND, FLASH_SLC_NAND})
        for (const uint32_t part_size : {0U, 1U, 0x80U, kGrowsToEnd}) {
            use(type, {}, data, part_size);
            expect_written(writing_lines("boot", 3));
            expect_pages(data, 3);
        }
}

TEST_F(RawImageTest, GrowingPartitionHoldsTheDataPagesAlone) {
    const Bytes data = patterned(5000, 1);
    use(FLASH_EMMC, {}, data, kGrowsToEnd);
    expect_written(writing_lines("boot", 3));
    expect_pages(data, 3);
}

TEST_F(RawImageTest, OneSectorLessThanGrowingIsASizeLikeAnyOther) {
    use(FLASH_EMMC, {}, patterned(5000, 1), kGrowsToEnd - 1);
    m_storage->m_fout.open(out_path("boot.img").string());
    m_storage->m_fout.give_up(EIO);  // half a terabyte is not written
    expect_written(writing_lines("boot", 100));
    EXPECT_EQ(m_storage->m_image_fill_page_num, 0x40000000U);
}

TEST_F(RawImageTest, PartitionOfAPartOfAPageTakesAWholeOne) {
    for (const uint32_t part_size : {1U, 3U, 4U}) {
        use(FLASH_EMMC, {}, patterned(10, 1), part_size);
        expect_written(writing_lines("boot", 1));
        expect_pages(patterned(10, 1), 1);
    }
    use(FLASH_EMMC, {}, patterned(10, 1), 5);
    expect_written(writing_lines("boot", 2));
    expect_pages(patterned(10, 1), 2);
}

TEST_F(RawImageTest, PagesOf2SectorsMake1024Of2048Sectors) {
    for (const std::size_t size : {std::size_t{1}, std::size_t{1024}, std::size_t{1048576}}) {
        const Bytes data = patterned(size, 7);
        use(FLASH_NOR, {.page_kb = 1}, data, 2048);
        expect_written(writing_lines("boot", 1024));
        expect_pages(data, 1024);
    }
}

// No command line gives pages of one sector; the rule has to hold for them all the same.
TEST_F(RawImageTest, PagesOf1SectorMake2048Of2048Sectors) {
    const Bytes data = patterned(5000, 7);
    use(FLASH_NOR, {.page_kb = 1}, data, 2048);
    m_storage->m_page_size = 512;
    m_storage->m_page_size_sector = 1;
    expect_written(writing_lines("boot", 2048));
    expect_pages(data, 2048);
}

TEST_F(RawImageTest, FillByteStandsAfterTheDataAndInTheRest) {
    const Bytes data = patterned(2049, 7);
    use(FLASH_EMMC, {}, data, 12);
    m_storage->m_fill_byte = 0xFF;
    expect_written(writing_lines("boot", 3));
    Bytes expected = data;
    expected.resize(3 * 2048, 0xFF);
    EXPECT_TRUE(same_bytes(m_storage->recorded_bytes(), expected));
}

// ---- too small and empty ----

TEST_F(RawImageTest, ImageThatDoesNotFitWritesNothing) {
    for (const ENUM_FLASH_TYPE type : {FLASH_NONE, FLASH_EMMC, FLASH_NOR})
        for (const auto& [size, part_size] :
             {std::pair{1U, 0U}, std::pair{2049U, 4U}, std::pair{20481U, 40U}}) {
            use(type, {}, patterned(size, 1), part_size);
            expect_written("writing boot...\npartition size is too small\n", -1);
            EXPECT_TRUE(m_storage->pages.empty());
            EXPECT_EQ(m_storage->m_image_fill_page_num, kUntouched);
        }
}

TEST_F(RawImageTest, ImageThatJustFitsIsWritten) {
    const Bytes data = patterned(20480, 1);
    use(FLASH_EMMC, {}, data, 37);  // ten pages as well
    expect_written(writing_lines("boot", 10));
    expect_pages(data, 10);
}

TEST_F(RawImageTest, EmptyImageWritesNoPageOfItsOwn) {
    const struct {
        ENUM_FLASH_TYPE type;
        uint32_t part_size, pages;
    } cases[] = {{FLASH_SPI_NAND, 64, 0}, {FLASH_SLC_NAND, 64, 0},      {FLASH_EMMC, 0, 0},
                 {FLASH_NOR, 0, 0},       {FLASH_EMMC, kGrowsToEnd, 0}, {FLASH_EMMC, 64, 16}};
    for (const auto& wanted : cases) {
        use(wanted.type, {}, {}, wanted.part_size);
        expect_written(writing_lines("boot", wanted.pages));
        expect_pages({}, wanted.pages);
    }
    EXPECT_EQ(writing_lines("boot", 0), "writing boot...\n\x1b[1A\x1b[2Kwriting boot...OK\n");
}

// ---- messages ----

TEST_F(RawImageTest, ProgressShowsEveryWholePercentageOnce) {
    for (const uint32_t pages : {1U, 2U, 7U, 99U, 100U, 101U, 250U, 1000U}) {
        use(FLASH_EMMC, {.page_kb = 1}, patterned(pages * 512, 1), pages * 2);
        expect_written(writing_lines("boot", pages));
    }
    EXPECT_EQ(writing_lines("boot", 2),
              "writing boot...\n\x1b[1A\x1b[2Kwriting boot...50%\n\x1b[1A\x1b[2Kwriting boot...100%\n"
              "\x1b[1A\x1b[2Kwriting boot...OK\n");
}

TEST_F(RawImageTest, NameThatFillsItsFieldEndsAfter32Characters) {
    const std::string name = "a-name-of-exactly-32-characters.";
    ASSERT_EQ(name.size(), 32U);
    Firmware firmware = sample_firmware();
    firmware.items = {{.name = name, .file = "file", .part_size = kGrowsToEnd, .data = patterned(10, 1)}};
    use(FLASH_EMMC, {}, firmware);
    expect_written(writing_lines(name, 1));
}

TEST_F(RawImageTest, SizeFieldOfFourGibibytesIsComparedAsIs) {
    // 2^32 - 1 bytes are 2,097,152 pages of 2 KB, which need 8,388,608 sectors.
    use(FLASH_EMMC, {}, patterned(10, 1), 8388604);
    m_item.size = 0xFFFFFFFF;
    expect_written("writing boot...\npartition size is too small\n", -1);
    m_item.part_size = 8388605;
    m_item.offset = 0xFFFFF000;  // there is nothing
    expect_written("writing boot...\nfailed to get data from firmware\n", -2);
}

// ---- large items ----

TEST_F(RawImageTest, SizeBeyond4GiBTakesItsHighHalfFromTheMark) {
    Firmware firmware = sample_firmware();
    firmware.items = {
        {.name = "boot", .part_size = 8388608, .data = patterned(100, 1), .size = (uint64_t{1} << 32) + 1}};
    use(FLASH_EMMC, {}, firmware);
    // 2,097,153 pages do not fit 2,097,152.
    expect_written("writing boot...\npartition size is too small\n", -1);

    // Without the mark the size is one byte.
    m_item.file[55] = 'h';
    m_item.part_size = 4;
    expect_written(writing_lines("boot", 1));
    expect_pages(slice(patterned(100, 1), 0, 1), 1);
}

TEST_F(RawImageTest, TerabytesAfterAFailureCostAStepAPercent) {
    Firmware firmware = sample_firmware();
    firmware.items = {{.name = "boot",
                       .part_size = kGrowsToEnd,
                       .data = patterned(10, 1),
                       .size = (uint64_t{1} << 42) - 1024}};
    use(FLASH_EMMC, {.page_kb = 1}, firmware);
    m_storage->m_fout.open(out_path("boot.img").string());
    m_storage->m_fout.give_up(EIO);
    const std::clock_t before = std::clock();
    expect_written(writing_lines("boot", 100));
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC) << "4,294,967,295 steps would take most of a minute";
}

TEST_F(RawImageTest, OffsetBeyond4GiBTakesItsHighHalfFromTheMark) {
    const Bytes data = patterned(5000, 1);
    Firmware firmware = sample_firmware();
    firmware.items = {{.name = "boot", .part_size = kGrowsToEnd, .data = data}};
    firmware.items[0].offset = (uint64_t{1} << 32) + 4096;
    m_storage = make_base<Recording<CStorage>>(FLASH_EMMC);
    load(*m_storage, firmware);
    Firmware small = firmware;  // the same record in an image that fits into memory
    small.items[0].offset = 4096;
    m_item = item_in(small, 0);
    m_item.file[50] = 'H';
    m_item.file[51] = 1;
    expect_written(writing_lines("boot", 3));
    expect_pages(data, 3);

    // The low half alone leads elsewhere.
    m_item.file[50] = 0;
    m_storage->pages.clear();
    expect_written(writing_lines("boot", 3));
    EXPECT_TRUE(all_bytes_are(m_storage->recorded_bytes(), 0, 0, 3 * 2048));
}

TEST_F(RawImageTest, MarksAreIndependentOfEachOther) {
    use(FLASH_EMMC, {}, patterned(5000, 1));
    m_item.file[55] = 'H';  // a high half of 0 changes nothing
    expect_written(writing_lines("boot", 3));
    expect_pages(patterned(5000, 1), 3);
    m_item.file[50] = 'H';
    m_item.file[51] = 1;
    expect_written("writing boot...\nfailed to get data from firmware\n", -2);
}

TEST_F(RawImageTest, PageCountHas32Bits) {
    // 2^43 + 1 bytes are 2^32 + 1 pages of 2 KB, of which 32 bits leave one. Neither pages that the reader
    // holds already nor those that could be read at once may follow it.
    for (const std::size_t there : {4096U, 1048576U}) {
        const Bytes data = patterned(there, 1);
        use(FLASH_EMMC, {}, data);
        m_storage->m_fout.open(out_path("boot.img").string());
        m_item.size = 1;
        m_item.file[55] = 'H';
        m_item.file[57] = 8;
        ASSERT_EQ(item_data_size(m_item), (uint64_t{1} << 43) + 1);
        expect_written(writing_lines("boot", 1));
        expect_pages(slice(data, 0, 2048), 1);
    }
}

}  // namespace
