#include "boot_rom.h"

namespace test_support {

namespace {

namespace sector0_field {
constexpr std::size_t kTag = 0, kReserved = 4, kRc4Flag = 8, kCode1Offset = 12, kCode2Offset = 14;
constexpr std::size_t kReserved1 = 16, kReserved1Bytes = 490, kDataSize = 506, kCodeSize = 508, kCrc = 510;
}  // namespace sector0_field

namespace sector1_field {
constexpr std::size_t kReservedBlocks = 0, kDisk0Size = 2, kReserved0 = 4, kChipTag = 10, kReserved = 14;
}  // namespace sector1_field

bool stages_fit(const Bytes& image, uint64_t first_sector, uint64_t sectors) {
    return (first_sector + sectors) * kSectorSize <= image.size();
}

Bytes sectors_of(const Bytes& image, uint64_t first, uint64_t count) {
    return slice(image, static_cast<std::size_t>(first * kSectorSize),
                 static_cast<std::size_t>(count * kSectorSize));
}

bool zero(const Bytes& bytes, std::size_t offset, std::size_t size) {
    return all_bytes_are(bytes, 0, offset, size);
}

void take_header(const Bytes& header, BootBlock& block) {
    const Bytes first = rc4_scrambled(slice(header, 0, kSectorSize));
    const Bytes second = slice(header, kSectorSize, kSectorSize);
    const Bytes third = rc4_scrambled(slice(header, 2 * kSectorSize, kSectorSize));
    const Bytes fourth = rc4_scrambled(slice(header, 3 * kSectorSize, kSectorSize));

    block.tag = get32(first, sector0_field::kTag);
    block.rc4_flag = get32(first, sector0_field::kRc4Flag);
    block.boot_code1_offset = get16(first, sector0_field::kCode1Offset);
    block.boot_code2_offset = get16(first, sector0_field::kCode2Offset);
    block.boot_data_size = get16(first, sector0_field::kDataSize);
    block.boot_code_size = get16(first, sector0_field::kCodeSize);
    block.crc = get16(first, sector0_field::kCrc);

    block.reserved_blocks = get16(second, sector1_field::kReservedBlocks);
    block.disk0_size = get16(second, sector1_field::kDisk0Size);
    block.chip_tag = to_text(slice(second, sector1_field::kChipTag, 4));

    block.reserved_zero = zero(first, sector0_field::kReserved, 4) &&
                          zero(first, sector0_field::kReserved1, sector0_field::kReserved1Bytes) &&
                          zero(second, sector1_field::kReserved0, 6) &&
                          zero(second, sector1_field::kReserved, kSectorSize - sector1_field::kReserved) &&
                          zero(third, 0, kSectorSize) && zero(fourth, 0, kSectorSize);
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
    if (!stages_fit(image, sector, kBootHeaderSectors)) {
        block.errors.push_back("the image ends before the header sectors");
        return block;
    }
    take_header(sectors_of(image, sector, kBootHeaderSectors), block);
    if (block.tag != kBootBlockTag)
        block.errors.push_back("no boot block tag");
    if (block.boot_code1_offset != kBootHeaderSectors)
        block.errors.push_back("the first stage does not start after the header sectors");
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
