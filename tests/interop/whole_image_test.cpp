// The image of eMMC and SPI NOR as others read it: the boot ROM, and the file system check.

#include "interop/sample.h"

namespace {

using namespace interop_test;

class WholeImage : public testing::TestWithParam<std::tuple<bool, bool>> {
protected:
    void expect_image(const Conversion& conversion, uint64_t second_copy) const {
        const auto& [gpt, sparse] = GetParam();
        const Sample& firmware = sample(gpt, sparse);
        const TemporaryDirectory directory;
        convert(firmware, conversion, directory / "out");
        const Bytes image = read_file(directory / "out/out_image.img");
        expect_boot_blocks(firmware, image, second_copy);
        expect_partitions(firmware, image);
        convert(firmware, conversion, directory / "again");
        EXPECT_TRUE(same_bytes(read_file(directory / "again/out_image.img"), image)) << "second run";
    }

private:
    static void expect_boot_blocks(const Sample& firmware, const Bytes& image, uint64_t second_copy) {
        expect_boot_block(image, 64, firmware);
        expect_boot_block(image, second_copy, firmware);
        const std::size_t distance = (second_copy - 64) * kSectorSize;
        EXPECT_TRUE(same_bytes(slice(image, second_copy * kSectorSize, distance),
                               slice(image, 64 * kSectorSize, distance)))
            << "second copy";
    }

    static void expect_partitions(const Sample& firmware, const Bytes& image) {
        const uint64_t first_sector = firmware.gpt() ? 0 : 8192;
        for (const PackedItem& item : firmware.items()) {
            if (item.name == "parameter")
                continue;
            SCOPED_TRACE(item.name);
            const Bytes& contents = firmware.contents(item);
            const std::size_t start = (item.flash_offset + first_sector) * kSectorSize;
            EXPECT_TRUE(same_bytes(slice(image, start, contents.size()), contents)) << item.name;
            if (item.part_size != kGrowsToEnd) {
                EXPECT_TRUE(all_bytes_are(image, 0, start + contents.size(),
                                          item.part_size * kSectorSize - contents.size()));
            }
            if (item.name == "rootfs")
                expect_clean_ext4(slice(image, start, contents.size()));
        }
    }
};

TEST_P(WholeImage, OfEmmcHoldsBootBlocksAndPartitions) {
    REQUIRE_SAMPLE_TOOLS();
    expect_image({"emmc", "512", "2"}, 1088);
}

// The boot block of the sample has 680 sectors: six blocks, the last of them up to sector 832.
TEST_P(WholeImage, OfSpiNorHoldsBootBlocksAndPartitions) {
    REQUIRE_SAMPLE_TOOLS();
    expect_image({"spinor", "64", "2"}, 896);
}

INSTANTIATE_TEST_SUITE_P(Sample, WholeImage, testing::Combine(testing::Bool(), testing::Bool()),
                         [](const auto& tested) {
                             return std::string(std::get<0>(tested.param) ? "WithGpt" : "WithParameter") +
                                    (std::get<1>(tested.param) ? "AndSparse" : "AndPlain");
                         });

}  // namespace
