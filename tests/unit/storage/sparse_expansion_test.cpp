// The expansion as a whole: generated images, percentages, the temporary file, and the bound on what chunks
// may write beyond the image's size.

#include "sparse_fixture.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <random>
#include <unistd.h>

namespace storage_test {
namespace {

using test_support::patterned;
using test_support::SparseChunk;
using test_support::SparseImage;

class SparseExpansion : public SparseTest {};

// ---- generated images ----

class ImageGenerator {
public:
    explicit ImageGenerator(uint32_t seed) : m_random(seed) {}

    uint32_t below(uint32_t bound) { return static_cast<uint32_t>(m_random() % bound); }

    template <typename T>
    T one_of(const std::vector<T>& values) {
        return values[below(static_cast<uint32_t>(values.size()))];
    }

    SparseImage image() {
        SparseImage image;
        image.block_size = one_of<uint32_t>({4096, 1024, 512, 1000, 3000, 6000, 4, 7, 1});
        const uint32_t count = below(8);
        for (uint32_t i = 0; i < count; ++i)
            image.chunks.push_back(chunk(image.block_size));
        if (below(4) == 0)
            image.chunks.push_back(SparseChunk::dont_care(1 + below(5)));  // a hole at the end
        bend_total(image);
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
    SparseChunk chunk(uint32_t block_size) {
        const uint32_t most_blocks = std::max(1U, 20000 / block_size);
        switch (below(8)) {
        case 0:
        case 1:
            return SparseChunk::raw(patterned(below(20000), below(1000)), block_size);
        case 2:
            return SparseChunk::raw(patterned(std::size_t{below(4)} * block_size, below(1000)), block_size);
        case 3:
            return SparseChunk::fill(static_cast<uint32_t>(m_random()), below(most_blocks));
        case 4:
            return SparseChunk::dont_care(below(most_blocks));
        case 5:
            return SparseChunk::crc(static_cast<uint32_t>(m_random()));
        case 6: {
            SparseChunk empty = SparseChunk::raw({}, block_size);
            empty.total_size = below(13);
            return empty;
        }
        default:
            return SparseChunk::unknown(0xCAC5, hidden_chunk(), below(3));
        }
    }

    // Data that is read as a chunk header, or none at all.
    Bytes hidden_chunk() {
        const Bytes built = SparseImage{.chunks = {SparseChunk::dont_care(below(4))}}.build();
        return test_support::slice(built, test_support::sparse_field::kHeaderBytes, below(2) == 0 ? 12 : 0);
    }

    // Now and then the header tells fewer or more blocks than the chunks have.
    void bend_total(SparseImage& image) {
        uint32_t blocks = 0;
        for (const SparseChunk& chunk : image.chunks)
            blocks += chunk.blocks;
        switch (below(6)) {
        case 0:
            image.total_blocks = blocks / 2;
            break;
        case 1:
            image.total_blocks = blocks + below(std::max(1U, 30000 / image.block_size));
            break;
        case 2:
            image.total_blocks = below(2);
            break;
        default:
            break;
        }
    }

    std::mt19937 m_random;
};

TEST_F(SparseExpansion, OfGeneratedImagesMatchesTheModel) {
    std::size_t not_empty = 0;
    for (uint32_t seed = 0; seed < 400 && !HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        ImageGenerator generator(seed);
        const Bytes image = generator.image().build();
        const SparseSettings settings = generator.settings(declared_size(image));
        run(image, settings);
        expect_modelled(image, settings);
        not_empty += m_storage->pages.empty() ? 0 : 1;
    }
    EXPECT_GE(not_empty, 300U);
}

// ---- percentages ----

TEST_F(SparseExpansion, ShowsPercentagesOverAHundredForAnExcess) {
    SparseImage image{.block_size = 1024, .total_blocks = 2, .chunks = {SparseChunk::fill(1, 5)}};
    run(image.build(), {.type = FLASH_SPI_NAND});
    EXPECT_EQ(m_output, line("writing root...") + line("extracting root...") +
                            redrawn("extracting... root...50%") + redrawn("extracting... root...100%") +
                            redrawn("extracting... root...150%") + redrawn("extracting... root...200%") +
                            redrawn("extracting... root...250%") + line("") + redrawn("writing root...50%") +
                            redrawn("writing root...100%") + redrawn("writing root...OK"));
}

TEST_F(SparseExpansion, CountsAsWholeWhenTheImageHasNoSize) {
    SparseImage image{
        .block_size = 1024, .total_blocks = 0, .chunks = {SparseChunk::raw(patterned(3000, 1), 1024)}};
    const std::string expanding = line("writing root...") + line("extracting root...") +
                                  redrawn("extracting... root...100%") + line("");
    run(image.build(), {.type = FLASH_SPI_NAND});
    expect_written({}, expanding + redrawn("writing root...OK"));
    run(image.build(), {.part_sectors = 4});
    expect_written(test_support::slice(patterned(3000, 1), 0, 2048),
                   expanding + redrawn("writing root...50%") + redrawn("writing root...100%") +
                       redrawn("writing root...OK"));
}

TEST_F(SparseExpansion, GoesOnCountingFromTheExpansionToTheCopy) {
    // 100% was shown last: the first of 300 pages shows 0%.
    SparseImage image{.block_size = 1024, .chunks = {SparseChunk::dont_care(300)}};
    run(image.build());
    expect_modelled(image.build(), {});
    EXPECT_NE(m_output.find(redrawn("extracting... root...100%") + line("") + redrawn("writing root...0%") +
                            redrawn("writing root...1%")),
              std::string::npos);

    // A single page goes from 100% to 100%, and the same percentage in both passes is shown once.
    image.chunks = {SparseChunk::dont_care(1)};
    run(image.build());
    EXPECT_EQ(m_output, line("writing root...") + line("extracting root...") +
                            redrawn("extracting... root...100%") + line("") + redrawn("writing root...OK"));
    image.total_blocks = 4;
    run(image.build(), {.type = FLASH_SPI_NAND});
    EXPECT_EQ(m_output, line("writing root...") + line("extracting root...") +
                            redrawn("extracting... root...25%") + line("") + redrawn("writing root...50%") +
                            redrawn("writing root...75%") + redrawn("writing root...100%") +
                            redrawn("writing root...OK"));
}

TEST_F(SparseExpansion, ShowsNothingWhereNoWholePercentIsReached) {
    SparseImage image{.block_size = 1024, .total_blocks = 1000, .chunks = {SparseChunk::raw({1}, 1024)}};
    run(image.build());
    EXPECT_EQ(m_output.substr(0, m_output.find("\n\n")), "writing root...\nextracting root...");
}

// ---- the temporary file ----

TEST_F(SparseExpansion, WritesTheTemporaryFileInFull) {
    const SparseImage image{.block_size = 4096,
                            .chunks = {SparseChunk::dont_care(256), SparseChunk::fill(0, 256)}};
    class HoleSeeker : public SparseRecorder {
    public:
        using SparseRecorder::SparseRecorder;
        bool write_page(uint8_t* data, uint32_t length) override {
            if (pages.empty()) {
                const int descriptor = ::open((m_out_dir + "/" + kTemporaryName).c_str(), O_RDONLY);
                first_hole = ::lseek(descriptor, 0, SEEK_HOLE);
                ::close(descriptor);
            }
            return SparseRecorder::write_page(data, length);
        }
        off_t first_hole = -1;
    };
    const auto firmware =
        firmware_with({{.name = "root", .part_size = test_support::kGrowsToEnd, .data = image.build()}});
    auto storage = make_base<HoleSeeker>(FLASH_EMMC, {.page_kb = 64});
    load(*storage, firmware);
    m_item = item_in(firmware, 0);
    output_of([&] { EXPECT_EQ(storage->write_sparse_image(m_item), 0); });
    EXPECT_EQ(storage->first_hole, 2 * 1024 * 1024);
    EXPECT_TRUE(same_bytes(storage->recorded_bytes(), Bytes(2 * 1024 * 1024, 0)));
}

class SparsePlace : public SparseExpansion {
protected:
    // Runs with this text as output directory and gives the name under which the file was seen.
    void run_in(const std::string& directory, const std::filesystem::path& seen_at) {
        const SparseImage image{.block_size = 1024, .chunks = {SparseChunk::raw(patterned(2000, 1), 1024)}};
        const auto firmware = firmware_with({{.name = "root", .part_size = 4, .data = image.build()}});
        class Watcher : public Recording<CStorage> {
        public:
            using Recording<CStorage>::Recording;
            bool write_page(uint8_t* data, uint32_t length) override {
                seen = std::filesystem::exists(watched);
                return Recording<CStorage>::write_page(data, length);
            }
            std::filesystem::path watched{};
            bool seen = false;
        };
        write_firmware(firmware);
        Watcher storage(FLASH_EMMC, 512, 1, 0, firmware_path().string(), directory, false);
        storage.watched = seen_at;
        ASSERT_EQ(storage.m_update_image_ptr->ObjectInit(firmware_path().string(), false), 0);
        m_item = item_in(firmware, 0);
        output_of([&] { EXPECT_EQ(storage.write_sparse_image(m_item), 0); });
        EXPECT_TRUE(storage.seen);
        EXPECT_FALSE(std::filesystem::exists(seen_at));
        EXPECT_TRUE(same_bytes(storage.recorded_bytes(), padded(patterned(2000, 1), 1024)));
    }
};

TEST_F(SparsePlace, IsTheOutputDirectoryWithOrWithoutASlash) {
    run_in(out_dir().string(), out_path(kTemporaryName));
    run_in(out_dir().string() + "/", out_path(kTemporaryName));
    const WorkingDirectory inside(m_directory.path());
    run_in("out", out_path(kTemporaryName));
    run_in("out/", out_path(kTemporaryName));
    run_in("./out//", out_path(kTemporaryName));
}

TEST_F(SparsePlace, IsTheWorkingDirectoryForAnEmptyName) {
    const WorkingDirectory inside(out_dir());
    run_in("", out_path(kTemporaryName));
}

TEST_F(SparsePlace, MayHoldAnOlderTemporaryFile) {
    test_support::write_file(out_path(kTemporaryName), Bytes(100000, 0xEE));
    run_in(out_dir().string(), out_path(kTemporaryName));
}

// ---- the bound on an excess ----

class SparseExcess : public SparseExpansion {
protected:
    static constexpr uint64_t kMib = 1024 * 1024;
    static constexpr uint32_t kPage = 64 * 1024;

