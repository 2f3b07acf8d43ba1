// Sparse images that end too early, and temporary files that cannot be written or read back.

#include "sparse_fixture.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace storage_test {
namespace {

class SparseFailure : public SparseTest {
protected:
    Bytes temporary_file() const { return read_file(out_path(kTemporaryName)); }

    // The run ends with the status that the model gives and leaves the expansion up to there behind.
    void expect_cut(const Bytes& image, int result, const SparseSettings& settings = {}) {
        run(image, settings);
        const auto model = expand_sparse(image, settings.page_size(), settings.fill_byte);
        ASSERT_EQ(model.status, result);
        expect_refused(result, sparse_lines("root", image, settings.page_size(), 0, result));
        ASSERT_TRUE(temporary_file_left());
        EXPECT_TRUE(same_bytes(temporary_file(), model.image));
        EXPECT_EQ(m_storage->m_write_failure.error, 0);
    }
};

// Every kind of chunk; the raw ones are longer than a page and no multiple of it.
SparseImage image_of_all_kinds() {
    SparseImage image;
    image.block_size = 500;
    image.chunks = {SparseChunk::raw(patterned(1500, 1), 500),
                    SparseChunk::fill(0x44332211, 3),
                    SparseChunk::crc(0x12345678),
                    SparseChunk::dont_care(2),
                    SparseChunk::unknown(0xCAC7, {}),
                    SparseChunk::raw(patterned(2500, 2), 500),
                    SparseChunk::fill(0, 1)};
    return image;
}

TEST_F(SparseFailure, CutAtAnyEdgeEndsInItsCode) {
    const Bytes image = image_of_all_kinds().build();
    ASSERT_EQ(image.size(), 4124U);
    const struct {
        int result;
        std::vector<std::size_t> sizes;
    } cuts[] = {
        {-1, {0, 1, 27}},                                                    // header
        {-4, {28, 29, 39, 1540, 1551, 1556, 1567, 1572, 1583, 1584, 1595}},  // chunk headers
        {-4, {1596, 1607, 4108, 4119}},                                      // more of them
        {-4, {1568, 1571}},                                                  // checksum, not missed
        {-5, {40, 41, 1063, 1064, 1065, 1539, 1608, 2632, 3656, 4107}},      // pieces of raw data
        {-6, {1552, 1553, 1555, 4120, 4123}},                                // fill values
    };
    const SparseSettings settings{.part_sectors = 20, .fill_byte = 0xEE};
    for (const auto& [result, sizes] : cuts) {
        for (const std::size_t size : sizes) {
            SCOPED_TRACE(std::to_string(size) + " bytes");
            const Bytes prefix = slice(image, 0, size);
            std::filesystem::remove(out_path(kTemporaryName));
            if (result != -1) {
                expect_cut(prefix, result, settings);
            } else {
                run(prefix, settings);
                expect_refused(-1, line("writing root...") + line("failed to get sparse header"));
                EXPECT_FALSE(temporary_file_left());
            }
        }
    }
    run_as_modelled(image_of_all_kinds(), settings);
}

TEST_F(SparseFailure, OfOneItemLeavesTheNextOneUnharmed) {
    const Bytes image = image_of_all_kinds().build();
    const auto firmware = firmware_with({{.name = "good", .part_size = 20, .data = image},
                                         {.name = "cut", .part_size = 20, .data = slice(image, 0, 3000)}});
    write_firmware(firmware);
    prepare_loaded();
    m_item = item_in(firmware, 1);
    write_item();
    EXPECT_EQ(m_result, -5);
    ASSERT_TRUE(temporary_file_left());
    m_item = item_in(firmware, 0);
    write_item();
    expect_written(expected_sparse_partition(image, 1024, 0, 20), sparse_lines("good", image, 1024, 10));
}

TEST_F(SparseFailure, CutChecksumIsNoneWhenNothingFollows) {
    SparseImage image{.block_size = 1024,
                      .chunks = {SparseChunk::raw(patterned(1024, 1), 1024), SparseChunk::crc(7)}};
    for (const std::size_t there : {0U, 3U}) {
        image.chunks[1].data.resize(there);
        run_as_modelled(image);
    }
}

TEST_F(SparseFailure, WildNumbersEndAfterTheLastWholePiece) {
    SparseImage image = image_of_all_kinds();
    image.total_chunks = 0xFFFFFFFF;
    expect_cut(image.build(), -4);
    for (const uint32_t total_size : {0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
        image = {.block_size = 1024, .chunks = {SparseChunk::raw(patterned(3000, 1), 1024)}};
        image.chunks[0].total_size = total_size;
        expect_cut(image.build(), -5);
        EXPECT_TRUE(same_bytes(temporary_file(), slice(patterned(3000, 1), 0, 2048)));
    }
}

TEST_F(SparseFailure, PageThatNoMemoryHoldsHasACodeOfItsOwn) {
    if (!kMemoryCanBeLimited)
        GTEST_SKIP() << "needs a build without sanitizers or emulator";
    prepare(image_of_all_kinds().build(), {.type = FLASH_SPI_NAND, .page_kb = kHugePageKb});
    const MemoryLimit limit(256 * 1024 * 1024);
    write_item();
    expect_refused(-7, line("writing root..."));
    EXPECT_EQ(temporary_file(), Bytes());
}

// ---- the temporary file cannot be written or read ----

class SparseTemporaryFile : public SparseTest {
protected:
    // Something else stands in the place of the temporary file.
    void redirect_to(const std::string& target) const {
        std::filesystem::create_symlink(target, out_path(kTemporaryName));
    }

    // All steps were done, but with a failure noted for the verdict.
    void expect_done_with_failure(const std::string& output, const Bytes& pages,
                                  const WriteFailure& failure) const {
        EXPECT_EQ(m_result, 0);
        EXPECT_TRUE(m_output == output) << m_output.size() << " bytes instead of " << output.size();
        EXPECT_TRUE(same_bytes(m_storage->recorded_bytes(), pages));
        EXPECT_EQ(m_storage->m_write_failure.path, failure.path);
        EXPECT_EQ(m_storage->m_write_failure.error, failure.error);
        EXPECT_FALSE(temporary_file_left());
    }

    const Bytes m_image = image_of_all_kinds().build();
    const std::string m_lines = sparse_lines("root", m_image, 1024, 10);
    const SparseSettings m_settings{.part_sectors = 20, .fill_byte = 0xEE};
    const std::string m_path = out_path(kTemporaryName).string();
};

TEST_F(SparseTemporaryFile, ThatKeepsNothingGivesFillBytes) {
    for (const auto& [device, error] : {std::pair{"/dev/full", ENOSPC}, {"/dev/null", EIO}}) {
        redirect_to(device);
        prepare(m_image, m_settings);
        write_item();
        expect_done_with_failure(m_lines, Bytes(10 * 1024, 0xEE), {m_path, error});
        EXPECT_TRUE(std::filesystem::exists(device));
    }
}

// Another process cuts the file between the two passes: here, the first page that is written does.
TEST_F(SparseTemporaryFile, ThatLosesItsEndIsAnError) {
    const Bytes data = patterned(4 * kMib, 1);
    const Bytes image = SparseImage{.block_size = 1024, .chunks = {SparseChunk::raw(data, 1024)}}.build();
    prepare(image);
    m_storage->at_first_page = [](const auto& path) { std::filesystem::resize_file(path, 100); };
    write_item();
    Bytes pages = slice(data, 0, 128 * kIb);  // which were read at once
    pages.resize(data.size(), 0);
    expect_done_with_failure(sparse_lines("root", image, 1024, 4096), pages, {m_path, EIO});
}

TEST_F(SparseTemporaryFile, ThatCannotBeWrittenShowsTheSamePercentages) {
    SparseImage excess{.block_size = 4096, .total_blocks = 512, .chunks = {}};
    excess.chunks = {SparseChunk::dont_care(1024), SparseChunk::fill(7, 1024),
                     SparseChunk::raw(patterned(100000, 1), 4096)};
    const SparseSettings settings{.page_kb = 4, .part_sectors = 4096};
    run_as_modelled(excess, settings);
    redirect_to("/dev/full");
    const std::string good_output = m_output;
    run(excess.build(), settings);
    expect_done_with_failure(good_output, Bytes(2 * kMib, 0), {m_path, ENOSPC});
}

TEST_F(SparseTemporaryFile, OfAHugeImageOnAFullDiskEndsInMoments) {
    // 2^62 bytes: the percentages run on, though nothing reaches the file any more.
    redirect_to("/dev/full");
    SparseImage huge{.block_size = 0x80000000, .total_blocks = 0x80000000, .chunks = {}};
    huge.chunks = {SparseChunk::dont_care(0x40000000), SparseChunk::fill(1, 0x40000000)};
    run(huge.build());
    expect_done_with_failure(line("writing root...") + line("extracting root...") +
                                 progress_lines("extracting... root...", 100) + line("") +
                                 redrawn("writing root...OK"),
                             {}, {m_path, ENOSPC});
}

TEST_F(SparseTemporaryFile, TakesNothingOnceTheOutputHasFailed) {
    prepare(m_image, m_settings);
    write_file(out_path("kept.bin"), {});
    redirect_to("kept.bin");
    m_storage->m_fout.open(out_path("pages.img").string());
    m_storage->m_fout.give_up(ENOSPC);
    write_item();
    expect_done_with_failure(m_lines, {}, {out_path("pages.img").string(), ENOSPC});
    EXPECT_EQ(m_storage->m_image_fill_page_num, 10U);
    EXPECT_EQ(read_file(out_path("kept.bin")), Bytes());
}

}  // namespace
}  // namespace storage_test
