// The expansion as a whole: generated and large images, percentages, the temporary file, and what chunks may
// write beyond the image's size.

#include "sparse_fixture.h"
#include "support/workbench.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <random>
#include <unistd.h>

namespace storage_test {
namespace {

class SparseExpansion : public SparseTest {};

// ---- generated images ----

class ImageGenerator {
public:
    explicit ImageGenerator(uint32_t seed) : m_random(seed) {}

    SparseImage image() {
        SparseImage image;
        image.block_size = one_of<uint32_t>({4096, 1024, 512, 1000, 3000, 6000, 4, 7, 1});
        for (uint32_t i = below(8); i > 0; --i)
            image.chunks.push_back(chunk(image.block_size));
        if (below(4) == 0)
            image.chunks.push_back(SparseChunk::dont_care(1 + below(5)));  // a hole at the end
        if (below(2) == 0)
            image.total_blocks = bent_total(image);
        return image;
    }

    SparseSettings settings(uint64_t declared) {
        SparseSettings settings;
        settings.type = one_of<ENUM_FLASH_TYPE>({FLASH_EMMC, FLASH_NOR, FLASH_SPI_NAND, FLASH_SLC_NAND});
        settings.page_kb = one_of<uint32_t>({1, 2, 3, 4, 64});
        settings.fill_byte = one_of<uint8_t>({0x00, 0xFF, 0x5A});
        if (below(3) != 0)
            settings.part_sectors = static_cast<uint32_t>(declared / 512 + 1) + below(300);
        return settings;
    }

private:
    uint32_t below(uint32_t bound) { return static_cast<uint32_t>(m_random() % bound); }

    template <typename T>
    T one_of(const std::vector<T>& values) {
        return values[below(static_cast<uint32_t>(values.size()))];
    }

    SparseChunk chunk(uint32_t block_size) {
        const uint32_t most_blocks = std::max(1U, 20000 / block_size);
        const Bytes data = patterned(below(20000), below(1000));
        // The data of the unknown chunk is read as a chunk header, if it has any.
        const Bytes hidden = slice(SparseImage{.chunks = {SparseChunk::dont_care(below(4))}}.build(),
                                   sparse_field::kHeaderBytes, 12 * below(2));
        return one_of<SparseChunk>(
            {SparseChunk::raw(data, block_size), SparseChunk::raw(data, block_size),
             SparseChunk::raw(patterned(std::size_t{below(4)} * block_size, 7), block_size),
             SparseChunk::fill(static_cast<uint32_t>(m_random()), below(most_blocks)),
             SparseChunk::dont_care(below(most_blocks)), SparseChunk::crc(static_cast<uint32_t>(m_random())),
             SparseChunk{.total_size = below(13)}, SparseChunk::unknown(0xCAC5, hidden, below(3))});
    }

    // Fewer or more blocks than the chunks have.
    uint32_t bent_total(const SparseImage& image) {
        uint32_t blocks = 0;
        for (const SparseChunk& chunk : image.chunks)
            blocks += chunk.blocks;
        return one_of<uint32_t>(
            {blocks / 2, blocks + below(std::max(1U, 30000 / image.block_size)), below(2)});
    }

