// Where SPI NOR puts the boot block; whole images are in conversion/.

#include "whole_device_fixture.h"

namespace {

using namespace storage_test;
using namespace test_support;

using Nor = Exposed<CNorStorage>;

using NorLayoutTest = WholeDeviceTest;

TEST_F(NorLayoutTest, ConstructorPassesTheGeometryOn) {
    const Geometry geometry{.block_kb = 64, .page_kb = 1, .oob_bytes = 5, .page_2k = true};
    expect_geometry(*make<Nor>(geometry), FLASH_NOR, geometry);
}

TEST_F(NorLayoutTest, SecondCopyStartsOnThe64KBBoundary) {
    const struct {
        uint32_t block_kb, page_rounded, total, second;
    } cases[] = {
        {64, 200, 256, 384}, {4, 12, 16, 128},        {64, 128, 128, 256}, {64, 129, 256, 384},
        {64, 1, 128, 256},   {32, 64, 64, 128},       {32, 65, 128, 256},  {4, 64, 64, 128},
        {4, 65, 72, 256},    {4, 63, 64, 128},        {1, 16, 16, 128},    {512, 300, 1024, 2048},
        {96, 193, 384, 640}, {4096, 16, 8192, 16384}, {2, 61, 64, 128},
    };
    for (const auto& wanted : cases) {
        const auto storage = make<Nor>({.block_kb = wanted.block_kb});
        storage->m_idb_total_sector = wanted.page_rounded;
        EXPECT_TRUE(storage->prepare_write_idblock());
        EXPECT_EQ(storage->m_idb_total_sector, wanted.total)
            << wanted.block_kb << ", " << wanted.page_rounded;
        EXPECT_EQ(storage->m_idb_start_sector, 64U);
        EXPECT_EQ(storage->m_idb_second_start_sector, wanted.second)
            << wanted.block_kb << ", " << wanted.page_rounded;
        EXPECT_EQ(storage->m_idb_copy, 2);
        EXPECT_EQ(storage->m_idb_upper_limit, 2048U);
    }
}

// The boundary after a first copy of 2^31 sectors is sector 2^32, which is 0 in 32 bits.
TEST_F(NorLayoutTest, BoundaryThatWrapsToZeroStaysZero) {
    const auto storage = make<Nor>({.block_kb = 0x40000000});
    ASSERT_EQ(storage->m_block_size_sector, 0x80000000U);
    storage->m_idb_total_sector = 16;
    EXPECT_TRUE(storage->prepare_write_idblock());
    EXPECT_EQ(storage->m_idb_total_sector, 0x80000000U);
    EXPECT_EQ(storage->m_idb_second_start_sector, 0U);
}

TEST_F(NorLayoutTest, PreparingLeavesTheOutputAsItIs) {
    expect_preparing_leaves_output(*make<Nor>());
}

}  // namespace
