#include "expected_image.h"
#include "partition_fixture.h"
#include "storage_fixture.h"
#include "whole_device_fixture.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace storage_test;
using namespace test_support;

using Nor = Exposed<CNorStorage>;

using NorLayoutTest = WholeDeviceTest;

TEST_F(NorLayoutTest, ConstructorPassesTheGeometryOn) {
    const Geometry geometry{.block_kb = 64, .page_kb = 1, .oob_bytes = 5, .page_2k = true};
    expect_geometry(*make<Nor>(geometry), FLASH_NOR, geometry);
}

TEST_F(NorLayoutTest, SecondCopyStartsOnThe64KBBoundaryBehindTheFirst) {
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

// The boundary behind a first copy of 2^31 sectors is sector 2^32, which is 0 in 32 bits.
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

TEST_F(NorLayoutTest, CopiesInWholeEraseBlocksOf4KB) {
    const auto storage = make<Nor>({.block_kb = 4, .page_kb = 1});
    expect_copies(*storage, sample_firmware({.scramble_stages = true}), 128, 8192);
    EXPECT_EQ(storage->m_idb_total_sector, 16U);
}

TEST_F(NorLayoutTest, EachCopyIsPaddedWithZerosToItsEraseBlock) {
    const auto storage = make<Nor>({.block_kb = 64, .page_kb = 2});
    expect_copies(*storage, sample_firmware(), 256, 65536);
    EXPECT_EQ(out_image().size(), 256U * 512 + 65536);
}

// A copy of 128 sectors is 22 pages of 6 sectors: four sectors of zeros behind it, still before the second.
TEST_F(NorLayoutTest, PageThatIsNoDivisorOfTheEraseBlockWritesItsZerosToo) {
    const auto storage = make<Nor>({.block_kb = 64, .page_kb = 3});
    expect_copies(*storage, sample_firmware(), 256, 22 * 3072);
    EXPECT_EQ(storage->m_idb_total_sector, 128U);
}

// Two blocks of 128 sectors with pages of 192 sectors: the last page of the first copy reaches sector 448,
// past the start of the second at 384.
TEST_F(NorLayoutTest, SecondCopyOverwritesTheZerosOfAPageThatReachesTooFar) {
    Firmware firmware = sample_firmware();
    firmware.boot.loader.entries[1].data = patterned(90000, 5);
    const auto storage = make<Nor>({.block_kb = 64, .page_kb = 96});
    expect_copies(*storage, firmware, 384, 2 * 98304);
    EXPECT_EQ(storage->m_idb_total_sector, 256U);
}

}  // namespace
