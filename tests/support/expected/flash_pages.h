#pragma once

// Pages of data as they lie in an output file.

#include "support/bch_judge.h"
#include "support/bytes.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>

namespace test_support {

// 2 KB of each page in a flash page of its own.
inline Bytes spread_pages(const Bytes& data, std::size_t page_size, uint8_t fill = 0) {
    Bytes pages;
    for (std::size_t start = 0; start < data.size(); start += page_size)
        for (std::size_t at = 0; at < page_size; at += 2048)
            put_bytes(pages, padded(slice(data, start + at, std::min<std::size_t>(2048, page_size - at)),
                                    page_size, fill));
    return pages;
}

// Page size, spare area and list index of SLC NAND.
struct SlcFormat {
    std::size_t page_size = 2048;
    std::size_t spare = 64;
    bool two_kilobytes_data = false;
    uint32_t list_step = 4;
};

// The parity of a unit by the slow encoder. Many units are the same; each is encoded once.
inline Bytes slow_parity(const Bytes& message) {
    static std::map<std::string, Bytes> known;
    const auto [at, is_new] = known.try_emplace(to_text(message));
    if (is_new)
        at->second = bch_slow_parity(message.data(), 16);
    return at->second;
}

// One flash page of exactly one page of data: units of 1024 data bytes, 4 system bytes and 28 of parity.
inline Bytes slc_flash_page(const Bytes& data, const SlcFormat& format, uint32_t list_index) {
    Bytes page;
    for (std::size_t at = 0; at < format.page_size; at += 1024) {
        Bytes message = slice(data, at, 1024);
        put32(message, at == 0 ? list_index : 0xFFFFFFFF);
        put_bytes(page, message + slow_parity(message));
    }
    page.resize(format.page_size + format.spare, 0xFF);
    return page;
}

// The flash pages of whole pages of data, from the list index on.
inline Bytes slc_flash_pages(const Bytes& data, const SlcFormat& format, uint32_t list_index = 0,
                             uint8_t fill = 0) {
    const Bytes pages = format.two_kilobytes_data ? spread_pages(data, format.page_size, fill) : data;
    Bytes file;
    for (std::size_t at = 0; at < pages.size(); at += format.page_size) {
        put_bytes(file, slc_flash_page(slice(pages, at, format.page_size), format, list_index));
        list_index += format.list_step;
    }
    return file;
}

}  // namespace test_support
