// The table itself: random GUIDs, protective MBR, header and entries, built in memory.

#include "partition_fixture.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>

namespace storage_test {
namespace {

using namespace std::string_view_literals;
using test_support::all_bytes_are;
using test_support::crc32_standard;
using test_support::get32;
using test_support::get64;
using test_support::put32_at;
using test_support::put64_at;
using test_support::put_bytes_at;
using test_support::slice;

constexpr std::size_t table_bytes = 34 * 512;
constexpr std::size_t header_at = 512;
constexpr std::size_t entries_at = 1024;
constexpr std::size_t entry_bytes = 128;
constexpr uint64_t whole_disk = 0xFFFFFFFF;

// The next GUID of the C library's random sequence: of four draws each, the top, the upper middle, the lower
// middle and the bottom byte make one word; then version 4 and the variant's top bit.
Bytes next_random_guid() {
    Bytes guid;
    for (int byte = 0; byte < 16; ++byte) {
        const auto drawn = static_cast<uint32_t>(std::rand());
        const int shift = 24 - 8 * (byte % 4);
        guid.push_back(static_cast<uint8_t>(drawn >> shift));
    }
    guid[7] = static_cast<uint8_t>((guid[7] & 0x0F) | 0x40);
    guid[8] = static_cast<uint8_t>(guid[8] | 0x80);
    return guid;
}

// The UTF-16 units of a name of plain ASCII.
std::vector<uint16_t> units(std::string_view name) {
    return std::vector<uint16_t>(name.begin(), name.end());
}

struct ExpectedEntry {
    uint64_t first_lba = 0;
    uint64_t last_lba = 0;
    uint64_t attributes = 0;
    std::vector<uint16_t> name{};
    Bytes fixed_guid{};  // empty: a random one
};

// The 34 sectors that describe `entries` on a disk of that many sectors, with GUIDs from the current place
// in the random sequence.
Bytes expected_table(const std::vector<ExpectedEntry>& entries, uint64_t disk_sectors) {
    Bytes table(table_bytes, 0);
    table[446 + 4] = 0xEE;
    put32_at(table, 446 + 8, 1);
    put32_at(table, 446 + 12, 0xFFFFFFFF);
    table[510] = 0x55;
    table[511] = 0xAA;

    put_bytes_at(table, header_at, test_support::to_bytes("EFI PART"));
    put32_at(table, header_at + 8, 0x00010000);
    put32_at(table, header_at + 12, 92);
    put64_at(table, header_at + 24, 1);
    put64_at(table, header_at + 32, disk_sectors - 1);
    put64_at(table, header_at + 40, 34);
    put64_at(table, header_at + 48, disk_sectors - 34);
    put_bytes_at(table, header_at + 56, next_random_guid());
    put64_at(table, header_at + 72, 2);
    put32_at(table, header_at + 80, 128);
    put32_at(table, header_at + 84, 128);

    std::size_t at = entries_at;
    for (const ExpectedEntry& entry : entries) {
        put_bytes_at(table, at, next_random_guid());
        const Bytes random = next_random_guid();
        put_bytes_at(table, at + 16, entry.fixed_guid.empty() ? random : entry.fixed_guid);
        put64_at(table, at + 32, entry.first_lba);
        put64_at(table, at + 40, entry.last_lba);
        put64_at(table, at + 48, entry.attributes);
        for (std::size_t i = 0; i < entry.name.size(); ++i)
            test_support::put16_at(table, at + 56 + 2 * i, entry.name[i]);
        at += entry_bytes;
    }
    put32_at(table, header_at + 88, crc32_standard(slice(table, entries_at, 128 * entry_bytes)));
    put32_at(table, header_at + 16, crc32_standard(slice(table, header_at, 92)));
    return table;
}

class Gpt : public ::testing::Test {
protected:
    // Builds the table into memory that held something else before; what lies behind it must stay.
    Bytes build(PARAM_ITEM_VECTOR parts, UUID_ITEM_VECTOR uuids = {}, uint64_t disk_sectors = whole_disk) {
        Bytes memory(table_bytes + 4096, 0xA5);
        std::srand(seed);
        m_storage.create_gpt_buffer(memory.data(), parts, uuids, disk_sectors);
        EXPECT_TRUE(all_bytes_are(memory, 0xA5, table_bytes, 4096)) << "wrote behind the table";
        memory.resize(table_bytes);
        m_parts = std::move(parts);
        return memory;
    }

