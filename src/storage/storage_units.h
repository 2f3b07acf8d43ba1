#pragma once

#include <cstdint>

constexpr uint32_t kSectorSize = 512;

/// Partition size that means "up to the end of the device", in items and in the parameter text.
constexpr uint32_t kGrowingPartition = 0xFFFFFFFF;

/// Bytes of data in a flash page when it takes only 2 KB of data.
constexpr uint32_t kDataPerPage2k = 2048;

/// Number of units of size unit (not 0) that cover amount, cut to 32 bits.
constexpr uint32_t page_count(uint64_t amount, uint32_t unit) {
    return amount == 0 ? 0 : static_cast<uint32_t>((amount - 1) / unit + 1);
}

/// sectors rounded up to whole erase blocks of block_sectors (not 0), at least one block. Wraps at 32 bits.
constexpr uint32_t whole_blocks(uint32_t sectors, uint32_t block_sectors) {
    return sectors <= block_sectors ? block_sectors : ((sectors - 1) / block_sectors + 1) * block_sectors;
}
