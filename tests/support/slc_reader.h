#pragma once

// Reads an SLC NAND file back as a flash controller does: undoes the page format, checks every byte of it,
// and hands out the partition's bytes.

#include "bytes.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace test_support {

struct SlcGeometry {
    uint32_t page_size = 2048;        // main bytes per page
    uint32_t spare_size = 64;         // spare bytes per page
    bool two_kilobytes_data = false;  // only 2048 data bytes per physical page
    uint32_t list_step = 4;           // from page to page of a file
};

struct SlcContents {
    Bytes data{};  // the pages' data one after another, padding included
    std::size_t physical_pages = 0;
    std::string errors{};  // one a line

    const std::string& error_text() const { return errors; }
};

// Every page has ECC units of 1024 data bytes, 4 system bytes and 28 parity bytes. Checked are: the file is
// whole pages; unit 0 carries the list index (restarting at 0), the other units four 0xFF bytes; every unit
// decodes without a wrong bit; whatever the units leave of the page is 0xFF; what the data leaves of a page
// that holds only 2048 bytes of it is 0.
SlcContents read_slc_file(const Bytes& file, const SlcGeometry& geometry);

}  // namespace test_support
