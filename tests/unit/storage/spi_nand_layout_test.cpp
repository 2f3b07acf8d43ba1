// The files of SPI NAND: the boot block and every partition from offset 0, padded to whole erase blocks.

#include "nand_fixture.h"
#include "support/expected/boot_block.h"
#include "support/expected/flash_pages.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace storage_test {
namespace {

using SpiStorage = Exposed<CSpiStorage>;

class SpiNand : public NandTest {
protected:
    std::unique_ptr<SpiStorage> make_spi(const Geometry& chip = {.block_kb = 128}) const {
        return make<SpiStorage>(chip);
    }

    // Writes one partition of the given data, by the class's own steps.
    Bytes partition_file(const Bytes& data, const Geometry& chip) {
        const auto firmware = firmware_with({{.name = "part", .data = data}});
        auto storage = make_spi(chip);
        load(*storage, firmware);
        STRUCT_QZIMAGE_ITEM item = item_in(firmware, 0);
        output_of([&] {
            EXPECT_TRUE(storage->prepare_write_partition(item));
            EXPECT_EQ(storage->write_image(item), 0);
            EXPECT_TRUE(storage->post_write_partition());
        });
        EXPECT_FALSE(storage->m_fout.is_open());
        return out_file("part.img");
    }
};

// ---- preparing and ending ----

TEST_F(SpiNand, ConstructionPassesTypeAndSizesOn) {
    const auto storage = make_spi({.block_kb = 128, .page_kb = 2, .oob_bytes = 64, .page_2k = true});
    EXPECT_EQ(storage->m_type, FLASH_SPI_NAND);
    EXPECT_EQ(storage->m_block_size, 131072U);
    EXPECT_EQ(storage->m_block_size_sector, 256U);
    EXPECT_EQ(storage->m_page_size, 2048U);
    EXPECT_EQ(storage->m_page_size_sector, 4U);
    EXPECT_EQ(storage->m_oob_size, 64U);
    EXPECT_TRUE(storage->m_page_2k);
    EXPECT_FALSE(storage->m_fout.is_open());
}

TEST_F(SpiNand, BootBlockIsOneCopyInItsOwnFile) {
    const auto storage = make_spi();
    storage->m_idb_copy = 9;
    storage->m_idb_start_sector = 64;
    storage->m_idb_second_start_sector = 1088;
    storage->m_idb_upper_limit = 1;
    storage->m_idb_total_sector = 23;
    EXPECT_EQ(output_of([&] { EXPECT_TRUE(storage->prepare_write_idblock()); }), "");
    EXPECT_EQ(storage->m_idb_copy, 1);
    EXPECT_EQ(storage->m_idb_start_sector, 0U);
    EXPECT_EQ(storage->m_idb_second_start_sector, 0U);
    EXPECT_EQ(storage->m_idb_upper_limit, 2048U);
    EXPECT_EQ(storage->m_idb_total_sector, 23U);
    EXPECT_EQ(storage->m_out_file, out_path("idblock.img").string());
    EXPECT_TRUE(storage->m_fout.is_open());
    EXPECT_EQ(names_in(out_dir()), std::set<std::string>{"idblock.img"});
}

TEST_F(SpiNand, OutputDirectoryMayEndInASlashOrBeEmpty) {
    write_firmware(sample_firmware());
    const WorkingDirectory inside(m_directory.path());
    const std::map<std::string, std::string> paths{{"out", "out/idblock.img"},
                                                   {"out/", "out/idblock.img"},
                                                   {"", "idblock.img"},
                                                   {"./", "./idblock.img"}};
    for (const auto& [directory, path] : paths) {
        SpiStorage storage(128, 2, 0, firmware_path().string(), directory, false);
        EXPECT_TRUE(storage.prepare_write_idblock());
        EXPECT_EQ(storage.m_out_file, path);
        storage.close_output();
        EXPECT_TRUE(std::filesystem::remove(path));
    }
}

TEST_F(SpiNand, PartitionIsAnnouncedWithItsFile) {
    const auto storage = make_spi();
    STRUCT_QZIMAGE_ITEM item = named("boot");
    item.flash_offset = 0x12345678;  // where it goes on the chip is not asked for
    const std::string path = out_path("boot.img").string();
    EXPECT_EQ(output_of([&] { EXPECT_TRUE(storage->prepare_write_partition(item)); }),
              line("preparing boot saving at " + path));
    EXPECT_EQ(storage->m_out_file, path);
    EXPECT_TRUE(storage->m_fout.is_open());
    EXPECT_EQ(std::streamoff(storage->m_fout.tellp()), 0);
}

TEST_F(SpiNand, NextFileClosesTheOneBefore) {
    const auto storage = make_spi();
    Bytes page(2048, 0x77);
    output_of([&] {
        for (const std::string name : {"one", "two"}) {
            STRUCT_QZIMAGE_ITEM item = named(name);
            EXPECT_TRUE(storage->prepare_write_partition(item));
            EXPECT_TRUE(storage->write_page(page.data(), 2048));
        }
    });
    EXPECT_EQ(out_file("one.img"), page) << "closed without padding";
    EXPECT_TRUE(storage->post_write_partition());
    EXPECT_TRUE(same_bytes(out_file("two.img"), padded(page, 131072)));
}

TEST_F(SpiNand, NameMayFillItsFieldAndMayBeOdd) {
    const auto storage = make_spi();
    for (const std::string& name :
         {std::string(32, 'n'), std::string(), std::string(".."), std::string("a b:c")}) {
        STRUCT_QZIMAGE_ITEM item = named(name);
        EXPECT_EQ(output_of([&] { EXPECT_TRUE(storage->prepare_write_partition(item)); }),
                  line("preparing " + name + " saving at " + out_path(name + ".img").string()));
    }
    EXPECT_EQ(names_in(out_dir()),
              (std::set<std::string>{std::string(32, 'n') + ".img", ".img", "...img", "a b:c.img"}));
}

TEST_F(SpiNand, BothEndingsAlignAndClose) {
    for (const bool partition : {false, true}) {
        const auto storage = make_spi({.block_kb = 16, .page_kb = 2});
        EXPECT_TRUE(storage->prepare_write_idblock());
        Bytes page(2048, 0x77);
        storage->write_page(page.data(), 2048);
        EXPECT_TRUE(partition ? storage->post_write_partition() : storage->post_write_idblock());
        EXPECT_FALSE(storage->m_fout.is_open());
        EXPECT_TRUE(same_bytes(out_file("idblock.img"), padded(page, 16384)));
        EXPECT_TRUE(partition ? storage->post_write_partition() : storage->post_write_idblock())
            << "nothing open";
    }
}

// ---- sizes ----

TEST_F(SpiNand, BootBlockOf24SectorsFillsAnEraseBlock) {
    auto firmware = sample_firmware();
    firmware.boot.loader.entries[0].data = patterned(5000, 1);
    firmware.boot.loader.entries[1].data = patterned(4096, 2);
    const auto storage = make_spi();
    load(*storage, firmware);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(storage->write_idblock(), 0); }), line("writing idblock..."));
    EXPECT_EQ(storage->m_idb_total_sector, 24U);
    EXPECT_TRUE(same_bytes(out_file("idblock.img"), zero_padded(boot_block(firmware), 131072)));
}