    // Bytes in the temporary file when the copy starts, for chunks of whole 64 KB blocks.
    uint64_t temporary_size(uint32_t blocks, std::vector<SparseChunk> chunks, uint32_t part_sectors) {
        class Measurer : public Recording<CStorage> {
        public:
            using Recording<CStorage>::Recording;
            bool write_page(uint8_t* data, uint32_t length) override {
                if (pages.empty())
                    size = std::filesystem::file_size(m_out_dir + "/" + kTemporaryName);
                return Recording<CStorage>::write_page(data, length);
            }
            uint64_t size = 0;
        };
        const SparseImage image{.block_size = kPage, .total_blocks = blocks, .chunks = std::move(chunks)};
        const auto firmware =
            firmware_with({{.name = "root", .part_size = part_sectors, .data = image.build()}});
        auto storage = make_base<Measurer>(FLASH_EMMC, {.page_kb = 64});
        load(*storage, firmware);
        m_item = item_in(firmware, 0);
        m_output = output_of([&] { m_result = storage->write_sparse_image(m_item); });
        m_pages = storage->recorded_bytes();
        return storage->size;
    }

    Bytes m_pages{};
};

TEST_F(SparseExcess, IsKeptUpTo64MiB) {
    const uint32_t blocks_of_64_mib = 1024;
    EXPECT_EQ(temporary_size(16, {SparseChunk::fill(0x5A5A5A5A, 16 + blocks_of_64_mib - 1)}, 2048),
              65 * kMib - kPage);
    EXPECT_EQ(temporary_size(16, {SparseChunk::fill(0x5A5A5A5A, 16 + blocks_of_64_mib)}, 2048), 65 * kMib);
    EXPECT_EQ(temporary_size(16, {SparseChunk::fill(0x5A5A5A5A, 16 + blocks_of_64_mib + 1)}, 2048),
              65 * kMib);
    EXPECT_EQ(m_result, 0);
    EXPECT_TRUE(same_bytes(m_pages, Bytes(kMib, 0x5A)));
}

TEST_F(SparseExcess, IsCountedFromThePartitionWhenThatIsLarger) {
    EXPECT_EQ(temporary_size(1, {SparseChunk::dont_care(0xFFFFFFFF)}, 4096), 66 * kMib);
    EXPECT_TRUE(same_bytes(m_pages, Bytes(2 * kMib, 0)));
}

TEST_F(SparseExcess, OfEveryChunkKindEndsInMoments) {
    const Bytes data = patterned(kPage, 1);
    const std::vector<SparseChunk> chunks{SparseChunk::raw(data, kPage),
                                          SparseChunk::fill(0x11111111, 0xFFFFFFFF),
                                          SparseChunk::dont_care(0xFFFFFFFF),
                                          SparseChunk::raw(data, kPage),
                                          SparseChunk::crc(0),
                                          SparseChunk::fill(0x22222222, 0xFFFFFFFF)};
    EXPECT_EQ(temporary_size(32, chunks, 4096), 66 * kMib);
    EXPECT_EQ(m_result, 0);
    EXPECT_TRUE(same_bytes(m_pages, data + Bytes(2 * kMib - kPage, 0x11)));
    // 2 MB declared: every page of 64 KB shows its percentage, up to the bound and not beyond it.
    const std::vector<uint64_t> pieces(66 * kMib / kPage, kPage);
    EXPECT_EQ(m_output, sparse_lines("root", pieces, 2 * kMib, 32));
}

TEST_F(SparseExcess, DoesNotEndTheWalkOverTheChunks) {
    SparseChunk cut = SparseChunk::raw(Bytes(10), kPage);
    cut.total_size = 1000;
    temporary_size(1, {SparseChunk::dont_care(0xFFFFFFFF), cut}, 128);
    EXPECT_EQ(m_result, -5);
    EXPECT_EQ(m_output.substr(m_output.rfind('\n', m_output.size() - 2) + 1),
              line("failed to get raw chunk data"));
    EXPECT_EQ(m_pages, Bytes{});
    EXPECT_EQ(std::filesystem::file_size(out_path(kTemporaryName)), 64 * kMib + kPage);
}

}  // namespace
}  // namespace storage_test