    // One partition's entry, after a check of the whole table.
    void expect_entry(const STRUCT_PARAM_ITEM& part, const ExpectedEntry& entry,
                      const UUID_ITEM_VECTOR& uuids = {}) {
        const Bytes found = build({part}, uuids);
        std::srand(seed);
        EXPECT_TRUE(same_bytes(found, expected_table({entry}, whole_disk))) << part.szItemName;
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

    static constexpr unsigned seed = 1;
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
        std::srand(start);
        for (const Bytes& guid : found)
            ASSERT_EQ(guid, Bytes{0xA5} + next_random_guid() + Bytes{0xA5});
    }
}

TEST_F(Gpt, RandomGuidHasVersionFourAndAFreeSecondVariantBit) {
    std::srand(seed);
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
    EXPECT_TRUE(all_bytes_are(table, 0, entries_at, 16384));
    EXPECT_EQ(get32(table, 512 + 88), 0xAB54D286U) << "CRC-32 of 16,384 zero bytes";
}

TEST_F(Gpt, OfNoPartitionsIsCompleteToTheByte) {
    for (const uint64_t disk_sectors : {uint64_t{0xFFFFFFFF}, uint64_t{68}, uint64_t{0x123456789ABC}}) {
        const Bytes found = build({}, {}, disk_sectors);
        std::srand(seed);
        EXPECT_TRUE(same_bytes(found, expected_table({}, disk_sectors))) << disk_sectors;
    }
}

TEST_F(Gpt, ListsPartitionsInOrderWithTwoDrawsEach) {
    const Bytes found = build({{"uboot", 0x4000, 0x2000}, {"boot", 0x6000, 0x8000}, {"root", 0xE000, 1}},
                              {fixed("boot", 0x40)});
    std::srand(seed);
    EXPECT_TRUE(same_bytes(found, expected_table({{0x4000, 0x5FFF, 0, units("uboot")},
                                                  {0x6000, 0xDFFF, 0, units("boot"), fixed_bytes(0x40)},
                                                  {0xE000, 0xE000, 0, units("root")}},
                                                 whole_disk)));
}

TEST_F(Gpt, GrowingPartitionEndsAtTheLastUsableSector) {
    const auto name = units("rootfs\0grow"sv);
    expect_entry({"rootfs:grow", 0x10000, 0xFFFFFFFF}, {0x10000, 0xFFFFFFDD, 0, name});
    expect_entry({"rootfs:grow", 0x10000, 5}, {0x10000, 0xFFFFFFDD, 0, name});

    const Bytes small_disk = build({{"rootfs:grow", 0x10000, 5}}, {}, 0x20000);
    EXPECT_EQ(get64(small_disk, entries_at + 40), 0x20000U - 34U);
}

TEST_F(Gpt, BootablePartitionGetsTheLegacyAttribute) {
    expect_entry({"boot:bootable", 0x100, 0x10}, {0x100, 0x10F, 4, units("boot\0bootable"sv)});
}

TEST_F(Gpt, FlagsCountInAnyCaseAnywhereInTheName) {
    const auto attributes_and_end = [this](const std::string& name) {
        const Bytes table = build({{name, 0x100, 0x10}});
        return std::pair(get64(table, entries_at + 48), get64(table, entries_at + 40));
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
    expect_entry({"a:B:grow", 1, 1}, {1, 0xFFFFFFDD, 0, units("a\0B:grow"sv)});
}

TEST_F(Gpt, EndIsComputedIn64Bits) {
    expect_entry({"empty", 0x100, 0}, {0x100, 0xFF, 0, units("empty")});
    expect_entry({"nothing", 0, 0}, {0, 0xFFFFFFFFFFFFFFFF, 0, units("nothing")});
    expect_entry({"dash", 0x10000, 0xFFFFFFFF}, {0x10000, 0x10000FFFE, 0, units("dash")});
    expect_entry({"far", 0xFFFFFFFF, 0xFFFFFFFF}, {0xFFFFFFFF, 0x1FFFFFFFD, 0, units("far")});
}

TEST_F(Gpt, NameFillsAtMostItsThirtySixUnits) {
    const std::string text = "0123456789abcdefghijklmnopqrstuvwxyzABCDE";
    expect_entry({"", 1, 1}, {1, 1, 0, {}});
    for (const std::size_t length : {1U, 35U, 36U, 37U, 41U}) {
        const std::string name = text.substr(0, length);
        expect_entry({name, 1, 1}, {1, 1, 0, units(name.substr(0, 36))});
    }
    // Flags count behind the 36th character too, and two entries do not run into each other.
    const std::string flagged = text.substr(0, 38) + ":grow";
    const Bytes found = build({{flagged, 1, 1}, {"next", 2, 1}});
    std::srand(seed);
    EXPECT_TRUE(same_bytes(
        found, expected_table({{1, 0xFFFFFFDD, 0, units(flagged.substr(0, 36))}, {2, 2, 0, units("next")}},
                              whole_disk)));
}

TEST_F(Gpt, NameBytesAreWidenedWithTheirSign) {
    expect_entry({"\x7F\x80\xE9\xFF", 1, 1}, {1, 1, 0, {0x007F, 0xFF80, 0xFFE9, 0xFFFF}});
}

TEST_F(Gpt, FixedGuidIsLookedUpByTheNameBeforeTheColon) {
    const UUID_ITEM_VECTOR uuids{fixed("rootfs:grow", 0x10), fixed("RootFs", 0x20), fixed("rootfs", 0x30)};
    const auto name = units("rOOTfs\0grow"sv);
    expect_entry({"rOOTfs:grow", 1, 1}, {1, 0xFFFFFFDD, 0, name, fixed_bytes(0x20)}, uuids);
    expect_entry({"rootf", 1, 1}, {1, 1, 0, units("rootf")}, uuids);
    expect_entry({":x", 1, 1}, {1, 1, 0, units("\0x"sv), fixed_bytes(0x50)}, {fixed("", 0x50)});
}

TEST_F(Gpt, Holds128PartitionsAndNoMore) {
    PARAM_ITEM_VECTOR parts;
    std::vector<ExpectedEntry> entries;
    for (uint32_t i = 0; i < 128; ++i) {
        const std::string name = "part" + std::to_string(i);
        parts.push_back({name, 100 * i, 100});
        entries.push_back({100 * i, 100 * i + 99, 0, units(name)});
    }
    const Bytes full = build(parts);
    std::srand(seed);
    const Bytes expected = expected_table(entries, whole_disk);
    EXPECT_TRUE(same_bytes(full, expected));
    parts.push_back({"one too many", 1, 1});
    EXPECT_TRUE(same_bytes(build(parts), expected));
}

}  // namespace
}  // namespace storage_test
