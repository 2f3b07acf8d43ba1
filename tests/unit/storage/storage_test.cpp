// The storage object before and around the creation of an image: geometry, loading, output file, placement,
// dispatch.

#include "partition_fixture.h"

#include <cerrno>
#include <iterator>

namespace storage_test {
namespace {

using Storage = Exposed<CStorage>;

class StorageObjectTest : public StorageTest {
protected:
    // storage_init of an eMMC storage with its output in `directory`.
    void expect_init(const std::string& directory, bool result, const std::string& output,
                     const std::string& image = "") {
        Storage storage(FLASH_EMMC, 512, 2, 0, firmware_path(), directory, false);
        EXPECT_EQ(output_of([&] { EXPECT_EQ(storage.storage_init(), result); }), output);
        EXPECT_EQ(storage.m_init_ok, result);
        EXPECT_EQ(storage.m_fout.is_open(), result);
        EXPECT_EQ(storage.m_out_file, image);
    }

    static std::ptrdiff_t open_descriptors() {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    }
};

TEST_F(StorageObjectTest, ConstructionOpensNothing) {
    const Storage storage(FLASH_NOR, 64, 4, 17, "firmware", "out", true);
    EXPECT_FALSE(storage.m_init_ok);
    EXPECT_EQ(storage.m_type, FLASH_NOR);
    EXPECT_EQ(storage.m_block_size, 65536U);
    EXPECT_EQ(storage.m_block_size_sector, 128U);
    EXPECT_EQ(storage.m_page_size, 4096U);
    EXPECT_EQ(storage.m_page_size_sector, 8U);
    EXPECT_EQ(storage.m_oob_size, 17U);
    EXPECT_TRUE(storage.m_page_2k);
    EXPECT_EQ(storage.m_fill_byte, 0);
    EXPECT_EQ(storage.m_in_firmware, "firmware");
    EXPECT_EQ(storage.m_out_dir, "out");
    EXPECT_EQ(storage.m_out_file, "");
    EXPECT_NE(storage.m_update_image_ptr, nullptr);
    EXPECT_FALSE(storage.m_fout.is_open());
    EXPECT_FALSE(storage.m_fin.is_open());
    EXPECT_FALSE(storage.m_gpt_flag);
    EXPECT_EQ(storage.m_paramBuffer, nullptr);
}

TEST_F(StorageObjectTest, SizesWrapAt32Bits) {
    const struct {
        uint32_t kb, bytes, sectors;
    } cases[] = {{0, 0, 0},
                 {4194303, 0xFFFFFC00, 8388606},
                 {4194304, 0, 8388608},
                 {4194306, 2048, 8388612},
                 {2097154, 0x80000800, 4194308},
                 {2147483647, 0xFFFFFC00, 0xFFFFFFFE},
                 {2147483648, 0, 0},
                 {2147483650, 2048, 4}};
    for (const auto& [kb, bytes, sectors] : cases) {
        const auto storage = make_base<Storage>(FLASH_EMMC, {.block_kb = kb, .page_kb = kb});
        EXPECT_EQ(storage->m_page_size, bytes) << kb;
        EXPECT_EQ(storage->m_page_size_sector, sectors) << kb;
        EXPECT_EQ(storage->m_block_size, bytes) << kb;
        EXPECT_EQ(storage->m_block_size_sector, sectors) << kb;
    }
}

TEST_F(StorageObjectTest, BaseHooksSucceedAndLeaveEverything) {
    const auto storage = make_base<Storage>(FLASH_EMMC);
    storage->m_idb_total_sector = 5;
    EXPECT_EQ(output_of([&] {
                  EXPECT_TRUE(storage->prepare_write_idblock());
                  EXPECT_TRUE(storage->post_write_idblock());
                  EXPECT_TRUE(storage->post_write_partition());
              }),
              "");
    EXPECT_EQ(storage->m_idb_total_sector, 5U);
}

TEST_F(StorageObjectTest, EndClosesItsFilesAndKeepsWhatWasWritten) {
    write_firmware(sample_firmware());
    const std::ptrdiff_t before = open_descriptors();
    {
        const auto storage = make<Exposed<CNorStorage>>();
        ASSERT_TRUE(storage->storage_init());
        storage->m_fout.write("abc", 3);
        storage->m_fin.open(firmware_path());
        EXPECT_EQ(open_descriptors(), before + 3);
    }
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(to_text(out_image()), "abc");
}

// ---- storage_init ----

TEST_F(StorageObjectTest, OnlyWholeDeviceTypesOpenTheirImage) {
    write_firmware(sample_firmware());
    for (const ENUM_FLASH_TYPE type : {FLASH_NONE, FLASH_EMMC, FLASH_NOR, FLASH_SPI_NAND, FLASH_SLC_NAND}) {
        const bool whole_device = type == FLASH_EMMC || type == FLASH_NOR;
        write_file(out_path("out_image.img"), to_bytes("earlier"));
        const auto storage = make_base<Storage>(type);
        EXPECT_EQ(output_of([&] { EXPECT_TRUE(storage->storage_init()); }), "");
        EXPECT_TRUE(storage->m_init_ok);
        EXPECT_EQ(storage->m_fout.is_open(), whole_device);
        EXPECT_EQ(storage->m_out_file, whole_device ? out_path("out_image.img").string() : "");
        EXPECT_EQ(to_text(out_image()), whole_device ? "" : "earlier");
    }
}

TEST_F(StorageObjectTest, EmptyDirectoryIsTheCurrentOne) {
    write_firmware(sample_firmware());
    const WorkingDirectory inside(out_dir());
    expect_init("", true, "", "out_image.img");
    EXPECT_TRUE(std::filesystem::exists(out_path("out_image.img")));
}

TEST_F(StorageObjectTest, KeepsThePathOfAnImageThatCannotBeCreated) {
    write_firmware(sample_firmware());
    const std::string image = out_dir() / "missing" / "out_image.img";
    for (const std::string slash : {"", "/"})
        expect_init((out_dir() / "missing").string() + slash, false, not_created(image, ENOENT), image);
}

TEST_F(StorageObjectTest, ReportsAMissingFirmware) {
    expect_init(out_dir(), false, line("failed to load firmware,ret=1"));
    std::filesystem::create_directory(firmware_path());
    expect_init(out_dir(), false, line("failed to load firmware,ret=1"));
    EXPECT_TRUE(std::filesystem::is_empty(out_dir()));
}

// ---- placement of partitions ----

// Offsets count from sector 8192 without a GPT and are absolute with one. The sum of sectors has 32 bits, the
// offset in bytes 64.
TEST_F(StorageObjectTest, PlacesPartitionsByTheirSector) {
    const struct {
        uint32_t flash_offset;
        bool gpt;
        const char* printed;
        uint64_t sector;
    } cases[] = {{0, false, "00002000", 0x2000},
                 {0x2000, false, "00004000", 0x4000},
                 {0xABC, false, "00002abc", 0x2ABC},
                 {0, true, "00000000", 0},
                 {1, true, "00000001", 1},
                 {0xABC, true, "00000abc", 0xABC},
                 {0xFFFFE000, false, "00000000", 0},
                 {0xFFFFFFFE, false, "00001ffe", 0x1FFE},
                 {0x00800000, true, "00800000", 0x00800000},
                 {0x007FE001, false, "00800001", 0x00800001},
                 {0xFFFFFFFE, true, "fffffffe", 0xFFFFFFFE},
                 {0xFFFFDFFF, false, "ffffffff", 0xFFFFFFFF}};
    for (const auto& [flash_offset, gpt, printed, sector] : cases) {
        const auto storage = make<Exposed<CEmmcStorage>>();
        storage->m_fout.open(out_path("out.img"));
        storage->m_gpt_flag = gpt;
        STRUCT_QZIMAGE_ITEM item{};
        std::memcpy(item.name, "boot", 4);
        item.flash_offset = flash_offset;
        EXPECT_EQ(output_of([&] { EXPECT_TRUE(storage->prepare_write_partition(item)); }),
                  line(std::string("preparing boot at 0x") + printed));
        EXPECT_EQ(storage->m_fout.tellp(), static_cast<std::streamoff>(sector * 512));
        EXPECT_EQ(item.flash_offset, flash_offset);
        storage->m_fout.give_up(ECANCELED);  // no file of terabytes is left behind
    }
}

TEST_F(StorageObjectTest, GapThatNoMemoryFillsIsRefused) {
    if (!kMemoryCanBeLimited)
        GTEST_SKIP() << "needs a build without sanitizers or emulator";
    const auto storage = make<Exposed<CNorStorage>>({.page_kb = kHugePageKb});
    storage->m_fout.open(out_path("out.img"));
    STRUCT_QZIMAGE_ITEM item{};
    const MemoryLimit limit(256 * 1024 * 1024);
    EXPECT_EQ(output_of([&] { EXPECT_FALSE(storage->prepare_write_partition(item)); }), "");
}

// ---- dispatch ----

TEST_F(StorageObjectTest, AnyOtherKindIsInvalid) {
    const auto storage = make_base<Recording<CStorage>>(FLASH_EMMC);
    load(*storage, sample_firmware());
    STRUCT_QZIMAGE_ITEM item = item_in(sample_firmware(), 1);
    for (const uint32_t kind : {0U, 3U, 5U, 6U, 7U, 9U, 10U, 12U, 15U, 16U, 0x80000000U, 0xFFFFFFFFU})
        EXPECT_EQ(output_of([&] {
                      EXPECT_EQ(storage->write_partition(item, static_cast<ENUM_IMAGE_TYPE>(kind)), -255);
                  }),
                  line("Invalid image type"));
    EXPECT_TRUE(storage->pages.empty());
}

}  // namespace
}  // namespace storage_test
