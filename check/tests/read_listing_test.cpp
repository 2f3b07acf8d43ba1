// What --list finds in a firmware, also in one that is damaged.

#include "check/firmware/read_listing.h"

#include "support/firmware_builder.h"
#include "support/sparse_builder.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using namespace test_support;
namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

class ReadListing : public testing::Test {
protected:
    fs::path path(const std::string& name = "fw.img") const { return m_directory / name; }

    /// Lists these bytes as a file of that name, without a reason why not.
    Listing list(const Bytes& bytes, const std::string& name = "fw.img") const {
        Listing listing;
        EXPECT_EQ(read(bytes, listing, name), "");
        return listing;
    }

    std::string read(const Bytes& bytes, Listing& listing, const std::string& name = "fw.img") const {
        fs::remove(path(name));  // some file systems take long to write over a file
        write_file(path(name), bytes);
        const std::string reason = read_listing(path(name), listing).value_or("");
        EXPECT_EQ(listing.error, reason);
        return reason;
    }

    TemporaryDirectory m_directory;
};

Lines names_of(const Listing& listing) {
    Lines names;
    for (const ListedItem& item : listing.items)
        names.push_back(item.name);
    return names;
}

TEST_F(ReadListing, HasHeadItemsAndEntriesOfASample) {
    const Firmware firmware = sample_firmware();
    const Bytes bytes = firmware.build();
    const Listing listing = list(bytes);
    EXPECT_EQ(listing.firmware_path, path());
    EXPECT_EQ(listing.firmware_bytes, bytes.size());
    EXPECT_EQ(listing.version, "2.0.1");
    EXPECT_EQ(listing.date, "2024-05-17 12:34:56");
    EXPECT_EQ(listing.chip, 0x51303031U);
    EXPECT_EQ(listing.warnings, Lines{});

    ASSERT_EQ(names_of(listing), (Lines{"parameter", "boot", "misc", "rootfs"}));
    const FirmwareLayout layout = firmware.layout();
    for (std::size_t i = 0; i < listing.items.size(); ++i) {
        SCOPED_TRACE(listing.items[i].name);
        EXPECT_EQ(listing.items[i].bytes, firmware.items[i].data.size());
        EXPECT_EQ(listing.items[i].package_offset, layout.item_data[i] - layout.package_offset);
        EXPECT_EQ(listing.items[i].first_sector, firmware.items[i].flash_offset);
        EXPECT_EQ(listing.items[i].partition_sectors, firmware.items[i].part_size);
        EXPECT_EQ(listing.items[i].kind, i == 0 ? ItemKind::kParameter : ItemKind::kPlain);
        EXPECT_EQ(listing.items[i].sparse_chunks, -1);
    }
    EXPECT_EQ(listing.items[3].partition_sectors, kGrows);

    ASSERT_EQ(listing.loader_entries.size(), 4U);
    const std::vector<std::pair<std::string, std::string>> entries{
        {"MemoryInit", "471"}, {"UsbLoader", "472"}, {"FlashData", "loader"}, {"FlashBoot", "loader"}};
    const uint64_t sizes[] = {700, 900, 3000, 2048};
    for (std::size_t i = 0; i < entries.size(); ++i) {
        EXPECT_EQ(listing.loader_entries[i].name, entries[i].first);
        EXPECT_EQ(listing.loader_entries[i].type, entries[i].second);
        EXPECT_EQ(listing.loader_entries[i].bytes, sizes[i]);
    }
}

TEST_F(ReadListing, TellsTheKindsOfItemsApart) {
    Firmware firmware = sample_firmware();
    SparseImage sparse;
    sparse.chunks = {SparseChunk::fill(7, 2), SparseChunk::dont_care(3),
                     SparseChunk::raw(patterned(4096, 9))};
    firmware.item("rootfs").data = sparse.build();
    firmware.items.push_back({.name = "loader", .flash_offset = kNotPlaced, .data = patterned(100, 6)});
    firmware.items.push_back({.name = "backup", .flash_offset = 0x9000});
    const Listing listing = list(firmware.build());
    ASSERT_EQ(listing.items.size(), 6U);
    const ItemKind kinds[] = {ItemKind::kParameter, ItemKind::kPlain,     ItemKind::kPlain,
                              ItemKind::kSparse,    ItemKind::kNotPlaced, ItemKind::kEmpty};
    for (std::size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(listing.items[i].kind, kinds[i]) << i;
        EXPECT_EQ(listing.items[i].sparse_chunks, i == 3 ? 3 : -1) << i;
    }
    EXPECT_EQ(listing.items[4].first_sector, kNoPlace);
    EXPECT_EQ(listing.warnings, Lines{});
}

