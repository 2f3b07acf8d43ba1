#pragma once

// The page geometries that conversions to SLC NAND are read back with.

#include "conversion.h"
#include "slc_reader.h"

#include <cstdint>
#include <string>
#include <vector>

namespace test_support {

struct NandGeometry {
    uint32_t page_kb = 0;
    bool two_kilobytes_data = false;
    bool page_list = false;

    SlcGeometry of_reader() const {
        return {.page_size = page_kb * 1024,
                .spare_size = 32 * page_kb + 10,  // 10 bytes are left over
                .two_kilobytes_data = two_kilobytes_data,
                .list_step = page_list ? 1U : 4U};
    }

    // 96 pages of any size are whole blocks.
    Conversion conversion() const {
        return {"slc",
                std::to_string(96 * page_kb),
                std::to_string(page_kb),
                std::to_string(of_reader().spare_size),
                two_kilobytes_data,
                page_list};
    }

    // For the name of a test.
    std::string name() const {
        return "Pages" + std::to_string(page_kb) + (two_kilobytes_data ? "With2K" : "") +
               (page_list ? "List" : "");
    }
};

inline std::vector<NandGeometry> all_nand_geometries() {
    std::vector<NandGeometry> geometries;
    for (const uint32_t page_kb : {1U, 2U, 3U, 4U, 8U})
        for (const bool two_kilobytes_data : {false, true})
            for (const bool page_list : {false, true})
                geometries.push_back({page_kb, two_kilobytes_data, page_list});
    return geometries;
}

}  // namespace test_support
