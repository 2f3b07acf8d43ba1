#include "boot_object.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace firmware_tests;

using test_support::BootContainer;
using test_support::patterned;
using test_support::read_file;
using test_support::repair_boot_crc;
using test_support::write_file;
namespace field = test_support::boot_entry_field;

std::unique_ptr<CQZBoot> loaded(const Bytes& container) {
    auto boot = boot_object(container);
    EXPECT_EQ(boot->ObjectInit(), 0);
    return boot;
}

std::unique_ptr<CQZBoot> loaded(const BootContainer& container) {
    return loaded(container.build());
}

int index_of(CQZBoot& boot, ENUM_QZBOOTENTRY kind, const std::string& name) {
    return static_cast<uint8_t>(boot.GetIndexByName(kind, name.c_str()));
}

// The entry's data, if there is any.
std::optional<Bytes> data_of(CQZBoot& boot, ENUM_QZBOOTENTRY kind, uint8_t index) {
    uint32_t size = 0;
    uint32_t delay = 0;
    if (!boot.GetEntryProperty(kind, index, size, delay))
        return std::nullopt;
    // A size beyond the container is no size to allocate.
    Bytes data(std::min(size, 100000U), 0xEE);
    return boot.GetEntryData(kind, index, data.data()) ? std::optional(data) : std::nullopt;
}

// "size delay name", the name as its 20 characters.
std::string property_of(CQZBoot& boot, ENUM_QZBOOTENTRY kind, uint8_t index) {
    uint32_t size = 0;
    uint32_t delay = 0;
    std::string name(21, '#');
    if (!boot.GetEntryProperty(kind, index, size, delay, name.data()))
        return "none";
    EXPECT_EQ(name[20], '#');
    return std::to_string(size) + " " + std::to_string(delay) + " " + name.substr(0, 20);
}

// There is no such entry, and what was handed over for it stays as it is.
void expect_none(CQZBoot& boot, ENUM_QZBOOTENTRY kind, uint8_t index) {
    SCOPED_TRACE(std::to_string(kind) + " " + std::to_string(index));
    uint32_t size = 123;
    uint32_t delay = 456;
    std::string name(20, '#');
    uint8_t byte = 0x77;
    EXPECT_FALSE(boot.GetEntryProperty(kind, index, size, delay, name.data()));
    EXPECT_FALSE(boot.GetEntryData(kind, index, &byte));
    EXPECT_EQ(size, 123U);
    EXPECT_EQ(delay, 456U);
    EXPECT_EQ(name, std::string(20, '#'));
    EXPECT_EQ(byte, 0x77);
}

std::string padded(std::string name) {
    name.resize(20, '\0');
    return name;
}

// ---- by index ----

TEST(QZBootEntries, HaveSizeDelayAndName) {
    const auto boot = loaded(sample_container());
    EXPECT_EQ(property_of(*boot, ENTRY471, 0), "70 1 " + padded("MemoryInit"));
    EXPECT_EQ(property_of(*boot, ENTRY471, 1), "71 11 " + padded("Second471"));
    EXPECT_EQ(property_of(*boot, ENTRY472, 0), "90 2 " + padded("UsbLoader"));
    EXPECT_EQ(property_of(*boot, ENTRY472, 1), "91 22 " + padded("Second472"));
    EXPECT_EQ(property_of(*boot, ENTRYLOADER, 0), "300 3 " + padded("FlashData"));
    EXPECT_EQ(property_of(*boot, ENTRYLOADER, 1), "513 4294967295 " + padded("FlashBoot"));
}

TEST(QZBootEntries, HandOutTheirData) {
    const BootContainer container = sample_container();
    const auto boot = loaded(container);
    for (const uint8_t i : {uint8_t{0}, uint8_t{1}}) {
        EXPECT_EQ(data_of(*boot, ENTRY471, i), container.entries_471.entries[i].data);
        EXPECT_EQ(data_of(*boot, ENTRY472, i), container.entries_472.entries[i].data);
        EXPECT_EQ(data_of(*boot, ENTRYLOADER, i), container.loader.entries[i].data);
    }
}