TEST_F(ReadListing, TakesTheChunkCountOfTheSparseHeader) {
    Firmware firmware = sample_firmware();
    SparseImage sparse;
    sparse.total_chunks = 0xFFFFFFFF;
    firmware.item("misc").data = sparse.build();
    EXPECT_EQ(list(firmware.build()).items[2].sparse_chunks, 0xFFFFFFFFLL);
}

TEST_F(ReadListing, KnowsHowMuchIsOnTheStorage) {
    Firmware firmware = sample_firmware();
    SparseImage sparse;
    sparse.chunks = {SparseChunk::dont_care(5)};
    sparse.block_size = 512;
    firmware.item("misc").data = sparse.build();
    firmware.item("boot").flash_offset = kNotPlaced;
    const Listing listing = list(firmware.build());
    EXPECT_EQ(listing.items[0].stored_bytes, listing.items[0].bytes);
    EXPECT_EQ(listing.items[1].stored_bytes, 0U);
    EXPECT_EQ(listing.items[2].stored_bytes, 5U * 512);
    EXPECT_EQ(listing.items[3].stored_bytes, 20001U);
}

TEST_F(ReadListing, TakesTheLastPlacedParameterItem) {
    Firmware firmware = sample_firmware();
    firmware.items.push_back(firmware.items[0]);
    firmware.items.push_back(firmware.items[0]);
    firmware.items.back().flash_offset = kNotPlaced;
    const Listing listing = list(firmware.build());
    EXPECT_EQ(listing.items[0].kind, ItemKind::kPlain);
    EXPECT_EQ(listing.items[4].kind, ItemKind::kParameter);
    EXPECT_EQ(listing.items[5].kind, ItemKind::kNotPlaced);
    EXPECT_EQ(listing.warnings, Lines{"item 5, 'parameter', has the name of an item before it"});
}

TEST_F(ReadListing, WarnsWhenThereIsNoParameterItem) {
    Firmware firmware = sample_firmware();
    firmware.items.erase(firmware.items.begin());
    EXPECT_EQ(list(firmware.build()).warnings,
              Lines{"there is no item 'parameter': nandsmith does not convert this"});
}

TEST_F(ReadListing, KeepsNamesOfAnyBytes) {
    Firmware firmware = sample_firmware();
    const std::string name = "../\x01\xff\n" + std::string(26, 'n');
    ASSERT_EQ(name.size(), 32U);
    firmware.item("misc").name = name;
    firmware.boot.loader.entries[1].name = "twenty characters ok";
    const Listing listing = list(firmware.build());
    EXPECT_EQ(listing.items[2].name, name);
    EXPECT_EQ(listing.loader_entries[3].name, "twenty characters ok");
}

TEST_F(ReadListing, HoldsAsManyItemsAsTheTable) {
    Firmware firmware = sample_firmware();
    while (firmware.items.size() < 583)
        firmware.items.push_back({.name = "item" + std::to_string(firmware.items.size()), .flash_offset = 1});
    EXPECT_EQ(list(firmware.build()).items.size(), 583U);
    firmware.items.push_back({.name = "one more"});
    Listing listing;
    EXPECT_EQ(read(firmware.build(), listing), "the item table of the firmware cannot be read");
    EXPECT_EQ(listing.items.size(), 0U);
    EXPECT_EQ(listing.loader_entries.size(), 4U);
}

// The conversion keeps one bit for each 32nd item.
TEST_F(ReadListing, WarnsOfAnItemThatASparseOneMakesSparse) {
    Firmware firmware = sample_firmware();
    firmware.item("boot").data = SparseImage().build();
    while (firmware.items.size() < 34)
        firmware.items.push_back({.name = "item" + std::to_string(firmware.items.size()),
                                  .flash_offset = 1,
                                  .data = patterned(64, 1)});
    const Listing listing = list(firmware.build());
    EXPECT_EQ(listing.items[1].kind, ItemKind::kSparse);
    EXPECT_EQ(listing.items[33].kind, ItemKind::kPlain);
    const Bytes data = patterned(64, 1);  // which has a block size and a number of blocks all the same
    EXPECT_EQ(listing.items[33].stored_bytes, declared_size(data));
    EXPECT_EQ(listing.warnings, Lines{"item 34, 'item33', is written as a sparse image, because an item 32 "
                                      "places away is one"});
}

