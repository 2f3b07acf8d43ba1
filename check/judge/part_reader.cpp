#include "part_reader.h"

#include <algorithm>
#include <utility>

namespace {

constexpr uint64_t kDataPerPage = 2048;  // of a page with 2 KB of data

}  // namespace

uint64_t pages_together(const PageLayout& layout) {
    return layout.two_kb && layout.page_data > kDataPerPage
               ? (layout.page_data + kDataPerPage - 1) / kDataPerPage
               : 1;
}

uint64_t place_of_data(const PageLayout& layout, uint64_t position, uint64_t& together) {
    if (!layout.spare_areas && !(layout.two_kb && layout.page_data > kDataPerPage)) {
        together = UINT64_MAX - position;
        return position;
    }
    uint64_t page = position / layout.page_data;
    uint64_t within = position % layout.page_data;
    together = layout.page_data - within;
    if (layout.two_kb && layout.page_data > kDataPerPage) {
        page = page * pages_together(layout) + within / kDataPerPage;
        within %= kDataPerPage;
        together = std::min(together, kDataPerPage - within);
    }
    if (layout.spare_areas) {
        together = std::min(together, kUnitData - within % kUnitData);
        within = within / kUnitData * kUnit + within % kUnitData;
    }
    return page * layout.page + within;
}

uint64_t data_bytes(const PageLayout& layout, uint64_t bytes) {
    return bytes / layout.page / pages_together(layout) * layout.page_data;
}

ReadPart part_reader(ReadFile read, uint64_t offset, const PageLayout& layout) {
    return [read = std::move(read), offset, layout](uint64_t position, std::size_t size, uint8_t* out) {
        while (size != 0) {
            uint64_t together = 0;
            const uint64_t place = offset + place_of_data(layout, position, together);
            const auto part = static_cast<std::size_t>(std::min<uint64_t>(size, together));
            if (!read(place, part, out))
                return false;
            position += part;
            out += part;
            size -= part;
        }
        return true;
    };
}

ReadPart part_reader(Target& target, uint64_t offset, const PageLayout& layout) {
    return part_reader([&target](uint64_t place, uint64_t size,
                                 uint8_t* out) { return target.read(place, size, out) == size; },
                       offset, layout);
}
