#pragma once

// What the tests of SLC NAND share: its members in the open, and the page format made with the slow encoder.

#include "partition_fixture.h"
#include "support/expected/flash_pages.h"
#include "support/slc_reader.h"

#include <string>
#include <vector>

namespace storage_test {

// A storage class on CSlcStorage with the members that this one adds.
template <typename Base>
class SlcMembers : public Base {
public:
    using Base::Base;

    using Base::m_bch_list_index;
    using Base::m_bch_list_step;
    using Base::m_bch_size;
};
using SlcStorage = SlcMembers<Exposed<CSlcStorage>>;
using SlcRecorder = SlcMembers<Recording<CSlcStorage>>;

struct SlcCase {
    uint32_t page_kb = 2;
    uint32_t spare = 64;
    bool page_2k = false;
    bool page_list = false;
    uint32_t block_kb = 128;

    uint32_t page_size() const { return page_kb * 1024; }
    uint32_t units() const { return page_kb; }
    uint32_t flash_page_size() const { return page_size() + spare; }
    uint32_t list_step() const { return page_list ? 1 : 4; }
    // Flash pages that one page of data takes.
    uint32_t factor() const { return page_2k ? (page_kb + 1) / 2 : 1; }

    Geometry geometry() const {
        return {.block_kb = block_kb, .page_kb = page_kb, .oob_bytes = spare, .page_2k = page_2k};
    }
    SlcGeometry reader() const {
        return {.page_size = page_size(),
                .spare_size = spare,
                .two_kilobytes_data = page_2k,
                .list_step = list_step()};
    }
    SlcFormat format() const {
        return {.page_size = page_size(),
                .spare = spare,
                .two_kilobytes_data = page_2k,
                .list_step = list_step()};
    }
    std::string name() const {
        return std::to_string(page_kb) + " KB pages, " + std::to_string(spare) + " spare bytes" +
               (page_2k ? ", 2 KB of data" : "") + (page_list ? ", page list" : "");
    }
};

// All page sizes, both flags, spare areas from the smallest that holds the parity to roomy and odd ones.
inline std::vector<SlcCase> all_slc_cases() {
    std::vector<SlcCase> cases;
    for (const uint32_t page_kb : {1U, 2U, 3U, 4U, 8U}) {
        for (const bool page_2k : {false, true}) {
            for (const bool page_list : {false, true}) {
                cases.push_back({page_kb, 32 * page_kb + (page_list ? 1 : 0), page_2k, page_list});
                cases.push_back({page_kb, 32 * page_kb + (page_list ? 64 : 1000), page_2k, page_list});
            }
        }
    }
    return cases;
}

// The flash pages of whole pages of data by the slow encoder, from the list index on.
inline Bytes slow_flash_pages(const Bytes& data, const SlcCase& chip, uint32_t list_index = 0,
                              uint8_t fill_byte = 0) {
    return slc_flash_pages(data, chip.format(), list_index, fill_byte);
}

}  // namespace storage_test
