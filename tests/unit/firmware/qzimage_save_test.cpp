#include "image_fixture.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <filesystem>

namespace {

using namespace firmware_tests;

using test_support::read_file;
using test_support::sample_firmware;
using test_support::slice;

class QZImageSave : public QZImageTest {
protected:
    const std::filesystem::path m_copy = m_directory / "copy";
};

TEST_F(QZImageSave, CopiesBootContainerAndPackage) {
    const Firmware firmware = sample_firmware();
    const auto where = firmware.layout();
    test_support::write_file(m_copy, test_support::patterned(100000, 1));  // it is replaced
    ASSERT_EQ(init(firmware), 0);
    ASSERT_TRUE(m_image->SaveBootFile(m_copy));
    EXPECT_EQ(read_file(m_copy), firmware.boot.build());
    ASSERT_TRUE(m_image->SaveFWFile(m_copy));
    EXPECT_EQ(read_file(m_copy), slice(firmware.build(), where.package_offset, where.package_size));
    EXPECT_EQ(data(0, 4), test_support::to_bytes("QZFW")) << "the image stays readable";
    EXPECT_EQ(read_file(path()), firmware.build());
}

TEST_F(QZImageSave, CopiesPackagesOfAnySize) {
    const Firmware plain = sample_firmware();
    const Bytes bytes = plain.build();
    for (const uint64_t size : {0U, 1U, 1023U, 1024U, 1025U, 2048U, 5000U}) {
        Firmware firmware = plain;
        firmware.package_size = size;
        ASSERT_EQ(init(firmware), 0);
        ASSERT_TRUE(m_image->SaveFWFile(m_copy)) << size;
        EXPECT_EQ(read_file(m_copy), slice(bytes, plain.layout().package_offset, size)) << size;
    }
}

TEST_F(QZImageSave, CopiesADamagedBootContainerToo) {
    Firmware firmware = small_firmware();
    firmware.boot.crc = 0x12345678;
    ASSERT_EQ(init(firmware), -2006);
    ASSERT_TRUE(m_image->SaveBootFile(m_copy));
    EXPECT_EQ(read_file(m_copy), firmware.boot.build());
}

// ---- failures ----

TEST_F(QZImageSave, NeedsALoadedImage) {
    EXPECT_FALSE(m_image->SaveBootFile(m_copy));
    EXPECT_FALSE(m_image->SaveFWFile(m_copy));
    EXPECT_FALSE(std::filesystem::exists(m_copy));
}

// Copies that are smaller than the buffer of their file fail only when it is closed.
TEST_F(QZImageSave, FailsWhereNoFileCanBeMadeOrWritten) {
    constexpr std::size_t file_buffer = 1024;  // no C library has less
    Firmware small = small_firmware();
    small.package_size = 100;
    ASSERT_LT(small.boot.build().size(), file_buffer);
    const Firmware large = sample_firmware();
    ASSERT_GT(large.boot.build().size(), 4 * file_buffer);
    for (const Firmware& firmware : {small, large}) {
        ASSERT_EQ(init(firmware), 0);
        for (const std::filesystem::path& target :
             {m_directory / "absent" / "copy", m_directory.path(), std::filesystem::path("/dev/full")}) {
            EXPECT_FALSE(m_image->SaveBootFile(target)) << target;
            EXPECT_FALSE(m_image->SaveFWFile(target)) << target;
        }
    }
}

TEST_F(QZImageSave, FailsWhenTheFirmwareEndsBeforeThePackage) {
    Firmware firmware = small_firmware();
    firmware.package_size = firmware.layout().package_size + 100000;
    ASSERT_EQ(init(firmware), 0);
    EXPECT_FALSE(m_image->SaveFWFile(m_copy));
}

TEST_F(QZImageSave, NeverOverwritesTheFirmwareItself) {
    const Firmware firmware = sample_firmware();
    ASSERT_EQ(init(firmware), 0);
    std::filesystem::create_hard_link(path(), m_directory / "hard.img");
    std::filesystem::create_symlink("firmware.img", m_directory / "soft.img");
    std::filesystem::create_directory(m_directory / "sub");
    for (const char* name :
         {"firmware.img", "./firmware.img", "sub/../firmware.img", "hard.img", "soft.img"}) {
        SCOPED_TRACE(name);
        errno = 0;
        EXPECT_FALSE(m_image->SaveBootFile(m_directory / name));
        EXPECT_EQ(errno, EBUSY);
        errno = 0;
        EXPECT_FALSE(m_image->SaveFWFile(m_directory / name));
        EXPECT_EQ(errno, EBUSY);
        EXPECT_EQ(read_file(path()), firmware.build());
    }
}

}  // namespace
