#include "small_firmware.h"

namespace robustness {

using namespace test_support;

SparseImage small_sparse_image() {
    SparseImage image;
    image.block_size = 512;
    image.chunks = {SparseChunk::raw(patterned(512, 31), 512), SparseChunk::fill(0x12345678, 2),
                    SparseChunk::dont_care(3), SparseChunk::crc(0xC0FFEE00),
                    SparseChunk::raw(patterned(1024, 32), 512)};
    return image;
}

Firmware small_firmware(const SampleOptions& options) {
    Firmware firmware = sample_firmware(options);
    firmware.boot.entries_471.entries[0].data = patterned(24, 11);
    firmware.boot.entries_472.entries[0].data = patterned(40, 12);
    firmware.boot.loader.entries[0].data = patterned(600, 13);
    firmware.boot.loader.entries[1].data = patterned(520, 14);

    // Close after the boot block copies, so that the images stay small.
    const uint32_t first = 0x500;
    const std::string text = parameter_text({{"boot", first, 0x10},
                                             {"rootfs:bootable", first + 0x10, 0x20},
                                             {"data:grow", first + 0x30, std::nullopt}},
                                            options.gpt, {{"rootfs", kSampleUuid}});
    firmware.item_alignment = 16;
    firmware.items = {parameter_item(text, 0x40), partition_item("boot", first, 0x10, patterned(700, 15)),
                      partition_item("rootfs", first + 0x10, 0x20, small_sparse_image().build()),
                      partition_item("data", first + 0x30, kGrowsToEnd, patterned(100, 16))};
    return firmware;
}

Bytes small_container(bool scramble_stages) {
    return small_firmware({.scramble_stages = scramble_stages}).boot.build();
}

}  // namespace robustness