TEST(QZBootEntries, EndBelowTheirCount) {
    const auto boot = loaded(sample_container());
    for (const ENUM_QZBOOTENTRY kind : {ENTRY471, ENTRY472, ENTRYLOADER})
        for (const uint8_t index : {uint8_t{2}, uint8_t{3}, uint8_t{0xFF}})
            expect_none(*boot, kind, index);
}

TEST(QZBootEntries, HaveThreeKinds) {
    EXPECT_EQ(ENTRY471, 1U);
    EXPECT_EQ(ENTRY472, 2U);
    EXPECT_EQ(ENTRYLOADER, 4U);
    const auto boot = loaded(sample_container());
    for (const uint32_t kind : {0U, 3U, 5U, 6U, 7U, 8U, 0x100U, 0xFFFFFFFFU}) {
        const auto unknown = static_cast<ENUM_QZBOOTENTRY>(kind);
        expect_none(*boot, unknown, 0);
        EXPECT_EQ(index_of(*boot, unknown, "FlashData"), 0xFF) << kind;
    }
}

TEST(QZBootEntries, AreChosenByTableAndNotByTheTypeOfTheRecord) {
    BootContainer container = sample_container();
    container.loader.entries[0].type = 1;
    container.loader.entries[1].type = 77;
    const auto boot = loaded(container);
    EXPECT_EQ(property_of(*boot, ENTRYLOADER, 0), "300 3 " + padded("FlashData"));
    EXPECT_EQ(index_of(*boot, ENTRYLOADER, "FlashBoot"), 1);
}

// ---- by name ----

TEST(QZBootEntries, AreFoundByTheirWholeNameIgnoringCase) {
    const auto boot = loaded(sample_container());
    const struct {
        ENUM_QZBOOTENTRY kind;
        const char* name;
        int index;
    } rows[] = {{ENTRYLOADER, "FlashData", 0},     {ENTRYLOADER, "FlashBoot", 1},
                {ENTRYLOADER, "flashboot", 1},     {ENTRYLOADER, "FLASHBOOT", 1},
                {ENTRY471, "memoryinit", 0},       {ENTRY472, "SECOND472", 1},
                {ENTRYLOADER, "", 0xFF},           {ENTRYLOADER, "Flash", 0xFF},
                {ENTRYLOADER, "FlashBoo", 0xFF},   {ENTRYLOADER, "FlashBoot1", 0xFF},
                {ENTRYLOADER, " FlashBoot", 0xFF}, {ENTRYLOADER, "MemoryInit", 0xFF},
                {ENTRYLOADER, "UsbLoader", 0xFF},  {ENTRY471, "FlashBoot", 0xFF},
                {ENTRY472, "FlashBoot", 0xFF}};
    for (const auto& row : rows)
        EXPECT_EQ(index_of(*boot, row.kind, row.name), row.index) << row.kind << " " << row.name;
    const auto empty = loaded(BootContainer{});
    EXPECT_EQ(index_of(*empty, ENTRYLOADER, "FlashData"), 0xFF);
    EXPECT_EQ(index_of(*empty, ENTRYLOADER, ""), 0xFF);
}

TEST(QZBootEntries, OfTheSameNameGiveTheFirst) {
    BootContainer container;
    container.loader.entries = {{.name = "Other"}, {.name = "flashDATA"}, {.name = "FlashData"}};
    EXPECT_EQ(index_of(*loaded(container), ENTRYLOADER, "FlashData"), 1);
}

TEST(QZBootEntries, MayUseAll20UnitsOfTheName) {
    BootContainer container;
    const std::string name = "ABCDEFGHIJKLMNOPQRST";
    container.loader.entries = {{.name = name.substr(0, 19)}, {.name = name, .data = {1}}};
    const auto boot = loaded(container);
    EXPECT_EQ(property_of(*boot, ENTRYLOADER, 1), "1 0 " + name);
    EXPECT_EQ(index_of(*boot, ENTRYLOADER, name), 1);
    EXPECT_EQ(index_of(*boot, ENTRYLOADER, "abcdefghijklmnopqrst"), 1);
    EXPECT_EQ(index_of(*boot, ENTRYLOADER, name.substr(0, 19)), 0);
    EXPECT_EQ(index_of(*boot, ENTRYLOADER, name.substr(0, 18)), 0xFF);
    // No more than 20 characters are compared.
    EXPECT_EQ(index_of(*boot, ENTRYLOADER, name + "UVW"), 1);
}

