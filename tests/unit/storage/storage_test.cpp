// The storage object before and around the creation of an image: geometry, loading, output file, placement,
// dispatch.

#include "partition_fixture.h"
#include "storage_fixture.h"
#include "support/process_limits.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <iterator>
#include <memory>
#include <string>
#include <utility>

namespace {

using namespace storage_test;
using namespace test_support;

using Storage = Recording<CStorage>;

class StorageObjectTest : public StorageTest {
protected:
    // storage_init of an eMMC storage with its output in `directory`.
    void expect_init(const std::string& directory, bool result, const std::string& output,
                     const Geometry& geometry = {}) {
        m_storage = std::make_unique<Exposed<CEmmcStorage>>(geometry.block_kb, geometry.page_kb, 0U,
                                                            firmware_path().string(), directory, false);
        bool actual = !result;
        EXPECT_EQ(output_of([&] { actual = m_storage->storage_init(); }), output);
        EXPECT_EQ(actual, result);
        EXPECT_EQ(m_storage->m_init_ok, result);
        EXPECT_EQ(m_storage->m_fout.is_open(), result);
    }

    std::unique_ptr<Exposed<CEmmcStorage>> m_storage;
};

// ---- construction ----

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
    } cases[] = {
        {0, 0, 0},
        {4194303, 0xFFFFFC00, 8388606},
        {4194304, 0, 8388608},
        {4194306, 2048, 8388612},
        {2097152, 0x80000000, 4194304},
        {2097154, 0x80000800, 4194308},
        {2147483647, 0xFFFFFC00, 0xFFFFFFFE},
        {2147483648, 0, 0},
        {2147483650, 2048, 4},
        {0xFFFFFFFF, 0xFFFFFC00, 0xFFFFFFFE},
    };
    for (const auto& wanted : cases) {
        const Storage as_page(FLASH_EMMC, 512, wanted.kb, 0, "", "", false);
        EXPECT_EQ(as_page.m_page_size, wanted.bytes) << wanted.kb;
        EXPECT_EQ(as_page.m_page_size_sector, wanted.sectors) << wanted.kb;
        const Storage as_block(FLASH_EMMC, wanted.kb, 2, 0, "", "", false);
        EXPECT_EQ(as_block.m_block_size, wanted.bytes) << wanted.kb;
        EXPECT_EQ(as_block.m_block_size_sector, wanted.sectors) << wanted.kb;
    }
}

TEST_F(StorageObjectTest, BaseHooksSucceedAndLeaveEverything) {
    Storage storage(FLASH_EMMC, 512, 2, 0, "", "", false);
    storage.m_idb_total_sector = 5;
    EXPECT_EQ(output_of([&] {
                  EXPECT_TRUE(storage.prepare_write_idblock());
                  EXPECT_TRUE(storage.post_write_idblock());
                  EXPECT_TRUE(storage.post_write_partition());
              }),
              "");
    EXPECT_EQ(storage.m_idb_total_sector, 5U);
}

std::ptrdiff_t open_descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
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

TEST_F(StorageObjectTest, WholeDeviceTypesCreateTheirImage) {
    write_firmware(sample_firmware());
    write_file(out_path("out_image.img"), patterned(5000, 1));
    const auto check = [this](auto& storage) {
        EXPECT_EQ(output_of([&] { EXPECT_TRUE(storage.storage_init()); }), "");
        EXPECT_TRUE(storage.m_init_ok);
        EXPECT_TRUE(storage.m_fout.is_open());
        EXPECT_EQ(storage.m_out_file, out_path("out_image.img").string());
        EXPECT_EQ(out_image(), Bytes()) << "truncated";
    };
    check(*make<Exposed<CEmmcStorage>>());
    write_file(out_path("out_image.img"), patterned(5000, 1));
    check(*make<Exposed<CNorStorage>>());
}

TEST_F(StorageObjectTest, OtherTypesOpenNoFileYet) {
    write_firmware(sample_firmware());
    const auto check = [this](auto& storage) {
        EXPECT_EQ(output_of([&] { EXPECT_TRUE(storage.storage_init()); }), "");
        EXPECT_TRUE(storage.m_init_ok);
        EXPECT_FALSE(storage.m_fout.is_open());
        EXPECT_EQ(storage.m_out_file, "");
        EXPECT_TRUE(std::filesystem::is_empty(out_dir()));
    };
    check(*make<Exposed<CSpiStorage>>());
    check(*make<Exposed<CSlcStorage>>({.oob_bytes = 64}, false));
    check(*make_base<Storage>(FLASH_NONE));
}

