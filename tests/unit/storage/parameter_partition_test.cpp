// The parameter record in memory, the parameter partition with its copies, and what asks for a record that is
// not loaded.

#include "partition_fixture.h"
#include "storage/results.h"

#include <gtest/gtest.h>

#include <utility>

namespace storage_test {
namespace {

using Recorder = Recording<CEmmcStorage>;
using Outcome = std::pair<int, std::string>;

const Outcome kWritten{kDone, line("writing parameter...") + redrawn("writing parameter...OK")};
const Outcome kTooSmall{kParameterTooLarge,
                        line("writing parameter...") + line("partition size is too small")};
const Outcome kNotLoaded{kParameterTooLarge, line("writing parameter...") + line("parameter is not loaded")};
const Outcome kNoList{kNoPartitionList, line("writing gpt...") + line("failed to parse gpt parameter file")};

class ParameterRecord : public StorageTest {
protected:
    // A storage object and a firmware of these items, of which m_item is the first.
    void use(std::vector<Item> items, const Geometry& geometry = {}) {
        m_firmware = firmware_with(std::move(items));
        m_storage = make<Recorder>(geometry);
        load(*m_storage, m_firmware);
        m_storage->m_image_fill_page_num = kUntouched;
        m_item = item_in(m_firmware, 0);
    }

    bool load_record(STRUCT_QZIMAGE_ITEM item) {
        bool loaded = false;
        EXPECT_EQ(output_of([&] { loaded = m_storage->make_param_buffer(item); }), "");
        return loaded;
    }

    Bytes buffer(std::size_t size) const {
        return Bytes(m_storage->m_paramBuffer, m_storage->m_paramBuffer + size);
    }
    // Whole pages of the record and zeros.
    void expect_record(const Bytes& record) const {
        EXPECT_EQ(m_storage->m_uiParamFileSize, record.size());
        const Bytes expected = padded(record, m_storage->m_page_size);
        EXPECT_TRUE(same_bytes(buffer(expected.size()), expected));
    }

    Outcome write_parameter() {
        int result = 1;
        std::string output = output_of([&] { result = m_storage->write_parameter(m_item); });
        return {result, output};
    }
    Outcome write_gpt() {
        int result = 1;
        std::string output = output_of([&] { result = m_storage->write_gpt(m_item); });
        return {result, output};
    }
    void expect_nothing_written() const {
        EXPECT_TRUE(m_storage->pages.empty());
        EXPECT_EQ(m_storage->m_image_fill_page_num, kUntouched);
    }

