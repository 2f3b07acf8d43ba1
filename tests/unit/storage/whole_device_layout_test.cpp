// Where eMMC and SPI NOR put the boot block; whole images are in conversion/.

#include "storage_fixture.h"

namespace storage_test {
namespace {

// Of the block as whole pages, as whole erase blocks, and of the start of its second copy: sectors.
struct LayoutCase {
    uint32_t block_kb, page_rounded, total, second = 1088;
};

template <typename Storage>
class WholeDeviceTest : public StorageTest {
protected:
    // Preparing only computes: position and content of the output stay.
    void expect_layout(const LayoutCase& wanted, uint32_t upper_limit) const {
        SCOPED_TRACE(std::to_string(wanted.block_kb) + " KB, " + std::to_string(wanted.page_rounded));
        const auto storage = make<Storage>({.block_kb = wanted.block_kb});
        storage->m_fout.open(out_path("out_image.img"));
        storage->m_fout.write("abc", 3);
        storage->m_idb_total_sector = wanted.page_rounded;
        EXPECT_EQ(output_of([&] { EXPECT_TRUE(storage->prepare_write_idblock()); }), "");
        EXPECT_EQ(storage->m_idb_total_sector, wanted.total);
        EXPECT_EQ(storage->m_idb_start_sector, 64U);
        EXPECT_EQ(storage->m_idb_second_start_sector, wanted.second);
        EXPECT_EQ(storage->m_idb_copy, 2);
        EXPECT_EQ(storage->m_idb_upper_limit, upper_limit);
        EXPECT_EQ(storage->m_fout.tellp(), 3);
        storage->close_output();
        EXPECT_EQ(to_text(out_image()), "abc");
    }

    void expect_geometry(ENUM_FLASH_TYPE type) const {
        const auto storage = make<Storage>({.block_kb = 64, .page_kb = 4, .oob_bytes = 5, .page_2k = true});
        EXPECT_EQ(storage->m_type, type);
        EXPECT_EQ(storage->m_block_size, 65536U);
        EXPECT_EQ(storage->m_page_size, 4096U);
        EXPECT_EQ(storage->m_oob_size, 5U);
        EXPECT_TRUE(storage->m_page_2k);
        EXPECT_EQ(storage->m_in_firmware, firmware_path().string());
        EXPECT_EQ(storage->m_out_dir, out_dir().string());
    }
};

using EmmcLayoutTest = WholeDeviceTest<Exposed<CEmmcStorage>>;
using NorLayoutTest = WholeDeviceTest<Exposed<CNorStorage>>;

TEST_F(EmmcLayoutTest, ConstructorPassesTheGeometryOn) {
    expect_geometry(FLASH_EMMC);
}

TEST_F(NorLayoutTest, ConstructorPassesTheGeometryOn) {
    expect_geometry(FLASH_NOR);
}

TEST_F(EmmcLayoutTest, BlockTakesWholeEraseBlocksAtFixedSectors) {
    const LayoutCase cases[] = {{512, 300, 1024},    {512, 1, 1024},    {512, 1023, 1024}, {512, 1024, 1024},
                                {512, 1025, 2048},   {512, 2048, 2048}, {512, 2049, 3072}, {4096, 16, 8192},
                                {4096, 8193, 16384}, {1, 16, 16},       {1, 17, 18},       {4, 12, 16},
                                {96, 193, 384}};
    for (const LayoutCase& wanted : cases)
        expect_layout(wanted, 8192);
}

// The boundary after a first copy of 2^31 sectors is sector 2^32, which is 0 in 32 bits.
TEST_F(NorLayoutTest, SecondCopyStartsOnThe64KBBoundary) {
    const LayoutCase cases[] = {
        {64, 200, 256, 384}, {4, 12, 16, 128},        {64, 128, 128, 256}, {64, 129, 256, 384},
        {64, 1, 128, 256},   {32, 64, 64, 128},       {32, 65, 128, 256},  {4, 64, 64, 128},
        {4, 65, 72, 256},    {4, 63, 64, 128},        {1, 16, 16, 128},    {512, 300, 1024, 2048},
        {96, 193, 384, 640}, {4096, 16, 8192, 16384}, {2, 61, 64, 128},    {0x40000000, 16, 0x80000000, 0}};
    for (const LayoutCase& wanted : cases)
        expect_layout(wanted, 2048);
}

}  // namespace
}  // namespace storage_test
