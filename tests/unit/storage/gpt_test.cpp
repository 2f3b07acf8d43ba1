// The table itself: random GUIDs, protective MBR, header and entries, built in memory.

#include "partition_fixture.h"
#include "support/expected/gpt.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>

namespace storage_test {
namespace {

using namespace std::string_literals;

constexpr std::size_t kEntriesAt = 1024;
constexpr uint64_t kWholeDisk = 0xFFFFFFFF;

class Gpt : public ::testing::Test {
protected:
    // Builds the table into memory that held something else before; what lies after it must stay.
    Bytes build(PARAM_ITEM_VECTOR parts, UUID_ITEM_VECTOR uuids = {}, uint64_t disk_sectors = kWholeDisk) {
        Bytes memory(kGptBytes + 4096, 0xA5);
        std::srand(1);
        m_storage.create_gpt_buffer(memory.data(), parts, uuids, disk_sectors);
        EXPECT_TRUE(all_bytes_are(memory, 0xA5, kGptBytes, 4096)) << "wrote after the table";
        memory.resize(kGptBytes);
        m_parts = std::move(parts);
        return memory;
    }

    // One partition's entry, after a check of the whole table.
    void expect_entry(const STRUCT_PARAM_ITEM& part, const GptEntry& entry,
                      const UUID_ITEM_VECTOR& uuids = {}) {
        EXPECT_TRUE(same_bytes(build({part}, uuids), gpt_table({entry}))) << part.szItemName;
    }

    static STRUCT_UUID_ITEM fixed(const std::string& name, uint8_t first) {
        STRUCT_UUID_ITEM item;
        item.szUUidName = name;
        for (uint8_t i = 0; i < 16; ++i)
            item.szUUid[i] = static_cast<uint8_t>(first + i);
        return item;
    }

    static Bytes fixed_bytes(uint8_t first) {
        const STRUCT_UUID_ITEM item = fixed("", first);
        return Bytes(item.szUUid, item.szUUid + 16);
    }

