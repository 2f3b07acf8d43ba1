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

Firmware small_firmware(const SmallFirmwareOptions& options) {
    Firmware firmware;
    firmware.boot.rc4_flag = options.scramble_stages ? 1 : 0;
    firmware.boot.entries_471.entries = {{.name = "MemoryInit", .data = patterned(24, 11), .delay = 1}};
    firmware.boot.entries_472.entries = {{.name = "UsbLoader", .data = patterned(40, 12), .delay = 2}};
    firmware.boot.loader.entries = {{.name = "FlashData", .data = patterned(600, 13)},
                                    {.name = "FlashBoot", .data = patterned(520, 14)}};

    // Close after the boot block copies, so that the images stay small.
    const uint32_t first = 0x500;
    const Partition boot{"boot", first, 0x10};
    const Partition rootfs{"rootfs:bootable", first + 0x10, 0x20};
    const Partition data{"data:grow", first + 0x30, std::nullopt};
    const std::string text = parameter_text({boot, rootfs, data}, options.gpt,
                                            {{"rootfs", "7a3c19e4-52d0-4f6b-9e81-c0ffee123456"}});
    firmware.item_alignment = 16;
    firmware.items = {
        {.name = "parameter", .file = "parameter.txt", .part_size = 0x40, .data = parameter_record(text)},
        {.name = "boot",
         .file = "boot.img",
         .part_size = *boot.size,
         .flash_offset = boot.offset,
         .data = patterned(700, 15)},
        {.name = "rootfs",
         .file = "rootfs.img",
         .part_size = *rootfs.size,
         .flash_offset = rootfs.offset,
         .data = small_sparse_image().build()},
        {.name = "data",
         .file = "data.img",
         .part_size = kGrowsToEnd,
         .flash_offset = data.offset,
         .data = patterned(100, 16)},
    };
    return firmware;
}

Bytes small_container(bool scramble_stages) {
    return small_firmware({.scramble_stages = scramble_stages}).boot.build();
}

}  // namespace robustness