TEST_F(ReadListing, ShowsLargeOffsetsAndSizes) {
    Firmware firmware = sample_firmware();
    firmware.item("misc").size = 0x1'2345'6789;
    Listing listing = list(firmware.build());
    EXPECT_EQ(listing.items[2].bytes, 0x1'2345'6789U);
    const std::string beyond = "item 3, 'misc', reaches beyond the end of the firmware";
    EXPECT_EQ(listing.warnings, Lines{beyond});

    Bytes bytes = sample_firmware().build();
    const std::size_t record = sample_firmware().layout().item_records[2];
    put8_at(bytes, record + item_field::kOffsetMark, 'H');
    put32_at(bytes, record + item_field::kOffsetHigh, 0xFFFFFFFF);
    put32_at(bytes, record + item_field::kOffset, 0xFFFFFFFF);
    listing = list(bytes);
    EXPECT_EQ(listing.items[2].package_offset, UINT64_MAX);
    EXPECT_EQ(listing.warnings, Lines{beyond});
}

TEST_F(ReadListing, DoesNotMindWhereAnEmptyItemLies) {
    Bytes bytes = sample_firmware().build();
    const std::size_t record = sample_firmware().layout().item_records[2];
    put32_at(bytes, record + item_field::kOffset, 0x7FFFFFFF);
    put32_at(bytes, record + item_field::kSize, 0);
    const Listing listing = list(bytes);
    EXPECT_EQ(listing.items[2].kind, ItemKind::kEmpty);
    EXPECT_EQ(listing.warnings, Lines{});
}

TEST_F(ReadListing, OfABootContainerAloneHasNoItems) {
    const Listing listing = list(sample_firmware().boot.build(), "Loader.BIN");
    EXPECT_EQ(listing.version, "0.1.515");
    EXPECT_EQ(listing.chip, 0x51303031U);
    EXPECT_EQ(listing.items.size(), 0U);
    EXPECT_EQ(listing.loader_entries.size(), 4U);
    EXPECT_EQ(listing.warnings, Lines{"a boot container alone, by '.bin' in the path; there are no items"});

    Listing damaged;
    EXPECT_EQ(read(sample_firmware().build(), damaged, "fw.bin"),
              "the boot container is damaged: its checksum is wrong");
    EXPECT_EQ(damaged.version, "");
    EXPECT_EQ(damaged.items.size(), 0U);
    EXPECT_EQ(damaged.loader_entries.size(), 0U);
}

TEST_F(ReadListing, OfADamagedBootContainerStillHasItems) {
    Firmware firmware = sample_firmware();
    firmware.boot.crc = 1;
    Listing listing;
    EXPECT_EQ(read(firmware.build(), listing), "the boot container is damaged: its checksum is wrong");
    EXPECT_EQ(listing.version, "2.0.1");
    EXPECT_EQ(listing.items.size(), 4U);
    EXPECT_EQ(listing.loader_entries.size(), 0U);

    firmware.boot.crc.reset();
    firmware.boot.tag = "BAAD";
    EXPECT_EQ(read(firmware.build(), listing), "the boot container does not begin with BOOT or LDR");
    firmware.boot.tag = "LDR ";
    firmware.boot.merge_version = 0x1000001;
    EXPECT_EQ(read(firmware.build(), listing), "the boot container has an unknown version");
    firmware.boot_bytes = Bytes{};
    EXPECT_EQ(read(firmware.build(), listing), "the boot container is empty");
    EXPECT_EQ(listing.items.size(), 4U);
}

TEST_F(ReadListing, TellsOfEntriesOutsideOfTheContainer) {
    Firmware firmware = sample_firmware();
    firmware.boot.loader.entries[1].data_offset = 0xFFFFFFFF;
    firmware.boot.entries_472.table_offset = 0xFFFFFF00;
    firmware.boot.entries_472.count = 255;
    const Listing listing = list(firmware.build());
    ASSERT_EQ(listing.loader_entries.size(), 3U);
    EXPECT_EQ(listing.loader_entries[2].name, "FlashBoot");
    EXPECT_EQ(listing.warnings,
              (Lines{"entry 1 of table 472 and those after it do not lie in the boot container",
                     "the data of entry 2 of table loader does not lie in the boot container"}));
}