    Firmware m_firmware{};
    STRUCT_QZIMAGE_ITEM m_item{};
    std::unique_ptr<Recorder> m_storage{};
};

TEST_F(ParameterRecord, IsCopiedIntoWholePagesOfZeros) {
    for (const uint32_t page_kb : {1U, 2U, 3U, 64U}) {
        for (const std::size_t size : {0U, 1U, 1023U, 1024U, 1025U, 2048U, 3073U, 65537U}) {
            use({{.name = "parameter", .data = patterned(size, 7)}, {.name = "x", .data = Bytes(9, 0xEE)}},
                {.page_kb = page_kb});
            ASSERT_TRUE(load_record(m_item));
            expect_record(patterned(size, 7));
        }
    }
}

TEST_F(ParameterRecord, AfterTheEndOfTheFileIsRefused) {
    const Bytes data = patterned(3000, 1);
    use({{.name = "parameter", .data = data}});
    const uint8_t* earlier = nullptr;
    for (const bool loaded_before : {false, true}) {
        for (const uint32_t size : {3001U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
            m_item.size = size;
            EXPECT_FALSE(load_record(m_item)) << size;
            EXPECT_EQ(m_storage->m_paramBuffer, earlier) << loaded_before;
        }
        m_item.size = 3000;
        ASSERT_TRUE(load_record(m_item));
        expect_record(data);
        earlier = m_storage->m_paramBuffer;
    }
}

TEST_F(ParameterRecord, ReplacesAnEarlierOne) {
    use({{.name = "first", .data = Bytes(5000, 1)}, {.name = "second", .data = Bytes(10, 2)}});
    ASSERT_TRUE(load_record(m_item));
    ASSERT_TRUE(load_record(item_in(m_firmware, 1)));
    expect_record(Bytes(10, 2));
}

TEST_F(ParameterRecord, PositionIsA32BitSum) {
    use({{.name = "parameter", .data = Bytes(100)}});
    m_item.offset = 16U - static_cast<uint32_t>(m_firmware.layout().package_offset);  // wraps to byte 16
    ASSERT_TRUE(load_record(m_item));
    expect_record(slice(m_firmware.build(), 16, 100));
}

TEST_F(ParameterRecord, LargeItemMarksDoNotCount) {
    use({{.name = "parameter", .data = patterned(500, 2)}});
    const char marks[10] = {'H', 1, 0, 0, 0, 'H', 1, 0, 0, 0};
    std::memcpy(m_item.file + 50, marks, sizeof(marks));
    ASSERT_EQ(item_data_size(m_item), 0x100000000U + 500U);
    ASSERT_TRUE(load_record(m_item));
    expect_record(patterned(500, 2));
}

TEST_F(ParameterRecord, PageThatNoMemoryHoldsLeavesTheEarlierRecord) {
    if (!kMemoryCanBeLimited)
        GTEST_SKIP() << "needs a build without sanitizers or emulator";
    use({{.name = "parameter", .data = Bytes(100, 1)}});
    ASSERT_TRUE(load_record(m_item));
    m_storage->m_page_size = kHugePageKb * 1024;
    m_storage->m_page_size_sector = kHugePageKb * 2;
    const MemoryLimit limit(256 * 1024 * 1024);
    EXPECT_FALSE(load_record(m_item));
    EXPECT_EQ(buffer(100), Bytes(100, 1));
}

// ---- the partition ----

class ParameterPartition : public ParameterRecord {};

TEST_F(ParameterPartition, HoldsEightCopiesOrFour) {
    const struct {
        std::string situation;
        std::size_t record_size;
        uint32_t part_sectors;
        std::size_t pages = 0, copies = 0, slot_pages = 0;  // no copies: it is too small
        uint32_t page_kb = 1;
        uint8_t fill_byte = 0;
    } cases[] = {
        {"eight copies just fit", 8 * 1024, 128, 64, 8, 8},
        {"a page more of record", 9 * 1024, 128, 64, 4, 16},
        {"a byte more of record", 8 * 1024 + 1, 128, 64, 4, 16},
        {"a page less of partition", 8 * 1024, 126, 63, 4, 15},
        {"four copies just fit", 16 * 1024, 128, 64, 4, 16},
        {"a page more than four copies hold", 17 * 1024, 128},
        {"a page less than four copies need", 16 * 1024, 126},
        {"no sectors", 1, 0},
        {"six pages after the last slot", 2 * 1024, 140, 70, 8, 8},
        {"three pages after the last of four slots", 2 * 1024, 2 * 11, 11, 4, 2},
        {"zeros after the record, fill bytes after them", 1500, 128, 64, 8, 8, 1, 0xFF},
        {"an empty record", 0, 128, 64, 8, 8},
        {"an empty record in slots of no pages", 0, 2 * 7, 7, 8, 0, 1, 0xFF},
        {"an empty record in no sectors", 0, 0, 0, 8, 0},
        {"a sector less than whole pages", 100, 127, 64, 8, 8},
        {"a sector more than whole pages", 100, 129, 65, 8, 8},
        {"one page is no place for four", 100, 1},
        {"seven pages", 100, 14, 7, 4, 1},
        {"four pages, the last one in part", 100, 7, 4, 4, 1},
        {"eight pages, the last one in part", 100, 15, 8, 8, 1},
        {"17 pages of six sectors", 5000, 100, 17, 8, 2, 3},
        {"14 pages of 128 sectors", 70000, 128 * 13 + 1, 14, 4, 3, 64},
    };
    for (const auto& tested : cases) {
        SCOPED_TRACE(tested.situation);
        const Bytes record = patterned(tested.record_size, 11);
        use({{.name = "parameter", .part_size = tested.part_sectors, .data = record},
             {.name = "other", .data = Bytes(1, 0xEE)}},
            {.page_kb = tested.page_kb});
        m_storage->m_fill_byte = tested.fill_byte;
        ASSERT_TRUE(load_record(m_item));
        if (tested.copies == 0) {
            EXPECT_EQ(write_parameter(), kTooSmall);
            expect_nothing_written();
            continue;
        }
        EXPECT_EQ(write_parameter(), kWritten);
        EXPECT_EQ(m_storage->m_image_fill_page_num, tested.pages);
        EXPECT_EQ(m_storage->pages.size(), tested.pages);
        for (const RecordedPage& page : m_storage->pages)
            ASSERT_EQ(page.length, m_storage->m_page_size);
        EXPECT_TRUE(same_bytes(m_storage->recorded_bytes(),
                               parameter_pages(record, m_storage->m_page_size, tested.pages, tested.copies,
                                               tested.slot_pages, tested.fill_byte)));
    }
}

TEST_F(ParameterPartition, LengthIsNotTheItemsButTheLoadedRecords) {
    const Bytes record = patterned(2000, 11);
    use({{.name = "parameter", .part_size = 128, .data = record}}, {.page_kb = 1});
    ASSERT_TRUE(load_record(m_item));
    m_item.size = 20 * 1024;
    EXPECT_EQ(write_parameter(), kWritten);
    EXPECT_TRUE(same_bytes(m_storage->recorded_bytes(), parameter_pages(record, 1024, 64, 8, 8)));
}

TEST_F(ParameterPartition, PageThatNoMemoryHoldsHasACodeOfItsOwn) {
    if (!kMemoryCanBeLimited)
        GTEST_SKIP() << "needs a build without sanitizers or emulator";
    m_storage = make<Recorder>({.page_kb = kHugePageKb});
    uint8_t empty_record = 0;
    m_storage->m_paramBuffer = &empty_record;
    m_item.part_size = 0xFFFFFFFF;
    const MemoryLimit limit(256 * 1024 * 1024);
    EXPECT_EQ(write_parameter(), Outcome(kNoParameterMemory, line("writing parameter...")));
    EXPECT_TRUE(m_storage->pages.empty());
    EXPECT_EQ(m_storage->m_image_fill_page_num, 0U);
}

TEST_F(ParameterPartition, PageThatCannotBeWrittenChangesNothing) {
    use({{.name = "parameter", .part_size = 128, .data = Bytes(10, 1)}});
    m_storage = make<Refusing<Recorder>>({.page_kb = 1});
    load(*m_storage, m_firmware);
    ASSERT_TRUE(load_record(m_item));
    EXPECT_EQ(write_parameter(), kWritten);
    EXPECT_EQ(m_storage->pages.size(), 64U);
    EXPECT_EQ(m_storage->m_image_fill_page_num, 64U);
}

// ---- partition or GPT before their record is loaded, or with another one ----

class ParameterOrderTest : public ParameterRecord {
protected:
    // Pages of 2 KB. The record asks for a GPT and lies before other data.
    ParameterOrderTest() {
        use({{.name = "parameter",
              .part_size = 512,
              .data = parameter_record(parameter_text({{"boot", 64, 64}}, true))},
             {.name = "more", .data = patterned(100000, 1)}});
    }
};

TEST_F(ParameterOrderTest, NoRecordGivesNeither) {
    EXPECT_EQ(write_parameter(), kNotLoaded);
    EXPECT_EQ(write_gpt(), kNoList);
    expect_nothing_written();
}

TEST_F(ParameterOrderTest, FailedLoadGivesNeither) {
    m_item.offset = 0x00F00000;  // after the file
    for (const bool loaded_before : {false, true}) {
        ASSERT_TRUE(!loaded_before || load_record(item_in(m_firmware, 0)));
        for (const uint32_t size : {100U, 2049U, 90000U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
            m_item.size = size;
            EXPECT_FALSE(load_record(m_item)) << size;
            EXPECT_EQ(write_parameter(), kNotLoaded) << size;
            EXPECT_EQ(write_gpt(), kNoList) << size;
        }
    }
    expect_nothing_written();
}

TEST_F(ParameterOrderTest, GptTakesNoItemOfAnotherSizeThanATexts) {
    ASSERT_TRUE(load_record(m_item));
    Bytes expected = buffer(2048);
    for (const uint32_t size :
         {2049U, 2052U, 4096U, 100000U, 0x80000000U, 0xFFFFFFFFU,  // more than is loaded
          0U, 1U, 4U, 8U, 11U, 12U}) {                             // head and checksum
        m_item.size = size;
        EXPECT_EQ(write_gpt(), kNoList) << size;
        if (size == 12)
            put32_at(expected, 8, 0);  // the end of a text of no characters
        EXPECT_EQ(buffer(2048), expected) << size;
    }
    expect_nothing_written();
}

TEST_F(ParameterOrderTest, GptTakesAnItemOfAllLoadedPages) {
    ASSERT_TRUE(load_record(m_item));
    m_item.size = 2048;
    EXPECT_EQ(write_gpt(), Outcome(kDone, line("writing gpt...") + redrawn("writing gpt...OK")));
    EXPECT_EQ(m_storage->pages.size(), 9U);
}

TEST_F(ParameterOrderTest, LoadAfterAFailureIsUsed) {
    EXPECT_EQ(write_gpt(), kNoList);
    ASSERT_TRUE(load_record(m_item));
    EXPECT_EQ(write_parameter(), kWritten);
    EXPECT_TRUE(
        same_bytes(m_storage->recorded_bytes(), parameter_pages(m_firmware.items[0].data, 2048, 128, 8, 16)));
}

TEST_F(ParameterOrderTest, WildStageIsRefusedBeforeTheBlockIsAllocated) {
    Firmware firmware = sample_firmware();
    firmware.boot.loader.entries[0].data_size = 33000000;
    const auto storage = make_base<Recording<CStorage>>(FLASH_NONE);
    load(*storage, firmware);
    const MemoryLimit limit(16 * 1024 * 1024);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(storage->write_idblock(), kIdblockNotCreated); }),
              line("writing idblock...") + line("Failed to create idblock,ret=-4"));
}

// Loads a smaller record with its first page.
class LoadingAnother : public Recorder {
public:
    using Recorder::Recorder;
    bool write_page(uint8_t* data, uint32_t length) override {
        if (pages.empty())
            make_param_buffer(smaller);
        return Recorder::write_page(data, length);
    }
    STRUCT_QZIMAGE_ITEM smaller{};
};

TEST_F(ParameterOrderTest, SmallerRecordOfAPageIsNotOverread) {
    use({{.name = "parameter", .part_size = 16384, .data = Bytes(1024 * 1024, 1)},
         {.name = "smaller", .part_size = 128, .data = Bytes(2048, 1)}});
    auto storage = make<LoadingAnother>({});
    storage->smaller = item_in(m_firmware, 1);
    m_storage = std::move(storage);
    load(*m_storage, m_firmware);
    ASSERT_TRUE(load_record(m_item));
    EXPECT_EQ(write_parameter(), kWritten);
    ASSERT_FALSE(m_storage->pages.empty());
    const Bytes of_the_record(2048, 1);
    EXPECT_EQ(m_storage->pages[0].bytes, of_the_record);
    for (const auto& page : m_storage->pages)
        EXPECT_TRUE(page.bytes == of_the_record || page.bytes == Bytes(2048, 0));
}

// A derived class may put a record of its own in the place of the loaded one.
TEST_F(ParameterOrderTest, RecordOfADerivedClassIsWritten) {
    Bytes own = patterned(3 * 2048, 9);
    m_storage->m_paramBuffer = own.data();
    m_storage->m_uiParamFileSize = 5000;
    EXPECT_EQ(write_parameter(), kWritten);
    EXPECT_EQ(m_storage->pages.size(), 128U);
    EXPECT_TRUE(same_bytes(slice(m_storage->recorded_bytes(), 0, own.size()), own));
}

}  // namespace
}  // namespace storage_test
