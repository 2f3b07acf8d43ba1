// The table itself: random GUIDs, protective MBR, header and entries, built in memory.

#include "partition_fixture.h"
#include "support/expected/gpt.h"

namespace storage_test {
namespace {

using namespace std::string_literals;

class Gpt : public ::testing::Test {
protected:
    // Builds the table into memory that held something else before; what lies after it must stay.
    Bytes build(PARAM_ITEM_VECTOR parts, UUID_ITEM_VECTOR uuids = {}, uint64_t disk_sectors = 0xFFFFFFFF) {
        Bytes memory(kGptBytes + 4096, 0xA5);
        std::srand(1);
        m_storage.create_gpt_buffer(memory.data(), parts, uuids, disk_sectors);
        EXPECT_TRUE(all_bytes_are(memory, 0xA5, kGptBytes, 4096)) << "wrote after the table";
        memory.resize(kGptBytes);
        m_parts = std::move(parts);
        return memory;
    }

    // The whole table for one partition. In list and table a NUL replaces the first colon of its name.
    void expect_entry(const STRUCT_PARAM_ITEM& part, uint64_t last, uint64_t attributes = 0,
                      const UUID_ITEM_VECTOR& uuids = {}, const std::optional<Bytes>& guid = {}) {
        std::string name = part.szItemName;
        if (const std::size_t colon = name.find(':'); colon != std::string::npos)
            name[colon] = '\0';
        EXPECT_TRUE(
            same_bytes(build({part}, uuids), gpt_table({{name, part.uiItemOffset, last, attributes, guid}})))
            << part.szItemName;
        EXPECT_EQ(m_parts[0].szItemName, name);
    }

    // Sixteen bytes of one value.
    static STRUCT_UUID_ITEM fixed(const std::string& name, uint8_t value) {
        STRUCT_UUID_ITEM item;
        item.szUUidName = name;
        std::memset(item.szUUid, value, sizeof(item.szUUid));
        return item;
    }

    CStorage m_storage{FLASH_EMMC, 512, 2, 0, "", "", false};
    PARAM_ITEM_VECTOR m_parts{};  // as the last build left the list
};

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

TEST_F(Gpt, FindsAFixedGuidByNameIgnoringCase) {
    UUID_ITEM_VECTOR items{fixed("boot\0x"s, 0), fixed("RootFS", 1), fixed("rootfs", 2), fixed("", 3)};
    for (const auto& [name, index] :
         {std::pair{"boot"s, 0}, {"BOOT\0:grow"s, 0}, {"ROOTfs"s, 1}, {""s, 3}, {"boot "s, -1}, {"boo"s, -1}})
        EXPECT_EQ(m_storage.find_uuid_item(items, name), index) << name;
    items.clear();
    EXPECT_EQ(m_storage.find_uuid_item(items, ""), -1);
}

TEST_F(Gpt, OfNoPartitionsIsCompleteToTheByte) {
    for (const uint64_t disk_sectors : {uint64_t{0xFFFFFFFF}, uint64_t{68}, uint64_t{0x123456789ABC}})
        EXPECT_TRUE(same_bytes(build({}, {}, disk_sectors), gpt_table({}, disk_sectors))) << disk_sectors;
}

TEST_F(Gpt, ListsPartitionsInOrderWithTwoDrawsEach) {
    EXPECT_TRUE(same_bytes(build({{"uboot", 0x4000, 0x2000}, {"boot", 0x6000, 0x8000}, {"root", 0xE000, 1}},
                                 {fixed("boot", 0x40)}),
                           gpt_table({{"uboot", 0x4000, 0x5FFF},
                                      {"boot", 0x6000, 0xDFFF, 0, Bytes(16, 0x40)},
                                      {"root", 0xE000, 0xE000}})));
}

TEST_F(Gpt, FlagsCountInAnyCaseAnywhereWithAColon) {
    constexpr uint64_t plain = 0x10F;
    const struct {
        std::string name;
        uint64_t last, attributes = 0;
    } cases[] = {{"rootfs:grow", kLastUsableSector},
                 {"boot:bootable", plain, 4},
                 {"a:BootAble,GROW", kLastUsableSector, 4},
                 {"a:xgrowxbootablex", kLastUsableSector, 4},
                 {"growfs:", kLastUsableSector},
                 {"bootable:ro", plain, 4},
                 {"gr:ow", plain},
                 {"growfs", plain},
                 {"bootable", plain},
                 {":x", plain},
                 {"end:", plain},
                 {"a:B:grow", kLastUsableSector}};
    for (const auto& [name, last, attributes] : cases)
        expect_entry({name, 0x100, 0x10}, last, attributes);
    expect_entry({"data:grow", 0x100, 0xFFFFFFFF}, kLastUsableSector);
    EXPECT_EQ(get64(build({{"data:grow", 0x100, 5}}, {}, 0x20000), 1024 + 40), 0x20000U - 34U);
}

TEST_F(Gpt, EndIsComputedIn64Bits) {
    expect_entry({"empty", 0x100, 0}, 0xFF);
    expect_entry({"nothing", 0, 0}, 0xFFFFFFFFFFFFFFFF);
    expect_entry({"dash", 0x10000, 0xFFFFFFFF}, 0x10000FFFE);
    expect_entry({"far", 0xFFFFFFFF, 0xFFFFFFFF}, 0x1FFFFFFFD);
}

TEST_F(Gpt, NameFillsAtMostItsThirtySixUnits) {
    const std::string text = "0123456789abcdefghijklmnopqrstuvwxyzABCDE";
    for (const std::size_t length : {0U, 1U, 35U, 36U, 37U, 41U})
        expect_entry({text.substr(0, length), 1, 1}, 1);
    // Flags count after the 36th character too, and two entries do not run into each other.
    EXPECT_TRUE(same_bytes(build({{text + ":grow", 1, 1}, {"next", 2, 1}}),
                           gpt_table({{text, 1, kLastUsableSector}, {"next", 2, 2}})));
}

TEST_F(Gpt, NameBytesAreWidenedWithTheirSign) {
    EXPECT_EQ(slice(build({{"\x7F\x80\xE9\xFF", 1, 1}}), 1024 + 56, 10),
              (Bytes{0x7F, 0, 0x80, 0xFF, 0xE9, 0xFF, 0xFF, 0xFF, 0, 0}));
}

TEST_F(Gpt, FixedGuidIsLookedUpByTheNameBeforeTheColon) {
    const UUID_ITEM_VECTOR uuids{fixed("rootfs:grow", 0x10), fixed("RootFs", 0x20), fixed("rootfs", 0x30)};
    expect_entry({"rOOTfs:grow", 1, 1}, kLastUsableSector, 0, uuids, Bytes(16, 0x20));
    expect_entry({"rootf", 1, 1}, 1, 0, uuids);
    expect_entry({":x", 1, 1}, 1, 0, {fixed("", 0x50)}, Bytes(16, 0x50));
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
