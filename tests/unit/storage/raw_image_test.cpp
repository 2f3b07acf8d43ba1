// How many pages a plain image takes, what they hold and what is printed; images that cannot be read or
// written, and long ones that are read in large pieces.

#include "partition_fixture.h"
#include "support/expected/flash_pages.h"

#include <cerrno>
#include <ctime>

namespace storage_test {
namespace {

const std::string kUnreadable = line("failed to get data from firmware");
const std::string kTooSmall = line("writing boot...") + line("partition size is too small");

class RawImageTest : public StorageTest {
protected:
    // A storage object of that type with the item "boot" first in its firmware.
    template <typename Recorder = Recording<CStorage>>
    void use(ENUM_FLASH_TYPE type, const Geometry& geometry, const Firmware& firmware) {
        m_storage = make_base<Recorder>(type, geometry);
        m_storage->m_image_fill_page_num = kUntouched;
        load(*m_storage, firmware);
        m_item = item_in(firmware, 0);
    }

    void use(ENUM_FLASH_TYPE type, const Geometry& geometry, const Bytes& data,
             uint32_t part_size = kGrowsToEnd) {
        use(type, geometry, firmware_with({{.name = "boot", .part_size = part_size, .data = data}}));
    }

    // The pages go to this file as well.
    void write_to(const std::string& path) {
        m_storage->forward = true;
        m_storage->m_fout.open(path);
    }

    void expect_written(const std::string& output, int result = 0) {
        int actual = 1;
        EXPECT_EQ(output_of([&] { actual = m_storage->write_image(m_item); }), output);
        EXPECT_EQ(actual, result);
    }

    // The pages hold the data and fill bytes, `pages` in all.
    void expect_pages(const Bytes& data, uint32_t pages) {
        expect_written(writing_lines("boot", pages));
        EXPECT_EQ(m_storage->m_image_fill_page_num, pages);
        EXPECT_EQ(m_storage->pages.size(), pages);
        for (const RecordedPage& page : m_storage->pages)
            ASSERT_EQ(page.length, m_storage->m_page_size);
        Bytes expected = data;
        expected.resize(std::size_t{pages} * m_storage->m_page_size, m_storage->m_fill_byte);
        EXPECT_TRUE(same_bytes(m_storage->recorded_bytes(), expected));
    }

    void expect_no_pages(const std::string& output, int result) {
        expect_written(output, result);
        EXPECT_TRUE(m_storage->pages.empty());
        EXPECT_EQ(m_storage->m_image_fill_page_num, kUntouched);
    }

