#include "boot_object.h"
#include "image_fixture.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <filesystem>

namespace {

using namespace firmware_tests;

using test_support::patterned;
using test_support::read_file;
using test_support::sample_firmware;
using test_support::slice;
using test_support::write_file;

class QZImageSave : public QZImageTest {};

TEST_F(QZImageSave, CopiesTheBootContainer) {
    const Firmware firmware = sample_firmware();
    ASSERT_EQ(init(firmware), 0);
    ASSERT_TRUE(m_image.SaveBootFile(m_directory / "copy"));
    EXPECT_EQ(read_file(m_directory / "copy"), firmware.boot.build());
}

TEST_F(QZImageSave, CopiesThePackage) {
    const Firmware firmware = sample_firmware();
    const auto where = firmware.layout();
    ASSERT_EQ(init(firmware), 0);
    ASSERT_TRUE(m_image.SaveFWFile(m_directory / "copy"));
    EXPECT_EQ(read_file(m_directory / "copy"),
              slice(firmware.build(), where.package_offset, where.package_size));
}

TEST_F(QZImageSave, CopiesPackagesOfAnySize) {
    const Firmware plain = sample_firmware();
    const Bytes bytes = plain.build();
    for (const uint64_t size : {0U, 1U, 1023U, 1024U, 1025U, 2048U, 5000U}) {
        Firmware firmware = plain;
        firmware.package_size = size;
        firmware.write(path());
        CQZImage sized;
        ASSERT_EQ(sized.ObjectInit(path(), false), 0);
        ASSERT_TRUE(sized.SaveFWFile(m_directory / "copy")) << size;
        EXPECT_EQ(read_file(m_directory / "copy"), slice(bytes, plain.layout().package_offset, size)) << size;
    }
}

TEST_F(QZImageSave, ReplacesAnOlderFile) {
    write_file(m_directory / "copy", patterned(100000, 1));
    const Firmware firmware = small_firmware();
    ASSERT_EQ(init(firmware), 0);
    ASSERT_TRUE(m_image.SaveBootFile(m_directory / "copy"));
    EXPECT_EQ(read_file(m_directory / "copy"), firmware.boot.build());
}

TEST_F(QZImageSave, LeavesTheImageReadable) {
    const Firmware firmware = sample_firmware();
    ASSERT_EQ(init(firmware), 0);
    ASSERT_TRUE(m_image.SaveFWFile(m_directory / "package"));
    ASSERT_TRUE(m_image.SaveBootFile(m_directory / "boot"));
    EXPECT_EQ(data(0, 4), test_support::to_bytes("QZFW"));
    EXPECT_EQ(read_file(path()), firmware.build());
}

TEST_F(QZImageSave, CopiesADamagedBootContainerToo) {
    Firmware firmware = small_firmware();
    firmware.boot.crc = 0x12345678;
    ASSERT_EQ(init(firmware), -2006);
    ASSERT_TRUE(m_image.SaveBootFile(m_directory / "copy"));
    EXPECT_EQ(read_file(m_directory / "copy"), firmware.boot.build());
}

// ---- failures ----

TEST_F(QZImageSave, NeedsALoadedImage) {
    EXPECT_FALSE(m_image.SaveBootFile(m_directory / "copy"));
    EXPECT_FALSE(m_image.SaveFWFile(m_directory / "copy"));
    EXPECT_FALSE(std::filesystem::exists(m_directory / "copy"));
}

TEST_F(QZImageSave, FailsWhereNoFileCanBeMade) {
    ASSERT_EQ(init(sample_firmware()), 0);
    EXPECT_FALSE(m_image.SaveBootFile(m_directory / "absent" / "copy"));
    EXPECT_FALSE(m_image.SaveFWFile(m_directory / "absent" / "copy"));
    EXPECT_FALSE(m_image.SaveFWFile(m_directory.path()));
}

TEST_F(QZImageSave, FailsWhenTheCopyCannotBeWritten) {
    ASSERT_EQ(init(sample_firmware()), 0);
    EXPECT_FALSE(m_image.SaveBootFile("/dev/full"));
    EXPECT_FALSE(m_image.SaveFWFile("/dev/full"));
}

TEST_F(QZImageSave, FailsWhenTheFirmwareEndsBeforeThePackage) {
    Firmware firmware = small_firmware();
    firmware.package_size = firmware.layout().package_size + 100000;
    ASSERT_EQ(init(firmware), 0);
    EXPECT_FALSE(m_image.SaveFWFile(m_directory / "copy"));
}

TEST_F(QZImageSave, NeverOverwritesTheFirmwareItself) {
    const Firmware firmware = sample_firmware();
    ASSERT_EQ(init(firmware), 0);
    std::filesystem::create_hard_link(path(), m_directory / "hard.img");
    std::filesystem::create_symlink("firmware.img", m_directory / "soft.img");
    std::filesystem::create_directory(m_directory / "sub");
    for (const char* name :
         {"firmware.img", "./firmware.img", "sub/../firmware.img", "hard.img", "soft.img"}) {
        errno = 0;
        EXPECT_FALSE(m_image.SaveBootFile(m_directory / name)) << name;
        EXPECT_EQ(errno, EBUSY) << name;
        errno = 0;
        EXPECT_FALSE(m_image.SaveFWFile(m_directory / name)) << name;
        EXPECT_EQ(errno, EBUSY) << name;
        EXPECT_EQ(read_file(path()), firmware.build()) << name;
    }
}

}  // namespace
