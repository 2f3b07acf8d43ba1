#include "dump.h"

#include "../base/places.h"
#include "../base/result.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace {

// A mark has at least this many bits of 0: a good block's byte of 0xFF may have lost some.
constexpr int kLeastZerosOfMark = 5;

}  // namespace

uint64_t Dump::bytes_after_header() const {
    return m_target.size() - std::min(m_target.size(), m_format.header);
}

uint64_t Dump::blocks() const {
    return divided_up(bytes_after_header(), m_format.block_stride());
}

uint64_t Dump::place_of(uint64_t block, uint64_t byte_of_pages) const {
    return m_format.header + block * m_format.block_stride() +
           byte_of_pages / m_format.page * m_format.page_stride() + byte_of_pages % m_format.page;
}

DumpBytes Dump::read(uint64_t block, uint64_t first, uint64_t count, uint8_t* out) {
    DumpBytes bytes;
    uint64_t run = 0;
    for (uint64_t done = 0; done < count && bytes.there == done; done += run) {
        const uint64_t together =
            m_format.page_spare == 0 ? count : m_format.page - (first + done) % m_format.page;
        run = std::min(together, count - done);
        read_run(place_of(block, first + done), run, out + done, done, bytes);
    }
    return bytes;
}

/// Reads bytes that lie together. After a read that failed it goes sector by sector.
void Dump::read_run(uint64_t offset, uint64_t count, uint8_t* out, uint64_t done, DumpBytes& bytes) {
    if (const auto got = m_target.read(offset, count, out)) {
        bytes.there += *got;
        return;
    }
    for (uint64_t at = 0; at < count;) {
        const uint64_t part = std::min(count - at, kSector - (offset + at) % kSector);
        auto got = m_target.read(offset + at, part, out + at);
        if (!got) {
            std::memset(out + at, 0, part);
            bytes.unreadable.push_back({done + at, done + at + part});
            got = part;
        }
        bytes.there += *got;
        if (*got != part)
            return;
        at += part;
    }
}

bool Dump::is_marked(uint64_t block) {
    for (uint64_t page = 0; page < std::min<uint64_t>(m_format.block_pages, 2); ++page) {
        if (m_format.page_spare == 0)
            return false;
        uint8_t mark = 0xFF;
        const uint64_t place = place_of(block, page * m_format.page) + m_format.page;
        if (m_target.read(place, 1, &mark) == 1 && std::popcount(mark) <= 8 - kLeastZerosOfMark)
            return true;
    }
    return false;
}
