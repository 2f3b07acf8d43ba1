// Sparse images of megabytes: raw data and expanded pages are moved in long runs where they can be, which
// must show neither in the bytes nor in the messages.

#include "nand_fixture.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <random>

namespace storage_test {
namespace {

using test_support::patterned;
using test_support::slice;
using test_support::SparseChunk;
using test_support::SparseImage;

constexpr std::size_t kIb = 1024;
constexpr std::size_t kMib = 1024 * kIb;

// Long stretches of raw data between other chunks; the odd ones leave every later byte at an odd position.
SparseImage large_image(uint32_t seed) {
    std::mt19937 random(seed);
    const auto below = [&random](uint32_t bound) { return static_cast<uint32_t>(random() % bound); };
    SparseImage image{.block_size = 1000, .chunks = {}};
    const auto raw = [&](std::size_t size) {
        image.chunks.push_back(SparseChunk::raw(patterned(size, seed), 1000));
    };
    raw(below(2 * kMib));
    image.chunks.push_back(SparseChunk::fill(below(0xFFFFFFFF), below(700)));
    raw(3 * kMib + below(5000));
    image.chunks.push_back(SparseChunk::dont_care(below(2000)));
    raw(below(5000));
    image.chunks.push_back(SparseChunk::crc(0));
    raw(256 * kIb + below(3) - 1);
    raw(kMib);
    image.chunks.push_back(SparseChunk::fill(0x5A5A5A5A, 1 + below(300)));
    return image;
}

class LargeSparse : public SparseTest {};

TEST_F(LargeSparse, ExpandsLikeSmallOnes) {
    for (const uint32_t page_kb : {1U, 3U, 4U, 64U, 1024U, 2048U}) {
        SCOPED_TRACE(std::to_string(page_kb) + " KB pages");
        const Bytes image = large_image(page_kb).build();
        const SparseSettings settings{.page_kb = page_kb, .part_sectors = 20480, .fill_byte = 0xEE};
        run(image, settings);
        expect_modelled(image, settings);
    }
}

TEST_F(LargeSparse, CutInItsRawDataEndsAtTheLastWholePage) {
    SparseImage image{.block_size = 1024,
                      .chunks = {SparseChunk::raw(patterned(700, 1), 1024),
                                 SparseChunk::raw(patterned(3 * kMib, 2), 1024)}};
    const Bytes whole = image.build();
    const std::size_t data_at = whole.size() - 3 * kMib;
    for (const std::size_t there : {std::size_t{0}, 256 * kIb - 1, 256 * kIb, 256 * kIb + 1, kMib - 1, kMib,
                                    kMib + 1000, 2 * kMib + 1023, 3 * kMib - 1}) {
        SCOPED_TRACE(std::to_string(there) + " bytes of raw data");
        const Bytes cut = slice(whole, 0, data_at + there);
        run(cut, {.part_sectors = 20480});
        expect_refused(-5, sparse_lines("root", cut, 1024, 0, -5));
        EXPECT_TRUE(same_bytes(test_support::read_file(out_path(kTemporaryName)),
                               patterned(700, 1) + slice(patterned(3 * kMib, 2), 0, there / 1024 * 1024)));
    }
}

TEST_F(LargeSparse, RawDataBeyondTheBoundIsDropped) {
    // 66 MB of raw data for one page: what is appended ends with the last piece within 64 MiB.
    SparseImage image{.block_size = 1024, .total_blocks = 3, .chunks = {}};
    image.chunks = {SparseChunk::raw(patterned(100, 1), 1024),
                    SparseChunk::raw(Bytes(66 * kMib, 0x77), 1024)};
    run(image.build(), {.page_kb = 3});
    EXPECT_EQ(m_result, 0);
    ASSERT_TRUE(m_storage->temporary_file);
    const std::size_t bound = 64 * kMib + 3 * kIb;
    const std::size_t pieces = (bound - 100) / (3 * kIb);
    EXPECT_EQ(m_storage->temporary_file->size(), test_support::round_up(100 + pieces * 3 * kIb, 3 * kIb));
    EXPECT_TRUE(same_bytes(m_storage->recorded_bytes(), patterned(100, 1) + Bytes(3 * kIb - 100, 0x77)));
}

// ---- into real output files ----

class LargeSparseOutput : public NandTest {
protected:
    // The lines and the file of one SPI NAND partition.
    Bytes spi_file(const Bytes& image, uint32_t page_kb, bool page_2k = false) {
        const auto firmware = firmware_with({{.name = "root", .data = image}});
        const auto storage =
            make<Exposed<CSpiStorage>>({.block_kb = page_kb, .page_kb = page_kb, .page_2k = page_2k});
        load(*storage, firmware);
        STRUCT_QZIMAGE_ITEM item = item_in(firmware, 0);
        output_of([&] { EXPECT_TRUE(storage->prepare_write_partition(item)); });
        m_output = output_of([&] { EXPECT_EQ(storage->write_sparse_image(item), 0); });
        EXPECT_TRUE(storage->post_write_partition());
        EXPECT_EQ(storage->m_write_failure.error, 0);
        EXPECT_FALSE(std::filesystem::exists(out_path(kTemporaryName)));
        return out_file("root.img");
    }

