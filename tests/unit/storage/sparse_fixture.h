#pragma once

// What the tests of the sparse expansion share: one sparse item in a firmware, and the messages that its
// chunks make.

#include "partition_fixture.h"
#include "support/sparse_builder.h"

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

namespace storage_test {

inline constexpr char temporary_name[] = "unsparse_tmp.bin";

// The lengths of the pieces in which the chunks are expanded, up to the first that cannot be read.
inline std::vector<uint64_t> expanded_pieces(const Bytes& image, uint64_t page_size) {
    using namespace test_support;
    std::vector<uint64_t> pieces;
    const auto add = [&](uint64_t length) {
        for (; length > 0; length -= std::min(length, page_size))
            pieces.push_back(std::min(length, page_size));
    };
    const uint64_t block_size = get32(image, sparse_field::block_size);
    uint64_t at = sparse_field::header_bytes;
    for (uint32_t left = get32(image, sparse_field::total_chunks); left > 0; --left) {
        if (at + sparse_field::chunk_header_bytes > image.size())
            return pieces;
        const auto header = static_cast<std::size_t>(at);
        const uint16_t type = get16(image, header + sparse_field::chunk_type);
        const uint64_t length = block_size * get32(image, header + sparse_field::chunk_blocks);
        const uint64_t total = get32(image, header + sparse_field::chunk_total_size);
        at += sparse_field::chunk_header_bytes;
        if (type == SparseChunk::raw_type) {
            const uint64_t data = std::max<uint64_t>(total, 12) - 12;
            const uint64_t there = std::min(data, image.size() - at);
            add(there == data ? data : there / page_size * page_size);  // a piece is read whole or not at all
            at += data;
        } else if (type == SparseChunk::fill_type) {
            at += 4;
            if (at <= image.size())
                add(length);
        } else if (type == SparseChunk::dont_care_type) {
            add(length);
        } else if (type == SparseChunk::crc_type) {
            at += 4;
        }
        if (type != SparseChunk::crc_type && at > image.size())
            return pieces;
    }
    return pieces;
}

inline uint64_t declared_size(const Bytes& image) {
    return uint64_t{test_support::get32(image, test_support::sparse_field::block_size)} *
           test_support::get32(image, test_support::sparse_field::total_blocks);
}

// All that is printed for an image whose pieces have these lengths; `status` other than 0 ends the expansion.
inline std::string sparse_lines(const std::string& name, const std::vector<uint64_t>& pieces,
                                uint64_t declared, uint64_t pages, int status = 0) {
    std::string text = line("writing " + name + "...") + line("extracting " + name + "...");
    uint64_t shown = 0;
    const auto show = [&](const std::string& prefix, uint64_t percent) {
        if (percent != shown)
            text += redrawn(prefix + name + "..." + std::to_string(percent) + "%");
        shown = percent;
    };
    uint64_t written = 0;
    for (const uint64_t piece : pieces) {
        written += piece;
        show("extracting... ", declared == 0 ? 100 : written * 100 / declared);
    }
    if (status != 0)
        return text + line(status == -4   ? "failed to get sparse chunk"
                           : status == -5 ? "failed to get raw chunk data"
                                          : "failed to get fill chunk data");
    text += line("");
    for (uint64_t page = 1; page <= pages; ++page)
        show("writing ", 100 * page / pages);
    return text + redrawn("writing " + name + "...OK");
}

inline std::string sparse_lines(const std::string& name, const Bytes& image, uint64_t page_size,
                                uint64_t pages, int status = 0) {
    return sparse_lines(name, expanded_pieces(image, page_size), declared_size(image), pages, status);
}

// Remembers the temporary file as it stands when the first page is taken from it.
class SparseRecorder : public Recording<CStorage> {
public:
    using Recording<CStorage>::Recording;

    bool write_page(uint8_t* data, uint32_t length) override {
        if (!temporary_file)
            temporary_file = test_support::read_file(std::filesystem::path(m_out_dir) / temporary_name);
        return Recording<CStorage>::write_page(data, length);
    }

    std::optional<Bytes> temporary_file{};
};

struct SparseSettings {
    ENUM_FLASH_TYPE type = FLASH_EMMC;
    uint32_t page_kb = 1;
    uint32_t part_sectors = test_support::grows_to_end;
    uint8_t fill_byte = 0;

    std::size_t page_size() const { return std::size_t{page_kb} * 1024; }
    // Without it the expanded size alone decides how many pages are written.
    std::optional<uint32_t> bounded_sectors() const {
        const bool nand = type == FLASH_SPI_NAND || type == FLASH_SLC_NAND;
        return nand || part_sectors == test_support::grows_to_end ? std::nullopt
                                                                  : std::optional(part_sectors);
    }
};

// A firmware whose only item "root" is the given sparse image, at the very end of the file.
class SparseTest : public StorageTest {
protected:
    // Loads the image's firmware and writes the item; result and messages stay in the members.
    void run(const Bytes& image, const SparseSettings& settings = {}) {
        const test_support::Firmware firmware =
            firmware_with({{.name = "root", .part_size = settings.part_sectors, .data = image}});
        write_firmware(firmware);
        m_item = item_in(firmware, 0);
        run_loaded(settings);
    }

    // The same for a firmware that is on disk already.
    void run_loaded(const SparseSettings& settings = {}) {
        m_storage = make_base<SparseRecorder>(settings.type, {.page_kb = settings.page_kb});
        ASSERT_EQ(m_storage->m_update_image_ptr->ObjectInit(firmware_path().string(), false), 0);
        m_storage->m_fill_byte = settings.fill_byte;
        m_storage->m_image_fill_page_num = untouched;
        write_item();
    }

    void write_item() {
        m_result = 1;
        m_output = output_of([&] { m_result = m_storage->write_sparse_image(m_item); });
    }

    bool temporary_file_left() const { return std::filesystem::exists(out_path(temporary_name)); }

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
        const Bytes pages = test_support::expected_sparse_partition(
            image, settings.page_size(), settings.fill_byte, settings.bounded_sectors());
        expect_written(
            pages, sparse_lines("root", image, settings.page_size(), pages.size() / settings.page_size()));
        if (m_storage->temporary_file) {
            EXPECT_TRUE(same_bytes(*m_storage->temporary_file,
                                   test_support::expand(image, settings.page_size(), settings.fill_byte)));
        }
    }

    void expect_refused(int result, const std::string& output) const {
        EXPECT_EQ(m_result, result);
        EXPECT_EQ(m_output, output);
        EXPECT_TRUE(m_storage->pages.empty());
        EXPECT_EQ(m_storage->m_image_fill_page_num, untouched);
    }

    static constexpr uint32_t untouched = 4711;
    std::unique_ptr<SparseRecorder> m_storage{};
    STRUCT_QZIMAGE_ITEM m_item{};
    int m_result = 1;
    std::string m_output{};
};

}  // namespace storage_test