TEST(QZBootEntries, HaveNamesMadeOfTheLowByteOfEachUnit) {
    const BootContainer sample = sample_container();
    Bytes container = sample.build();
    const std::size_t name = sample.layout().loader.records[0] + field::kName;
    container[name + 1] = 0x4E;      // the high byte of the first unit
    container[name + 2 * 12] = 'z';  // a unit after the NUL
    repair_boot_crc(container);
    const auto boot = loaded(container);
    std::string expected = padded("FlashData");
    expected[12] = 'z';
    EXPECT_EQ(property_of(*boot, ENTRYLOADER, 0), "300 3 " + expected);
    EXPECT_EQ(index_of(*boot, ENTRYLOADER, "FlashData"), 0);
}

// ---- tables ----

TEST(QZBootTables, StepByTheirOwnRecordSizeOfTheHead) {
    for (const int record_size : {57, 58, 64, 100, 253}) {
        BootContainer container = sample_container();
        container.entries_471.record_size = static_cast<uint8_t>(record_size);
        container.entries_472.record_size = static_cast<uint8_t>(record_size + 1);
        container.loader.record_size = static_cast<uint8_t>(record_size + 2);
        const auto boot = loaded(container);
        EXPECT_EQ(data_of(*boot, ENTRY471, 1), container.entries_471.entries[1].data) << record_size;
        EXPECT_EQ(data_of(*boot, ENTRY472, 1), container.entries_472.entries[1].data) << record_size;
        EXPECT_EQ(data_of(*boot, ENTRYLOADER, 1), container.loader.entries[1].data) << record_size;
        EXPECT_EQ(index_of(*boot, ENTRYLOADER, "FlashBoot"), 1) << record_size;
    }
}

TEST(QZBootTables, IgnoreTheSizeInTheRecord) {
    const BootContainer sample = sample_container();
    for (const int size : {0, 1, 255}) {
        Bytes container = sample.build();
        container[sample.layout().loader.records[0]] = static_cast<uint8_t>(size);
        repair_boot_crc(container);
        EXPECT_EQ(data_of(*loaded(container), ENTRYLOADER, 1), sample.loader.entries[1].data) << size;
    }
}

TEST(QZBootTables, WithoutARecordSizeHoldTheFirstRecordOnly) {
    BootContainer container;
    container.loader.entries = {{.name = "FlashData", .data = {1, 2, 3}}};
    container.loader.record_size = 0;
    container.loader.count = 255;
    const auto boot = loaded(container);
    EXPECT_EQ(data_of(*boot, ENTRYLOADER, 0), (Bytes{1, 2, 3}));
    EXPECT_EQ(data_of(*boot, ENTRYLOADER, 254), (Bytes{1, 2, 3}));
    EXPECT_EQ(data_of(*boot, ENTRYLOADER, 255), std::nullopt);
    EXPECT_EQ(index_of(*boot, ENTRYLOADER, "FlashData"), 0);
    EXPECT_EQ(index_of(*boot, ENTRYLOADER, "FlashBoot"), 0xFF);
}

TEST(QZBootTables, HoldUpTo255Entries) {
    BootContainer container;
    for (int i = 0; i < 255; ++i)
        container.loader.entries.push_back(
            {.name = "Entry" + std::to_string(i), .data = Bytes(1, static_cast<uint8_t>(i))});
    const auto boot = loaded(container);
    EXPECT_EQ(static_cast<uint8_t>(boot->EntryLoaderCount), 255);
    for (const int i : {0, 127, 128, 253, 254}) {
        EXPECT_EQ(index_of(*boot, ENTRYLOADER, "entry" + std::to_string(i)), i);
        EXPECT_EQ(data_of(*boot, ENTRYLOADER, static_cast<uint8_t>(i)), Bytes(1, static_cast<uint8_t>(i)));
    }
    expect_none(*boot, ENTRYLOADER, 255);
    EXPECT_EQ(index_of(*boot, ENTRYLOADER, "Entry255"), 0xFF);
}

