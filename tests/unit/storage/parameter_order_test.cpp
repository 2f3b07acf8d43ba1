// Parameter partition and GPT are asked for before their record is loaded, or with another one.

#include "partition_fixture.h"
#include "storage/results.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace storage_test {
namespace {

using test_support::Firmware;
using test_support::patterned;

using Outcome = std::pair<int, std::string>;

const Outcome kNotLoaded{kParameterTooLarge, line("writing parameter...") + line("parameter is not loaded")};
const Outcome kNoList{kNoPartitionList, line("writing gpt...") + line("failed to parse gpt parameter file")};

class ParameterOrderTest : public StorageTest {
protected:
    // Pages of 2 KB. The parameter record asks for a GPT and lies before other data.
    ParameterOrderTest() {
        m_firmware = firmware_with(
            {{.name = "parameter",
              .part_size = 512,
              .data = test_support::parameter_record(test_support::parameter_text({{"boot", 64, 64}}, true))},
             {.name = "more", .data = patterned(100000, 1)}});
        write_firmware(m_firmware);
        m_item = item_in(m_firmware, 0);
        m_storage = make<Recording<CEmmcStorage>>();
        EXPECT_EQ(m_storage->m_update_image_ptr->ObjectInit(firmware_path().string(), false), 0);
        m_storage->m_image_fill_page_num = kUntouched;
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

    static constexpr uint32_t kUntouched = 4711;
    Firmware m_firmware{};
    STRUCT_QZIMAGE_ITEM m_item{};
    std::unique_ptr<Recording<CEmmcStorage>> m_storage{};
};

TEST_F(ParameterOrderTest, NoRecordGivesNoGpt) {
    EXPECT_EQ(write_gpt(), kNoList);
    expect_nothing_written();
}

TEST_F(ParameterOrderTest, FailedLoadGivesNeither) {
    m_item.size = 0x00100000;  // within 32 bits, beyond the file
    EXPECT_FALSE(m_storage->make_param_buffer(m_item));
    EXPECT_EQ(write_parameter(), kNotLoaded);
    EXPECT_EQ(write_gpt(), kNoList);
    expect_nothing_written();
}

TEST_F(ParameterOrderTest, FailedLoadOfALargerRecordGivesNeither) {
    ASSERT_TRUE(m_storage->make_param_buffer(m_item));
    for (const uint32_t size : {2049U, 90000U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
        STRUCT_QZIMAGE_ITEM bad = m_item;
        bad.size = size;
        bad.offset = 0x00F00000;  // beyond the file
        EXPECT_FALSE(m_storage->make_param_buffer(bad));
        std::swap(bad, m_item);
        EXPECT_EQ(write_parameter(), kNotLoaded) << size;
        EXPECT_EQ(write_gpt(), kNoList) << size;
        std::swap(bad, m_item);
    }
    expect_nothing_written();
}

TEST_F(ParameterOrderTest, GptTakesNoLargerItemThanWasLoaded) {
    ASSERT_TRUE(m_storage->make_param_buffer(m_item));
    const Bytes before(m_storage->m_paramBuffer, m_storage->m_paramBuffer + 2048);
    for (const uint32_t size : {2049U, 2052U, 4096U, 100000U, 0x80000000U, 0xFFFFFFFFU}) {
        m_item.size = size;
        EXPECT_EQ(write_gpt(), kNoList) << size;
    }
    EXPECT_EQ(Bytes(m_storage->m_paramBuffer, m_storage->m_paramBuffer + 2048), before);
    expect_nothing_written();
}

TEST_F(ParameterOrderTest, GptTakesNoItemWithoutRoomForAText) {
    ASSERT_TRUE(m_storage->make_param_buffer(m_item));
    const Bytes before(m_storage->m_paramBuffer, m_storage->m_paramBuffer + 2048);
    for (const uint32_t size : {0U, 1U, 4U, 8U, 11U, 12U}) {
        m_item.size = size;
        EXPECT_EQ(write_gpt(), kNoList) << size;
    }
    EXPECT_EQ(Bytes(m_storage->m_paramBuffer, m_storage->m_paramBuffer + 8),
              Bytes(before.begin(), before.begin() + 8));
    expect_nothing_written();
}

TEST_F(ParameterOrderTest, GptTakesAnItemOfAllLoadedPages) {
    ASSERT_TRUE(m_storage->make_param_buffer(m_item));
    m_item.size = 2048;
    EXPECT_EQ(write_gpt(), Outcome(kDone, line("writing gpt...") + redrawn("writing gpt...OK")));
    EXPECT_EQ(m_storage->pages.size(), 9U);
}

TEST_F(ParameterOrderTest, LoadAfterAFailureIsUsed) {
    EXPECT_EQ(write_gpt(), kNoList);
    ASSERT_TRUE(m_storage->make_param_buffer(m_item));
    EXPECT_EQ(write_parameter(),
              Outcome(kDone, line("writing parameter...") + redrawn("writing parameter...OK")));
    EXPECT_TRUE(
        same_bytes(m_storage->recorded_bytes(), parameter_pages(m_firmware.items[0].data, 2048, 128, 8, 16)));
}

TEST_F(ParameterOrderTest, NoRecordGivesNoPartition) {
    EXPECT_EQ(write_parameter(), kNotLoaded);
    expect_nothing_written();
}

TEST_F(ParameterOrderTest, FailedLoadOfASmallerRecordGivesNone) {
    ASSERT_TRUE(m_storage->make_param_buffer(m_item));
    STRUCT_QZIMAGE_ITEM bad = m_item;
    bad.size = 100;
    bad.offset = 0x00F00000;  // beyond the file
    EXPECT_FALSE(m_storage->make_param_buffer(bad));
    EXPECT_EQ(write_parameter(), kNotLoaded);
    expect_nothing_written();
}

TEST_F(ParameterOrderTest, WildStageIsRefusedBeforeTheBlockIsAllocated) {
    Firmware firmware = test_support::sample_firmware();
    firmware.boot.loader.entries[0].data_size = 33000000;
    const auto storage = make_base<Recording<CStorage>>(FLASH_NONE);
    load(*storage, firmware);
    const MemoryLimit limit(16 * 1024 * 1024);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(storage->write_idblock(), kIdblockNotCreated); }),
              line("writing idblock...") + line("Failed to create idblock,ret=-4"));
}

// A derived class may put a record of its own in the place of the loaded one.
TEST_F(ParameterOrderTest, RecordOfADerivedClassIsWritten) {
    Bytes own = patterned(3 * 2048, 9);
    m_storage->m_paramBuffer = own.data();
    m_storage->m_uiParamFileSize = 5000;
    EXPECT_EQ(write_parameter().first, kDone);
    EXPECT_EQ(m_storage->pages.size(), 128U);
    EXPECT_TRUE(same_bytes(test_support::slice(m_storage->recorded_bytes(), 0, own.size()), own));
}

}  // namespace
}  // namespace storage_test
