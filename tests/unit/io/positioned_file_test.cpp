#include "io/positioned_file.h"

#include "io/file_offset.h"
#include "support/same_bytes.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace test_support;

constexpr OutputReceiver::OpenMode kKeep{.readable = false, .truncate = false};

class PositionedFileTest : public ::testing::Test {
protected:
    std::string path() const { return (m_directory / "out.img").string(); }

    int open(const std::string& target, OutputReceiver::OpenMode mode = {}) {
        m_size = 4711;
        return m_file.open(target, mode, m_size);
    }

    int put(uint64_t offset, const Bytes& bytes) { return m_file.bytes(offset, bytes.data(), bytes.size()); }

    TemporaryDirectory m_directory{};
    PositionedFile m_file{};
    uint64_t m_size = 0;
};

TEST_F(PositionedFileTest, BytesLieAtTheirOffsets) {
    EXPECT_FALSE(m_file.is_open());
    EXPECT_EQ(m_file.descriptor(), -1);
    ASSERT_EQ(open(path()), 0);
    EXPECT_TRUE(m_file.is_open());
    EXPECT_EQ(m_size, 0U);
    EXPECT_EQ(put(10, to_bytes("def")), 0);
    EXPECT_EQ(put(2, to_bytes("abc")), 0);
    EXPECT_EQ(put(3, to_bytes("X")), 0);
    EXPECT_EQ(put(100, {}), 0);
    const Bytes large = patterned(3000000, 1);
    EXPECT_EQ(put(13, large), 0);
    EXPECT_EQ(m_file.end(3000013), 0);
    EXPECT_EQ(m_file.close(), 0);
    EXPECT_FALSE(m_file.is_open());
    EXPECT_EQ(m_file.descriptor(), -1);
    const Bytes expected = Bytes(2, 0) + to_bytes("aXc") + Bytes(5, 0) + to_bytes("def") + large;
    EXPECT_TRUE(same_bytes(read_file(path()), expected));
}

TEST_F(PositionedFileTest, KeptContentCountsAsItsSize) {
    write_file(path(), patterned(1000, 1));
    ASSERT_EQ(open(path(), kKeep), 0);
    EXPECT_EQ(m_size, 1000U);
    EXPECT_EQ(m_file.zeros_from(), 1000U);
    EXPECT_EQ(m_file.end(500), 0);
    EXPECT_EQ(m_file.close(), 0);
    EXPECT_EQ(read_file(path()), patterned(1000, 1));

    ASSERT_EQ(open(path()), 0);
    EXPECT_EQ(m_size, 0U);
    EXPECT_EQ(m_file.zeros_from(), 0U);
    EXPECT_EQ(m_file.close(), 0);
    EXPECT_EQ(read_file(path()), Bytes());
}

TEST_F(PositionedFileTest, ZerosMayFollowWhatWasWritten) {
    ASSERT_EQ(open(path()), 0);
    EXPECT_EQ(m_file.zeros_from(), 0U);
    EXPECT_EQ(put(100, to_bytes("abc")), 0);
    EXPECT_EQ(m_file.zeros_from(), 103U);
    EXPECT_EQ(put(0, to_bytes("abc")), 0);
    EXPECT_EQ(m_file.zeros_from(), 103U);
    EXPECT_EQ(m_file.zeros(103, 97), 0);
    EXPECT_EQ(m_file.end(200), 0);
    EXPECT_EQ(m_file.zeros_from(), 200U);
    EXPECT_EQ(std::filesystem::file_size(path()), 200U);
    EXPECT_EQ(m_file.end(200), 0);
    EXPECT_EQ(m_file.close(), 0);
    EXPECT_EQ(read_file(path()), to_bytes("abc") + Bytes(97, 0) + to_bytes("abc") + Bytes(97, 0));
}