// ---- bounds ----

// A container whose loader table, of `count` records, is moved to `offset`.
std::unique_ptr<CQZBoot> with_table_at(uint32_t offset, uint8_t count = 2, uint8_t record_size = 57) {
    BootContainer container = sample_container();
    container.loader.table_offset = offset;
    container.loader.count = count;
    Bytes bytes = container.build();
    bytes[test_support::boot_field::kSizeLoader] = record_size;
    repair_boot_crc(bytes);
    return loaded(bytes);
}

TEST(QZBootBounds, LetTheLastRecordEndWithTheContainer) {
    const auto size = static_cast<uint32_t>(sample_container().layout().size);
    EXPECT_NE(property_of(*with_table_at(size - 57), ENTRYLOADER, 0), "none");
    EXPECT_EQ(property_of(*with_table_at(size - 57), ENTRYLOADER, 1), "none");
    EXPECT_NE(property_of(*with_table_at(size - 114), ENTRYLOADER, 1), "none");
    EXPECT_EQ(property_of(*with_table_at(size - 113), ENTRYLOADER, 1), "none");
    EXPECT_EQ(property_of(*with_table_at(size - 56), ENTRYLOADER, 0), "none");
}

TEST(QZBootBounds, KeepTablesInsideTheContainer) {
    const auto size = static_cast<uint32_t>(sample_container().layout().size);
    for (const uint32_t offset :
         {size - 56, size - 1, size, size + 1, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU - 56, 0xFFFFFFFFU}) {
        const auto boot = with_table_at(offset, 255, 255);
        for (const uint8_t index : {uint8_t{0}, uint8_t{1}, uint8_t{254}})
            expect_none(*boot, ENTRYLOADER, index);
        EXPECT_EQ(index_of(*boot, ENTRYLOADER, "FlashData"), 0xFF) << offset;
        EXPECT_EQ(index_of(*boot, ENTRY471, "MemoryInit"), 0) << "the other tables stay what they are";
    }
}

TEST(QZBootBounds, FindNamesUpToTheRecordThatLeavesTheContainer) {
    BootContainer container;
    container.loader.entries = {{.name = "FlashData"}, {.name = "FlashBoot"}};
    container.loader.count = 100;
    const auto boot = loaded(container);
    EXPECT_EQ(index_of(*boot, ENTRYLOADER, "FlashBoot"), 1);
    EXPECT_EQ(index_of(*boot, ENTRYLOADER, "Absent"), 0xFF);
    EXPECT_EQ(property_of(*boot, ENTRYLOADER, 2), "none");
}

// A container whose first loader entry claims this data.
std::unique_ptr<CQZBoot> with_data_at(uint32_t offset, uint32_t size) {
    BootContainer container = sample_container();
    container.loader.entries[0].data_offset = offset;
    container.loader.entries[0].data_size = size;
    return loaded(container);
}

TEST(QZBootBounds, LetDataLieAnywhereInTheContainer) {
    const Bytes plain = sample_container().build();
    const auto size = static_cast<uint32_t>(plain.size());
    // Both containers have the same head.
    EXPECT_EQ(data_of(*with_data_at(0, 102), ENTRYLOADER, 0), test_support::slice(plain, 0, 102));
    EXPECT_EQ(data_of(*with_data_at(0, size), ENTRYLOADER, 0).value().size(), size);
    EXPECT_EQ(data_of(*with_data_at(size - 10, 6), ENTRYLOADER, 0), test_support::slice(plain, size - 10, 6));
    EXPECT_EQ(data_of(*with_data_at(size - 1, 1), ENTRYLOADER, 0).value().size(), 1U);
}

