// Copies that are smaller than the buffer of their file: what cannot be written fails only when the file is
// closed.

#include "image_fixture.h"

#include <gtest/gtest.h>

namespace {

using namespace firmware_tests;

constexpr const char* kFullDevice = "/dev/full";
constexpr std::size_t kFileBuffer = 1024;  // no C library has less

class SmallCopy : public QZImageTest {
protected:
    void SetUp() override {
        m_firmware.boot.loader.entries = {{.name = "FlashData", .data = test_support::patterned(100, 1)}};
        m_firmware.package_size = 100;
        ASSERT_LT(m_firmware.boot.build().size(), kFileBuffer);
        ASSERT_EQ(init(m_firmware), 0);
    }

    Firmware m_firmware = small_firmware();
};

TEST_F(SmallCopy, OfThePackageFailsOnAFullDevice) {
    ASSERT_TRUE(m_image.SaveFWFile(m_directory / "copy"));
    EXPECT_FALSE(m_image.SaveFWFile(kFullDevice));
}

TEST_F(SmallCopy, OfTheBootContainerFailsOnAFullDevice) {
    ASSERT_TRUE(m_image.SaveBootFile(m_directory / "copy"));
    EXPECT_FALSE(m_image.SaveBootFile(kFullDevice));
}

}  // namespace
