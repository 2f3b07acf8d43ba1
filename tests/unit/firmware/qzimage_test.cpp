#include "boot_object.h"
#include "image_fixture.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using namespace firmware_tests;

using test_support::BootContainer;
using test_support::patterned;
using test_support::put32_at;
using test_support::sample_firmware;
using test_support::slice;
using test_support::write_file;
namespace head = test_support::head_field;

// ---- the codes of ObjectInit ----

TEST_F(QZImageTest, LoadsAFirmware) {
    EXPECT_EQ(init(sample_firmware()), 0);
    EXPECT_FALSE(m_image->SingleFlag);
    ASSERT_NE(m_image->GetBootObject(), nullptr);
    EXPECT_EQ(static_cast<uint8_t>(m_image->GetBootObject()->EntryLoaderCount), 2);
    EXPECT_EQ(static_cast<uint8_t>(m_image->GetBootObject()->GetIndexByName(ENTRYLOADER, "FlashBoot")), 1);
}

TEST_F(QZImageTest, IgnoresTheWishToCheck) {
    small_firmware().write(path());
    EXPECT_EQ(m_image->ObjectInit(path(), true), 0);
    EXPECT_TRUE(m_image->Md5Check(0));
    EXPECT_TRUE(m_image->Md5Check(UINT64_MAX));
}

TEST_F(QZImageTest, NeedsAFileThatIsNotADirectory) {
    write_file(m_directory / "file", {1});
    std::filesystem::create_symlink("absent.img", m_directory / "dangling.img");
    for (const char* name : {"absent.img", "absent/firmware.img", "dangling.img", "file/firmware.img"})
        EXPECT_EQ(init(m_directory / name), -1) << name;
    EXPECT_EQ(init(std::filesystem::path()), -1);
    std::filesystem::create_directory(m_directory / "loader.bin");
    std::filesystem::create_directory_symlink("loader.bin", m_directory / "link");
    for (const char* name : {".", "loader.bin", "link"})
        EXPECT_EQ(init(m_directory / name), -2) << name;
    EXPECT_EQ(m_image->GetBootObject(), nullptr);
}

TEST_F(QZImageTest, HasToBeOpened) {
    // A socket has a status but cannot be opened, not even by root.
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(path().string().size(), sizeof(address.sun_path));
    std::strcpy(address.sun_path, path().c_str());
    const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(init(path()), -3);
    ::close(socket);
    EXPECT_EQ(m_image->GetBootObject(), nullptr);
}

TEST_F(QZImageTest, HasToBeReadable) {
    // Nothing is mapped at address 0, so that reading there is an I/O error.
    if (!std::ifstream("/proc/self/mem"))
        GTEST_SKIP() << "/proc/self/mem cannot be opened here";
    EXPECT_EQ(init(std::filesystem::path("/proc/self/mem")), -5);
}

TEST_F(QZImageTest, HasToBeginWithItsTag) {
    for (const char* tag : {"QZFX", "RZFW", "qzfw", "WFZQ", "BOOT", "LDR ", "QZF", "", "none"}) {
        Firmware firmware = small_firmware();
        firmware.tag = tag;
        firmware.boot.crc = 0x12345678;  // it is not looked at
        EXPECT_EQ(init(firmware), -4) << tag;
        EXPECT_EQ(m_image->GetBootObject(), nullptr);
        EXPECT_EQ(static_cast<uint32_t>(m_image->Version), 0U);
        EXPECT_EQ(static_cast<uint32_t>(m_image->FWOffset), 0U);
    }
}

TEST_F(QZImageTest, PassesOnTheCodesOfTheBootContainer) {
    const auto code_of = [this](const BootContainer& boot) {
        Firmware firmware = small_firmware();
        firmware.boot = boot;
        return init(firmware);
    };
    EXPECT_EQ(code_of({.crc = 0x12345678}), -2006);
    EXPECT_EQ(code_of({.tag = "BOOK"}), -3006);
    EXPECT_EQ(code_of({.tag = "LDR ", .merge_version = 0x1000001}), -4006);
    EXPECT_EQ(code_of({.tag = "LDR ", .merge_version = 0x1000000}), 0);
}

