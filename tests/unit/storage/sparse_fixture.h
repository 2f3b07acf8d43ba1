#pragma once

// What the tests of the sparse expansion share: one sparse item in a firmware.

#include "partition_fixture.h"
#include "support/sparse_builder.h"

#include <functional>
#include <optional>
#include <string>

namespace storage_test {

inline constexpr char kTemporaryName[] = "unsparse_tmp.bin";

// Remembers the temporary file as it stands when the first page is taken from it.
class SparseRecorder : public Recording<CStorage> {
public:
    using Recording<CStorage>::Recording;

    bool write_page(uint8_t* data, uint32_t length) override {
        if (!temporary_file) {
            const std::filesystem::path path = std::filesystem::path(m_out_dir) / kTemporaryName;
            temporary_file = read_file(path);
            if (at_first_page)
                at_first_page(path);
        }
        return Recording<CStorage>::write_page(data, length);
    }

    std::optional<Bytes> temporary_file{};
    std::function<void(const std::filesystem::path& temporary)> at_first_page{};
};

struct SparseSettings {
    ENUM_FLASH_TYPE type = FLASH_EMMC;
    uint32_t page_kb = 1;
    uint32_t part_sectors = kGrowsToEnd;
    uint8_t fill_byte = 0;

    std::size_t page_size() const { return std::size_t{page_kb} * 1024; }
    // Without it the expanded size alone decides how many pages are written.
    std::optional<uint32_t> bounded_sectors() const {
        const bool nand = type == FLASH_SPI_NAND || type == FLASH_SLC_NAND;
        return nand || part_sectors == kGrowsToEnd ? std::nullopt : std::optional(part_sectors);
    }
};

// A firmware whose only item "root" is the given sparse image, at the very end of the file.
class SparseTest : public StorageTest {
protected:
    // Makes m_storage and m_item for the image.
    void prepare(const Bytes& image, const SparseSettings& settings = {}) {
        const Firmware firmware =
            firmware_with({{.name = "root", .part_size = settings.part_sectors, .data = image}});
        write_firmware(firmware);
        m_item = item_in(firmware, 0);
        prepare_loaded(settings);
    }
    // Makes m_storage for a firmware that is on disk already.
    void prepare_loaded(const SparseSettings& settings = {}) {
        m_storage = make_base<SparseRecorder>(settings.type, {.page_kb = settings.page_kb});
        ASSERT_EQ(m_storage->m_update_image_ptr->ObjectInit(firmware_path().string(), false), 0);
        m_storage->m_fill_byte = settings.fill_byte;
        m_storage->m_image_fill_page_num = kUntouched;
    }

    // Writes m_item; result and messages stay in the members.
    void write_item() {
        m_result = 1;
        m_output = output_of([&] { m_result = m_storage->write_sparse_image(m_item); });
    }
    void run(const Bytes& image, const SparseSettings& settings = {}) {
        prepare(image, settings);
        write_item();
    }

    bool temporary_file_left() const { return std::filesystem::exists(out_path(kTemporaryName)); }

    // The run wrote these pages and left nothing behind.
    void expect_written(const Bytes& pages, const std::string& output) const {
        EXPECT_EQ(m_result, 0);
        EXPECT_EQ(m_output, output);
        EXPECT_TRUE(same_bytes(m_storage->recorded_bytes(), pages));
        EXPECT_EQ(m_storage->m_image_fill_page_num, pages.size() / m_storage->m_page_size);
        EXPECT_EQ(m_storage->m_write_failure.error, 0);
        EXPECT_FALSE(temporary_file_left());
    }

    // The run wrote what the model of such images says.
    void expect_modelled(const Bytes& image, const SparseSettings& settings) const {
        const Bytes pages = expected_sparse_partition(image, settings.page_size(), settings.fill_byte,
                                                      settings.bounded_sectors());
        expect_written(
            pages, sparse_lines("root", image, settings.page_size(), pages.size() / settings.page_size()));
        if (m_storage->temporary_file) {
            EXPECT_TRUE(same_bytes(*m_storage->temporary_file,
                                   expand(image, settings.page_size(), settings.fill_byte)));
        }
    }
    void run_as_modelled(const SparseImage& image, const SparseSettings& settings = {}) {
        run(image.build(), settings);
        expect_modelled(image.build(), settings);
    }

    void expect_refused(int result, const std::string& output) const {
        EXPECT_EQ(m_result, result);
        EXPECT_EQ(m_output, output);
        EXPECT_TRUE(m_storage->pages.empty());
        EXPECT_EQ(m_storage->m_image_fill_page_num, kUntouched);
    }

    std::unique_ptr<SparseRecorder> m_storage{};
    STRUCT_QZIMAGE_ITEM m_item{};
    int m_result = 1;
    std::string m_output{};
};

}  // namespace storage_test
