// Opening, position and size.

#include "output_file_fixture.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace storage_test;

// ---- opening ----

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

TEST_F(OutputFileTest, NewFileHasTheUsualModeAndIsNotInherited) {
    const mode_t before = ::umask(0027);
    m_file.open(path());
    ::umask(before);
    struct stat status {};
    ASSERT_EQ(::stat(path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0640U);
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
    m_file.open(path());
    EXPECT_TRUE(m_file.good());
}

TEST_F(OutputFileTest, DanglingLinkCreatesItsTarget) {
    std::filesystem::create_symlink("target", path());
    m_file.open(path());
    m_file.write("abc", 3);
    m_file.close();
    EXPECT_EQ(to_text(read_file(path("target"))), "abc");
    EXPECT_TRUE(std::filesystem::is_symlink(path()));
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
    m_file.file().protect(FileIdentity());  // protecting nothing forbids nothing
    m_file.open(path("other"));
    EXPECT_TRUE(m_file.good());

    // One more protected file does not free the first.
    m_file.file().protect(m_file.file().identity());
    expect_open_fails_with(m_file, path("firmware"), EBUSY);
    expect_open_fails_with(m_file, path("other"), EBUSY);
}

// ---- position and size ----

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

TEST_F(OutputFileTest, FillOfMoreThanTheLargestOffsetCutsNothing) {
    m_file.open(path());
    m_file.write("abc", 3);
    m_file.write_fill(0, uint64_t{1} << 40, uint64_t{1} << 40);
    EXPECT_TRUE(m_file.bad());
    EXPECT_EQ(m_failure.error, EFBIG);
}

}  // namespace
