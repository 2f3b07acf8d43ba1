#include "output_map.h"

#include <algorithm>

int OutputMap::open(const std::string& path, OpenMode /*mode*/, uint64_t& size) {
    size = 0;
    m_file = path;
    std::erase_if(m_extents, [&](const Extent& extent) { return extent.file == path; });
    begin_part({});
    return 0;
}

int OutputMap::bytes(uint64_t offset, const uint8_t* /*bytes*/, uint64_t count) {
    note(offset, count);
    return 0;
}

int OutputMap::zeros(uint64_t offset, uint64_t count) {
    note(offset, count);
    return 0;
}

void OutputMap::begin_part(const OutputPart& part) {
    m_part = part;
    m_new_part = true;
}

void OutputMap::note(uint64_t offset, uint64_t count) {
    if (count == 0)
        return;
    if (m_new_part || m_extents.back().offset + m_extents.back().bytes != offset)
        m_extents.push_back({m_part, m_file, offset, 0});
    m_new_part = false;
    m_extents.back().bytes += count;
}

bool OutputMap::is_written_again(const Extent& extent, uint64_t begin, uint64_t end) const {
    const auto after = m_extents.begin() + (&extent - m_extents.data()) + 1;
    return std::any_of(after, m_extents.end(), [&](const Extent& later) {
        return later.file == extent.file && later.offset < end && begin < later.offset + later.bytes;
    });
}
