// Opening, position and size, and how bytes are gathered.

#include "../storage/partition_fixture.h"
#include "output_file_fixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <span>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace storage_test;
using namespace test_support;

// ---- opening ----

TEST_F(OutputFileTest, IsClosedAndGoodAtFirst) {
    EXPECT_FALSE(m_file.is_open());
    EXPECT_TRUE(m_file.good());
    EXPECT_EQ(m_file.file().descriptor(), -1);
}

TEST_F(OutputFileTest, OpenTruncatesByDefault) {
    write_file(path(), patterned(5000, 1));
    m_file.open(path());
    EXPECT_TRUE(m_file.is_open());
    EXPECT_EQ(m_file.tellp(), 0);
    EXPECT_EQ(std::filesystem::file_size(path()), 0U);
    m_file.close();
    EXPECT_EQ(read_file(path()), Bytes());
}

TEST_F(OutputFileTest, OpenForReadingKeepsWhatIsNotTruncated) {
    write_file(path(), to_bytes("abcdef"));
    m_file.open(path(), kInOut);
    m_file.seekp(2);
    m_file.write("XY", 2);
    m_file.seekp(0, std::ios_base::end);
    EXPECT_EQ(m_file.tellp(), 6);
    m_file.close();
    EXPECT_EQ(to_text(read_file(path())), "abXYef");

    m_file.open(path(), kInOut | std::ios_base::trunc);
    m_file.write("new", 3);
    m_file.flush();
    char text[3] = {};
    EXPECT_EQ(::pread(m_file.file().descriptor(), text, sizeof(text), 0), 3);
    EXPECT_EQ(std::string(text, 3), "new");
    m_file.close();
    EXPECT_EQ(to_text(read_file(path())), "new");
}

TEST_F(OutputFileTest, AppendingStartsAtTheEndOfWhatIsThere) {
    write_file(path(), to_bytes("abc"));
    m_file.open(path(), std::ios_base::out | std::ios_base::app);
    EXPECT_EQ(m_file.tellp(), 3);
    m_file.write("def", 3);
    m_file.open(path(), kInOut | std::ios_base::ate);
    EXPECT_EQ(m_file.tellp(), 6);
    m_file.write("ghi", 3);
    m_file.close();
    EXPECT_EQ(to_text(read_file(path())), "abcdefghi");
}

TEST_F(OutputFileTest, PipeThatIsToBeReadBackIsRefused) {
    ASSERT_EQ(::mkfifo(path().c_str(), 0600), 0);
    errno = 0;
    m_file.open(path(), kInOut | std::ios_base::trunc);
    EXPECT_EQ(errno, ESPIPE);
    EXPECT_FALSE(m_file.is_open());
}

