#pragma once

#include "../io/byte_buffer.h"

#include <cstdint>
#include <functional>
#include <span>

/// The pages of an image, one after the other in memory of their own: whoever gets one may change it.
/// Several are read at once, with the last page of the image filled up.
class PageSource {
public:
    /// Reads size bytes of the image from position on to out. False when they cannot be read.
    using Read = std::function<bool(uint64_t position, uint32_t size, uint8_t* out)>;

    /// An image of image_size bytes in pages of page_size bytes (not 0).
    PageSource(Read read, uint64_t image_size, uint32_t page_size, uint8_t fill_byte);

    /// False when there is no memory for a page.
    explicit operator bool() const { return static_cast<bool>(m_buffer); }

    /// Whole pages from number first of the image on: at least one, and most at most (not 0). Valid until the
    /// next call. Empty when page first cannot be read.
    std::span<uint8_t> pages(uint32_t first, uint32_t most);

    /// A page of memory; the pages shown last are no longer valid.
    uint8_t* page() { return m_buffer.data(); }

private:
    bool read_pages(uint64_t position, uint64_t size);

    Read m_read;
    uint64_t m_image_size;
    uint64_t m_page_size;
    uint8_t m_fill_byte;
    bool m_one_by_one = false;  // since a run of pages could not be read
    ByteBuffer m_buffer;
};
