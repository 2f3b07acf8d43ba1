#pragma once

#include "QZImage.h"

#include <cstdint>
#include <string>
#include <vector>

/// flash_offset of an item that is not written to the storage.
constexpr uint32_t kNotOnStorage = 0xFFFFFFFF;

/// Offset of the item's data in bytes from the start of the package. If item byte 82 is 'H', the 32 bits
/// after it are the high half.
uint64_t item_data_offset(const STRUCT_QZIMAGE_ITEM& item);

/// Size of the item's data in bytes. If item byte 87 is 'H', the 32 bits after it are the high half.
uint64_t item_data_size(const STRUCT_QZIMAGE_ITEM& item);

/// Name of the item, up to its NUL or to 32 bytes.
std::string item_name(const STRUCT_QZIMAGE_ITEM& item);

/// Reads size bytes at a position in the item's data. False as CQZImage::GetData.
bool read_item_data(CQZImage& image, const STRUCT_QZIMAGE_ITEM& item, uint64_t position, uint32_t size,
                    uint8_t* out);

/// What read_item_table returns.
enum class ItemTableResult {
    kRead,
    kNoHeader,  ///< the package header cannot be read
    kNoTable,   ///< the table cannot be read, or has more than 583 items
    kNoItems,   ///< the count is below 1
};

/// Appends the items of the package to items, in the order of their table.
ItemTableResult read_item_table(CQZImage& image, std::vector<STRUCT_QZIMAGE_ITEM>& items);