    std::mt19937 m_random;
};

TEST_F(SparseExpansion, OfGeneratedImagesMatchesTheModel) {
    std::size_t not_empty = 0;
    for (uint32_t seed = 0; seed < 400 && !HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        ImageGenerator generator(seed);
        const SparseImage image = generator.image();
        run_as_modelled(image, generator.settings(declared_size(image.build())));
        not_empty += m_storage->pages.empty() ? 0 : 1;
    }
    EXPECT_GE(not_empty, 300U);
}

// ---- large images: raw data and expanded pages are moved in long runs where they can be ----

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

TEST_F(SparseExpansion, OfLargeImagesMatchesTheModel) {
    for (const uint32_t page_kb : {1U, 3U, 4U, 64U, 1024U, 2048U}) {
        SCOPED_TRACE(std::to_string(page_kb) + " KB pages");
        run_as_modelled(large_image(page_kb), {.page_kb = page_kb, .part_sectors = 20480, .fill_byte = 0xEE});
    }
}

TEST_F(SparseExpansion, CutInLongRawDataEndsAtTheLastWholePage) {
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
        EXPECT_TRUE(same_bytes(read_file(out_path(kTemporaryName)),
                               patterned(700, 1) + slice(patterned(3 * kMib, 2), 0, there / 1024 * 1024)));
    }
}

// The SPI NAND files of a firmware with this image.
void expect_spi_file(const SparseImage& image, const std::string& page_kb, bool page_2k = false) {
    SCOPED_TRACE(page_kb + " KB pages");
    Firmware firmware = sample_firmware();
    firmware.item("parameter").part_size = 4 * 4096;  // four of the largest pages
    firmware.item("rootfs").data = image.build();
    expect_converted(firmware, {"spinand", page_kb, page_kb, "", page_2k});
}

TEST(LargeSparseOutput, HoldsTheExpandedPages) {
    for (const uint32_t page_kb : {1U, 2U, 3U, 64U, 1024U, 2048U})
        expect_spi_file(large_image(100 + page_kb), std::to_string(page_kb));
}

// Room is given back in steps of 16 MiB, some of them within a page of 3 KB or a block that is read ahead.
TEST(LargeSparseOutput, HoldsAllPagesWhileTheFileIsGivenBack) {
    const SparseImage image{.block_size = 1024, .chunks = {SparseChunk::raw(patterned(34 * kMib, 1), 1024)}};
    expect_spi_file(image, "2");
    expect_spi_file(image, "2", true);  // page by page
    expect_spi_file(image, "3");
}

// ---- percentages ----

std::string percentages(const std::string& before, const std::vector<int>& values) {
    std::string lines;
    for (const int value : values)
        lines += redrawn(before + std::to_string(value) + "%");
    return lines;
}

TEST_F(SparseExpansion, GoesOnCountingFromTheExpansionToTheCopy) {
    const struct {
        std::string situation;
        SparseImage image;
        std::vector<int> extracting, writing;
        uint32_t pages;
    } cases[] = {
        {"an excess of three pages, which is dropped",
         {.block_size = 1024, .total_blocks = 2, .chunks = {SparseChunk::fill(0, 5)}},
         {50, 100, 150, 200, 250},
         {50, 100},
         2},
        {"no size",
         {.block_size = 1024, .total_blocks = 0, .chunks = {SparseChunk::fill(0, 2)}},
         {100},
         {},
         0},
        {"100% is not shown twice", {.block_size = 1024, .chunks = {SparseChunk::fill(0, 1)}}, {100}, {}, 1},
        {"nor is 25%",
         {.block_size = 1024, .total_blocks = 4, .chunks = {SparseChunk::fill(0, 1)}},
         {25},
         {50, 75, 100},
         4},
    };
    for (const auto& tested : cases) {
        SCOPED_TRACE(tested.situation);
        run(tested.image.build(), {.type = FLASH_SPI_NAND});
        expect_written(Bytes(std::size_t{tested.pages} * 1024, 0),
                       line("writing root...") + line("extracting root...") +
                           percentages("extracting... root...", tested.extracting) + line("") +
                           percentages("writing root...", tested.writing) + redrawn("writing root...OK"));
    }
}

// ---- the temporary file ----

TEST_F(SparseExpansion, WritesTheTemporaryFileInFull) {
    const SparseImage image{.block_size = 4096,
                            .chunks = {SparseChunk::dont_care(256), SparseChunk::fill(0, 256)}};
    const SparseSettings settings{.page_kb = 64};
    prepare(image.build(), settings);
    off_t first_hole = -1;
    m_storage->at_first_page = [&](const std::filesystem::path& path) {
        const int descriptor = ::open(path.c_str(), O_RDONLY);
        first_hole = ::lseek(descriptor, 0, SEEK_HOLE);
        ::close(descriptor);
    };
    write_item();
    expect_modelled(image.build(), settings);
    EXPECT_EQ(first_hole, off_t{2 * kMib});
}

TEST_F(SparseExpansion, TemporaryFileLiesInTheOutputDirectory) {
    const Bytes image =
        SparseImage{.block_size = 1024, .chunks = {SparseChunk::raw(patterned(2000, 1), 1024)}}.build();
    const WorkingDirectory inside(out_dir());
    for (const std::string& directory :
         {out_dir().string(), out_dir().string() + "/", std::string(), std::string("./"),
          std::string("../out"), std::string("..//out//")}) {
        SCOPED_TRACE(directory);
        write_file(out_path(kTemporaryName), Bytes(100000, 0xEE));  // an older one
        prepare(image);
        m_storage->m_out_dir = directory;
        write_item();
        EXPECT_TRUE(m_storage->temporary_file);
        expect_modelled(image, {});
    }
}

// ---- an excess over the image's size ----

TEST_F(SparseExpansion, OfAnExcessOfEveryKindEndsInMoments) {
    constexpr uint32_t page = 64 * kIb;
    const Bytes data = patterned(page, 1);
    const SparseChunk raw = SparseChunk::raw(data, page);
    const SparseImage image{.block_size = page,
                            .total_blocks = 16,
                            .chunks = {raw, SparseChunk::fill(0x11111111, 0xFFFFFFFF),
                                       SparseChunk::dont_care(0xFFFFFFFF), raw, SparseChunk::crc(0),
                                       SparseChunk::fill(0x22222222, 0xFFFFFFFF)}};
    run(image.build(), {.page_kb = 64, .part_sectors = 4096});
    // 1 MiB declared: every page shows its percentage, up to 64 MiB after the 2 MiB of the partition.
    const std::vector<uint64_t> pieces(66 * kMib / page, page);
    expect_written(data + Bytes(2 * kMib - page, 0x11), sparse_lines("root", pieces, kMib, 32));
    ASSERT_TRUE(m_storage->temporary_file);
    EXPECT_EQ(m_storage->temporary_file->size(), 66 * kMib);
}

// Keeps the last page alone.
class LastPage : public Exposed<CStorage> {
public:
    using Exposed<CStorage>::Exposed;
    bool write_page(uint8_t* data, uint32_t length) override {
        page.assign(data, data + length);
        ++pages;
        return true;
    }
    Bytes page{};
    int pages = 0;
};

TEST_F(SparseExpansion, ChunkAcrossTheLimitLosesNoByte) {
    // The second chunk is one piece that ends 1 MiB after the limit: the page's size and 64 MiB.
    constexpr std::size_t kPage = 66 * kMib;
    const SparseImage image{.block_size = kMib,
                            .total_blocks = 1,
                            .chunks = {SparseChunk::dont_care(65), SparseChunk::fill(0x77777777, 66)}};
    const auto firmware = firmware_with({{.name = "root", .data = image.build()}});
    const auto storage = make_base<LastPage>(FLASH_SPI_NAND, {.page_kb = kPage / 1024});
    load(*storage, firmware);
    STRUCT_QZIMAGE_ITEM item = item_in(firmware, 0);
    output_of([&] { EXPECT_EQ(storage->write_sparse_image(item), 0); });
    EXPECT_EQ(storage->pages, 1);
    EXPECT_TRUE(same_bytes(storage->page, Bytes(65 * kMib, 0) + Bytes(kMib, 0x77)));
}

}  // namespace
}  // namespace storage_test
