// Errors of the system that an update image keeps or reports.

#include "image_fixture.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <unistd.h>

namespace {

using namespace firmware_tests;

class QZImageError : public QZImageTest {
protected:
    // From now on the image reads a directory, which fails with EISDIR. False when its file is not open.
    bool put_directory_in_its_place() const {
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code ignored;
            if (!std::filesystem::equivalent(entry.path(), path(), ignored))
                continue;
            const int opened = ::open(m_directory.path().c_str(), O_RDONLY);
            const int descriptor = std::stoi(entry.path().filename().string());
            const bool placed = opened >= 0 && ::dup2(opened, descriptor) == descriptor;
            ::close(opened);
            return placed;
        }
        return false;
    }
};

TEST_F(QZImageError, OfAReadIsThatOfTheSystem) {
    Bytes bytes = small_firmware().build();
    bytes.resize(1000000, 0x55);
    ASSERT_EQ(init(bytes), 0);
    ASSERT_TRUE(put_directory_in_its_place());
    EXPECT_EQ(data(500000, 400000), std::nullopt);
    EXPECT_EQ(m_image.GetReadError(), EISDIR);
}

TEST_F(QZImageError, OfTheFirstFailedReadIsKept) {
    Bytes bytes = small_firmware().build();
    const std::size_t size = bytes.size();
    bytes.resize(1000000, 0x55);
    ASSERT_EQ(init(bytes), 0);
    std::filesystem::resize_file(path(), size);
    EXPECT_EQ(data(500000, 400000), std::nullopt);
    EXPECT_EQ(m_image.GetReadError(), EIO);
    ASSERT_TRUE(put_directory_in_its_place());
    errno = 0;
    EXPECT_EQ(data(500000, 400000), std::nullopt);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(m_image.GetReadError(), EIO);
}

TEST_F(QZImageError, OfTheCloseOfACopyFailsTheSave) {
    const Firmware firmware = small_firmware();
    ASSERT_LT(firmware.boot.build().size(), 1024U);  // leaves stdio's buffer with the close
    ASSERT_EQ(init(firmware), 0);
    EXPECT_FALSE(m_image.SaveBootFile("/dev/full"));
}

}  // namespace
