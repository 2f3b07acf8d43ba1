#pragma once

#include "QZImage.h"

#include <cstdint>
#include <string>
#include <vector>

/// flash_offset of an item that is not written to the storage.
constexpr uint32_t kNotOnStorage = 0xFFFFFFFF;

/// Data position of the item in bytes from the package start, widened by the large-item mark ('H' at item
/// byte 82).
uint64_t item_data_offset(const STRUCT_QZIMAGE_ITEM& item);

/// Data length of the item in bytes, widened by the large-item mark ('H' at item byte 87).
uint64_t item_data_size(const STRUCT_QZIMAGE_ITEM& item);

/// Name of the item; it ends at its NUL or after 32 bytes.
std::string item_name(const STRUCT_QZIMAGE_ITEM& item);

/// Reads size bytes of the item's data from position on. False as CQZImage::GetData.
bool read_item_data(CQZImage& image, const STRUCT_QZIMAGE_ITEM& item, uint64_t position, uint32_t size,
                    uint8_t* out);

/// What read_item_table returns.
enum class ItemTableResult {
    kRead,
    kNoHeader,  ///< the package header cannot be read
    kNoTable,   ///< the table cannot be read, or has more than 583 items
    kNoItems,   ///< the count is below 1
};

/// Appends the items of the package's table, in its order.
ItemTableResult read_item_table(CQZImage& image, std::vector<STRUCT_QZIMAGE_ITEM>& items);
