#pragma once

// The parameter partition.

#include "support/bytes.h"

#include <cstdint>

namespace test_support {

// Whole pages: `copies` slots, each starting with the record, and fill bytes elsewhere.
inline Bytes parameter_pages(const Bytes& record, std::size_t page_size, std::size_t pages,
                             std::size_t copies, std::size_t slot_pages, uint8_t fill = 0) {
    Bytes expected(pages * page_size, fill);
    const Bytes copy = padded(record, page_size);
    for (std::size_t k = 0; k < copies; ++k)
        put_bytes_at(expected, k * slot_pages * page_size, copy);
    return expected;
}

// A partition of so many sectors: eight copies, or four where eight do not fit.
inline Bytes parameter_partition(const Bytes& record, uint64_t sectors, std::size_t page_size) {
    const std::size_t pages = round_up(sectors * kSectorSize, page_size) / page_size;
    const std::size_t record_pages = round_up(record.size(), page_size) / page_size;
    const std::size_t copies = record_pages * 8 <= pages ? 8 : 4;
    return parameter_pages(record, page_size, pages, copies, pages / copies);
}

}  // namespace test_support
