#pragma once

// A firmware whose only item is the bytes that are fuzzed, at its very end.

#include "scratch_storage.h"
#include "support/bytes.h"
#include "support/firmware_builder.h"

#include <algorithm>
#include <string>

namespace robustness {

class SingleItem {
public:
    explicit SingleItem(const std::string& name) {
        test_support::Firmware firmware;
        firmware.boot.loader.entries = {{.name = "FlashData", .data = {1, 2, 3}}};
        firmware.items = {{.name = name}};
        firmware.item_alignment = 1;
        firmware.md5.clear();
        m_front = firmware.build();
        m_offset =
            static_cast<uint32_t>(firmware.layout().item_data.at(0) - firmware.layout().package_offset);
        std::copy(name.begin(), name.end(), m_item.name);
    }

    // Writes the firmware and gives the record of the item.
    STRUCT_QZIMAGE_ITEM write(const test_support::Bytes& data) {
        test_support::Bytes file = m_front;
        test_support::put_bytes(file, data);
        test_support::write_file(m_files.firmware, file);
        STRUCT_QZIMAGE_ITEM item = m_item;
        item.offset = m_offset;
        item.size = static_cast<uint32_t>(data.size());
        item.part_size = test_support::kGrowsToEnd;
        return item;
    }

    const ScratchFiles& files() const { return m_files; }

private:
    ScratchFiles m_files;
    test_support::Bytes m_front;
    uint32_t m_offset = 0;
    STRUCT_QZIMAGE_ITEM m_item{};
};

}  // namespace robustness