TEST_F(StorageObjectTest, DirectoryWithASlashGetsNoSecondOne) {
    write_firmware(sample_firmware());
    const std::string directory = out_dir().string();
    for (const std::string& slashes : {std::string("/"), std::string("//")}) {
        expect_init(directory + slashes, true, "");
        EXPECT_EQ(m_storage->m_out_file, directory + slashes + "out_image.img");
    }
    expect_init(directory, true, "");
    EXPECT_EQ(m_storage->m_out_file, directory + "/out_image.img");
}

TEST_F(StorageObjectTest, EmptyDirectoryIsTheCurrentOne) {
    write_firmware(sample_firmware());
    const WorkingDirectory inside(out_dir());
    expect_init("", true, "");
    EXPECT_EQ(m_storage->m_out_file, "out_image.img");
    EXPECT_TRUE(std::filesystem::exists(out_path("out_image.img")));
}

TEST_F(StorageObjectTest, KeepsThePathOfAnImageThatCannotBeCreated) {
    write_firmware(sample_firmware());
    const std::string missing = (out_dir() / "missing").string();
    for (const std::string& directory : {missing, missing + "/"}) {
        expect_init(directory, false, not_created(missing + "/out_image.img", ENOENT));
        EXPECT_EQ(m_storage->m_out_file, missing + "/out_image.img");
    }
}

TEST_F(StorageObjectTest, ReportsAMissingFirmware) {
    expect_init(out_dir().string(), false, "failed to load firmware,ret=1\n");
    std::filesystem::create_directory(firmware_path());
    expect_init(out_dir().string(), false, "failed to load firmware,ret=1\n");
    EXPECT_TRUE(std::filesystem::is_empty(out_dir()));
}

TEST_F(StorageObjectTest, GeometryThatWrapsToZeroIsRefused) {
    write_firmware(sample_firmware());
    write_file(out_path("out_image.img"), to_bytes("as it was"));
    for (const uint32_t kb : {0U, 4194304U, 8388608U, 2147483648U, 0xFFC00000U}) {
        expect_init(out_dir().string(), false, "page size is out of range\n", {.page_kb = kb});
        expect_init(out_dir().string(), false, "block size is out of range\n", {.block_kb = kb});
        EXPECT_EQ(to_text(out_image()), "as it was") << kb;
    }
}

TEST_F(StorageObjectTest, GeometryThatWrapsToAnotherSizeIsTaken) {
    write_firmware(sample_firmware());
    for (const uint32_t kb : {2097152U, 2097154U, 4194303U, 4194305U, 2147483650U, 0xFFFFFFFFU}) {
        expect_init(out_dir().string(), true, "", {.page_kb = kb});
        expect_init(out_dir().string(), true, "", {.block_kb = kb});
    }
}

// ---- placement of partitions ----

class PlacementTest : public StorageTest {
protected:
    void expect_prepared(uint32_t flash_offset, bool gpt, const std::string& at, uint64_t position) {
        const auto storage = make<Exposed<CEmmcStorage>>();
        storage->m_fout.open(out_path("out.img").string());
        storage->m_gpt_flag = gpt;
        STRUCT_QZIMAGE_ITEM item{};
        std::memcpy(item.name, "boot", 4);
        item.flash_offset = flash_offset;
        EXPECT_EQ(output_of([&] { EXPECT_TRUE(storage->prepare_write_partition(item)); }),
                  "preparing boot at 0x" + at + "\n");
        EXPECT_EQ(storage->m_fout.tellp(), static_cast<std::streamoff>(position));
        EXPECT_EQ(item.flash_offset, flash_offset);
        storage->m_fout.give_up(ECANCELED);  // no file of terabytes is left behind
    }
};

TEST_F(PlacementTest, WithoutAGptOffsetsCountFromSector8192) {
    expect_prepared(0, false, "00002000", 4194304);
    expect_prepared(0x2000, false, "00004000", 8388608);
    expect_prepared(0xABC, false, "00002abc", 0x2ABC * 512);
}

TEST_F(PlacementTest, WithAGptOffsetsAreAbsolute) {
    expect_prepared(0, true, "00000000", 0);
    expect_prepared(1, true, "00000001", 512);
    expect_prepared(0xABC, true, "00000abc", 0xABC * 512);
}

TEST_F(PlacementTest, SectorSumWrapsAt32Bits) {
    expect_prepared(0xFFFFE000, false, "00000000", 0);
    expect_prepared(0xFFFFFFFE, false, "00001ffe", 0x1FFE * 512);
}

