#include "item_table.h"

#include "../common/byte_reader.h"

#include <cstddef>
#include <cstring>

namespace {

// Positions in the file field of an item (item bytes 82 and 87).
constexpr std::size_t kOffsetMark = 50;
constexpr std::size_t kSizeMark = 55;

constexpr int64_t kTableBufferSize = 65536;  // an item table of up to 583 items
constexpr int64_t kTableUnit = 2048;         // the package is read up to a multiple of this
constexpr int64_t kFirstItemPosition = offsetof(tagQZIMAGE_HDR, item);
constexpr int64_t kItemSize = sizeof(STRUCT_QZIMAGE_ITEM);

uint64_t widened(uint32_t low, const char* mark) {
    const uint64_t high = *mark == 'H' ? little_endian_at<uint32_t>(mark + 1) : 0;
    return high << 32 | low;
}

int64_t item_count_of(const tagQZIMAGE_HDR& header) {
    int64_t count = header.item_count;
    if (header.manufacturer[56] == 'U' && header.manufacturer[57] == 'f')
        count += little_endian_at<uint16_t>(header.manufacturer + 58);
    return count;
}

}  // namespace

uint64_t item_data_offset(const STRUCT_QZIMAGE_ITEM& item) {
    return widened(item.offset, item.file + kOffsetMark);
}

uint64_t item_data_size(const STRUCT_QZIMAGE_ITEM& item) {
    return widened(item.size, item.file + kSizeMark);
}

std::string item_name(const STRUCT_QZIMAGE_ITEM& item) {
    return {item.name, ::strnlen(item.name, sizeof(item.name))};
}

bool read_item_data(CQZImage& image, const STRUCT_QZIMAGE_ITEM& item, uint64_t position, uint32_t size,
                    uint8_t* out) {
    const uint64_t package = image.FWOffset;
    return image.GetData(package + item_data_offset(item) + position, size, out);
}

ItemTableResult read_item_table(CQZImage& image, std::vector<STRUCT_QZIMAGE_ITEM>& items) {
    tagQZIMAGE_HDR header;
    const uint64_t package = image.FWOffset;
    if (!image.GetData(package, sizeof(header), reinterpret_cast<uint8_t*>(&header)))
        return ItemTableResult::kNoHeader;

    const int64_t count = item_count_of(header);
    const int64_t table_end = count * kItemSize + kFirstItemPosition;
    // With some counts below 0 the length is 0. That is not an error here.
    const int64_t length = (table_end + kTableUnit - 1) / kTableUnit * kTableUnit;
    std::vector<uint8_t> table(kTableBufferSize);
    if (length < 0 || length > kTableBufferSize ||
        !image.GetData(package, static_cast<uint32_t>(length), table.data()))
        return ItemTableResult::kNoTable;
    if (count < 1)
        return ItemTableResult::kNoItems;

    const ByteReader reader(table.data(), static_cast<uint64_t>(length));
    for (int64_t i = 0; i < count; ++i) {
        STRUCT_QZIMAGE_ITEM item{};
        reader.read(static_cast<uint64_t>(kFirstItemPosition + i * kItemSize), item);
        items.push_back(item);
    }
    return ItemTableResult::kRead;
}