TEST_F(ReadListing, SaysWhyAPackageCannotBeListed) {
    Listing listing;
    Firmware firmware = sample_firmware();
    firmware.item_count = 0;
    EXPECT_EQ(read(firmware.build(), listing), "the firmware has no items");
    firmware.item_count = INT32_MAX;
    EXPECT_EQ(read(firmware.build(), listing), "the item table of the firmware cannot be read");
    Bytes bytes = sample_firmware().build();
    put32_at(bytes, head_field::kPackageOffset, 0xFFFFFF00);
    EXPECT_EQ(read(bytes, listing), "the package header of the firmware cannot be read");
    EXPECT_EQ(listing.loader_entries.size(), 4U);
}

TEST_F(ReadListing, RefusesWhatIsNotAFirmware) {
    Listing listing;
    listing.items.resize(3);
    EXPECT_EQ(read(to_bytes("something else"), listing),
              "this is not a firmware: it does not begin with QZFW");
    EXPECT_EQ(listing.firmware_bytes, 14U);
    EXPECT_EQ(listing.items.size(), 0U);
    EXPECT_EQ(read({}, listing), "this is not a firmware: it does not begin with QZFW");

    EXPECT_EQ(read_listing(path("missing"), listing),
              path("missing").string() + " failed to access: No such file or directory");
    EXPECT_EQ(listing.error, path("missing").string() + " failed to access: No such file or directory");
    EXPECT_EQ(read_listing("", listing), " failed to access: No such file or directory");
    EXPECT_EQ(read_listing(path("."), listing), path(".").string() + " is not a file");
    EXPECT_EQ(read_listing("/dev/null", listing), "/dev/null is not a file");
}

TEST_F(ReadListing, RefusesAPathThatWouldEndTheProgram) {
    Listing listing;
    EXPECT_EQ(read_listing(std::string(256, 'f'), listing), "path of firmware is too long");
    const std::string longest = "./" + std::string(253, 'f');  // its last part is longer than a file system
    EXPECT_NE(read_listing(longest, listing), "path of firmware is too long");
}

// Every byte of the structures, with each of these values.
TEST_F(ReadListing, IsBoundedWhateverTheBytesAre) {
    const Firmware firmware = sample_firmware();
    const FirmwareLayout layout = firmware.layout();
    const Bytes bytes = firmware.build();
    std::vector<std::size_t> places;
    for (std::size_t i = 0; i < head_field::kHeadBytes; ++i)
        places.push_back(i);
    for (std::size_t i = 0; i < package_field::kItems + 4 * item_field::kRecordBytes; ++i)
        places.push_back(static_cast<std::size_t>(layout.package_offset) + i);
    for (const std::size_t place : places) {
        for (const uint8_t value : std::vector<uint8_t>{0x00, 0x48, 0x7F, 0xFF}) {
            SCOPED_TRACE(place);
            Bytes bent = bytes;
            bent[place] = value;
            Listing listing;
            const std::string reason = read(bent, listing);
            EXPECT_LE(listing.items.size(), 583U);
            EXPECT_LE(listing.loader_entries.size(), 4U);
            EXPECT_LE(listing.warnings.size(), 1 + 3 * listing.items.size());
            EXPECT_TRUE(!reason.empty() || !listing.items.empty());
        }
    }
}

TEST_F(ReadListing, IsBoundedWhateverTheContainerHolds) {
    Firmware firmware = sample_firmware();
    const Bytes container = firmware.boot.build();
    for (std::size_t place = 0; place < boot_field::kHeadBytes; ++place) {
        for (const uint8_t value : std::vector<uint8_t>{0x00, 0x7F, 0xFF}) {
            SCOPED_TRACE(place);
            firmware.boot_bytes = container;
            (*firmware.boot_bytes)[place] = value;
            repair_boot_crc(*firmware.boot_bytes);
            Listing listing;
            const std::string reason = read(firmware.build(), listing);
            EXPECT_EQ(listing.items.size(), 4U);
            EXPECT_LE(listing.loader_entries.size(), 255U + 3);
            EXPECT_EQ(reason.empty(), place > 3) << reason;
        }
    }
}

}  // namespace
