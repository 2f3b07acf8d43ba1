#pragma once

// An output file as it grows.

#include "support/expected/flash_pages.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace test_support {

class ExpectedImage {
public:
    explicit ExpectedImage(std::size_t page_size = 2048, bool two_kilobytes_data = false)
        : m_page_size(page_size), m_two_kilobytes_data(two_kilobytes_data) {}

    const Bytes& bytes() const { return m_bytes; }

    // Whole pages from the sector on. Before it a gap is filled with zeros; a step across a gap counts one
    // page, but takes a page for every 2 KB of data.
    ExpectedImage& write(uint64_t sector, const Bytes& data) {
        const auto offset = static_cast<std::size_t>(sector * kSectorSize);
        if (m_bytes.size() < offset) {
            const std::size_t missing = offset - m_bytes.size();
            if (m_two_kilobytes_data)
                append(Bytes(round_up(missing, m_page_size), 0));
            else
                m_bytes.resize(offset, 0);
            m_position = m_bytes.size();
        } else {
            m_position = offset;
        }
        return append_at_position(padded(data, m_page_size));
    }

    // Whole pages of zeros up to the end of the erase block, or past it.
    ExpectedImage& pad_to_block(std::size_t block_size) {
        return append(Bytes(round_up(round_up(m_bytes.size(), block_size) - m_bytes.size(), m_page_size), 0));
    }

private:
    ExpectedImage& append(const Bytes& pages) {
        m_position = m_bytes.size();
        return append_at_position(pages);
    }

    ExpectedImage& append_at_position(const Bytes& pages) {
        const Bytes stored = m_two_kilobytes_data ? spread_pages(pages, m_page_size) : pages;
        m_bytes.resize(std::max(m_bytes.size(), m_position + stored.size()), 0);
        put_bytes_at(m_bytes, m_position, stored);
        m_position += stored.size();
        return *this;
    }

    std::size_t m_page_size;
    bool m_two_kilobytes_data;
    std::size_t m_position = 0;
    Bytes m_bytes{};
};

}  // namespace test_support
