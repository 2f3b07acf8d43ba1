#include "boot_rom.h"

namespace test_support {

namespace {

constexpr uint32_t kTag = 0x0FF0AA55;
constexpr uint16_t kHeaderSectors = 4;

Bytes sectors_of(const Bytes& image, uint64_t first, uint64_t count) {
    return slice(image, first * kSectorSize, count * kSectorSize);
}

// Reads the header sectors, and gives what is wrong with them.
std::vector<std::string> take_header(const Bytes& header, BootBlock& block) {
    const Bytes first = rc4_scrambled(sectors_of(header, 0, 1));
    const Bytes second = sectors_of(header, 1, 1);
    block.rc4_flag = get32(first, 8);
    block.boot_data_size = get16(first, 506);
    block.boot_code_size = get16(first, 508);
    block.chip_tag = to_text(slice(second, 10, 4));
    block.reserved_zero = all_bytes_are(first, 0, 4, 4) && all_bytes_are(first, 0, 16, 490) &&
                          all_bytes_are(second, 0, 4, 6) && all_bytes_are(second, 0, 14, kSectorSize - 14);
    for (const uint64_t sector : {2U, 3U})
        block.reserved_zero =
            block.reserved_zero && rc4_scrambled(sectors_of(header, sector, 1)) == Bytes(kSectorSize, 0);

    std::vector<std::string> errors;
    if (get32(first, 0) != kTag)
        errors.emplace_back("no boot block tag");
    if (get16(first, 12) != kHeaderSectors)
        errors.emplace_back("the first stage does not start after the header sectors");
    if (block.boot_code_size < block.boot_data_size)
        errors.emplace_back("the first stage is longer than both stages together");
    return errors;
}

Bytes stage(const Bytes& image, uint64_t sector, int sectors, const BootBlock& block) {
    const Bytes stored = sectors_of(image, sector, static_cast<uint64_t>(sectors));
    return block.rc4_flag != 0 ? rc4_scrambled_by_sector(stored) : stored;
}

}  // namespace

BootBlock read_boot_block(const Bytes& image, uint64_t sector) {
    BootBlock block;
    const uint64_t stages = sector + kHeaderSectors;
    if (stages * kSectorSize > image.size()) {
        block.errors = {"the image ends before the header sectors"};
        return block;
    }
    block.errors = take_header(sectors_of(image, sector, kHeaderSectors), block);
    if ((stages + block.boot_code_size) * kSectorSize > image.size())
        block.errors.emplace_back("the image ends before the stages");
    block.found = block.errors.empty();
    if (block.found) {
        block.stage1 = stage(image, stages, block.boot_data_size, block);
        block.stage2 =
            stage(image, stages + block.boot_data_size, block.boot_code_size - block.boot_data_size, block);
    }
    return block;
}

}  // namespace test_support