TEST_F(QZImageTest, WithoutABootContainerHasNoData) {
    Firmware firmware = small_firmware();
    firmware.boot_size = 0;
    EXPECT_EQ(init(firmware), -1006);
    // At the end of the file, and after it.
    Bytes bytes = small_firmware().build();
    const auto size = static_cast<uint32_t>(bytes.size());
    for (const uint32_t offset : {size, size + 1, 0x80000000U, 0xFFFFFFFFU}) {
        put32_at(bytes, head::kBootOffset, offset);
        EXPECT_EQ(init(bytes), -1006) << offset;
    }
}

TEST_F(QZImageTest, RejectsABootContainerOfAnotherSize) {
    Firmware firmware = small_firmware();
    const auto size = static_cast<uint32_t>(firmware.boot.layout().size);
    for (const uint32_t claimed : {1U, 3U, 4U, size - 1, size + 1, size + 4}) {
        firmware.boot_size = claimed;
        EXPECT_EQ(init(firmware), -2006) << claimed;
    }
}

// ---- a file that ends early ----

TEST_F(QZImageTest, RejectsABootContainerThatTheFileCutsOff) {
    // What is left of it has a right CRC, but it is not the container that the head tells of.
    Bytes bytes = small_firmware().build();
    const Bytes container = sample_container().build();
    put32_at(bytes, head::kBootOffset, static_cast<uint32_t>(bytes.size()));
    test_support::put_bytes(bytes, container);
    const auto size = static_cast<uint32_t>(container.size());
    for (const uint32_t claimed : {size + 1, size + 1000, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
        put32_at(bytes, head::kBootSize, claimed);
        EXPECT_EQ(init(bytes), -2006) << claimed;
        EXPECT_NE(m_image->GetBootObject(), nullptr);
    }
    put32_at(bytes, head::kBootSize, size);
    EXPECT_EQ(init(bytes), 0);
}

TEST_F(QZImageTest, TellsForEveryPrefixWhatIsMissing) {
    const Firmware firmware = small_firmware();
    const Bytes bytes = firmware.build();
    const auto where = firmware.layout();
    for (std::size_t size = 0; size <= where.boot_offset + where.boot_size + 40; ++size) {
        int expected = 0;
        if (size < 4)
            expected = -4;
        else if (size <= where.boot_offset)
            expected = -1006;
        else if (size < where.boot_offset + where.boot_size)
            expected = -2006;
        ASSERT_EQ(init(slice(bytes, 0, size)), expected) << size << " bytes";
    }
}

// ---- what the head says ----

TEST_F(QZImageTest, PublishesItsHead) {
    Firmware firmware = sample_firmware();
    firmware.version = 0x89ABCDEF;
    firmware.merge_version = 0xFEDCBA98;
    firmware.release_time = {2031, 12, 25, 23, 59, 58};
    firmware.chip = 0x80706050;
    firmware.backup_size = 0xFEDC;
    firmware.boot_offset = 120;
    const auto where = firmware.layout();
    ASSERT_EQ(init(firmware), 0);
    EXPECT_EQ(static_cast<uint32_t>(m_image->Version), 0x89ABCDEFU);
    EXPECT_EQ(static_cast<uint32_t>(m_image->MergeVersion), 0xFEDCBA98U);
    EXPECT_EQ(to_text(m_image->ReleaseTime), "2031 12 25 23 59 58");
    EXPECT_EQ(static_cast<ENUM_QZDEVICE_TYPE>(m_image->SupportDevice), 0x80706050U);
    EXPECT_EQ(static_cast<ENUM_OS_TYPE>(m_image->OsType), ANDROID_OS);
    EXPECT_EQ(static_cast<uint16_t>(m_image->BackupSize), 0xFEDC);
    EXPECT_EQ(static_cast<uint32_t>(m_image->BootOffset), 120U);
    EXPECT_EQ(static_cast<uint32_t>(m_image->BootSize), where.boot_size);
    EXPECT_EQ(static_cast<uint32_t>(m_image->FWOffset), where.package_offset);
    EXPECT_EQ(static_cast<uint64_t>(m_image->FWSize), where.package_size);
    EXPECT_FALSE(m_image->SignFlag);
    EXPECT_FALSE(m_image->SingleFlag);
    EXPECT_EQ(m_image->GetImageSize(), where.file_size);
}

TEST_F(QZImageTest, KeepsTheReservedBytesWhole) {
    Firmware firmware = small_firmware();
    firmware.reserved = patterned(61, 61);
    firmware.reserved[14] = 'h';  // no mark of a large package
    firmware.os_type = 0x44332211;
    firmware.backup_size = 0x6655;
    ASSERT_EQ(init(firmware), 0);
    uint8_t* reserved = nullptr;
    uint16_t size = 0;
    m_image->GetReservedData(reserved, size);
    EXPECT_EQ(size, 61);
    EXPECT_EQ(Bytes(reserved, reserved + size), slice(firmware.build(), head::kReserved, 61));
    EXPECT_EQ(reserved[4], 0x11);
    EXPECT_EQ(reserved[13], 0x66);
    EXPECT_EQ(static_cast<uint32_t>(m_image->GetOsType()), 0x44332211U);
    EXPECT_EQ(m_image->GetBackupSize(), 0x6655);
}

TEST_F(QZImageTest, KnowsItsHeadAlsoWhenTheBootContainerIsDamaged) {
    Firmware firmware = small_firmware();
    firmware.version = 77;
    firmware.boot.crc = 0x12345678;
    ASSERT_EQ(init(firmware), -2006);
    EXPECT_EQ(static_cast<uint32_t>(m_image->Version), 77U);
    EXPECT_EQ(static_cast<uint32_t>(m_image->FWOffset), firmware.layout().package_offset);
    ASSERT_NE(m_image->GetBootObject(), nullptr);
    EXPECT_FALSE(m_image->GetBootObject()->CrcCheck());
}

TEST(QZImage, IsEmptyBeforeItIsLoaded) {
    CQZImage image;
    EXPECT_EQ(static_cast<uint32_t>(image.Version), 0U);
    EXPECT_EQ(static_cast<uint32_t>(image.FWOffset), 0U);
    EXPECT_EQ(static_cast<uint64_t>(image.FWSize), 0U);
    EXPECT_EQ(static_cast<ENUM_OS_TYPE>(image.OsType), QZ_OS);
    EXPECT_EQ(static_cast<uint16_t>(image.BackupSize), 0);
    EXPECT_FALSE(image.SignFlag);
    EXPECT_FALSE(image.SingleFlag);
    EXPECT_EQ(image.GetBootObject(), nullptr);
    EXPECT_FALSE(image.GetIdentity().known);
    EXPECT_EQ(Trailer(image).signature_size, 0);
    EXPECT_EQ(Trailer(image).md5, Bytes(32, 0));
    EXPECT_EQ(Trailer(image).signature, Bytes(256, 0));
    uint8_t* reserved = nullptr;
    uint16_t size = 0;
    image.GetReservedData(reserved, size);
    EXPECT_EQ(Bytes(reserved, reserved + size), Bytes(61, 0));
}

// ---- single mode ----

class QZImageSingleMode : public QZImageTest {};

TEST_F(QZImageSingleMode, TakesTheWholeFileAsBootContainer) {
    BootContainer container = sample_container();
    container.chip = 0x12345678;
    const Bytes bytes = container.build();
    write_file(m_directory / "loader.bin", bytes);
    ASSERT_EQ(init(m_directory / "loader.bin"), 0);
    EXPECT_TRUE(m_image->SingleFlag);
    EXPECT_EQ(static_cast<uint32_t>(m_image->BootOffset), 0U);
    EXPECT_EQ(static_cast<uint32_t>(m_image->BootSize), bytes.size());
    EXPECT_EQ(static_cast<ENUM_QZDEVICE_TYPE>(m_image->SupportDevice), 0x12345678U);
    EXPECT_EQ(static_cast<ENUM_OS_TYPE>(m_image->OsType), QZ_OS);
    EXPECT_EQ(static_cast<uint32_t>(m_image->FWOffset), 0U);
    EXPECT_EQ(static_cast<uint64_t>(m_image->FWSize), 0U);
    EXPECT_EQ(m_image->GetImageSize(), bytes.size());
    EXPECT_FALSE(m_image->SignFlag);
    EXPECT_EQ(static_cast<uint8_t>(m_image->GetBootObject()->GetIndexByName(ENTRYLOADER, "FlashBoot")), 1);
}

TEST_F(QZImageSingleMode, IsChosenByDotBinAnywhereInThePathInAnyCase) {
    const Bytes container = sample_container().build();
    for (const char* name : {"loader.BIN", "x.bin", "a.Bin.old", ".bin", "x.bin.d/firmware.img"}) {
        std::filesystem::create_directories((m_directory / name).parent_path());
        write_file(m_directory / name, container);
        EXPECT_EQ(init(m_directory / name), 0) << name;
        EXPECT_TRUE(m_image->SingleFlag) << name;
    }
    EXPECT_EQ(init(m_directory / "LOADER.BIN"), -1) << "the path is opened as it is written";
    for (const char* name : {"loaderbin", "loader.bi", "loader.b.in", "bin.img", "loader. bin"}) {
        small_firmware().write(m_directory / name);
        EXPECT_EQ(init(m_directory / name), 0) << name;
        EXPECT_FALSE(m_image->SingleFlag) << name;
    }
}

TEST_F(QZImageSingleMode, GivesTheCodesOfTheContainer) {
    const auto code = [this](const Bytes& bytes) {
        write_file(m_directory / "loader.bin", bytes);
        return init(m_directory / "loader.bin");
    };
    EXPECT_EQ(code({}), -1006);
    EXPECT_EQ(code(Bytes(3, 0)), -2006);
    EXPECT_EQ(code(small_firmware().build()), -2006);
    EXPECT_EQ(code(short_container(105, "BOOT")), -3006);
    EXPECT_EQ(code(short_container(106, "BOOT")), 0);
    EXPECT_EQ(code(BootContainer{.tag = "LDR ", .merge_version = 0x1000001}.build()), -4006);
}

TEST_F(QZImageSingleMode, HasNoFileToReadFrom) {
    write_file(m_directory / "loader.bin", sample_container().build());
    ASSERT_EQ(init(m_directory / "loader.bin"), 0);
    EXPECT_EQ(data(0, 1), std::nullopt);
    EXPECT_EQ(data(0, 0), std::nullopt);
    EXPECT_FALSE(m_image->SaveBootFile(m_directory / "copy"));
    EXPECT_FALSE(m_image->SaveFWFile(m_directory / "copy"));
    EXPECT_FALSE(std::filesystem::exists(m_directory / "copy"));
}

TEST_F(QZImageSingleMode, TakesTheLow32BitsOfTheFileSize) {
    const Bytes container = sample_container().build();
    write_file(m_directory / "loader.bin", container);
    std::filesystem::resize_file(m_directory / "loader.bin", (uint64_t{1} << 32) + container.size());
    EXPECT_EQ(init(m_directory / "loader.bin"), 0);
    EXPECT_EQ(static_cast<uint32_t>(m_image->BootSize), container.size());
    EXPECT_EQ(m_image->GetImageSize(), (uint64_t{1} << 32) + container.size());
    std::filesystem::resize_file(m_directory / "loader.bin", uint64_t{1} << 32);
    EXPECT_EQ(init(m_directory / "loader.bin"), -1006);
}

// ---- length of the path

using QZImageDeathTest = QZImageTest;

TEST_F(QZImageDeathTest, EndsTheProgramForAPathOf256Characters) {
    const auto path_of_length = [this](std::size_t length) {
        return m_directory / std::string(length - m_directory.path().string().size() - 1, 'f');
    };
    small_firmware().write(path_of_length(255));
    EXPECT_EQ(init(path_of_length(255)), 0);
    for (const std::size_t length : {256U, 257U}) {
        ASSERT_EQ(path_of_length(length).string().size(), length);
        // The line goes to standard output; a death test looks at standard error.
        EXPECT_EXIT((::dup2(STDERR_FILENO, STDOUT_FILENO), init(path_of_length(length))),
                    ::testing::ExitedWithCode(EXIT_FAILURE), "^path of firmware is too long\n$");
    }
}

}  // namespace
