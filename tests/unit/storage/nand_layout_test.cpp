// The files of the two NAND types: the boot block and every partition from offset 0, padded to whole erase
// blocks, and where the list indexes of SLC NAND restart.

#include "slc_fixture.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace storage_test {
namespace {

class NandTest : public StorageTest {
protected:
    Bytes out_file(const std::string& name) const { return read_file(out_path(name)); }

    // An item that only has a name.
    static STRUCT_QZIMAGE_ITEM named(const std::string& name) {
        STRUCT_QZIMAGE_ITEM item{};
        std::memcpy(item.name, name.data(), std::min(name.size(), sizeof(item.name)));
        return item;
    }

    // Preparing makes the boot block one copy at the start of its own file, whatever was set before.
    template <typename Storage>
    void expect_boot_block_prepared(Storage& storage) const {
        storage.m_idb_copy = 9;
        storage.m_idb_start_sector = 64;
        storage.m_idb_second_start_sector = 1088;
        storage.m_idb_upper_limit = 1;
        storage.m_idb_total_sector = 23;
        EXPECT_EQ(output_of([&] { EXPECT_TRUE(storage.prepare_write_idblock()); }), "");
        EXPECT_EQ(storage.m_idb_copy, 1);
        EXPECT_EQ(storage.m_idb_start_sector, 0U);
        EXPECT_EQ(storage.m_idb_second_start_sector, 0U);
        EXPECT_EQ(storage.m_idb_upper_limit, 2048U);
        EXPECT_EQ(storage.m_idb_total_sector, 23U);
        EXPECT_EQ(storage.m_out_file, out_path("idblock.img").string());
        EXPECT_TRUE(storage.m_fout.is_open());
        EXPECT_EQ(names_in(out_dir()), std::set<std::string>{"idblock.img"});
    }
};

// ---- SPI NAND ----

class SpiNand : public NandTest {
protected:
    const std::unique_ptr<Exposed<CSpiStorage>> m_storage = make<Exposed<CSpiStorage>>({.block_kb = 16});
    Bytes m_page = Bytes(2048, 0x77);
};

TEST_F(SpiNand, BootBlockIsOneCopyInItsOwnFile) {
    expect_boot_block_prepared(*m_storage);
}

TEST_F(SpiNand, NextFileClosesTheOneBefore) {
    const std::string one(32, 'n');
    output_of([&] {
        for (const std::string& name : {one, std::string("two")}) {
            STRUCT_QZIMAGE_ITEM item = named(name);
            EXPECT_TRUE(m_storage->prepare_write_partition(item));
            EXPECT_TRUE(m_storage->write_page(m_page.data(), 2048));
        }
    });
    EXPECT_EQ(out_file(one + ".img"), m_page) << "closed without padding";
    EXPECT_TRUE(m_storage->post_write_partition());
    EXPECT_TRUE(same_bytes(out_file("two.img"), padded(m_page, 16384)));
}

TEST_F(SpiNand, BothEndingsAlignAndClose) {
    for (const bool partition : {false, true}) {
        const auto end = [&] {
            return partition ? m_storage->post_write_partition() : m_storage->post_write_idblock();
        };
        EXPECT_TRUE(m_storage->prepare_write_idblock());
        m_storage->write_page(m_page.data(), 2048);
        EXPECT_TRUE(end());
        EXPECT_FALSE(m_storage->m_fout.is_open());
        EXPECT_TRUE(same_bytes(out_file("idblock.img"), padded(m_page, 16384)));
        EXPECT_TRUE(end()) << "nothing open";
    }
}

// ---- the boot block of SLC NAND ----

class SlcNand : public NandTest {
protected:
    template <typename Storage = SlcStorage>
    std::unique_ptr<Storage> make_slc(const SlcCase& chip) const {
        return make<Storage>(chip.geometry(), chip.page_list);
    }
};

SlcCase chip_of(uint32_t block_kb, uint32_t page_kb, bool page_2k = false) {
    return {.page_kb = page_kb, .spare = 32 * page_kb, .page_2k = page_2k, .block_kb = block_kb};
}

struct FillCase {
    SlcCase chip;
    uint32_t written;  // sectors of the boot block, pages of a partition
    uint32_t fill_pages;
};

void expect_fill_pages(const SlcRecorder& storage, const FillCase& tested) {
    EXPECT_EQ(storage.pages.size(), tested.fill_pages);
    for (const RecordedPage& page : storage.pages)
        ASSERT_EQ(page.bytes, Bytes(tested.chip.page_size(), 0));
}

TEST_F(SlcNand, BootBlockIsFilledUpToWholeBlocks) {
    const FillCase cases[] = {
        {chip_of(128, 2), 24, 58},  // 256 - 24 sectors
        {chip_of(128, 2), 16, 60},
        {chip_of(128, 2), 1, 63},
        {chip_of(128, 2), 0, 0},
        {chip_of(128, 2), 252, 1},
        {chip_of(128, 2), 253, 0},  // rounded up to 256
        {chip_of(128, 2), 256, 0},
        {chip_of(128, 2), 257, 63},
        {chip_of(128, 1), 17, 119},
        {chip_of(128, 4), 16, 30},
        {chip_of(128, 3), 16, 40},  // 18 sectors leave 238: 39 pages and a part of one
        {chip_of(128, 8), 16, 15},
        {chip_of(2, 4), 8, 0},
        {chip_of(4, 3), 6, 1},  // 6 of 8 sectors: a whole page for the last two
        {chip_of(128, 1, true), 17, 119},
        {chip_of(128, 2, true), 24, 58},
        {chip_of(128, 4, true), 16, 14},  // 32 sectors of flash leave 224: 28 flash pages
        {chip_of(128, 4, true), 8, 15},
        {chip_of(128, 4, true), 128, 0},
        {chip_of(128, 4, true), 129, 15},  // 272 sectors of flash leave 240
        {chip_of(128, 3, true), 16, 19},   // 36 sectors leave 220
        {chip_of(128, 5, true), 10, 8},    // three flash pages of 10 sectors leave 226
        {chip_of(128, 8, true), 16, 3},    // 64 sectors leave 192
        {chip_of(128, 8, true), 33, 1},    // 192 sectors leave 64, which is one page of data
    };
    for (const FillCase& tested : cases) {
        SCOPED_TRACE(tested.chip.name() + ", " + std::to_string(tested.written) + " sectors");
        const auto storage = make_slc<SlcRecorder>(tested.chip);
        storage->m_idb_total_sector = tested.written;
        storage->m_idb_fill_page_num = kUntouched;
        EXPECT_TRUE(storage->prepare_write_idblock());
        EXPECT_EQ(storage->m_idb_fill_page_num, tested.fill_pages);
        EXPECT_TRUE(storage->post_write_idblock());
        expect_fill_pages(*storage, tested);
    }
}

TEST_F(SlcNand, PreparingTheBootBlockSetsItsPlace) {
    const auto storage = make_slc({});
    storage->m_bch_list_index = 99;
    expect_boot_block_prepared(*storage);
    EXPECT_EQ(storage->m_bch_list_index, 0U);
}

TEST_F(SlcNand, EndingTheBootBlockRestartsTheListIndex) {
    const auto storage = make_slc({});
    EXPECT_TRUE(storage->prepare_write_idblock());
    storage->m_idb_fill_page_num = 3;
    EXPECT_EQ(output_of([&] { EXPECT_TRUE(storage->post_write_idblock()); }), "");
    EXPECT_FALSE(storage->m_fout.is_open());
    EXPECT_EQ(storage->m_bch_list_index, 0U);
    EXPECT_TRUE(same_bytes(out_file("idblock.img"), slow_flash_pages(Bytes(3 * 2048, 0), {})));
}

// ---- a partition of SLC NAND ----

TEST_F(SlcNand, PartitionIsFilledUpToWholeBlocksOfDataPages) {
    const FillCase cases[] = {
        {chip_of(128, 2), 0, 0},
        {chip_of(128, 2), 1, 63},
        {chip_of(128, 2), 3, 61},
        {chip_of(128, 2), 63, 1},
        {chip_of(128, 2), 64, 0},
        {chip_of(128, 2), 65, 63},
        {chip_of(128, 3), 1, 42},   // 6 sectors leave 250: 41 pages and a part of one
        {chip_of(128, 3), 43, 43},  // 258 sectors leave 254
        {chip_of(2, 4), 1, 0},
        {chip_of(4, 3), 1, 1},
        {chip_of(128, 1, true), 5, 123},
        {chip_of(128, 2, true), 3, 61},
        // The sectors of data count, not the flash pages that they take; the rest is counted in flash pages.
        {chip_of(128, 4, true), 2, 15},
        {chip_of(128, 4, true), 16, 8},
        {chip_of(128, 4, true), 32, 0},
        {chip_of(128, 3, true), 7, 18},
        {chip_of(128, 5, true), 1, 9},  // 246 sectors are 24 pages and a part, eight times three and one
        {chip_of(128, 8, true), 1, 4},
        {chip_of(128, 8, true), 15, 1},
    };
    for (const FillCase& tested : cases) {
        SCOPED_TRACE(tested.chip.name() + ", " + std::to_string(tested.written) + " pages");
        const auto storage = make_slc<SlcRecorder>(tested.chip);
        STRUCT_QZIMAGE_ITEM item = named("part");
        output_of([&] { EXPECT_TRUE(storage->prepare_write_partition(item)); });
        storage->m_image_fill_page_num = tested.written;
        EXPECT_TRUE(storage->post_write_partition());
        expect_fill_pages(*storage, tested);
    }
}

TEST_F(SlcNand, PreparingAPartitionStartsAfresh) {
    std::filesystem::create_directory(out_path("refused.img"));
    for (const std::string name : {"boot", "refused"}) {
        const auto storage = make_slc({});
        storage->m_bch_list_index = 99;
        storage->m_image_fill_page_num = 99;
        STRUCT_QZIMAGE_ITEM item = named(name);
        output_of([&] { EXPECT_EQ(storage->prepare_write_partition(item), name == "boot"); });
        EXPECT_EQ(storage->m_bch_list_index, 0U);
        EXPECT_EQ(storage->m_image_fill_page_num, 0U);
    }
}

TEST_F(SlcNand, EndingAPartitionClosesAndStartsAfresh) {
    const SlcCase chip{.block_kb = 8};
    const auto storage = make_slc(chip);
    STRUCT_QZIMAGE_ITEM item = named("part");
    Bytes page = patterned(2048, 1);
    output_of([&] {
        EXPECT_TRUE(storage->prepare_write_partition(item));
        EXPECT_TRUE(storage->write_page(page.data(), 2048));
        storage->m_image_fill_page_num = 1;
        EXPECT_TRUE(storage->post_write_partition());
    });
    EXPECT_FALSE(storage->m_fout.is_open());
    EXPECT_EQ(storage->m_bch_list_index, 0U);
    EXPECT_EQ(storage->m_image_fill_page_num, 0U);
    EXPECT_TRUE(same_bytes(out_file("part.img"), slow_flash_pages(padded(page, 8192), chip)));
}

TEST_F(SlcNand, FillPageThatNoMemoryHoldsFailsTheFile) {
    if (!kMemoryCanBeLimited)
        GTEST_SKIP() << "needs a build without sanitizers or emulator";
    const auto storage = make_slc({.page_kb = kHugePageKb, .spare = 32 * kHugePageKb});
    EXPECT_TRUE(storage->prepare_write_idblock());
    storage->m_idb_fill_page_num = 1;
    const MemoryLimit limit(256 * 1024 * 1024);
    EXPECT_TRUE(storage->post_write_idblock());
    EXPECT_EQ(storage->m_write_failure.path, out_path("idblock.img").string());
    EXPECT_EQ(storage->m_write_failure.error, ENOMEM);
}

TEST_F(SlcNand, FillPagesOfAFileThatFailedAreNotMade) {
    const auto storage = make_slc({.block_kb = 1024 * 1024});
    std::filesystem::create_symlink("/dev/full", out_path("idblock.img"));
    storage->m_idb_total_sector = 4;
    ASSERT_TRUE(storage->prepare_write_idblock());
    EXPECT_EQ(storage->m_idb_fill_page_num, 524287U);
    EXPECT_TRUE(storage->post_write_idblock());
    EXPECT_EQ(storage->m_write_failure.path, out_path("idblock.img").string());
    EXPECT_EQ(storage->m_write_failure.error, ENOSPC);
    EXPECT_FALSE(storage->m_fout.is_open());
}

// A parameter partition of over a gigabyte has more fill pages in one stretch than are padded page by page
// elsewhere. The file is /dev/null: its size is what counts.
TEST_F(SlcNand, EveryFillPageOfAHugePartitionIsAFlashPage) {
    const SlcCase chip{.page_kb = 1, .spare = 32};
    constexpr uint32_t pages = 8 * (65536 + 2);
    const auto firmware =
        firmware_with({{.name = "parameter", .part_size = 2 * pages, .data = patterned(100, 1)}});
    const auto storage = make_slc(chip);
    load(*storage, firmware);
    std::filesystem::create_symlink("/dev/null", out_path("parameter.img"));
    STRUCT_QZIMAGE_ITEM item = item_in(firmware, 0);
    output_of([&] {
        ASSERT_TRUE(storage->make_param_buffer(item));
        ASSERT_TRUE(storage->prepare_write_partition(item));
        EXPECT_EQ(storage->write_parameter(item), 0);
    });
    EXPECT_EQ(storage->m_image_fill_page_num, pages);
    EXPECT_EQ(static_cast<uint64_t>(std::streamoff(storage->m_fout.tellp())), uint64_t{pages} * 1056);
    EXPECT_EQ(storage->m_bch_list_index, 4 * pages);
}

}  // namespace
}  // namespace storage_test
