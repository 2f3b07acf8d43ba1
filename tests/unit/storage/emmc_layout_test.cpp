#include "expected_image.h"
#include "partition_fixture.h"
#include "storage_fixture.h"
#include "whole_device_fixture.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace storage_test;
using namespace test_support;

using Emmc = Exposed<CEmmcStorage>;
using EmmcLayoutTest = WholeDeviceTest;

TEST_F(EmmcLayoutTest, ConstructorPassesTheGeometryOn) {
    const Geometry geometry{.block_kb = 512, .page_kb = 4, .oob_bytes = 64, .page_2k = true};
    expect_geometry(*make<Emmc>(geometry), FLASH_EMMC, geometry);
}

TEST_F(EmmcLayoutTest, BlockTakesWholeEraseBlocksAndStartsAtFixedSectors) {
    const struct {
        uint32_t block_kb, page_rounded, total;
    } cases[] = {
        {512, 300, 1024},  {512, 1, 1024},    {512, 1023, 1024}, {512, 1024, 1024},   {512, 1025, 2048},
        {512, 2048, 2048}, {512, 2049, 3072}, {4096, 16, 8192},  {4096, 8193, 16384}, {1, 16, 16},
        {1, 17, 18},       {4, 12, 16},       {96, 193, 384},
    };
    for (const auto& wanted : cases) {
        const auto storage = make<Emmc>({.block_kb = wanted.block_kb});
        storage->m_idb_total_sector = wanted.page_rounded;
        EXPECT_TRUE(storage->prepare_write_idblock());
        EXPECT_EQ(storage->m_idb_total_sector, wanted.total)
            << wanted.block_kb << ", " << wanted.page_rounded;
        EXPECT_EQ(storage->m_idb_start_sector, 64U);
        EXPECT_EQ(storage->m_idb_second_start_sector, 1088U);
        EXPECT_EQ(storage->m_idb_copy, 2);
        EXPECT_EQ(storage->m_idb_upper_limit, 8192U);
    }
}

TEST_F(EmmcLayoutTest, PreparingLeavesTheOutputAsItIs) {
    expect_preparing_leaves_output(*make<Emmc>());
}

TEST_F(EmmcLayoutTest, CopiesOfOneEraseBlockOf512KBAreAdjacent) {
    const auto storage = make<Emmc>({.block_kb = 512});
    expect_copies(*storage, sample_firmware({.scramble_stages = true}), 1088, 524288);
    EXPECT_EQ(64 * 512 + storage->m_idb_total_sector * 512, 1088U * 512);
    EXPECT_EQ(out_image().size(), 1088U * 512 + 524288);
}

TEST_F(EmmcLayoutTest, GapBetweenSmallCopiesIsFilled) {
    const auto storage = make<Emmc>({.block_kb = 1, .page_kb = 1});
    expect_copies(*storage, sample_firmware(), 1088, 8192);
    EXPECT_EQ(storage->m_idb_total_sector, 16U);
}

TEST_F(EmmcLayoutTest, SecondCopyLiesOverTheTailOfAFirstOf4MB) {
    const auto storage = make<Emmc>({.block_kb = 4096});
    expect_copies(*storage, sample_firmware(), 1088, 4194304);
    EXPECT_EQ(storage->m_idb_total_sector, 8192U);
    EXPECT_EQ(out_image().size(), (1088U + 8192) * 512);
}

// The stages reach past sector 1024 of the block, so that the second copy overwrites bytes of the first.
TEST_F(EmmcLayoutTest, SecondCopyOverwritesStagesOfALongFirst) {
    Firmware firmware = sample_firmware({.scramble_stages = true});
    firmware.boot.loader.entries[1].data = patterned(900000, 77);
    const auto storage = make<Emmc>({.block_kb = 512});
    const Bytes image = boot_area(*storage, firmware);
    EXPECT_EQ(storage->m_idb_total_sector, 2048U);
    const Bytes block = zero_padded(boot_block(firmware), 1048576);
    EXPECT_EQ(slice(image, 64 * 512, 1024 * 512), slice(block, 0, 1024 * 512));
    EXPECT_TRUE(same_bytes(slice(image, 1088 * 512, block.size()), block));
    EXPECT_EQ(image.size(), 1088U * 512 + block.size());
}

// 1024 sectors are not whole pages of 6: a copy is 171 pages, and its last two sectors lie under the second.
TEST_F(EmmcLayoutTest, CopyThatEndsInsideAPageReachesIntoTheSecond) {
    const auto storage = make<Emmc>({.block_kb = 512, .page_kb = 3});
    expect_copies(*storage, sample_firmware(), 1088, 171 * 3072);
    EXPECT_EQ(storage->m_idb_total_sector, 1024U);
}

TEST_F(EmmcLayoutTest, EraseBlockSmallerThanAPageIsWrittenAsAPage) {
    const auto storage = make<Emmc>({.block_kb = 1, .page_kb = 64});
    expect_copies(*storage, sample_firmware(), 1088, 65536);
    EXPECT_EQ(storage->m_idb_total_sector, 128U);
}

}  // namespace
