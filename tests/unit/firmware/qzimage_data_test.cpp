#include "boot_object.h"
#include "image_fixture.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <filesystem>
#include <iterator>
#include <limits>
#include <string>
#include <system_error>
#include <tuple>
#include <unistd.h>
#include <utility>

namespace {

using namespace firmware_tests;

using test_support::patterned;
using test_support::sample_firmware;
using test_support::slice;
using test_support::write_file;

constexpr uint64_t kFourGiB = uint64_t{1} << 32;
constexpr uint64_t kLargest = std::numeric_limits<uint64_t>::max();

// ---- trailer ----

class QZImageTrailer : public QZImageTest {
protected:
    // A firmware with a trailer of `size` bytes: none, or at least the 32 of the MD5.
    static Firmware with_trailer(std::size_t size) {
        Firmware firmware = small_firmware();
        if (size == 0)
            firmware.md5.clear();
        else
            firmware.signature = patterned(size - 32, 7);
        return firmware;
    }
};

TEST_F(QZImageTrailer, HasASignatureFrom160BytesOn) {
    const std::pair<std::size_t, int> rows[] = {{0, 0},     {32, 0},    {33, 0},      {64, 0},
                                                {158, 0},   {159, 0},   {160, 128},   {288, 256},
                                                {289, 256}, {300, 256}, {100000, 256}};
    for (const auto& [size, signature_size] : rows) {
        SCOPED_TRACE(size);
        const Firmware firmware = with_trailer(size);
        ASSERT_EQ(init(firmware), 0);
        EXPECT_EQ(m_image->GetSignFlag(), signature_size != 0);
        const Trailer trailer(*m_image);
        EXPECT_EQ(trailer.signature_size, signature_size);
        Bytes signature = firmware.signature;
        signature.resize(static_cast<std::size_t>(signature_size));
        EXPECT_EQ(trailer.signature, test_support::zero_padded(signature, 256));
        // Without a signature the MD5 is the last 32 bytes of the file, wherever the package ends.
        const Bytes bytes = firmware.build();
        EXPECT_EQ(trailer.md5, signature_size != 0 ? firmware.md5 : slice(bytes, bytes.size() - 32, 32));
    }
}

TEST_F(QZImageTrailer, IsNotThereWhenThePackageEndsAfterTheFile) {
    Firmware firmware = with_trailer(232);
    for (const uint64_t more : {uint64_t{74}, uint64_t{233}, uint64_t{100000}}) {
        firmware.package_size = firmware.layout().package_size + more;
        ASSERT_EQ(init(firmware), 0);
        EXPECT_FALSE(m_image->SignFlag) << more;
        EXPECT_EQ(m_image->GetFWSize(), *firmware.package_size);
    }
}

TEST_F(QZImageTrailer, HasASigned32BitLength) {
    const Firmware firmware = small_firmware();
    firmware.write(path());
    // The last one is a multiple of 4 GiB and 200 bytes: the low halves alone are compared.
    for (const auto& [size, signature_size] :
         {std::pair{uint64_t{0x7FFFFFFF}, 256}, {uint64_t{0x80000000}, 0}, {kFourGiB + 200, 168}}) {
        SCOPED_TRACE(size);
        std::filesystem::resize_file(path(), firmware.layout().trailer_offset + size);
        ASSERT_EQ(init(path()), 0);
        EXPECT_EQ(m_image->GetSignFlag(), signature_size != 0);
        const Trailer trailer(*m_image);
        EXPECT_EQ(trailer.signature_size, signature_size);
        EXPECT_EQ(trailer.md5, signature_size != 0 ? firmware.md5 : Bytes(32, 0));
    }
}

TEST_F(QZImageTrailer, IsReadWhereThePackageEndsIn64Bits) {
    // The low half of the package end lies 232 bytes before the end of the file, the end itself 4 GiB on.
    Firmware firmware = with_trailer(232);
    firmware.package_size = firmware.layout().package_size + kFourGiB;
    ASSERT_EQ(init(firmware), 0);
    EXPECT_TRUE(m_image->SignFlag);
    const Trailer trailer(*m_image);
    EXPECT_EQ(trailer.signature_size, 200);
    EXPECT_EQ(trailer.md5, Bytes(32, 0));
    EXPECT_EQ(trailer.signature, Bytes(256, 0));
    EXPECT_EQ(m_image->GetFWSize(), *firmware.package_size);
}

TEST_F(QZImageTrailer, OfAPackageThatEndsWhereNoFileReachesIsEmpty) {
    for (const uint64_t size : {0x7FFFFFFFFFFFE000U, 0x80000000FFFFE000U, 0xFFFFFFFFFFFFE000U}) {
        Firmware firmware = small_firmware();
        firmware.package_offset = 0x1000;
        firmware.package_size = size;
        EXPECT_EQ(init(firmware), 0) << size;
        EXPECT_TRUE(m_image->SignFlag) << size;
        EXPECT_EQ(m_image->GetFWSize(), size);
    }
}

// ---- package size ----

TEST_F(QZImageTest, WidensThePackageSizeOnlyWithBothMarks) {
    const uint64_t plain = small_firmware().layout().package_size;
    for (const std::string mark : {"HI", "", "H", "hi", "Hi", "IH", "HJ", "GI"}) {
        Firmware firmware = small_firmware();
        firmware.reserved = Bytes(61, 0);
        test_support::put_text_at(firmware.reserved, 14, mark, 2);
        test_support::put32_at(firmware.reserved, 16, 1);
        EXPECT_EQ(init(firmware), 0);
        EXPECT_EQ(m_image->GetFWSize(), plain + (mark == "HI" ? kFourGiB : 0)) << mark;
    }
}

TEST_F(QZImageTest, EndsThePackageModulo4GiBWithoutAHighHalf) {
    Firmware firmware = small_firmware();
    firmware.package_offset = 0x1000;
    firmware.package_size = 0xFFFFFFFF;  // ends at 0xFFF, one byte before it starts
    ASSERT_EQ(init(firmware), 0);
    EXPECT_EQ(m_image->GetFWSize(), kLargest);
    firmware.force_large_package_mark = true;
    ASSERT_EQ(init(firmware), 0);
    EXPECT_EQ(m_image->GetFWSize(), 0xFFFFFFFFU);
}

// ---- GetData ----

class QZImageGetData : public QZImageTest {
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

TEST_F(QZImageGetData, ReadsAtAbsoluteOffsets) {
    const Firmware firmware = sample_firmware();
    const auto where = firmware.layout();
    ASSERT_EQ(init(firmware), 0);
    EXPECT_EQ(data(0, 102), slice(firmware.build(), 0, 102));
    EXPECT_EQ(data(where.item_data[3], 20001), firmware.items[3].data);
    EXPECT_EQ(data(where.item_data[1] + 8, 100), slice(firmware.items[1].data, 8, 100));
}

TEST_F(QZImageGetData, EndsWithTheFile) {
    const Bytes bytes = small_firmware().build();
    const auto size = static_cast<uint32_t>(bytes.size());
    ASSERT_EQ(init(bytes), 0);
    EXPECT_EQ(data(size - 10, 10), slice(bytes, size - 10, 10));
    EXPECT_EQ(data(0, size), bytes);
    EXPECT_EQ(data(size, 0), Bytes{});
    const std::pair<uint64_t, uint32_t> outside[] = {
        {size - 10, 11}, {0, size + 1}, {1, size},           {size, 1},           {size + 1, 0},
        {kLargest, 1},   {kLargest, 2}, {kLargest - 15, 16}, {kLargest - 7, 100}, {uint64_t{1} << 63, 1}};
    for (const auto& [offset, count] : outside) {
        Bytes buffer(count, 0xEE);
        EXPECT_FALSE(m_image->GetData(offset, count, buffer.data())) << offset << "+" << count;
        EXPECT_EQ(buffer, Bytes(count, 0xEE));
    }
    EXPECT_EQ(m_image->GetReadError(), 0) << "nothing was read at all";
}

TEST_F(QZImageGetData, KeepsTheErrorOfTheFirstFailedRead) {
    Bytes bytes = small_firmware().build();
    const std::size_t size = bytes.size();
    bytes.resize(1000000, 0x55);
    ASSERT_EQ(init(bytes), 0);
    EXPECT_EQ(m_image->GetReadError(), 0);
    std::filesystem::resize_file(path(), size);
    EXPECT_EQ(data(500000, 400000), std::nullopt);
    EXPECT_EQ(m_image->GetReadError(), EIO) << "the file has become shorter";
    EXPECT_EQ(data(0, 1000000), std::nullopt);
    EXPECT_EQ(data(999999, 1), std::nullopt);
    ASSERT_TRUE(put_directory_in_its_place());
    errno = 0;
    EXPECT_EQ(data(500000, 400000), std::nullopt);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(m_image->GetReadError(), EIO);

    ASSERT_EQ(init(bytes), 0);
    ASSERT_TRUE(put_directory_in_its_place());
    EXPECT_EQ(data(500000, 400000), std::nullopt);
    EXPECT_EQ(m_image->GetReadError(), EISDIR);
}

TEST_F(QZImageGetData, NeedsAnOpenFile) {
    EXPECT_EQ(data(0, 1), std::nullopt);
    EXPECT_EQ(data(0, 0), std::nullopt);
    EXPECT_EQ(init(m_directory / "absent.img"), -1);
    EXPECT_EQ(data(0, 1), std::nullopt);
}

TEST_F(QZImageGetData, WorksOnAfterTheTagOrTheContainerWasRefused) {
    Firmware firmware = small_firmware();
    firmware.boot.crc = 0x12345678;
    ASSERT_EQ(init(firmware), -2006);
    EXPECT_EQ(data(0, 4), test_support::to_bytes("QZFW"));
    firmware.tag = "none";
    ASSERT_EQ(init(firmware), -4);
    EXPECT_EQ(data(0, 4), test_support::to_bytes("none"));
}

// ---- the open file ----

std::ptrdiff_t open_files() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// At once in single mode, otherwise in the end, also after a failure.
TEST_F(QZImageTest, ClosesItsFile) {
    small_firmware().write(path());
    write_file(m_directory / "loader.bin", sample_container().build());
    write_file(m_directory / "bad.img", Bytes(200, 1));
    write_file(m_directory / "bad.bin", Bytes(200, 1));
    const std::ptrdiff_t before = open_files();
    for (const auto& [name, code, files] : {std::tuple{"firmware.img", 0, 1},
                                            {"loader.bin", 0, 0},
                                            {"bad.img", -4, 1},
                                            {"bad.bin", -2006, 1}}) {
        ASSERT_EQ(init(m_directory / name), code) << name;
        EXPECT_EQ(open_files(), before + files) << name;
        m_image.reset();
        EXPECT_EQ(open_files(), before) << name;
    }
}

// ---- beyond 4 GiB ----

TEST_F(QZImageTest, ReadsBytesBeyond4GiB) {
    Firmware firmware = small_firmware();
    firmware.signature = patterned(128, 9);
    firmware.items = {{.name = "large",
                       .data = patterned(100, 1),
                       .size = kFourGiB + 5000,
                       .reserve_size = true,
                       .islands = {{kFourGiB - 10, patterned(20, 2)}}},
                      {.name = "behind", .data = patterned(3000, 3)}};
    const auto where = firmware.layout();
    ASSERT_GT(where.item_data[1], kFourGiB);
    ASSERT_EQ(init(firmware), 0);
    EXPECT_EQ(m_image->GetImageSize(), where.file_size);
    EXPECT_EQ(m_image->GetFWSize(), where.package_size);
    EXPECT_EQ(data(where.item_data[1], 3000), firmware.items[1].data);
    EXPECT_EQ(data(where.item_data[0] + kFourGiB - 10, 20), firmware.items[0].islands[0].bytes);
    EXPECT_EQ(data(where.item_data[0], 100), firmware.items[0].data);
    EXPECT_EQ(data(where.file_size - 1, 2), std::nullopt);
    EXPECT_TRUE(m_image->SignFlag);
    EXPECT_EQ(Trailer(*m_image).md5, firmware.md5);
    EXPECT_EQ(slice(Trailer(*m_image).signature, 0, 128), firmware.signature);
}

}  // namespace
