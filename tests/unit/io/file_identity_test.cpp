#include "io/file_identity.h"

#include "support/bytes.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <sys/stat.h>

namespace {

using test_support::TemporaryDirectory;
using test_support::write_file;

struct stat status_of(const std::filesystem::path& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0)
        throw std::runtime_error("no status of " + path.string());
    return status;
}

class FileIdentityTest : public ::testing::Test {
protected:
    FileIdentityTest() {
        write_file(m_directory / "firmware.img", {1, 2, 3});
        write_file(m_directory / "other.img", {1, 2, 3});
    }

    TemporaryDirectory m_directory;
};

TEST_F(FileIdentityTest, WithoutAFileEqualsNone) {
    const FileIdentity unknown;
    EXPECT_FALSE(unknown.known);
    EXPECT_FALSE(unknown.is(status_of(m_directory / "firmware.img")));
    const struct stat zeros {};
    EXPECT_FALSE(unknown.is(zeros));
}

TEST_F(FileIdentityTest, EqualsItsOwnFileAndNoCopy) {
    const FileIdentity identity(status_of(m_directory / "firmware.img"));
    EXPECT_TRUE(identity.known);
    EXPECT_TRUE(identity.is(status_of(m_directory / "firmware.img")));
    EXPECT_FALSE(identity.is(status_of(m_directory / "other.img")));
    EXPECT_FALSE(identity.is(status_of(m_directory.path())));
}

TEST_F(FileIdentityTest, SeesThroughEveryNameOfAFile) {
    const FileIdentity identity(status_of(m_directory / "firmware.img"));
    std::filesystem::create_hard_link(m_directory / "firmware.img", m_directory / "hard.img");
    std::filesystem::create_symlink("firmware.img", m_directory / "soft.img");
    EXPECT_TRUE(identity.is(status_of(m_directory / "hard.img")));
    EXPECT_TRUE(identity.is(status_of(m_directory / "soft.img")));
    EXPECT_TRUE(identity.is(status_of(m_directory / "." / "firmware.img")));
}

TEST_F(FileIdentityTest, StaysWithTheFileWhenItGrowsOrMoves) {
    const FileIdentity identity(status_of(m_directory / "firmware.img"));
    write_file(m_directory / "firmware.img", test_support::Bytes(5000, 7));
    EXPECT_TRUE(identity.is(status_of(m_directory / "firmware.img")));
    std::filesystem::rename(m_directory / "firmware.img", m_directory / "renamed.img");
    EXPECT_TRUE(identity.is(status_of(m_directory / "renamed.img")));
}

TEST_F(FileIdentityTest, NeedsDeviceAndInodeToAgree) {
    const struct stat file = status_of(m_directory / "firmware.img");
    const FileIdentity identity(file);
    struct stat other_device = file;
    ++other_device.st_dev;
    struct stat other_inode = file;
    ++other_inode.st_ino;
    EXPECT_FALSE(identity.is(other_device));
    EXPECT_FALSE(identity.is(other_inode));
}

}  // namespace
