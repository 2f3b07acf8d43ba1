// Where eMMC puts the boot block; whole images are in conversion/.

#include "whole_device_fixture.h"

namespace {

using namespace storage_test;
using namespace test_support;

using Emmc = Exposed<CEmmcStorage>;
using EmmcLayoutTest = WholeDeviceTest;

TEST_F(EmmcLayoutTest, ConstructorPassesTheGeometryOn) {
    const Geometry geometry{.block_kb = 512, .page_kb = 4, .oob_bytes = 64, .page_2k = true};
    expect_geometry(*make<Emmc>(geometry), FLASH_EMMC, geometry);
}

TEST_F(EmmcLayoutTest, BlockTakesWholeEraseBlocksAtFixedSectors) {
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

}  // namespace