    CStorage m_storage{FLASH_EMMC, 512, 2, 0, "", "", false};
    PARAM_ITEM_VECTOR m_parts{};  // as the last build left the list
};

// ---- random GUIDs ----

TEST_F(Gpt, RandomGuidIsMadeOfSixteenDraws) {
    for (const unsigned start : {1U, 2U, 4711U}) {
        std::srand(start);
        std::vector<Bytes> found(20, Bytes(18, 0xA5));
        for (Bytes& guid : found)
            m_storage.gen_rand_uuid(guid.data() + 1);
        const GuidSequence guids(start);
        for (const Bytes& guid : found)
            ASSERT_EQ(guid, Bytes{0xA5} + guids.next() + Bytes{0xA5});
    }
}

TEST_F(Gpt, RandomGuidHasVersionFourAndOneVariantBit) {
    std::srand(1);
    bool bit_6_seen[2] = {};
    for (int i = 0; i < 100; ++i) {
        std::array<uint8_t, 16> guid{};
        m_storage.gen_rand_uuid(guid.data());
        EXPECT_EQ(guid[7] & 0xF0, 0x40);
        EXPECT_EQ(guid[8] & 0x80, 0x80);
        bit_6_seen[guid[8] >> 6 & 1] = true;
    }
    EXPECT_TRUE(bit_6_seen[0]);
    EXPECT_TRUE(bit_6_seen[1]);
}

TEST_F(Gpt, FindsAFixedGuidByNameIgnoringCase) {
    UUID_ITEM_VECTOR items{fixed("boot", 0), fixed("RootFS", 1), fixed("rootfs", 2), fixed("", 3)};
    EXPECT_EQ(m_storage.find_uuid_item(items, "boot"), 0);
    EXPECT_EQ(m_storage.find_uuid_item(items, "ROOTfs"), 1) << "the first of two";
    EXPECT_EQ(m_storage.find_uuid_item(items, ""), 3);
    EXPECT_EQ(m_storage.find_uuid_item(items, "boot "), -1);
    EXPECT_EQ(m_storage.find_uuid_item(items, "boo"), -1);
    EXPECT_EQ(m_storage.find_uuid_item(items, std::string("BOOT\0:grow", 10)), 0) << "up to the first NUL";
    items[0].szUUidName = std::string("boot\0x", 6);
    EXPECT_EQ(m_storage.find_uuid_item(items, "boot"), 0);
    items.clear();
    EXPECT_EQ(m_storage.find_uuid_item(items, ""), -1);
}

// ---- the table ----

TEST_F(Gpt, HeadDescribesTheWholeDisk) {
    const Bytes table = build({});
    EXPECT_TRUE(all_bytes_are(table, 0, 0, 446)) << "boot code, signature";
    const Bytes record{0, 0, 0, 0, 0xEE, 0, 0, 0, 1, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(slice(table, 446, 16), record);
    EXPECT_TRUE(all_bytes_are(table, 0, 462, 48));
    EXPECT_EQ(slice(table, 510, 2), (Bytes{0x55, 0xAA}));

    EXPECT_EQ(get64(table, 512), 0x5452415020494645U);
    EXPECT_EQ(get64(table, 512 + 32), 0xFFFFFFFEU) << "alternate header";
    EXPECT_EQ(get64(table, 512 + 40), 34U);
    EXPECT_EQ(get64(table, 512 + 48), 0xFFFFFFDDU) << "last usable sector";
    EXPECT_TRUE(all_bytes_are(table, 0, 512 + 92, 512 - 92));
    EXPECT_TRUE(all_bytes_are(table, 0, kEntriesAt, 16384));
    EXPECT_EQ(get32(table, 512 + 88), 0xAB54D286U) << "CRC-32 of 16,384 zero bytes";
}

TEST_F(Gpt, OfNoPartitionsIsCompleteToTheByte) {
    for (const uint64_t disk_sectors : {uint64_t{0xFFFFFFFF}, uint64_t{68}, uint64_t{0x123456789ABC}})
        EXPECT_TRUE(same_bytes(build({}, {}, disk_sectors), gpt_table({}, disk_sectors))) << disk_sectors;
}

TEST_F(Gpt, ListsPartitionsInOrderWithTwoDrawsEach) {
    const Bytes found = build({{"uboot", 0x4000, 0x2000}, {"boot", 0x6000, 0x8000}, {"root", 0xE000, 1}},
                              {fixed("boot", 0x40)});
    EXPECT_TRUE(same_bytes(found, gpt_table({{"uboot", 0x4000, 0x5FFF},
                                             {"boot", 0x6000, 0xDFFF, 0, fixed_bytes(0x40)},
                                             {"root", 0xE000, 0xE000}})));
}

TEST_F(Gpt, GrowingPartitionEndsAtTheLastUsableSector) {
    const std::string name = "rootfs\0grow"s;
    expect_entry({"rootfs:grow", 0x10000, 0xFFFFFFFF}, {name, 0x10000, 0xFFFFFFDD});
    expect_entry({"rootfs:grow", 0x10000, 5}, {name, 0x10000, 0xFFFFFFDD});

    const Bytes small_disk = build({{"rootfs:grow", 0x10000, 5}}, {}, 0x20000);
    EXPECT_EQ(get64(small_disk, kEntriesAt + 40), 0x20000U - 34U);
}

TEST_F(Gpt, BootablePartitionGetsTheLegacyAttribute) {
    expect_entry({"boot:bootable", 0x100, 0x10}, {"boot\0bootable"s, 0x100, 0x10F, 4});
}

TEST_F(Gpt, FlagsCountInAnyCaseAnywhereInTheName) {
    const auto attributes_and_end = [this](const std::string& name) {
        const Bytes table = build({{name, 0x100, 0x10}});
        return std::pair(get64(table, kEntriesAt + 48), get64(table, kEntriesAt + 40));
    };
    const uint64_t plain = 0x10F;
    const uint64_t grown = 0xFFFFFFDD;
    EXPECT_EQ(attributes_and_end("a:BootAble,GROW"), std::pair(uint64_t{4}, grown));
    EXPECT_EQ(attributes_and_end("a:xgrowxbootablex"), std::pair(uint64_t{4}, grown));
    EXPECT_EQ(attributes_and_end("growfs:"), std::pair(uint64_t{0}, grown)) << "also before the colon";
    EXPECT_EQ(attributes_and_end("bootable:ro"), std::pair(uint64_t{4}, plain));
    EXPECT_EQ(attributes_and_end("gr:ow"), std::pair(uint64_t{0}, plain));
    EXPECT_EQ(attributes_and_end("growfs"), std::pair(uint64_t{0}, plain)) << "no colon, no flags";
    EXPECT_EQ(attributes_and_end("bootable"), std::pair(uint64_t{0}, plain));
}

TEST_F(Gpt, ColonBecomesANulInTheListAndTheLengthStays) {
    build({{"a:B:grow", 1, 1}, {"plain", 2, 1}, {":x", 3, 1}, {"end:", 4, 1}});
    EXPECT_EQ(m_parts[0].szItemName, std::string("a\0B:grow", 8)) << "the first colon only";
    EXPECT_EQ(m_parts[1].szItemName, "plain");
    EXPECT_EQ(m_parts[2].szItemName, std::string("\0x", 2));
    EXPECT_EQ(m_parts[3].szItemName, std::string("end\0", 4));
    expect_entry({"a:B:grow", 1, 1}, {"a\0B:grow"s, 1, 0xFFFFFFDD});
}

TEST_F(Gpt, EndIsComputedIn64Bits) {
    expect_entry({"empty", 0x100, 0}, {"empty", 0x100, 0xFF});
    expect_entry({"nothing", 0, 0}, {"nothing", 0, 0xFFFFFFFFFFFFFFFF});
    expect_entry({"dash", 0x10000, 0xFFFFFFFF}, {"dash", 0x10000, 0x10000FFFE});
    expect_entry({"far", 0xFFFFFFFF, 0xFFFFFFFF}, {"far", 0xFFFFFFFF, 0x1FFFFFFFD});
}

TEST_F(Gpt, NameFillsAtMostItsThirtySixUnits) {
    const std::string text = "0123456789abcdefghijklmnopqrstuvwxyzABCDE";
    expect_entry({"", 1, 1}, {"", 1, 1});
    for (const std::size_t length : {1U, 35U, 36U, 37U, 41U}) {
        const std::string name = text.substr(0, length);
        expect_entry({name, 1, 1}, {name.substr(0, 36), 1, 1});
    }
    // Flags count after the 36th character too, and two entries do not run into each other.
    const std::string flagged = text.substr(0, 38) + ":grow";
    EXPECT_TRUE(same_bytes(build({{flagged, 1, 1}, {"next", 2, 1}}),
                           gpt_table({{flagged.substr(0, 36), 1, 0xFFFFFFDD}, {"next", 2, 2}})));
}

TEST_F(Gpt, NameBytesAreWidenedWithTheirSign) {
    const Bytes table = build({{"\x7F\x80\xE9\xFF", 1, 1}});
    EXPECT_EQ(slice(table, kEntriesAt + 56, 10), (Bytes{0x7F, 0, 0x80, 0xFF, 0xE9, 0xFF, 0xFF, 0xFF, 0, 0}));
    EXPECT_TRUE(same_bytes(table, gpt_table({{"\x7F\x80\xE9\xFF", 1, 1}})));
}

TEST_F(Gpt, FixedGuidIsLookedUpByTheNameBeforeTheColon) {
    const UUID_ITEM_VECTOR uuids{fixed("rootfs:grow", 0x10), fixed("RootFs", 0x20), fixed("rootfs", 0x30)};
    expect_entry({"rOOTfs:grow", 1, 1}, {"rOOTfs\0grow"s, 1, 0xFFFFFFDD, 0, fixed_bytes(0x20)}, uuids);
    expect_entry({"rootf", 1, 1}, {"rootf", 1, 1}, uuids);
    expect_entry({":x", 1, 1}, {"\0x"s, 1, 1, 0, fixed_bytes(0x50)}, {fixed("", 0x50)});
}

TEST_F(Gpt, Holds128PartitionsAndNoMore) {
    PARAM_ITEM_VECTOR parts;
    std::vector<GptEntry> entries;
    for (uint32_t i = 0; i < 128; ++i) {
        const std::string name = "part" + std::to_string(i);
        parts.push_back({name, 100 * i, 100});
        entries.push_back({name, 100 * i, 100 * i + 99});
    }
    EXPECT_TRUE(same_bytes(build(parts), gpt_table(entries)));
    parts.push_back({"one too many", 1, 1});
    EXPECT_TRUE(same_bytes(build(parts), gpt_table(entries)));
}

}  // namespace
}  // namespace storage_test
