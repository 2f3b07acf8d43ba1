// Sparse images that end too early, and temporary files that cannot be had, written or read back.

#include "sparse_fixture.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <sys/stat.h>

namespace storage_test {
namespace {

using test_support::patterned;
using test_support::slice;
using test_support::SparseChunk;
using test_support::SparseImage;

class SparseFailure : public SparseTest {
protected:
    Bytes temporary_file() const { return test_support::read_file(out_path(kTemporaryName)); }

    // The run ended with the status that the model gives and left the expansion up to there behind.
    void expect_cut(const Bytes& image, const SparseSettings& settings) const {
        const auto model = test_support::expand_sparse(image, settings.page_size(), settings.fill_byte);
        ASSERT_NE(model.status, 0);
        expect_refused(model.status, sparse_lines("root", image, settings.page_size(), 0, model.status));
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

struct Cut {
    std::size_t size;
    int result;
};

TEST_F(SparseFailure, CutAtAnyEdgeEndsInItsCode) {
    const Bytes image = image_of_all_kinds().build();
    ASSERT_EQ(image.size(), 4124U);
    const std::vector<Cut> cuts{
        {0, -1},    {1, -1},    {27, -1},                                        // header
        {28, -4},   {29, -4},   {39, -4},                                        // header of raw data
        {40, -5},   {41, -5},   {1063, -5}, {1064, -5}, {1065, -5}, {1539, -5},  // its two pieces
        {1540, -4}, {1551, -4}, {1552, -6}, {1553, -6}, {1555, -6},              // fill
        {1556, -4}, {1567, -4}, {1568, -4}, {1571, -4},                          // checksum, not missed
        {1572, -4}, {1583, -4}, {1584, -4}, {1595, -4},                          // don't care, unknown
        {1596, -4}, {1607, -4}, {1608, -5}, {2632, -5}, {3656, -5}, {4107, -5},  // raw data in three pieces
        {4108, -4}, {4119, -4}, {4120, -6}, {4123, -6},                          // fill
    };
    const SparseSettings settings{.part_sectors = 20, .fill_byte = 0xEE};
    for (const Cut& cut : cuts) {
        SCOPED_TRACE(std::to_string(cut.size) + " bytes");
        const Bytes prefix = slice(image, 0, cut.size);
        run(prefix, settings);
        EXPECT_EQ(m_result, cut.result);
        if (cut.result != -1) {
            expect_cut(prefix, settings);
        } else {
            expect_refused(-1, line("writing root...") + line("failed to get sparse header"));
            EXPECT_FALSE(temporary_file_left());
        }
    }
    run(image, settings);
    expect_modelled(image, settings);
}

TEST_F(SparseFailure, OfOneItemLeavesTheNextOneUnharmed) {
    const Bytes image = image_of_all_kinds().build();
    const auto firmware = firmware_with({{.name = "good", .part_size = 20, .data = image},
                                         {.name = "cut", .part_size = 20, .data = slice(image, 0, 3000)}});
    m_storage = make_base<SparseRecorder>(FLASH_EMMC, {.page_kb = 1});
    load(*m_storage, firmware);
    m_item = item_in(firmware, 1);
    write_item();
    EXPECT_EQ(m_result, -5);
    ASSERT_TRUE(temporary_file_left());
    m_item = item_in(firmware, 0);
    write_item();
    expect_written(test_support::expected_sparse_partition(image, 1024, 0, 20),
                   sparse_lines("good", image, 1024, 10));
}

TEST_F(SparseFailure, CutChecksumIsNoneWhenNothingFollows) {
    SparseImage image{.block_size = 1024,
                      .chunks = {SparseChunk::raw(patterned(1024, 1), 1024), SparseChunk::crc(7)}};
    for (const std::size_t missing : {1U, 4U}) {
        const Bytes whole = image.build();
        const Bytes cut = slice(whole, 0, whole.size() - missing);
        run(cut);
        expect_modelled(cut, {});
    }
    image.total_chunks = 3;
    run(image.build());
    expect_cut(image.build(), {});
    EXPECT_EQ(m_result, -4);
}

TEST_F(SparseFailure, WildLengthsOfRawDataEndAtTheLastWholePiece) {
    for (const uint32_t total_size : {0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
        SparseImage image{.block_size = 1024, .chunks = {SparseChunk::raw(patterned(3000, 1), 1024)}};
        image.chunks[0].total_size = total_size;
        run(image.build());
        EXPECT_EQ(m_result, -5);
        expect_cut(image.build(), {});
        EXPECT_TRUE(same_bytes(temporary_file(), slice(patterned(3000, 1), 0, 2048)));
    }
}

TEST_F(SparseFailure, WildNumberOfChunksEndsAfterTheLast) {
    SparseImage image = image_of_all_kinds();
    image.total_chunks = 0xFFFFFFFF;
    run(image.build());
    EXPECT_EQ(m_result, -4);
    expect_cut(image.build(), {});
}

TEST_F(SparseFailure, PageThatNoMemoryHoldsHasACodeOfItsOwn) {
    if (!kMemoryCanBeLimited)
        GTEST_SKIP() << "needs a build without sanitizers";
    const auto firmware = firmware_with({{.name = "root", .data = image_of_all_kinds().build()}});
    m_storage = make_base<SparseRecorder>(FLASH_SPI_NAND, {.page_kb = kHugePageKb});
    load(*m_storage, firmware);
    m_item = item_in(firmware, 0);
    m_storage->m_image_fill_page_num = kUntouched;
    const MemoryLimit limit(256 * 1024 * 1024);
    write_item();
    expect_refused(-7, line("writing root..."));
    EXPECT_EQ(temporary_file(), Bytes());
}

// ---- the temporary file cannot be created ----

class SparseTemporaryFile : public SparseTest {
protected:
    void run_good_image() { run(image(), {.part_sectors = 20}); }

    static Bytes image() { return image_of_all_kinds().build(); }

    void expect_not_created(int error) const {
        expect_refused(-3, line("writing root...") + not_created(out_path(kTemporaryName), error));
        EXPECT_EQ(m_storage->m_write_failure.error, 0);
    }

    // As for a good run, but with a failure noted for the verdict.
    void expect_done_with_failure(int error) const {
        EXPECT_EQ(m_result, 0);
        EXPECT_EQ(m_output, sparse_lines("root", image(), 1024, 10));
        EXPECT_EQ(m_storage->pages.size(), 10U);
        EXPECT_EQ(m_storage->m_image_fill_page_num, 10U);
        EXPECT_EQ(m_storage->m_write_failure.path, out_path(kTemporaryName).string());
        EXPECT_EQ(m_storage->m_write_failure.error, error);
    }
};

TEST_F(SparseTemporaryFile, NeedsItsDirectory) {
    std::filesystem::remove(out_dir());
    run_good_image();
    expect_not_created(ENOENT);
    test_support::write_file(out_dir(), {});
    run_good_image();
    expect_not_created(ENOTDIR);
}

TEST_F(SparseTemporaryFile, IsNeverTheOutputItself) {
    std::filesystem::create_symlink(out_path("out_image.img"), out_path(kTemporaryName));
    const auto firmware = firmware_with({{.name = "root", .part_size = 20, .data = image()}});
    write_firmware(firmware);
    m_item = item_in(firmware, 0);
    m_storage = make_base<SparseRecorder>(FLASH_EMMC, {.page_kb = 1});
    ASSERT_TRUE(m_storage->storage_init());
    m_storage->m_fout.write("kept", 4);
    m_storage->m_image_fill_page_num = kUntouched;
    write_item();
    expect_not_created(EBUSY);
    m_storage->close_output();
    EXPECT_EQ(out_image(), test_support::to_bytes("kept"));
}

TEST_F(SparseTemporaryFile, CannotBeAPipe) {
    ASSERT_EQ(::mkfifo(out_path(kTemporaryName).c_str(), 0600), 0);
    run_good_image();
    expect_not_created(ESPIPE);
}

// ---- the temporary file cannot be written or read ----

TEST_F(SparseTemporaryFile, ThatCannotBeWrittenChangesNoStepButTheVerdict) {
    std::filesystem::create_symlink("/dev/full", out_path(kTemporaryName));
    run_good_image();
    expect_done_with_failure(ENOSPC);
    EXPECT_FALSE(temporary_file_left());
    EXPECT_TRUE(std::filesystem::exists("/dev/full"));
}

TEST_F(SparseTemporaryFile, ThatGivesNothingBackIsNotTakenForBytes) {
    std::filesystem::create_symlink("/dev/null", out_path(kTemporaryName));
    run_good_image();
    expect_done_with_failure(EIO);
    EXPECT_TRUE(same_bytes(m_storage->recorded_bytes(), Bytes(10 * 1024, 0)));
}

TEST_F(SparseTemporaryFile, ThatCannotBeWrittenShowsTheSamePercentages) {
    SparseImage excess{.block_size = 4096, .total_blocks = 512, .chunks = {}};
    excess.chunks = {SparseChunk::dont_care(1024), SparseChunk::fill(7, 1024),
                     SparseChunk::raw(patterned(100000, 1), 4096)};
    const SparseSettings settings{.page_kb = 4, .part_sectors = 4096};
    run(excess.build(), settings);
    const std::string good_output = m_output;
    EXPECT_EQ(good_output, sparse_lines("root", excess.build(), 4096, 512));
    std::filesystem::create_symlink("/dev/full", out_path(kTemporaryName));
    run(excess.build(), settings);
    EXPECT_EQ(m_result, 0);
    EXPECT_TRUE(m_output == good_output) << m_output.size() << " bytes instead of " << good_output.size();
    EXPECT_EQ(m_storage->m_write_failure.error, ENOSPC);
}

TEST_F(SparseTemporaryFile, IsNotNeededOnceTheOutputHasFailed) {
    const auto firmware = firmware_with({{.name = "root", .part_size = 20, .data = image()}});
    m_storage = make_base<SparseRecorder>(FLASH_EMMC, {.page_kb = 1});
    load(*m_storage, firmware);
    m_item = item_in(firmware, 0);
    m_storage->m_fout.open("/dev/full");
    const std::string many(8 * 1024 * 1024, 'x');
    m_storage->m_fout.write(many.data(), static_cast<std::streamsize>(many.size()));
    write_item();
    EXPECT_EQ(m_result, 0);
    EXPECT_EQ(m_output, sparse_lines("root", image(), 1024, 10));
    EXPECT_TRUE(m_storage->pages.empty());
    EXPECT_EQ(m_storage->m_image_fill_page_num, 10U);
    EXPECT_EQ(m_storage->m_write_failure.path, "/dev/full");
    EXPECT_FALSE(temporary_file_left());
}

TEST_F(SparseTemporaryFile, OfAHugeImageOnAFullDiskEndsInMoments) {
    // 2^62 bytes: the percentages run on, though nothing reaches the file any more.
    std::filesystem::create_symlink("/dev/full", out_path(kTemporaryName));
    SparseImage huge{.block_size = 0x80000000, .total_blocks = 0x80000000, .chunks = {}};
    huge.chunks = {SparseChunk::dont_care(0x40000000), SparseChunk::fill(1, 0x40000000)};
    run(huge.build());
    EXPECT_EQ(m_result, 0);
    std::string expected = line("writing root...") + line("extracting root...");
    for (int percent = 1; percent <= 100; ++percent)
        expected += redrawn("extracting... root..." + std::to_string(percent) + "%");
    EXPECT_EQ(m_output, expected + line("") + redrawn("writing root...OK"));
    EXPECT_EQ(m_storage->m_write_failure.error, ENOSPC);
}

TEST_F(SparseTemporaryFile, FirstFailureOfTheRunIsTheOneThatCounts) {
    std::filesystem::create_symlink("/dev/full", out_path(kTemporaryName));
    write_firmware(firmware_with({{.name = "root", .part_size = 20, .data = image()}}));
    m_item = item_in(firmware_with({{.name = "root", .part_size = 20, .data = image()}}), 0);
    m_storage = make_base<SparseRecorder>(FLASH_EMMC, {.page_kb = 1});
    ASSERT_EQ(m_storage->m_update_image_ptr->ObjectInit(firmware_path().string(), false), 0);
    m_storage->m_write_failure = {"earlier.img", EFBIG};
    write_item();
    EXPECT_EQ(m_result, 0);
    EXPECT_EQ(m_storage->m_write_failure.path, "earlier.img");
    EXPECT_EQ(m_storage->m_write_failure.error, EFBIG);
}

}  // namespace
}  // namespace storage_test
