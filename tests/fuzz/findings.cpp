// Inputs that once broke a target, described in code. Each stays, so that what it broke stays mended.

#include "fuzz_target.h"
#include "small_firmware.h"

namespace robustness {

using namespace test_support;

namespace {

// With a spare area that is too small every page of padding is refused with a line: a parameter partition of
// 2 TiB printed for hours.
NamedInput refused_padding_of_two_tebibytes() {
    Firmware firmware = small_firmware();
    firmware.item("parameter").part_size = 0xFFFFFFFE;
    constexpr uint8_t slc = 3;
    constexpr uint8_t spare_of_33_bytes = 5;
    return {"refused-padding-of-2-tebibytes", firmware.build() + Bytes{slc, 0, 0, spare_of_33_bytes}};
}

// A plain image of 4 TiB after a write that failed: the way to the verdict took a step for each of its pages,
// minutes in all.
NamedInput image_of_four_tebibytes_after_a_failure() {
    Firmware firmware = small_firmware({.gpt = true});
    firmware.item("boot").flash_offset = 0x8000;  // 16 MiB into the image, which the target limits to 6 MiB
    Item& data = firmware.item("data");
    data.flash_offset = 0x9000;
    data.size = (uint64_t{1} << 42) - 1024;
    constexpr uint8_t emmc = 0;
    constexpr uint8_t pages_of_1_kilobyte = 2;
    return {"image-of-4-tebibytes-after-a-failure",
            firmware.build() + Bytes{emmc, 0, pages_of_1_kilobyte, 0}};
}

// A sparse image of 256 TiB: its count of pages wraps to 0. Without a temporary file the bytes were made all
// the same, and dropped.
NamedInput sparse_image_of_256_tebibytes() {
    SparseImage image = small_sparse_image();
    image.block_size = 1U << 29;
    image.total_blocks = 1U << 19;
    image.chunks = {SparseChunk::raw(patterned(512, 31), image.block_size), SparseChunk::fill(0x12345678, 60),
                    SparseChunk::dont_care(6764)};
    Firmware firmware = small_firmware();
    firmware.item("rootfs").data = image.build();
    constexpr uint8_t spinand = 2;
    constexpr uint8_t like_a_file = 1 << 6;
    return {"sparse-image-of-256-tebibytes", firmware.build() + Bytes{spinand | like_a_file, 0, 0, 0}};
}

// With a spare area that is too small every page of a sparse image was refused with a line, and the next one
// was made: 256 GiB of them.
NamedInput refused_pages_of_a_sparse_image() {
    SparseImage image = small_sparse_image();
    image.block_size = 1U << 30;
    image.chunks = {SparseChunk::fill(0x12345678, 256)};
    Firmware firmware = small_firmware();
    firmware.item("rootfs").data = image.build();
    constexpr uint8_t slc = 3;
    constexpr uint8_t spare_of_33_bytes = 5;
    return {"refused-pages-of-a-sparse-image", firmware.build() + Bytes{slc, 0, 0, spare_of_33_bytes}};
}

#ifdef NANDSMITH_CHECK
// Pages with 2 KB of data hold larger pages together: fewer than one of those were extracted as nothing, and
// that was "same".
NamedInput chip_of_less_than_a_page_of_2k_pages() {
    constexpr uint8_t slc_2k = 2;
    constexpr uint8_t pages_of_64_kilobytes = 9;
    const Bytes without_the_first_block = {2, 0, 0,
                                           0};  // so that nothing is left after the last page of 64 KB
    return {"chip-of-less-than-a-page-of-2k-pages",
            without_the_first_block + Bytes{slc_2k, 0, 0, 0, 0, pages_of_64_kilobytes, 0, 0}};
}
#endif

}  // namespace

std::vector<NamedInput> findings_of(const FuzzTarget& target) {
    if (target.run == run_conversion)
        return {refused_padding_of_two_tebibytes(), image_of_four_tebibytes_after_a_failure(),
                sparse_image_of_256_tebibytes(), refused_pages_of_a_sparse_image()};
#ifdef NANDSMITH_CHECK
    if (target.run == run_dump)
        return {chip_of_less_than_a_page_of_2k_pages()};
#endif
    return {};
}

}  // namespace robustness