TEST_F(OutputFileTest, NewFileHasTheUsualPermissions) {
    const mode_t before = ::umask(0027);
    m_file.open(path());
    ::umask(before);
    struct stat status {};
    ASSERT_EQ(::stat(path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0640U);
}

TEST_F(OutputFileTest, DescriptorIsNotHandedToOtherPrograms) {
    m_file.open(path());
    EXPECT_NE(::fcntl(m_file.file().descriptor(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(OutputFileTest, FailedOpenSetsErrno) {
    std::filesystem::create_directory(path("directory"));
    std::filesystem::create_symlink("loop", path("loop"));
    write_file(path("file"), {});
    expect_open_fails_with(m_file, path("directory"), EISDIR);
    expect_open_fails_with(m_file, path("missing/out.img"), ENOENT);
    expect_open_fails_with(m_file, path("file/out.img"), ENOTDIR);
    expect_open_fails_with(m_file, path("loop"), ELOOP);
    expect_open_fails_with(m_file, path(std::string(256, 'n')), ENAMETOOLONG);
    expect_open_fails_with(m_file, "", ENOENT);
    EXPECT_EQ(m_failure.error, 0) << "nothing was to be written yet";
}

TEST_F(OutputFileTest, DanglingLinkCreatesItsTarget) {
    std::filesystem::create_symlink("target", path());
    m_file.open(path());
    m_file.write("abc", 3);
    m_file.close();
    EXPECT_EQ(to_text(read_file(path("target"))), "abc");
    EXPECT_TRUE(std::filesystem::is_symlink(path()));
}

TEST_F(OutputFileTest, OpenClosesTheFileBefore) {
    m_file.open(path("first"));
    m_file.write("one", 3);
    m_file.open(path("second"));
    m_file.write("two", 3);
    EXPECT_EQ(m_file.tellp(), 3);
    m_file.close();
    EXPECT_EQ(to_text(read_file(path("first"))), "one");
    EXPECT_EQ(to_text(read_file(path("second"))), "two");
}

TEST_F(OutputFileTest, EndOfTheObjectWritesWhatIsGathered) {
    {
        OutputFile file;
        file.open(path());
        put(file, patterned(1000, 1));
    }
    EXPECT_EQ(read_file(path()), patterned(1000, 1));
}

// ---- a file that must not be overwritten ----

TEST_F(OutputFileTest, ProtectedFileIsNeverOpenedByAnyOfItsNames) {
    const Bytes precious = patterned(3000, 9);
    write_file(path("firmware"), precious);
    std::filesystem::create_hard_link(path("firmware"), path("hard"));
    std::filesystem::create_symlink("firmware", path("soft"));
    std::filesystem::create_symlink("soft", path("softer"));
    std::filesystem::create_directory(path("sub"));
    struct stat status {};
    ASSERT_EQ(::stat(path("firmware").c_str(), &status), 0);
    m_file.file().protect(FileIdentity(status));

    for (const char* name : {"firmware", "hard", "soft", "softer", "./firmware", "sub/../firmware"}) {
        expect_open_fails_with(m_file, path(name), EBUSY);
        errno = 0;
        m_file.open(path(name), kInOut);
        EXPECT_EQ(errno, EBUSY) << name;
        EXPECT_EQ(read_file(path("firmware")), precious) << name;
    }
    m_file.open(path("other"));
    EXPECT_TRUE(m_file.good());

    // One more protected file does not free the first.
    m_file.file().protect(m_file.file().identity());
    expect_open_fails_with(m_file, path("firmware"), EBUSY);
    expect_open_fails_with(m_file, path("other"), EBUSY);
}

TEST_F(OutputFileTest, ProtectingNothingForbidsNothing) {
    m_file.file().protect(FileIdentity());
    m_file.open(path());
    EXPECT_TRUE(m_file.is_open());
}

// ---- position and size ----

TEST_F(OutputFileTest, PositionIsKnownBeforeAnythingIsWrittenOut) {
    m_file.open(path());
    put(m_file, patterned(1000, 1));
    EXPECT_EQ(m_file.tellp(), 1000);
    EXPECT_EQ(std::filesystem::file_size(path()), 0U);
    m_file.seekp(0, std::ios_base::end);
    EXPECT_EQ(m_file.tellp(), 1000);
    m_file.seekp(-400, std::ios_base::cur);
    EXPECT_EQ(m_file.tellp(), 600);
    m_file.seekp(-1, std::ios_base::end);
    EXPECT_EQ(m_file.tellp(), 999);
    m_file.put('x');
    m_file.put('y');
    EXPECT_EQ(m_file.tellp(), 1001);
    m_file.seekp(0);
    m_file.seekp(0, std::ios_base::end);
    EXPECT_EQ(m_file.tellp(), 1001);
}

TEST_F(OutputFileTest, SeekAfterTheEndCountsWithTheNextByte) {
    m_file.open(path());
    m_file.write("ab", 2);
    m_file.seekp(10);
    m_file.seekp(0, std::ios_base::end);
    EXPECT_EQ(m_file.tellp(), 2);
    m_file.seekp(10);
    m_file.write("", 0);
    m_file.flush();
    EXPECT_EQ(std::filesystem::file_size(path()), 2U);
    m_file.put('c');
    m_file.close();
    EXPECT_EQ(read_file(path()), (Bytes{'a', 'b', 0, 0, 0, 0, 0, 0, 0, 0, 'c'}));
}

TEST_F(OutputFileTest, SeekingBeforeTheStartFails) {
    m_file.open(path());
    m_file.write("ab", 2);
    m_file.seekp(-3, std::ios_base::cur);
    EXPECT_TRUE(m_file.fail());
    m_file.clear();
    EXPECT_EQ(m_file.tellp(), 2) << "the position stays";
    m_file.seekp(-1);
    EXPECT_TRUE(m_file.fail());
    m_file.clear();
    m_file.seekp(-3, std::ios_base::end);
    EXPECT_TRUE(m_file.fail());
    EXPECT_EQ(m_failure.error, 0) << "no write has failed";
}

TEST_F(OutputFileTest, OffsetsBeyond4GiBAreExact) {
    const uint64_t far = (uint64_t{5} << 30) + 3;
    m_file.open(path());
    m_file.seekp(static_cast<std::streamoff>(far));
    m_file.write("xyz", 3);
    EXPECT_EQ(m_file.tellp(), static_cast<std::streamoff>(far + 3));
    m_file.write_fill(0, 3, uint64_t{1} << 30);
    m_file.close();
    EXPECT_TRUE(m_file.good());
    EXPECT_EQ(std::filesystem::file_size(path()), far + 3 + (uint64_t{3} << 30));
    const int descriptor = ::open(path().c_str(), O_RDONLY);
    char text[5] = {};
    EXPECT_EQ(::pread(descriptor, text, sizeof(text), static_cast<off_t>(far - 1)), 5);
    ::close(descriptor);
    EXPECT_EQ(std::string(text, 5), std::string("\0xyz\0", 5));
}

TEST_F(OutputFileTest, WriteAfterTheLargestOffsetCutsNothing) {
    m_file.open(path());
    m_file.write("abc", 3);
    m_file.write_fill(0, uint64_t{1} << 40, uint64_t{1} << 40);
    EXPECT_TRUE(m_file.bad());
    EXPECT_EQ(m_failure.error, EFBIG);

    m_file.open(path());
    m_file.seekp(INT64_MAX - 1);
    m_file.write("abc", 3);
    EXPECT_TRUE(m_file.bad());

    WriteFailure failure;
    OutputFile file(&failure);
    file.open(path());
    file.write("abc", 3);
    file.write_fill(0, 1, INT64_MAX - 2);
    EXPECT_TRUE(file.bad());
    EXPECT_EQ(failure.error, EFBIG);
}

// ---- blocks ----

TEST_F(OutputFileTest, BytesAreGatheredIntoLargeBlocks) {
    m_file.open(path());
    const Bytes page = patterned(2048, 1);
    uint64_t size = 0;
    int blocks = 0;
    for (int i = 0; i < 4096; ++i) {
        put(m_file, page);
        const uint64_t now = std::filesystem::file_size(path());
        if (now == size)
            continue;
        EXPECT_GE(now - size, 128U * 1024);
        EXPECT_LE(now - size, kLargestBlock);
        size = now;
        ++blocks;
    }
    EXPECT_EQ(size, 4096U * 2048);
    EXPECT_LE(blocks, 64);
}

// Wherever writing starts: runs of zeros are then found at the same places.
TEST_F(OutputFileTest, BlocksEndAtMultiplesOfTheirSize) {
    m_file.open(path());
    m_file.seekp(5000);
    put(m_file, patterned(kLargestBlock - 5000, 1));
    EXPECT_EQ(std::filesystem::file_size(path()), kLargestBlock);
    m_file.seekp(100);
    m_file.seekp(static_cast<std::streamoff>(kLargestBlock + 70000));
    put(m_file, patterned(kLargestBlock - 70001, 2));
    EXPECT_EQ(std::filesystem::file_size(path()), kLargestBlock);
    m_file.put('x');
    EXPECT_EQ(std::filesystem::file_size(path()), 2 * kLargestBlock);
}

// ---- bytes put where they are gathered ----

TEST_F(OutputFileTest, RoomTakesBytesWithoutACopy) {
    m_file.open(path());
    m_file.write("abc", 3);
    const std::span<uint8_t> room = m_file.buffer().room();
    ASSERT_EQ(room.size(), kLargestBlock - 3);
    const Bytes data = patterned(room.size(), 5);
    std::copy(data.begin(), data.end(), room.begin());
    EXPECT_EQ(m_file.tellp(), 3) << "nothing is written yet";
    m_file.write(reinterpret_cast<const char*>(room.data()), 1000);
    m_file.write(reinterpret_cast<const char*>(room.data()) + 1000,
                 static_cast<std::streamsize>(room.size()) - 1000);
    EXPECT_EQ(m_file.tellp(), static_cast<std::streamoff>(kLargestBlock));
    EXPECT_EQ(m_file.buffer().room().size(), kLargestBlock) << "a fresh block";
    m_file.close();
    Bytes expected = to_bytes("abc");
    put_bytes(expected, data);
    EXPECT_TRUE(same_bytes(read_file(path()), expected));
}

TEST_F(OutputFileTest, RoomThatIsNotUsedChangesNothing) {
    m_file.open(path());
    m_file.write("abc", 3);
    const std::span<uint8_t> room = m_file.buffer().room();
    ASSERT_GE(room.size(), 100U);
    std::fill_n(room.begin(), 100, uint8_t{0xEE});
    m_file.write("def", 3);
    m_file.close();
    EXPECT_EQ(to_text(read_file(path())), "abcdef");
}

TEST_F(OutputFileTest, ClosedOrFailedFileHasNoRoom) {
    EXPECT_TRUE(m_file.buffer().room().empty());
    m_file.open(path());
    m_file.give_up(EIO);
    EXPECT_TRUE(m_file.buffer().room().empty());
}

}  // namespace
