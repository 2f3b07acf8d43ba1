#include "page_source.h"

#include "../io/block_reader.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <utility>

namespace {

/// Bytes of the fewest whole pages that a BlockReader does not read through its block.
uint64_t buffer_size(uint32_t page_size) {
    return (BlockReader::kBlockSize + page_size - 1) / page_size * page_size;
}

}  // namespace

PageSource::PageSource(ReadImage read, uint64_t image_size, uint32_t page_size, uint8_t fill_byte)
    : m_read(std::move(read)), m_image_size(image_size), m_page_size(page_size), m_fill_byte(fill_byte),
      m_buffer(buffer_size(page_size)) {}

PageSource::PageSource(const ByteBuffer& image, uint32_t page_size, uint8_t fill_byte)
    : PageSource(
          [&image](uint64_t position, uint32_t size, uint8_t* out) {
              std::memcpy(out, image.data() + position, size);
              return true;
          },
          image.size(), page_size, fill_byte) {}

std::span<uint8_t> PageSource::pages(uint32_t number, uint32_t limit) {
    const uint64_t position = number * m_page_size;
    uint64_t size = std::min(m_buffer.size(), limit * m_page_size);
    if (m_one_by_one || !read_pages(position, size)) {
        // The pages before the one that cannot be read are still returned.
        m_one_by_one = true;
        size = m_page_size;
        if (!read_pages(position, size))
            return {};
    }
    return {m_buffer.data(), static_cast<std::size_t>(size)};
}

/// Reads the size bytes of whole pages at position into the buffer, with fill bytes after the image.
bool PageSource::read_pages(uint64_t position, uint64_t size) {
    const uint64_t data = std::min(size, m_image_size > position ? m_image_size - position : 0);
    std::memset(m_buffer.data() + data, m_fill_byte, static_cast<std::size_t>(size - data));
    return m_read(position, static_cast<uint32_t>(data), m_buffer.data());
}