    std::unique_ptr<Recording<CStorage>> m_storage;
    STRUCT_QZIMAGE_ITEM m_item{};
};

// ---- how many pages ----

TEST_F(RawImageTest, SizesAroundAPageInEveryPageSize) {
    for (const uint32_t page_kb : {1U, 2U, 3U, 4U, 64U, 96U})
        for (const std::size_t size : {2048 * page_kb - 1, 2048 * page_kb, 2048 * page_kb + 1}) {
            const Bytes data = patterned(size, page_kb);
            use(FLASH_NOR, {.page_kb = page_kb}, data);
            expect_pages(data, size > 2048 * page_kb ? 3 : 2);
        }
}

TEST_F(RawImageTest, PartitionIsFilledButForNandAndGrowth) {
    constexpr uint32_t kRefused = 4711;
    constexpr ENUM_FLASH_TYPE kWhole[] = {FLASH_NONE, FLASH_EMMC, FLASH_NOR};
    constexpr ENUM_FLASH_TYPE kNand[] = {FLASH_SPI_NAND, FLASH_SLC_NAND};
    const struct {
        const char* situation;
        std::span<const ENUM_FLASH_TYPE> types;
        uint32_t page_kb;
        std::size_t size;
        uint32_t part_size, pages;
    } cases[] = {
        {"rest of the partition", kWhole, 2, 5000, 0x80, 32},
        {"data in all pages but for sectors of the last", kWhole, 2, 20480, 37, 10},
        {"a sector of a page", kWhole, 2, 10, 1, 1},
        {"sectors of a page", kWhole, 2, 10, 3, 1},
        {"a page", kWhole, 2, 10, 4, 1},
        {"a page and a sector", kWhole, 2, 10, 5, 2},
        {"2048 sectors in pages of 2", kWhole, 1, 1, 2048, 1024},
        {"2048 full sectors in pages of 2", kWhole, 1, 1048576, 2048, 1024},
        {"growing", kWhole, 2, 5000, kGrowsToEnd, 3},
        {"empty", kWhole, 2, 0, 64, 16},
        {"empty in no sectors", kWhole, 2, 0, 0, 0},
        {"empty and growing", kWhole, 2, 0, kGrowsToEnd, 0},
        {"too small for a byte", kWhole, 2, 1, 0, kRefused},
        {"too small for a byte more than a page", kWhole, 2, 2049, 4, kRefused},
        {"too small for a byte more than ten pages", kWhole, 2, 20481, 40, kRefused},
        {"NAND in no sectors", kNand, 2, 5000, 0, 3},
        {"NAND in a sector", kNand, 2, 5000, 1, 3},
        {"NAND in more than its data", kNand, 2, 5000, 0x80, 3},
        {"NAND that grows", kNand, 2, 5000, kGrowsToEnd, 3},
        {"empty on NAND", kNand, 2, 0, 64, 0},
    };
    for (const auto& wanted : cases)
        for (const ENUM_FLASH_TYPE type : wanted.types) {
            SCOPED_TRACE(wanted.situation);
            const Bytes data = patterned(wanted.size, 7);
            use(type, {.page_kb = wanted.page_kb}, data, wanted.part_size);
            m_storage->m_fill_byte = 0xA5;
            if (wanted.pages == kRefused)
                expect_no_pages(kTooSmall, -1);
            else
                expect_pages(data, wanted.pages);
        }
}

TEST_F(RawImageTest, OneSectorLessThanGrowingIsASizeLikeAnyOther) {
    use(FLASH_EMMC, {}, patterned(5000, 1), kGrowsToEnd - 1);
    write_to(out_path("boot.img"));
    m_storage->m_fout.give_up(EIO);  // half a terabyte is not written
    expect_written(writing_lines("boot", 100));
    EXPECT_EQ(m_storage->m_image_fill_page_num, 0x40000000U);
}

// No command line gives pages of one sector; the rule has to hold for them all the same.
TEST_F(RawImageTest, PagesOf1SectorMake2048Of2048Sectors) {
    const Bytes data = patterned(5000, 7);
    use(FLASH_NOR, {.page_kb = 1}, data, 2048);
    m_storage->m_page_size = 512;
    m_storage->m_page_size_sector = 1;
    expect_pages(data, 2048);
}

// ---- large items ----

TEST_F(RawImageTest, SizeFieldOfFourGibibytesIsComparedAsIs) {
    // 2^32 - 1 bytes are 2,097,152 pages of 2 KB, which need 8,388,608 sectors.
    use(FLASH_EMMC, {}, patterned(10, 1), 8388604);
    m_item.size = 0xFFFFFFFF;
    expect_no_pages(kTooSmall, -1);
    m_item.part_size = 8388605;
    m_item.offset = 0xFFFFF000;  // there is nothing
    expect_no_pages(line("writing boot...") + kUnreadable, -2);
}

TEST_F(RawImageTest, SizeBeyond4GiBTakesItsHighHalfFromTheMark) {
    const Bytes data = patterned(100, 1);
    use(FLASH_EMMC, {},
        firmware_with(
            {{.name = "boot", .part_size = 8388608, .data = data, .size = (uint64_t{1} << 32) + 1}}));
    expect_no_pages(kTooSmall, -1);  // 2,097,153 pages do not fit 2,097,152
    m_item.file[55] = 'h';           // without the mark the size is one byte
    m_item.part_size = 4;
    expect_pages({data[0]}, 1);
}

TEST_F(RawImageTest, OffsetBeyond4GiBTakesItsHighHalfFromTheMark) {
    const Bytes data = patterned(5000, 1);
    Firmware firmware =
        firmware_with({{.name = "boot", .part_size = kGrowsToEnd, .data = data, .offset = 4096}});
    const STRUCT_QZIMAGE_ITEM item = item_in(firmware, 0);  // of an image that fits into memory
    firmware.items[0].offset = (uint64_t{1} << 32) + 4096;
    write_firmware(firmware);
    m_storage = make_base<Recording<CStorage>>(FLASH_EMMC);
    ASSERT_EQ(m_storage->m_update_image_ptr->ObjectInit(firmware_path().string(), false), 0);
    m_item = item;
    m_item.file[50] = 'H';
    m_item.file[51] = 1;
    expect_pages(data, 3);
    m_item.file[50] = 0;  // the low half alone leads elsewhere
    m_storage->pages.clear();
    expect_pages(Bytes(3 * 2048, 0), 3);
}

TEST_F(RawImageTest, MarksAreIndependentOfEachOther) {
    use(FLASH_EMMC, {}, patterned(5000, 1));
    m_item.file[50] = 'H';
    m_item.file[51] = 1;
    expect_no_pages(line("writing boot...") + kUnreadable, -2);
    m_item.file[50] = 0;
    m_item.file[55] = 'H';  // a high half of 0 changes nothing
    expect_pages(patterned(5000, 1), 3);
}

TEST_F(RawImageTest, PageCountHas32Bits) {
    // 2^43 + 1 bytes are 2^32 + 1 pages of 2 KB, of which 32 bits leave one. Neither pages that the reader
    // holds already nor those that could be read at once may follow it.
    for (const std::size_t there : {4096U, 1048576U}) {
        const Bytes data = patterned(there, 1);
        use(FLASH_EMMC, {}, data);
        m_item.size = 1;
        m_item.file[55] = 'H';
        m_item.file[57] = 8;
        ASSERT_EQ(item_data_size(m_item), (uint64_t{1} << 43) + 1);
        expect_pages(slice(data, 0, 2048), 1);
    }
}

// ---- failures ----

TEST_F(RawImageTest, PageThatNoMemoryHoldsHasACodeOfItsOwn) {
    if (!kMemoryCanBeLimited)
        GTEST_SKIP() << "needs a build without sanitizers or emulator";
    use(FLASH_EMMC, {.page_kb = kHugePageKb}, patterned(10, 1), 16);
    const MemoryLimit limit(256 * 1024 * 1024);
    expect_no_pages(line("writing boot..."), -3);
}

// A page that cannot be written stops nothing: the verdict comes at the end of the run.
TEST_F(RawImageTest, ResultOfAPageWriteIsNotAskedFor) {
    const Bytes data = patterned(5000, 1);
    use<Refusing<Recording<CStorage>>>(FLASH_EMMC, {},
                                       firmware_with({{.name = "boot", .part_size = 40, .data = data}}));
    expect_pages(data, 10);
}

TEST_F(RawImageTest, FailedWriteEndsReadingButPrintsEveryLine) {
    // 4,294,967,295 steps would take most of a minute.
    for (const uint64_t size : {uint64_t{20480}, (uint64_t{1} << 42) - 1024}) {
        use(FLASH_EMMC, {.page_kb = 1},
            firmware_with({{.name = "boot", .part_size = kGrowsToEnd, .size = size}}));
        write_to(out_path("boot.img"));
        m_storage->m_fout.give_up(EIO);
        m_item.offset = 0xFFFFF000;  // reading would fail
        const std::clock_t before = std::clock();
        expect_written(writing_lines("boot", std::min<uint64_t>(size / 1024, 100)));
        EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC);
        EXPECT_TRUE(m_storage->pages.empty());
        EXPECT_EQ(m_storage->m_image_fill_page_num, size / 1024);
    }
}

TEST_F(RawImageTest, WritingStopsWithTheFirstFailedBlock) {
    use(FLASH_EMMC, {}, patterned(4 << 20, 1), 0x2800);
    write_to("/dev/full");
    expect_written(writing_lines("boot", 2560));
    // What is gathered at once, 1 MB, is the most that is prepared in vain.
    EXPECT_LE(m_storage->pages.size(), 512U);
    EXPECT_EQ(m_storage->m_write_failure.path, "/dev/full");
    EXPECT_EQ(m_storage->m_write_failure.error, ENOSPC);
}

// ---- long images, which are read in runs of pages ----

TEST_F(RawImageTest, LongImageIsTheSameThroughTheOutput) {
    const Bytes data = patterned(3 * 1024 * 1024 + 12345, 1);
    for (const Geometry& geometry : {Geometry{.page_kb = 1},
                                     {.page_kb = 3},
                                     {.page_kb = 96},
                                     {.page_kb = 160},
                                     {.page_kb = 1500},
                                     {.page_kb = 4, .page_2k = true}}) {
        SCOPED_TRACE(geometry.page_kb);
        use(FLASH_EMMC, geometry, data);
        write_to(out_path("boot.img"));
        m_storage->m_fout.write("xyz", 3);
        const Bytes pages = padded(data, m_storage->m_page_size);
        expect_pages(data, static_cast<uint32_t>(pages.size() / m_storage->m_page_size));
        m_storage->close_output();
        EXPECT_TRUE(same_bytes(read_file(out_path("boot.img")),
                               to_bytes("xyz") +
                                   (geometry.page_2k ? spread_pages(pages, m_storage->m_page_size) : pages)));
    }
}

// What lies after the item in the firmware is not read in with its last pages.
TEST_F(RawImageTest, LongImageEndsWhereTheNextBegins) {
    const Bytes data = patterned(1536 * 1024 + 700, 1);
    const Firmware firmware =
        firmware_with({{.name = "boot", .part_size = 4096, .data = data},
                       {.name = "next", .part_size = 16384, .data = patterned(4 << 20, 2)}});
    for (const ENUM_FLASH_TYPE type : {FLASH_SPI_NAND, FLASH_EMMC}) {
        use(type, {}, firmware);
        expect_pages(data, type == FLASH_EMMC ? 1024 : 769);
    }
}

TEST_F(RawImageTest, LongImageThatEndsEarlyKeepsEveryWholePage) {
    const Bytes data = patterned(2048 * 777 + 5, 1);
    use(FLASH_NOR, {},
        firmware_with({{.name = "boot", .part_size = kGrowsToEnd, .data = data, .size = 2048 * 1000}}));
    const std::string whole = writing_lines("boot", 1000);
    const std::string last = redrawn("writing boot...77%");
    expect_written(whole.substr(0, whole.find(last) + last.size()) + kUnreadable, -2);
    EXPECT_TRUE(same_bytes(m_storage->recorded_bytes(), slice(data, 0, 2048 * 777)));
    EXPECT_EQ(m_storage->m_image_fill_page_num, kUntouched);
}

}  // namespace
}  // namespace storage_test