TEST(QZBootBounds, KeepDataInsideTheContainer) {
    const auto size = static_cast<uint32_t>(sample_container().layout().size);
    const test_support::TemporaryDirectory directory;
    const std::pair<uint32_t, uint32_t> outside[] = {
        {0, size + 1},   {1, size},       {size - 1, 2},           {size, 1},
        {size + 1, 1},   {0xFFFFFFFF, 1}, {0xFFFFFFFF, 2},         {0xFFFFFFF0, 32},
        {4, 0xFFFFFFFC}, {0, 0xFFFFFFFF}, {0x80000000, 0x80000000}};
    for (const auto& [offset, length] : outside) {
        const auto boot = with_data_at(offset, length);
        uint8_t byte = 0x77;
        EXPECT_FALSE(boot->GetEntryData(ENTRYLOADER, 0, &byte)) << offset << "+" << length;
        EXPECT_EQ(byte, 0x77);
        EXPECT_FALSE(boot->SaveEntryFile(ENTRYLOADER, 0, directory / "entry"));
        EXPECT_FALSE(std::filesystem::exists(directory / "entry"));
        // The record itself is there and says what it says.
        EXPECT_EQ(property_of(*boot, ENTRYLOADER, 0), std::to_string(length) + " 3 " + padded("FlashData"));
        EXPECT_EQ(data_of(*boot, ENTRYLOADER, 1), sample_container().loader.entries[1].data);
    }
}

TEST(QZBootBounds, EntryWithoutDataLiesAnywhere) {
    const auto size = static_cast<uint32_t>(sample_container().layout().size);
    const test_support::TemporaryDirectory directory;
    for (const uint32_t offset : {0U, size, size + 1, 0x80000000U, 0xFFFFFFFFU}) {
        const auto boot = with_data_at(offset, 0);
        EXPECT_EQ(property_of(*boot, ENTRYLOADER, 0), "0 3 " + padded("FlashData")) << offset;
        uint8_t byte = 0x77;
        EXPECT_TRUE(boot->GetEntryData(ENTRYLOADER, 0, &byte)) << offset;
        EXPECT_EQ(byte, 0x77);
        EXPECT_TRUE(boot->GetEntryData(ENTRYLOADER, 0, nullptr)) << offset;
        EXPECT_TRUE(boot->SaveEntryFile(ENTRYLOADER, 0, directory / "entry"));
        EXPECT_EQ(read_file(directory / "entry"), Bytes{});
    }
}

// ---- into a file ----

class QZBootSaveEntryFile : public ::testing::Test {
protected:
    const test_support::TemporaryDirectory m_directory{};
    const std::unique_ptr<CQZBoot> m_boot = loaded(sample_container());
};

TEST_F(QZBootSaveEntryFile, WritesTheDataInPlaceOfAnOlderFile) {
    const BootContainer container = sample_container();
    write_file(m_directory / "entry", patterned(5000, 9));
    ASSERT_TRUE(m_boot->SaveEntryFile(ENTRYLOADER, 1, m_directory / "entry"));
    EXPECT_EQ(read_file(m_directory / "entry"), container.loader.entries[1].data);
    ASSERT_TRUE(m_boot->SaveEntryFile(ENTRY471, 0, m_directory / "471"));
    EXPECT_EQ(read_file(m_directory / "471"), container.entries_471.entries[0].data);
}

TEST_F(QZBootSaveEntryFile, TouchesNoFileWhenThereIsNoSuchEntry) {
    write_file(m_directory / "kept", {1, 2, 3});
    EXPECT_FALSE(m_boot->SaveEntryFile(ENTRYLOADER, 2, m_directory / "kept"));
    EXPECT_FALSE(m_boot->SaveEntryFile(static_cast<ENUM_QZBOOTENTRY>(3), 0, m_directory / "kept"));
    EXPECT_EQ(read_file(m_directory / "kept"), (Bytes{1, 2, 3}));
    EXPECT_FALSE(m_boot->SaveEntryFile(ENTRYLOADER, 2, m_directory / "new"));
    EXPECT_FALSE(std::filesystem::exists(m_directory / "new"));
}

TEST_F(QZBootSaveEntryFile, FailsWhereNoFileCanBeMadeOrWritten) {
    for (const std::filesystem::path& target :
         {m_directory / "absent" / "entry", m_directory.path(), std::filesystem::path("/dev/full")})
        EXPECT_FALSE(m_boot->SaveEntryFile(ENTRYLOADER, 0, target)) << target;
}

}  // namespace
