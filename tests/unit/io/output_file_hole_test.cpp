// Zeros: which become holes, and which are written.

#include "output_file_fixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <sys/stat.h>

namespace {

using namespace storage_test;

class OutputFileHoleTest : public OutputFileTest {
protected:
    void SetUp() override {
        write_file(path("probe"), {});
        std::filesystem::resize_file(path("probe"), 1 << 20);
        if (allocated("probe") != 0)
            GTEST_SKIP() << "the file system has no holes";
    }

    // Bytes that the file takes on the disk.
    uint64_t allocated(const std::string& name = "out.img") const {
        struct stat status {};
        EXPECT_EQ(::stat(path(name).c_str(), &status), 0);
        return static_cast<uint64_t>(status.st_blocks) * 512;
    }
};

TEST_F(OutputFileHoleTest, ZerosAfterTheEndBecomeAHole) {
    const Bytes zeros(8 << 20, 0);
    m_file.open(path());
    m_file.write("head", 4);
    put(m_file, zeros);
    m_file.write("tail", 4);
    m_file.close();
    EXPECT_TRUE(same_bytes(read_file(path()), to_bytes("head") + zeros + to_bytes("tail")));
    EXPECT_LE(allocated(), uint64_t{2 * 65536});
}

TEST_F(OutputFileHoleTest, FileOfZerosAloneHasItsLengthAndNoBytes) {
    const uint64_t size = (4 << 20) + 1;
    m_file.open(path());
    m_file.write_fill(0, 1, size);
    m_file.flush();
    EXPECT_EQ(std::filesystem::file_size(path()), size);
    m_file.close();
    EXPECT_TRUE(same_bytes(read_file(path()), Bytes(size, 0)));
    EXPECT_LE(allocated(), uint64_t{65536});
}

TEST_F(OutputFileHoleTest, NextFileDoesNotDependOnTheOneBefore) {
    m_file.open(path("first"));
    put(m_file, Bytes(4 << 20, 0xAA));
    m_file.open(path());
    put(m_file, Bytes(4 << 20, 0));
    m_file.close();
    EXPECT_LE(allocated(), uint64_t{65536});
}

TEST_F(OutputFileHoleTest, ReleasedBytesTakeNoRoomAndTheRestStays) {
    constexpr std::size_t step = 16 << 20;
    const Bytes data = patterned(2 * step + 5000, 1);
    m_file.open(path());
    put(m_file, data);
    m_file.flush();
    m_file.file().release_before(step - 1);  // only whole steps go
    EXPECT_TRUE(same_bytes(read_file(path()), data));
    EXPECT_GE(allocated(), data.size());
    m_file.file().release_before(2 * step + 4096);
    EXPECT_LE(allocated(), uint64_t{65536});
    m_file.file().release_before(step);  // gone before
    m_file.write("tail", 4);
    m_file.close();
    const Bytes expected = Bytes(2 * step, 0) + slice(data, 2 * step, 5000) + to_bytes("tail");
    EXPECT_TRUE(same_bytes(read_file(path()), expected));
}

TEST_F(OutputFileTest, ZerosOverwriteWhatWasThere) {
    const struct {
        const char* situation;
        std::size_t size, offset, zeros;
    } rows[] = {{"inside", 1 << 20, 1000, 600 * 1024},
                {"from inside to after the end", 700000, 300001, 3000000},
                {"from the start", 600000, 0, 590000}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.situation);
        for (const bool by_fill : {false, true}) {
            for (const bool reopened : {false, true}) {
                m_file.open(path());
                put(m_file, Bytes(row.size, 0xAA));
                if (reopened)
                    m_file.open(path(), kInOut);
                m_file.seekp(static_cast<std::streamoff>(row.offset));
                if (by_fill)
                    m_file.write_fill(0, 1, row.zeros);
                else
                    put(m_file, Bytes(row.zeros, 0));
                m_file.close();
                Bytes expected(std::max(row.size, row.offset + row.zeros), 0xAA);
                put_bytes_at(expected, row.offset, Bytes(row.zeros, 0));
                EXPECT_TRUE(same_bytes(read_file(path()), expected)) << by_fill << reopened;
            }
        }
    }
}

TEST_F(OutputFileTest, ReleaseOfAnotherKindOfFileIsNothing) {
    m_file.open("/dev/null");
    m_file.file().release_before(uint64_t{1} << 40);
    EXPECT_FALSE(m_file.buffer().has_failed());
    m_file.close();
    m_file.file().release_before(uint64_t{1} << 40);
    EXPECT_EQ(m_failure.error, 0);
}

}  // namespace
