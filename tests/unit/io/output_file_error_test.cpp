// Writes, seeks and closes that fail.

#include "../storage/partition_fixture.h"
#include "output_file_fixture.h"
#include "support/process_limits.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace storage_test;
using namespace test_support;

// ---- files that are not regular ----

TEST_F(OutputFileTest, DeviceTakesSeeksAndKnowsItsSize) {
    m_file.open("/dev/null");
    put(m_file, Bytes(3000000, 0));
    m_file.seekp(10);
    m_file.write("abc", 3);
    m_file.seekp(0, std::ios_base::end);
    EXPECT_EQ(m_file.tellp(), 3000000);
    m_file.close();
    EXPECT_TRUE(m_file.good());
    EXPECT_EQ(m_failure.error, 0);
}

// ---- errors ----

TEST_F(OutputFileTest, FullDeviceIsNoticedAtTheLatestAtTheClose) {
    m_file.open("/dev/full");
    m_file.write("abc", 3);
    EXPECT_TRUE(m_file.good()) << "gathered only";
    m_file.close();
    EXPECT_TRUE(m_file.fail());
    EXPECT_FALSE(m_file.is_open());
    EXPECT_EQ(m_failure.path, "/dev/full");
    EXPECT_EQ(m_failure.error, ENOSPC);
}

TEST_F(OutputFileTest, FullDeviceGetsZerosAsBytes) {
    m_file.open("/dev/full");
    m_file.write_fill(0, 1, 2 * kLargestBlock);
    EXPECT_TRUE(m_file.bad());
    EXPECT_EQ(m_failure.error, ENOSPC);
}

TEST_F(OutputFileTest, ErrorIsSticky) {
    m_file.open("/dev/full");
    m_file.write("abc", 3);
    m_file.flush();
    EXPECT_TRUE(m_file.bad());
    m_file.write("def", 3);
    EXPECT_EQ(m_file.tellp(), -1);
    // Even a stream that somebody cleared takes nothing more for this file.
    m_file.clear();
    m_file.write("ghi", 3);
    EXPECT_TRUE(m_file.bad());
    m_file.clear();
    m_file.put('x');
    EXPECT_TRUE(m_file.bad());
    m_file.clear();
    m_file.write_fill(0, 1, 1);
    EXPECT_TRUE(m_file.bad());
    m_file.clear();
    m_file.flush();
    EXPECT_TRUE(m_file.bad());
    m_file.clear();
    m_file.close();
    EXPECT_TRUE(m_file.fail());
}

TEST_F(OutputFileTest, FailedWriteIsToldFromAFailedSeek) {
    m_file.open(path());
    m_file.seekp(-1);
    EXPECT_TRUE(m_file.fail());
    EXPECT_FALSE(m_file.buffer().has_failed());
    m_file.clear();
    m_file.write("abc", 3);
    m_file.setstate(std::ios_base::failbit);
    EXPECT_EQ(m_file.buffer().position(), 3U) << "whatever the state";
    m_file.give_up(EIO);
    EXPECT_TRUE(m_file.buffer().has_failed());
    m_file.close();
    EXPECT_TRUE(m_file.buffer().has_failed());
    m_file.open(path());
    EXPECT_FALSE(m_file.buffer().has_failed());
}

TEST_F(OutputFileTest, IdentityIsThatOfTheOpenFile) {
    struct stat status {};
    m_file.open(path());
    ASSERT_EQ(::stat(path().c_str(), &status), 0);
    EXPECT_TRUE(m_file.file().identity().is(status));
    m_file.close();
    EXPECT_FALSE(m_file.file().identity().is(status));
}

TEST_F(OutputFileTest, AnotherFileStartsAfreshWithTheFirstFailure) {
    m_file.open("/dev/full");
    m_file.write("abc", 3);
    m_file.open(path());
    EXPECT_TRUE(m_file.good());
    EXPECT_EQ(m_file.tellp(), 0);
    m_file.write("def", 3);
    m_file.close();
    EXPECT_TRUE(m_file.good());
    EXPECT_EQ(to_text(read_file(path())), "def");
    m_file.open(path("second"));
    m_file.give_up(EIO);
    EXPECT_EQ(m_failure.path, "/dev/full");
    EXPECT_EQ(m_failure.error, ENOSPC);
}

