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
        front_ = firmware.build();
        offset_ = static_cast<uint32_t>(firmware.layout().item_data.at(0) - firmware.layout().package_offset);
        std::copy(name.begin(), name.end(), item_.name);
    }

    // Writes the firmware and gives the record of the item.
    STRUCT_QZIMAGE_ITEM write(const test_support::Bytes& data) {
        test_support::Bytes file = front_;
        test_support::put_bytes(file, data);
        test_support::write_file(files_.firmware, file);
        STRUCT_QZIMAGE_ITEM item = item_;
        item.offset = offset_;
        item.size = static_cast<uint32_t>(data.size());
        item.part_size = test_support::grows_to_end;
        return item;
    }

    const ScratchFiles& files() const { return files_; }

private:
    ScratchFiles files_;
    test_support::Bytes front_;
    uint32_t offset_ = 0;
    STRUCT_QZIMAGE_ITEM item_{};
};

}  // namespace robustness