TEST_F(PlacementTest, ByteOffsetHas64Bits) {
    expect_prepared(0x00800000, true, "00800000", uint64_t{4} << 30);
    expect_prepared(0x007FE001, false, "00800001", (uint64_t{4} << 30) + 512);
    expect_prepared(0xFFFFFFFE, true, "fffffffe", uint64_t{0xFFFFFFFE} * 512);
    expect_prepared(0xFFFFDFFF, false, "ffffffff", uint64_t{0xFFFFFFFF} * 512);
}

TEST_F(PlacementTest, NameThatFillsItsFieldEndsAfter32Characters) {
    const auto storage = make<Exposed<CNorStorage>>();
    storage->m_fout.open(out_path("out.img").string());
    storage->m_gpt_flag = true;
    STRUCT_QZIMAGE_ITEM item{};
    std::memset(item.name, 'n', sizeof(item.name));
    std::memset(item.file, 'f', sizeof(item.file));
    EXPECT_EQ(output_of([&] { EXPECT_TRUE(storage->prepare_write_partition(item)); }),
              "preparing " + std::string(32, 'n') + " at 0x00000000\n");
}

TEST_F(PlacementTest, GapThatNoMemoryFillsIsRefused) {
    if (!kMemoryCanBeLimited)
        GTEST_SKIP() << "needs a build without sanitizers";
    const auto storage = make<Exposed<CNorStorage>>({.page_kb = 1024 * 1024});
    storage->m_fout.open(out_path("out.img").string());
    STRUCT_QZIMAGE_ITEM item{};
    const MemoryLimit limit(256 * 1024 * 1024);
    EXPECT_EQ(output_of([&] { EXPECT_FALSE(storage->prepare_write_partition(item)); }), "");
}

// ---- dispatch ----

class DispatchTest : public StorageTest {
protected:
    void SetUp() override {
        Firmware firmware = sample_firmware();
        firmware.items[1].part_size = kGrowsToEnd;
        load(*m_storage, firmware);
        m_item = item_in(firmware, 1);
        m_parameter = item_in(firmware, 0);
        ASSERT_TRUE(m_storage->make_param_buffer(m_parameter));
    }

    void expect_dispatched(uint32_t kind, STRUCT_QZIMAGE_ITEM& item, const std::string& output, int result) {
        int actual = result + 1;
        EXPECT_EQ(
            output_of([&] { actual = m_storage->write_partition(item, static_cast<ENUM_IMAGE_TYPE>(kind)); }),
            output);
        EXPECT_EQ(actual, result);
    }

    const std::unique_ptr<Storage> m_storage = make_base<Storage>(FLASH_EMMC);
    STRUCT_QZIMAGE_ITEM m_item{};
    STRUCT_QZIMAGE_ITEM m_parameter{};
};

TEST_F(DispatchTest, EachKindHasItsWriter) {
    expect_dispatched(IMAGE_FILE, m_item, writing_lines("boot", 3), 0);
    expect_dispatched(IMAGE_PARAM, m_parameter, "writing parameter...\n" + redrawn("writing parameter...OK"),
                      0);
    expect_dispatched(IMAGE_GPT, m_parameter, "writing gpt...\n" + redrawn("writing gpt...OK"), 0);
    m_item.offset = 0xFFFFFFFF;
    expect_dispatched(IMAGE_SPARSE, m_item, "writing boot...\nfailed to get sparse header\n", -1);
}

TEST_F(DispatchTest, ResultOfTheWriterIsPassedOn) {
    m_item.part_size = 0;
    expect_dispatched(IMAGE_FILE, m_item, "writing boot...\npartition size is too small\n", -1);
    m_parameter.part_size = 0;
    expect_dispatched(IMAGE_PARAM, m_parameter, "writing parameter...\npartition size is too small\n", -1);
    m_item.part_size = kGrowsToEnd;
    m_item.offset = 0xFFFFFFFF;
    expect_dispatched(IMAGE_FILE, m_item, "writing boot...\nfailed to get data from firmware\n", -2);
    m_parameter.size = 11;  // a record without a text
    expect_dispatched(IMAGE_GPT, m_parameter, "writing gpt...\nfailed to parse gpt parameter file\n", -2);
}

TEST_F(DispatchTest, AnyOtherKindIsInvalid) {
    for (const uint32_t kind : {0U, 3U, 5U, 6U, 7U, 9U, 10U, 12U, 15U, 16U, 0x80000000U, 0xFFFFFFFFU})
        expect_dispatched(kind, m_item, "Invalid image type\n", -255);
    EXPECT_TRUE(m_storage->pages.empty());
}

}  // namespace
