// Page sizes from the command line that wrap at 32 bits where they are counted in bytes or in sectors.

#include "partition_fixture.h"

namespace storage_test {
namespace {

using WrappedSizes = StorageTest;

// -p 4194305: a page of 1 KB that has 8,388,610 sectors, more than the whole table, which is 17 KB.
TEST_F(WrappedSizes, GptIsMadeInMoreRoomThanItsPages) {
    using Recorder = Recording<CEmmcStorage>;
    const Firmware firmware = sample_firmware({.gpt = true});
    STRUCT_QZIMAGE_ITEM parameter = item_in(firmware, 0);
    const auto table = [&](uint32_t page_sectors) {
        const auto storage = make<Recorder>({.page_kb = 1});
        load(*storage, firmware);
        EXPECT_TRUE(storage->make_param_buffer(parameter));
        storage->m_page_size_sector = page_sectors;
        std::srand(1);
        EXPECT_EQ(output_of([&] { EXPECT_EQ(storage->write_gpt(parameter), 0); }),
                  line("writing gpt...") + redrawn("writing gpt...OK"));
        return storage->recorded_bytes();
    };
    const Bytes whole = table(2);
    ASSERT_EQ(whole.size(), 17U * 1024);
    EXPECT_TRUE(same_bytes(table(4194305U * 2), slice(whole, 0, 1024)));
}

// -p 4067204 -s 64: the units take 4 GiB and 128 bytes, more than the page and its spare area.
TEST_F(WrappedSizes, SpareAreaIsTooSmallForUnitsOf4Gib) {
    if (!kMemoryCanBeLimited)
        GTEST_SKIP() << "needs a build without sanitizers or emulator";
    const auto storage = make<Exposed<CSlcStorage>>({.page_kb = 4067204, .oob_bytes = 64}, false);
    storage->m_fout.open(out_path("pages.img").string());
    Bytes data = patterned(1024, 1);  // not looked at
    const MemoryLimit limit(256 * 1024 * 1024);
    EXPECT_EQ(output_of([&] { EXPECT_FALSE(storage->write_page(data.data(), storage->m_page_size)); }),
              error_line("size of oob is not enough"));
    EXPECT_EQ(storage->m_write_failure.error, 0);
}

}  // namespace
}  // namespace storage_test