TEST_F(SpiNand, PartitionOfWholeBlocksGetsNoFillPages) {
    const Geometry chip{.block_kb = 16, .page_kb = 2};
    EXPECT_EQ(partition_file({}, chip), Bytes{});
    for (const std::size_t size : {1U, 2048U, 16383U, 16384U, 16385U, 32768U}) {
        const Bytes data = patterned(size, 3);
        EXPECT_TRUE(same_bytes(partition_file(data, chip), padded(data, 16384))) << size;
    }
}

TEST_F(SpiNand, PagesThatDoNotDivideTheBlockEndPastIt) {
    // 3 KB of data in a block of 4 KB: the missing kilobyte takes a whole page.
    EXPECT_TRUE(same_bytes(partition_file(patterned(3000, 1), {.block_kb = 4, .page_kb = 3}),
                           padded(patterned(3000, 1), 6144)));
    EXPECT_TRUE(same_bytes(partition_file(patterned(1, 1), {.block_kb = 128, .page_kb = 3}),
                           padded(patterned(1, 1), 43 * 3072)));
    EXPECT_TRUE(same_bytes(partition_file(patterned(9000, 1), {.block_kb = 1, .page_kb = 4}),
                           padded(patterned(9000, 1), 12288)))
        << "a block smaller than the page is always whole";
}

TEST_F(SpiNand, TwoKilobytesPerPageCountAsTheyAreWritten) {
    const Geometry chip{.block_kb = 16, .page_kb = 4, .page_2k = true};
    // Two pages of data are four flash pages, a whole block. One page leaves 8 KB, which are two more pages
    // of data and four flash pages: the file ends past the block boundary.
    const Bytes two = padded(patterned(5000, 1), 8192);
    EXPECT_TRUE(same_bytes(partition_file(patterned(5000, 1), chip), spread_pages(two, 4096)));
    const Bytes one = padded(patterned(1000, 1), 4096);
    const Bytes file = partition_file(patterned(1000, 1), chip);
    EXPECT_EQ(file.size(), 24576U);
    EXPECT_TRUE(same_bytes(slice(file, 0, 8192), spread_pages(one, 4096)));
    EXPECT_TRUE(all_bytes_are(file, 0, 8192, 16384));
}

}  // namespace
}  // namespace storage_test
