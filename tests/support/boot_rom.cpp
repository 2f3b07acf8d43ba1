#include "boot_rom.h"

namespace test_support {

namespace {

namespace sector0_field {
constexpr std::size_t tag = 0, reserved = 4, rc4_flag = 8, code1_offset = 12, code2_offset = 14;
constexpr std::size_t reserved1 = 16, reserved1_bytes = 490, data_size = 506, code_size = 508, crc = 510;
}  // namespace sector0_field

namespace sector1_field {
constexpr std::size_t reserved_blocks = 0, disk0_size = 2, reserved0 = 4, chip_tag = 10, reserved = 14;
}  // namespace sector1_field

bool stages_fit(const Bytes& image, uint64_t first_sector, uint64_t sectors) {
    return (first_sector + sectors) * sector_size <= image.size();
}

Bytes sectors_of(const Bytes& image, uint64_t first, uint64_t count) {
    return slice(image, static_cast<std::size_t>(first * sector_size),
                 static_cast<std::size_t>(count * sector_size));
}

bool zero(const Bytes& bytes, std::size_t offset, std::size_t size) {
    return all_bytes_are(bytes, 0, offset, size);
}

void take_header(const Bytes& header, BootBlock& block) {
    const Bytes first = rc4_scrambled(slice(header, 0, sector_size));
    const Bytes second = slice(header, sector_size, sector_size);
    const Bytes third = rc4_scrambled(slice(header, 2 * sector_size, sector_size));
    const Bytes fourth = rc4_scrambled(slice(header, 3 * sector_size, sector_size));

    block.tag = get32(first, sector0_field::tag);
    block.rc4_flag = get32(first, sector0_field::rc4_flag);
    block.boot_code1_offset = get16(first, sector0_field::code1_offset);
    block.boot_code2_offset = get16(first, sector0_field::code2_offset);
    block.boot_data_size = get16(first, sector0_field::data_size);
    block.boot_code_size = get16(first, sector0_field::code_size);
    block.crc = get16(first, sector0_field::crc);

    block.reserved_blocks = get16(second, sector1_field::reserved_blocks);
    block.disk0_size = get16(second, sector1_field::disk0_size);
    block.chip_tag = to_text(slice(second, sector1_field::chip_tag, 4));

    block.reserved_zero = zero(first, sector0_field::reserved, 4) &&
                          zero(first, sector0_field::reserved1, sector0_field::reserved1_bytes) &&
                          zero(second, sector1_field::reserved0, 6) &&
                          zero(second, sector1_field::reserved, sector_size - sector1_field::reserved) &&
                          zero(third, 0, sector_size) && zero(fourth, 0, sector_size);
}

void take_stages(const Bytes& image, uint64_t sector, BootBlock& block) {
    const uint64_t first_stage = sector + block.boot_code1_offset;
    const uint64_t second_stage = first_stage + block.boot_data_size;
    const auto second_sectors = static_cast<uint64_t>(block.boot_code_size - block.boot_data_size);
    block.stored_stage1 = sectors_of(image, first_stage, block.boot_data_size);
    block.stored_stage2 = sectors_of(image, second_stage, second_sectors);
    const bool scrambled = block.rc4_flag != 0;
    block.stage1 = scrambled ? rc4_scrambled_by_sector(block.stored_stage1) : block.stored_stage1;
    block.stage2 = scrambled ? rc4_scrambled_by_sector(block.stored_stage2) : block.stored_stage2;
}

}  // namespace

BootBlock read_boot_block(const Bytes& image, uint64_t sector) {
    BootBlock block;
    if (!stages_fit(image, sector, boot_header_sectors)) {
        block.errors.push_back("the image ends before the header sectors");
        return block;
    }
    take_header(sectors_of(image, sector, boot_header_sectors), block);
    if (block.tag != boot_block_tag)
        block.errors.push_back("no boot block tag");
    if (block.boot_code1_offset != boot_header_sectors)
        block.errors.push_back("the first stage does not start behind the header sectors");
    if (block.boot_code_size < block.boot_data_size)
        block.errors.push_back("the first stage is longer than both stages together");
    else if (!stages_fit(image, sector + block.boot_code1_offset, block.boot_code_size))
        block.errors.push_back("the image ends before the stages");
    if (block.errors.empty()) {
        take_stages(image, sector, block);
        block.found = true;
    }
    return block;
}

}  // namespace test_support
