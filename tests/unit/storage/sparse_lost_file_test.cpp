// Sparse images of a run that has failed already: where nothing is expanded, and nothing read back.

#include "sparse_fixture.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

namespace storage_test {
namespace {

class SparseLostFile : public SparseTest {
protected:
    static Bytes image() {
        SparseImage sparse{.block_size = 1024, .chunks = {}};
        sparse.chunks = {SparseChunk::raw(test_support::patterned(5 * 1024, 1), 1024)};
        return sparse.build();
    }
};

TEST_F(SparseLostFile, TakesNothingOnceTheOutputHasFailed) {
    const auto firmware = firmware_with({{.name = "root", .part_size = 20, .data = image()}});
    m_storage = make_base<SparseRecorder>(FLASH_EMMC, {.page_kb = 1});
    load(*m_storage, firmware);
    m_item = item_in(firmware, 0);
    test_support::write_file(out_path("kept.bin"), {});
    std::filesystem::create_symlink("kept.bin", out_path(kTemporaryName));
    m_storage->m_fout.open(out_path("pages.img").string());
    m_storage->m_fout.give_up(ENOSPC);
    write_item();
    EXPECT_EQ(m_result, 0);
    EXPECT_FALSE(temporary_file_left());
    EXPECT_EQ(read_file(out_path("kept.bin")), Bytes());
}

TEST_F(SparseLostFile, ThatCouldNotBeWrittenGivesFillBytes) {
    std::filesystem::create_symlink("/dev/full", out_path(kTemporaryName));  // reads as zeros
    run(image(), {.part_sectors = 20, .fill_byte = 0xEE});
    EXPECT_EQ(m_result, 0);
    EXPECT_EQ(m_storage->m_write_failure.error, ENOSPC);
    EXPECT_TRUE(same_bytes(m_storage->recorded_bytes(), Bytes(10 * 1024, 0xEE)));
}

}  // namespace
}  // namespace storage_test