TEST_F(PositionedFileTest, KeptZeroBytesAllowNoZeros) {
    m_file.keep_zero_bytes();
    ASSERT_EQ(open(path()), 0);
    EXPECT_EQ(m_file.zeros_from(), OutputReceiver::kNoZeros);
}

TEST_F(PositionedFileTest, PipeThatIsToBeReadBackIsRefused) {
    ASSERT_EQ(::mkfifo(path().c_str(), 0600), 0);
    EXPECT_EQ(open(path(), {.readable = true, .truncate = true}), ESPIPE);
    EXPECT_FALSE(m_file.is_open());
    EXPECT_EQ(m_file.descriptor(), -1);
}

TEST_F(PositionedFileTest, IdentityIsThatOfTheOpenFile) {
    struct stat status {};
    ASSERT_EQ(open(path()), 0);
    ASSERT_EQ(::stat(path().c_str(), &status), 0);
    EXPECT_TRUE(m_file.identity().is(status));
    EXPECT_EQ(m_file.close(), 0);
    EXPECT_FALSE(m_file.identity().is(status));
}

TEST_F(PositionedFileTest, FailedWriteSaysWhy) {
    ASSERT_EQ(open("/dev/full"), 0);
    EXPECT_EQ(m_file.zeros_from(), OutputReceiver::kNoZeros) << "no regular file";
    EXPECT_EQ(put(0, to_bytes("abc")), ENOSPC);
    EXPECT_EQ(m_file.end(100), 0) << "nothing to bring to its length";
    EXPECT_EQ(m_file.close(), 0);

    ASSERT_EQ(open(path()), 0);
    EXPECT_EQ(put(kLargestOffset - 1, to_bytes("abc")), EINVAL) << "of the kernel";
    EXPECT_EQ(m_file.close(), 0);
}

// Space is reserved before a write; that does not make the file longer.
TEST_F(PositionedFileTest, FailedWriteLeavesTheLength) {
    constexpr std::size_t kSize = 1024 * 1024;
    void* const unreadable = ::mmap(nullptr, kSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(unreadable, MAP_FAILED);
    ASSERT_EQ(open(path()), 0);
    EXPECT_EQ(m_file.bytes(0, static_cast<const uint8_t*>(unreadable), kSize), EFAULT);
    EXPECT_EQ(m_file.close(), 0);
    EXPECT_EQ(read_file(path()), Bytes());
    ::munmap(unreadable, kSize);
}

TEST_F(PositionedFileTest, FailedCloseSaysWhy) {
    ASSERT_EQ(open(path()), 0);
    ::close(m_file.descriptor());
    EXPECT_EQ(m_file.close(), EBADF);
    EXPECT_FALSE(m_file.is_open());
}

TEST_F(PositionedFileTest, PipeTakesBytesInOrderOnly) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe(ends.data()), 0);
    ASSERT_EQ(open("/proc/self/fd/" + std::to_string(ends[1])), 0);
    EXPECT_EQ(m_file.zeros_from(), OutputReceiver::kNoZeros);
    EXPECT_EQ(put(0, to_bytes("abc")), 0);
    EXPECT_EQ(put(3, to_bytes("def")), 0);
    EXPECT_EQ(put(7, to_bytes("x")), ESPIPE);
    EXPECT_EQ(put(0, to_bytes("x")), ESPIPE);
    EXPECT_EQ(m_file.close(), 0);
    ::close(ends[1]);
    Bytes found(100);
    EXPECT_EQ(::read(ends[0], found.data(), found.size()), 6);
    ::close(ends[0]);
    found.resize(6);
    EXPECT_EQ(found, to_bytes("abcdef"));
}

TEST_F(PositionedFileTest, EndOfTheObjectClosesTheFile) {
    int descriptor = -1;
    {
        PositionedFile file;
        ASSERT_EQ(file.open(path(), {}, m_size), 0);
        descriptor = file.descriptor();
    }
    EXPECT_EQ(::fcntl(descriptor, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
}

}  // namespace
