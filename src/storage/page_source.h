#pragma once

#include "../io/byte_buffer.h"

#include <cstdint>
#include <functional>
#include <span>

/// Reads size bytes at a position in an image to out. False when they cannot be read.
using ReadImage = std::function<bool(uint64_t position, uint32_t size, uint8_t* out)>;

/// The pages of an image, read several at once into memory of their own, where they may be changed. Fill
/// bytes follow the image in its last page.
class PageSource {
public:
    /// An image of image_size bytes in pages of page_size bytes (not 0).
    PageSource(ReadImage read, uint64_t image_size, uint32_t page_size, uint8_t fill_byte);

    /// An image in memory, which outlives the source and does not change.
    PageSource(const ByteBuffer& image, uint32_t page_size, uint8_t fill_byte);

    /// False when there is no memory for a page.
    explicit operator bool() const { return static_cast<bool>(m_buffer); }

    /// The bytes of whole pages from page number on: at least one page and at most limit (not 0). Valid until
    /// the next call. Empty when this page cannot be read.
    std::span<uint8_t> pages(uint32_t number, uint32_t limit);

    /// Memory of one page. Makes the bytes that pages returned last invalid.
    uint8_t* page() { return m_buffer.data(); }

private:
    bool read_pages(uint64_t position, uint64_t size);

    ReadImage m_read;
    uint64_t m_image_size;
    uint64_t m_page_size;
    uint8_t m_fill_byte;
    bool m_one_by_one = false;  // since several pages could not be read at once
    ByteBuffer m_buffer;
};