TEST_F(OutputFileTest, OpenClearsTheStateOfAFailedOpen) {
    expect_open_fails_with(m_file, path("missing/out.img"), ENOENT);
    m_file.open(path());
    EXPECT_TRUE(m_file.good());
}

TEST_F(OutputFileTest, ClosingWhatIsNotOpenFails) {
    m_file.close();
    EXPECT_TRUE(m_file.fail());
    EXPECT_EQ(m_failure.error, 0);
    m_file.open(path());
    m_file.close();
    EXPECT_TRUE(m_file.good());
    m_file.close();
    EXPECT_TRUE(m_file.fail());
}

TEST_F(OutputFileTest, WritingWhatIsNotOpenFails) {
    m_file.write("abc", 3);
    EXPECT_TRUE(m_file.bad());
    m_file.clear();
    m_file.write_fill(0, 1, 5);
    EXPECT_TRUE(m_file.bad());
    m_file.clear();
    m_file.seekp(0);
    EXPECT_TRUE(m_file.fail());
    EXPECT_EQ(m_failure.error, 0);
}

TEST_F(OutputFileTest, ErrorOfTheCloseItselfIsKept) {
    m_file.open(path());
    m_file.write("abc", 3);
    m_file.flush();
    ::close(m_file.file().descriptor());  // the next close fails with EBADF
    m_file.close();
    EXPECT_TRUE(m_file.fail());
    EXPECT_EQ(m_failure.path, path());
    EXPECT_EQ(m_failure.error, EBADF);
    EXPECT_EQ(to_text(read_file(path())), "abc");
}

TEST_F(OutputFileTest, GivenUpFileTakesNothingMore) {
    m_file.open(path());
    m_file.write("abc", 3);
    m_file.flush();
    m_file.write("def", 3);
    m_file.give_up(ENOMEM);
    EXPECT_TRUE(m_file.bad());
    m_file.write_fill(1, 5, 5);
    m_file.clear();
    m_file.seekp(0);  // writes what is gathered, otherwise
    EXPECT_TRUE(m_file.fail());
    m_file.close();
    EXPECT_EQ(to_text(read_file(path())), "abc");
    EXPECT_EQ(m_failure.path, path());
    EXPECT_EQ(m_failure.error, ENOMEM);
}

TEST_F(OutputFileTest, WorksWithoutARecordOfFailures) {
    OutputFile file;
    file.open("/dev/full");
    file.write("abc", 3);
    file.close();
    EXPECT_TRUE(file.fail());
}

TEST_F(OutputFileTest, DiskThatIsFullHalfWayKeepsWhatFitted) {
    const Bytes data = patterned(kLargestBlock + 1000, 3);
    const FileSizeLimit limit(100000);
    m_file.open(path());
    put(m_file, data);
    EXPECT_TRUE(m_file.bad());
    EXPECT_EQ(m_failure.path, path());
    EXPECT_EQ(m_failure.error, EFBIG);
    m_file.clear();
    m_file.seekp(0);
    m_file.write("more", 4);
    m_file.close();
    EXPECT_TRUE(same_bytes(read_file(path()), slice(data, 0, 100000)));
}

TEST_F(OutputFileTest, LengthThatTheDiskDoesNotAllowFailsTheHoleToo) {
    const FileSizeLimit limit(1 << 20);
    m_file.open(path());
    m_file.write_fill(0, 1, (1 << 20) + 1);
    EXPECT_TRUE(m_file.good()) << "a hole costs nothing yet";
    m_file.close();
    EXPECT_TRUE(m_file.fail());
    EXPECT_EQ(m_failure.error, EFBIG);
}

TEST_F(OutputFileTest, FailedWriteBeforeASeekFailsTheSeek) {
    m_file.open("/dev/full");
    m_file.write("abc", 3);
    m_file.seekp(0);
    EXPECT_TRUE(m_file.fail());
    EXPECT_EQ(m_failure.error, ENOSPC);
}

TEST(FirstFailure, IsKept) {
    WriteFailure failure;
    failure.note("first", ENOSPC);
    failure.note("second", EIO);
    EXPECT_EQ(failure.path, "first");
    EXPECT_EQ(failure.error, ENOSPC);
}

}  // namespace
