#pragma once

// What the tests of the storage classes share: classes that let a test at the members, a recorder of pages, a
// firmware on disk with a place for the output.

#include "firmware/QZImage.h"
#include "storage/storage_impl.h"
#include "support/bytes.h"
#include "support/expected/transcript.h"
#include "support/firmware_builder.h"
#include "support/output_of.h"
#include "support/same_bytes.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace storage_test {

using namespace test_support;

// What a counter of pages holds before a writer sets it.
inline constexpr uint32_t kUntouched = 4711;

// A storage class with its protected members in the open: Exposed<CEmmcStorage>.
template <typename Storage>
class Exposed : public Storage {
public:
    using Storage::Storage;

    using Storage::close_output;
    using Storage::m_block_size;
    using Storage::m_block_size_sector;
    using Storage::m_fill_byte;
    using Storage::m_fin;
    using Storage::m_fout;
    using Storage::m_gpt_flag;
    using Storage::m_idb_copy;
    using Storage::m_idb_fill_page_num;
    using Storage::m_idb_second_start_sector;
    using Storage::m_idb_start_sector;
    using Storage::m_idb_total_sector;
    using Storage::m_idb_upper_limit;
    using Storage::m_image_fill_page_num;
    using Storage::m_in_firmware;
    using Storage::m_init_ok;
    using Storage::m_oob_size;
    using Storage::m_out_dir;
    using Storage::m_out_file;
    using Storage::m_page_2k;
    using Storage::m_page_size;
    using Storage::m_page_size_sector;
    using Storage::m_paramBuffer;
    using Storage::m_type;
    using Storage::m_uiParamFileSize;
    using Storage::m_update_image_ptr;
    using Storage::m_write_failure;
    using Storage::switch_output;
    using Storage::write_fill_pages;
};

// One call of write_page: `bytes` are the `length` bytes that were handed over.
struct RecordedPage {
    Bytes bytes{};
    uint32_t length = 0;

    bool operator==(const RecordedPage&) const = default;
};

// Keeps every page that reaches write_page; with `forward` it goes to the storage class as well. Of padding
// that takes tens of megabytes in one file, the rest goes past write_page and is not seen.
template <typename Storage>
class Recording : public Exposed<Storage> {
public:
    using Exposed<Storage>::Exposed;

    bool write_page(uint8_t* data, uint32_t length) override {
        pages.push_back({Bytes(data, data + length), length});
        return forward ? Storage::write_page(data, length) : true;
    }

    // All recorded bytes, one page after the other.
    Bytes recorded_bytes() const {
        Bytes all;
        for (const RecordedPage& page : pages)
            put_bytes(all, page.bytes);
        return all;
    }

    std::vector<RecordedPage> pages{};
    bool forward = false;
};

// What the command line says about the chip.
struct Geometry {
    uint32_t block_kb = 512;
    uint32_t page_kb = 2;
    uint32_t oob_bytes = 0;
    bool page_2k = false;
};

// An item as the package holds it.
inline STRUCT_QZIMAGE_ITEM item_in(const Firmware& firmware, std::size_t index) {
    const Bytes image = firmware.build();
    const Bytes record = slice(image, static_cast<std::size_t>(firmware.layout().item_records.at(index)),
                               sizeof(STRUCT_QZIMAGE_ITEM));
    STRUCT_QZIMAGE_ITEM item;
    std::memcpy(&item, record.data(), sizeof(item));
    return item;
}

// A firmware in a directory of its own, and an empty directory for the output.
class StorageTest : public ::testing::Test {
protected:
    StorageTest() { std::filesystem::create_directory(out_dir()); }

    std::filesystem::path firmware_path() const { return m_directory / "firmware.img"; }
    std::filesystem::path out_dir() const { return m_directory / "out"; }
    std::filesystem::path out_path(const std::string& name) const { return out_dir() / name; }
    // out_image.img as it stands now.
    Bytes out_image() const { return read_file(out_path("out_image.img")); }

    void write_firmware(const Firmware& firmware) const { firmware.write(firmware_path()); }

    // A storage object of the class Storage on firmware_path() and out_dir(), nothing loaded or opened yet.
    // `more` are constructor arguments after the usual ones: make<CSlcStorage>(geometry, page_list).
    template <typename Storage, typename... More>
    std::unique_ptr<Storage> make(const Geometry& geometry = {}, More... more) const {
        return std::make_unique<Storage>(geometry.block_kb, geometry.page_kb, geometry.oob_bytes,
                                         firmware_path().string(), out_dir().string(), geometry.page_2k,
                                         more...);
    }

    // The same for CStorage itself, which takes its type.
    template <typename Storage>
    std::unique_ptr<Storage> make_base(ENUM_FLASH_TYPE type, const Geometry& geometry = {}) const {
        return std::make_unique<Storage>(type, geometry.block_kb, geometry.page_kb, geometry.oob_bytes,
                                         firmware_path().string(), out_dir().string(), geometry.page_2k);
    }

    // Writes the firmware to disk and loads it into the storage's reader; no output is opened.
    template <typename Storage>
    void load(Storage& storage, const Firmware& firmware) const {
        write_firmware(firmware);
        ASSERT_EQ(storage.m_update_image_ptr->ObjectInit(firmware_path().string(), false), 0);
    }

    const TemporaryDirectory m_directory{};
};

}  // namespace storage_test
