// Zeros: which become holes, and which are written.

#include "../storage/partition_fixture.h"
#include "output_file_fixture.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace storage_test;
using namespace test_support;

TEST_F(OutputFileTest, ZerosAfterTheEndBecomeAHole) {
    if (!holes_cost_nothing())
        GTEST_SKIP() << "the file system has no holes";
    const Bytes zeros(8 << 20, 0);
    m_file.open(path());
    m_file.write("head", 4);
    put(m_file, zeros);
    m_file.write("tail", 4);
    m_file.close();
    Bytes expected = to_bytes("head");
    put_bytes(expected, zeros);
    put_bytes(expected, to_bytes("tail"));
    EXPECT_TRUE(same_bytes(read_file(path()), expected));
    EXPECT_LE(allocated(), uint64_t{2 * 65536});
}

TEST_F(OutputFileTest, FileOfZerosAloneHasItsLengthAndNoBytes) {
    if (!holes_cost_nothing())
        GTEST_SKIP() << "the file system has no holes";
    const uint64_t size = (4 << 20) + 1;
    m_file.open(path());
    m_file.write_fill(0, 1, size);
    m_file.flush();
    EXPECT_EQ(std::filesystem::file_size(path()), size);
    m_file.close();
    EXPECT_TRUE(same_bytes(read_file(path()), Bytes(size, 0)));
    EXPECT_LE(allocated(), uint64_t{65536});
}

TEST_F(OutputFileTest, HolesOfTheNextFileDoNotDependOnTheOneBefore) {
    if (!holes_cost_nothing())
        GTEST_SKIP() << "the file system has no holes";
    m_file.open(path("first"));
    put(m_file, Bytes(4 << 20, 0xAA));
    m_file.open(path());
    put(m_file, Bytes(4 << 20, 0));
    m_file.close();
    EXPECT_LE(allocated(), uint64_t{65536});
}

TEST_F(OutputFileTest, ShortRunsOfZerosAreWrittenWithTheirNeighbours) {
    Bytes data = patterned(1 << 20, 1);
    for (std::size_t at = 0; at < data.size(); at += 4096)
        put_bytes_at(data, at, Bytes(2048, 0));
    m_file.open(path());
    put(m_file, data);
    m_file.close();
    EXPECT_GE(allocated(), data.size());
    EXPECT_TRUE(same_bytes(read_file(path()), data));
}

TEST_F(OutputFileTest, FillInsideAHoleKeepsTheLength) {
    m_file.open(path());
    m_file.write_fill(0, 1, 10 << 20);
    m_file.seekp(5);
    m_file.write_fill(0, 1, 3 << 20);
    EXPECT_EQ(m_file.tellp(), 5 + (3 << 20));
    m_file.seekp(0, std::ios_base::end);
    EXPECT_EQ(m_file.tellp(), 10 << 20);
    m_file.close();
    EXPECT_TRUE(same_bytes(read_file(path()), Bytes(10 << 20, 0)));
}

TEST_F(OutputFileTest, OnlyZerosBecomeHoles) {
    const Bytes ones(2 << 20, 0xFF);
    m_file.open(path());
    put(m_file, ones);
    m_file.write_fill(0xFF, 2, 1 << 20);
    m_file.close();
    EXPECT_GE(allocated(), uint64_t{4 << 20});
    EXPECT_TRUE(same_bytes(read_file(path()), Bytes(4 << 20, 0xFF)));
}

TEST_F(OutputFileTest, KeptZeroBytesAreWrittenOut) {
    m_file.file().keep_zero_bytes();
    m_file.open(path(), kInOut | std::ios_base::trunc);
    put(m_file, Bytes(2 << 20, 0));
    m_file.write_fill(0, 2, 1 << 20);
    m_file.close();
    EXPECT_GE(allocated(), uint64_t{4 << 20});
    EXPECT_TRUE(same_bytes(read_file(path()), Bytes(4 << 20, 0)));
}

TEST_F(OutputFileTest, ZerosOverwriteWhatWasThere) {
    for (const bool by_fill : {false, true}) {
        m_file.open(path());
        put(m_file, Bytes(1 << 20, 0xAA));
        m_file.seekp(1000);
        if (by_fill)
            m_file.write_fill(0, 600, 1024);
        else
            put(m_file, Bytes(600 * 1024, 0));
        m_file.close();
        Bytes expected(1 << 20, 0xAA);
        put_bytes_at(expected, 1000, Bytes(600 * 1024, 0));
        EXPECT_TRUE(same_bytes(read_file(path()), expected)) << by_fill;
    }
}

TEST_F(OutputFileTest, ZerosFromInsideToAfterTheEndClearTheData) {
    for (const bool by_fill : {false, true}) {
        m_file.open(path());
        put(m_file, Bytes(700000, 0xAA));
        m_file.seekp(300001);
        if (by_fill)
            m_file.write_fill(0, 1, 3000000);
        else
            put(m_file, Bytes(3000000, 0));
        m_file.close();
        Bytes expected(300001, 0xAA);
        expected.resize(3300001, 0);
        EXPECT_TRUE(same_bytes(read_file(path()), expected)) << by_fill;
    }
}

TEST_F(OutputFileTest, ZerosOverwriteTheContentOfAFileThatWasKept) {
    write_file(path(), Bytes(600000, 0xAA));
    m_file.open(path(), kInOut);
    m_file.write_fill(0, 1, 590000);
    m_file.close();
    Bytes expected(590000, 0);
    expected.resize(600000, 0xAA);
    EXPECT_TRUE(same_bytes(read_file(path()), expected));
}

TEST_F(OutputFileTest, FlushedHoleMayBeWrittenInto) {
    m_file.open(path());
    m_file.write_fill(0, 1, 1 << 20);
    m_file.flush();
    m_file.seekp(500000);
    m_file.write("data", 4);
    m_file.seekp(500001);
    put(m_file, Bytes(2, 0));
    m_file.close();
    Bytes expected(1 << 20, 0);
    put_bytes_at(expected, 500000, {'d', 0, 0, 'a'});
    EXPECT_TRUE(same_bytes(read_file(path()), expected));
}

TEST_F(OutputFileTest, ReleasedBytesTakeNoRoomAndTheRestStays) {
    if (!holes_cost_nothing())
        GTEST_SKIP() << "the file system has no holes";
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
    Bytes expected(2 * step, 0);
    put_bytes(expected, slice(data, 2 * step, 5000));
    put_bytes(expected, to_bytes("tail"));
    EXPECT_TRUE(same_bytes(read_file(path()), expected));
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