    std::string m_output{};
};

TEST_F(LargeSparseOutput, HoldsTheExpandedPages) {
    for (const uint32_t page_kb : {1U, 2U, 3U, 64U, 1024U, 2048U}) {
        SCOPED_TRACE(std::to_string(page_kb) + " KB pages");
        const Bytes image = large_image(100 + page_kb).build();
        const std::size_t page_size = page_kb * kIb;
        const Bytes expected = test_support::expected_sparse_partition(image, page_size);
        EXPECT_TRUE(same_bytes(spi_file(image, page_kb), expected));
        EXPECT_EQ(m_output, sparse_lines("root", image, page_size, expected.size() / page_size));
    }
}

TEST_F(LargeSparseOutput, HoldsAllPagesWhileTheTemporaryFileIsGivenBack) {
    // Room is given back in steps of 16 MiB, some of them within a page of 3 KB or a block that is read
    // ahead.
    const Bytes data = patterned(34 * kMib, 1);
    const Bytes image = SparseImage{.block_size = 1024, .chunks = {SparseChunk::raw(data, 1024)}}.build();
    EXPECT_TRUE(same_bytes(spi_file(image, 2), data));
    EXPECT_TRUE(same_bytes(spi_file(image, 2, true), data));  // page by page
    EXPECT_TRUE(same_bytes(slice(spi_file(image, 3), 0, data.size()), data));
}

TEST_F(LargeSparseOutput, IsFilledUpToThePartitionOnEmmc) {
    const Bytes image = large_image(7).build();
    auto firmware = test_support::sample_firmware();
    firmware.item("rootfs").data = image;
    firmware.item("rootfs").part_size = 20481;
    firmware.items.push_back(
        {.name = "tail", .part_size = 4, .flash_offset = 40000, .data = patterned(1000, 1)});
    write_firmware(firmware);
    const auto storage = make<Exposed<CEmmcStorage>>();
    output_of([&] { EXPECT_TRUE(storage->storage_init() && storage->create_image()); });
    const std::size_t at = (8192 + std::size_t{firmware.item("rootfs").flash_offset}) * 512;
    const Bytes expected = test_support::expected_sparse_partition(image, 2048, 0, 20481);
    const Bytes found = out_image();
    EXPECT_TRUE(same_bytes(slice(found, at, expected.size()), expected));
    EXPECT_TRUE(test_support::all_bytes_are(found, 0, at + expected.size(),
                                            std::size_t{8192 + 40000} * 512 - at - expected.size()));
    EXPECT_EQ(slice(found, std::size_t{8192 + 40000} * 512, 1000), patterned(1000, 1));
}

TEST_F(LargeSparseOutput, TemporaryFileThatLosesItsEndIsAnError) {
    // Another process cuts the file between the two passes: here, the first page that is written does.
    class Cutting : public Exposed<CSpiStorage> {
    public:
        using Exposed<CSpiStorage>::Exposed;
        bool write_page(uint8_t* data, uint32_t length) override {
            const std::string path = m_out_dir + "/" + kTemporaryName;
            if (std::filesystem::exists(path))
                std::filesystem::resize_file(path, 100);
            return Exposed<CSpiStorage>::write_page(data, length);
        }
    };
    const Bytes image =
        SparseImage{.block_size = 1024, .chunks = {SparseChunk::raw(patterned(4 * kMib, 1), 1024)}}.build();
    const auto firmware = firmware_with({{.name = "root", .data = image}});
    const auto storage = make<Cutting>();
    load(*storage, firmware);
    STRUCT_QZIMAGE_ITEM item = item_in(firmware, 0);
    output_of([&] { EXPECT_TRUE(storage->prepare_write_partition(item)); });
    EXPECT_EQ(output_of([&] { EXPECT_EQ(storage->write_sparse_image(item), 0); }),
              sparse_lines("root", image, 2048, 2048));
    EXPECT_EQ(storage->m_write_failure.path, out_path(kTemporaryName).string());
    EXPECT_EQ(storage->m_write_failure.error, EIO);
}

}  // namespace
}  // namespace storage_test
