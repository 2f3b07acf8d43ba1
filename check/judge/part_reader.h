#pragma once

#include "../base/result.h"
#include "../base/target.h"
#include "second_opinion.h"

#include <cstdint>
#include <functional>

/// Where the bytes of a part's data lie in a target: between the spare areas, and with 2 KB per page only at
/// the start of each page.
struct PageLayout {
    uint64_t page_data = 0;  ///< of a page as the conversion counts it, in bytes
    uint64_t page = 0;       ///< of a page in the target, in bytes
    bool spare_areas = false;
    bool two_kb = false;
};

/// Reads size bytes at an offset in a file of pages. False when they cannot be read.
using ReadFile = std::function<bool(uint64_t offset, uint64_t size, uint8_t* out)>;

/// Reads a part's data out of a target, which outlives the reader. offset: of the part.
ReadPart part_reader(Target& target, uint64_t offset, const PageLayout& layout);
ReadPart part_reader(ReadFile read, uint64_t offset, const PageLayout& layout);

/// Pages of the target that hold a page of data as the conversion counts it. With 2 KB per page it is more
/// than one.
uint64_t pages_together(const PageLayout& layout);

/// Where byte position of the data lies, from the start of the part; and how many bytes follow it there.
uint64_t place_of_data(const PageLayout& layout, uint64_t position, uint64_t& together);

/// Bytes of data in pages that take bytes in the target.
uint64_t data_bytes(const PageLayout& layout, uint64_t bytes);
