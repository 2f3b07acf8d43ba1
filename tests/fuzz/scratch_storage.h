#pragma once

// Storage objects over a firmware in a scratch directory.

#include "storage/storage_impl.h"
#include "support/work_directory.h"

#include <algorithm>

namespace robustness {

// A storage object with its steps and members in the open.
class OpenStorage : public CStorage {
public:
    using CStorage::CStorage;

    using CStorage::close_output;
    using CStorage::m_fill_byte;
    using CStorage::m_uiParamFileSize;
    using CStorage::m_update_image_ptr;
    using CStorage::switch_output;
};

// No output file grows beyond this in a fuzzed run: such a write fails, and the run goes on to its verdict.
inline constexpr uint64_t kLargestFuzzedFile = 6 * 1024 * 1024;

// A firmware whose only item is the bytes that are fuzzed, at its very end.
class SingleItem : public test_support::WorkDirectory {
public:
    explicit SingleItem(const std::string& name) : WorkDirectory(test_support::memory_directory()) {
        test_support::Firmware packed;
        packed.boot.loader.entries = {{.name = "FlashData", .data = {1, 2, 3}}};
        packed.items = {{.name = name}};
        packed.item_alignment = 1;
        packed.md5.clear();
        m_front = packed.build();
        m_item.offset =
            static_cast<uint32_t>(packed.layout().item_data.at(0) - packed.layout().package_offset);
        m_item.part_size = test_support::kGrowsToEnd;
        std::copy(name.begin(), name.end(), m_item.name);
    }

    // Writes the firmware and gives the record of the item.
    STRUCT_QZIMAGE_ITEM write(const test_support::Bytes& data) {
        pack(test_support::operator+(m_front, data));
        m_item.size = static_cast<uint32_t>(data.size());
        return m_item;
    }

private:
    test_support::Bytes m_front;
    STRUCT_QZIMAGE_ITEM m_item{};
};

}  // namespace robustness
