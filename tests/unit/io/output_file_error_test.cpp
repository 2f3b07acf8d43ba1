// Writes, seeks and closes that fail.

#include "output_file_fixture.h"
#include "support/process_limits.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <span>

namespace {

using namespace storage_test;

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

struct Operation {
    const char* name;
    void (*run)(OutputFile& file);
};

const Operation kOperations[] = {{"write", [](OutputFile& file) { file.write("ghi", 3); }},
                                 {"put", [](OutputFile& file) { file.put('x'); }},
                                 {"fill", [](OutputFile& file) { file.write_fill(1, 5, 5); }},
                                 {"flush", [](OutputFile& file) { file.flush(); }},
                                 {"seek", [](OutputFile& file) { file.seekp(0); }},
                                 {"close", [](OutputFile& file) { file.close(); }}};

TEST_F(OutputFileTest, FullDeviceIsNoticedWhenTheBytesLeave) {
    for (const Operation& leave : std::span(kOperations).subspan(3)) {
        SCOPED_TRACE(leave.name);
        m_failure = {};
        m_file.open("/dev/full");
        m_file.write("abc", 3);
        EXPECT_TRUE(m_file.good()) << "gathered only";
        leave.run(m_file);
        EXPECT_TRUE(m_file.fail());
        EXPECT_EQ(m_failure.path, "/dev/full");
        EXPECT_EQ(m_failure.error, ENOSPC);
    }
    EXPECT_FALSE(m_file.is_open());
}

// Even if somebody clears the stream.
TEST_F(OutputFileTest, GivenUpFileTakesNothingMore) {
    m_file.open(path());
    m_file.write("abc", 3);
    m_file.flush();
    m_file.write("def", 3);
    m_file.give_up(ENOMEM);
    EXPECT_TRUE(m_file.bad());
    EXPECT_EQ(m_file.tellp(), -1);
    for (const Operation& operation : kOperations) {
        m_file.clear();
        operation.run(m_file);
        EXPECT_TRUE(m_file.fail()) << operation.name;
    }
    EXPECT_EQ(to_text(read_file(path())), "abc");
    EXPECT_EQ(m_failure.path, path());
    EXPECT_EQ(m_failure.error, ENOMEM);
}

TEST_F(OutputFileTest, FileThatIsNotOpenTakesNothing) {
    EXPECT_FALSE(m_file.is_open());
    EXPECT_TRUE(m_file.good());
    for (const Operation& operation : kOperations) {
        m_file.clear();
        operation.run(m_file);
        EXPECT_TRUE(m_file.fail()) << operation.name;
    }
    EXPECT_EQ(m_failure.error, 0);
    m_file.open(path());
    m_file.close();
    EXPECT_TRUE(m_file.good());
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

}  // namespace
