#include "io/file_identity.h"

#include "support/bytes.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <sys/stat.h>

namespace {

class FileIdentityTest : public ::testing::Test {
protected:
    FileIdentityTest() {
        test_support::write_file(m_directory / "firmware.img", {1, 2, 3});
        test_support::write_file(m_directory / "copy.img", {1, 2, 3});
    }

    struct stat status_of(const std::string& name) const {
        struct stat status {};
        EXPECT_EQ(::stat((m_directory / name).c_str(), &status), 0) << name;
        return status;
    }

    const test_support::TemporaryDirectory m_directory{};
};

TEST_F(FileIdentityTest, WithoutAFileEqualsNone) {
    const FileIdentity unknown;
    EXPECT_FALSE(unknown.known);
    EXPECT_FALSE(unknown.is(status_of("firmware.img")));
    const struct stat zeros {};
    EXPECT_FALSE(unknown.is(zeros));
}

TEST_F(FileIdentityTest, EqualsEveryNameOfItsFileAndNoCopy) {
    const FileIdentity identity(status_of("firmware.img"));
    EXPECT_TRUE(identity.known);
    std::filesystem::create_hard_link(m_directory / "firmware.img", m_directory / "hard.img");
    std::filesystem::create_symlink("firmware.img", m_directory / "soft.img");
    for (const char* name : {"firmware.img", "hard.img", "soft.img", "./firmware.img"})
        EXPECT_TRUE(identity.is(status_of(name))) << name;
    for (const char* name : {"copy.img", "."})
        EXPECT_FALSE(identity.is(status_of(name))) << name;
}

TEST_F(FileIdentityTest, StaysWithTheFileWhenItGrowsOrMoves) {
    const FileIdentity identity(status_of("firmware.img"));
    test_support::write_file(m_directory / "firmware.img", test_support::Bytes(5000, 7));
    EXPECT_TRUE(identity.is(status_of("firmware.img")));
    std::filesystem::rename(m_directory / "firmware.img", m_directory / "renamed.img");
    EXPECT_TRUE(identity.is(status_of("renamed.img")));
}

TEST_F(FileIdentityTest, NeedsDeviceAndInodeToAgree) {
    const struct stat file = status_of("firmware.img");
    struct stat other_device = file;
    ++other_device.st_dev;
    struct stat other_inode = file;
    ++other_inode.st_ino;
    EXPECT_FALSE(FileIdentity(file).is(other_device));
    EXPECT_FALSE(FileIdentity(file).is(other_inode));
}

}  // namespace
