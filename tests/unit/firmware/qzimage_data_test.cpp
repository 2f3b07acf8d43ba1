#include "boot_object.h"
#include "image_fixture.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>
#include <sys/stat.h>

namespace {

using namespace firmware_tests;

using test_support::patterned;
using test_support::sample_firmware;
using test_support::slice;
using test_support::write_file;

constexpr uint64_t kFourGiB = uint64_t{1} << 32;

std::ptrdiff_t open_files() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// ---- package size and trailer ----

class QZImageTrailer : public QZImageTest {
protected:
    // A firmware with a trailer of `size` bytes, at least the 32 of the MD5.
    static Firmware with_trailer(std::size_t size) {
        Firmware firmware = small_firmware();
        firmware.signature = patterned(size - 32, 7);
        return firmware;
    }
};

TEST_F(QZImageTrailer, OfAtMost159BytesHasNoSignature) {
    for (const std::size_t size : {32U, 33U, 64U, 158U, 159U}) {
        const Firmware firmware = with_trailer(size);
        CQZImage unsigned_image;
        firmware.write(path());
        ASSERT_EQ(unsigned_image.ObjectInit(path(), false), 0);
        EXPECT_FALSE(unsigned_image.SignFlag) << size;
        const Trailer trailer(unsigned_image);
        EXPECT_EQ(trailer.signature_size, 0) << size;
        // The MD5 is the last 32 bytes of the file, wherever the package ends.
        const Bytes bytes = firmware.build();
        EXPECT_EQ(trailer.md5, slice(bytes, bytes.size() - 32, 32)) << size;
        EXPECT_EQ(trailer.signature, Bytes(256, 0));
    }
}

TEST_F(QZImageTrailer, Of160BytesHasASignatureOf128) {
    const Firmware firmware = with_trailer(160);
    ASSERT_EQ(init(firmware), 0);
    EXPECT_TRUE(m_image.SignFlag);
    EXPECT_EQ(Trailer(m_image).signature_size, 128);
    EXPECT_EQ(Trailer(m_image).md5, firmware.md5);
    Bytes expected = firmware.signature;
    expected.resize(256, 0);
    EXPECT_EQ(Trailer(m_image).signature, expected);
}

TEST_F(QZImageTrailer, Of288BytesHasASignatureOf256) {
    const Firmware firmware = with_trailer(288);
    ASSERT_EQ(init(firmware), 0);
    EXPECT_TRUE(m_image.SignFlag);
    EXPECT_EQ(Trailer(m_image).signature_size, 256);
    EXPECT_EQ(Trailer(m_image).md5, firmware.md5);
    EXPECT_EQ(Trailer(m_image).signature, firmware.signature);
}

TEST_F(QZImageTrailer, LongerThan288BytesIsCutTo256BytesOfSignature) {
    for (const std::size_t size : {289U, 300U, 100000U}) {
        const Firmware firmware = with_trailer(size);
        firmware.write(path());
        CQZImage signed_image;
        ASSERT_EQ(signed_image.ObjectInit(path(), false), 0);
        EXPECT_TRUE(signed_image.SignFlag);
        const Trailer trailer(signed_image);
        EXPECT_EQ(trailer.signature_size, 256) << size;
        EXPECT_EQ(trailer.md5, firmware.md5);
        EXPECT_EQ(trailer.signature, slice(firmware.signature, 0, 256));
    }
}

TEST_F(QZImageTrailer, MayBeMissing) {
    Firmware firmware = small_firmware();
    firmware.md5.clear();
    ASSERT_EQ(init(firmware), 0);
    EXPECT_FALSE(m_image.SignFlag);
    const Bytes bytes = firmware.build();
    EXPECT_EQ(Trailer(m_image).md5, slice(bytes, bytes.size() - 32, 32));
}

TEST_F(QZImageTrailer, IsNotThereWhenThePackageEndsAfterTheFile) {
    Firmware firmware = small_firmware();
    firmware.signature = patterned(200, 7);
    for (const uint64_t more : {uint64_t{74}, uint64_t{233}, uint64_t{100000}}) {
        firmware.package_size = firmware.layout().package_size + more;
        firmware.write(path());
        CQZImage cut;
        ASSERT_EQ(cut.ObjectInit(path(), false), 0);
        EXPECT_FALSE(cut.SignFlag) << more;
        EXPECT_EQ(static_cast<uint64_t>(cut.FWSize), *firmware.package_size);
    }
}

TEST_F(QZImageTrailer, HasASigned32BitLength) {
    const Firmware firmware = small_firmware();
    const uint64_t package_end = firmware.layout().trailer_offset;
    firmware.write(path());
    std::filesystem::resize_file(path(), package_end + 0x7FFFFFFF);
    ASSERT_EQ(init(path()), 0);
    EXPECT_TRUE(m_image.SignFlag);
    EXPECT_EQ(Trailer(m_image).signature_size, 256);
    EXPECT_EQ(Trailer(m_image).md5, firmware.md5);

    std::filesystem::resize_file(path(), package_end + 0x80000000);
    CQZImage longer;
    ASSERT_EQ(longer.ObjectInit(path(), false), 0);
    EXPECT_FALSE(longer.SignFlag);

    // 200 bytes and a multiple of 4 GiB: the low halves alone are compared.
    std::filesystem::resize_file(path(), package_end + kFourGiB + 200);
    CQZImage longest;
    ASSERT_EQ(longest.ObjectInit(path(), false), 0);
    EXPECT_TRUE(longest.SignFlag);
    EXPECT_EQ(Trailer(longest).signature_size, 168);
}

TEST_F(QZImageTrailer, IsReadWhereThePackageEndsIn64Bits) {
    // The low half of the package end lies 232 bytes before the end of the file, the end itself 4 GiB on.
    Firmware firmware = small_firmware();
    firmware.signature = patterned(200, 7);
    firmware.package_size = firmware.layout().package_size + kFourGiB;
    ASSERT_EQ(init(firmware), 0);
    EXPECT_TRUE(m_image.SignFlag);
    EXPECT_EQ(Trailer(m_image).signature_size, 200);
    EXPECT_EQ(Trailer(m_image).md5, Bytes(32, 0));
    EXPECT_EQ(Trailer(m_image).signature, Bytes(256, 0));
    EXPECT_EQ(static_cast<uint64_t>(m_image.FWSize), *firmware.package_size);
}

TEST_F(QZImageTrailer, OfAPackageThatEndsWhereNoFileReachesIsEmpty) {
    for (const uint64_t size : {0x7FFFFFFFFFFFE000U, 0x80000000FFFFE000U, 0xFFFFFFFFFFFFE000U}) {
        Firmware firmware = small_firmware();
        firmware.package_offset = 0x1000;
        firmware.package_size = size;
        firmware.write(path());
        CQZImage huge;
        EXPECT_EQ(huge.ObjectInit(path(), false), 0) << size;
        EXPECT_TRUE(huge.SignFlag) << size;
        EXPECT_EQ(static_cast<uint64_t>(huge.FWSize), size);
    }
}

// ---- package size ----

TEST_F(QZImageTest, WidensThePackageSizeByItsHighHalf) {
    Firmware firmware = small_firmware();
    firmware.package_size = firmware.layout().package_size + kFourGiB;
    ASSERT_EQ(init(firmware), 0);
    EXPECT_EQ(static_cast<uint64_t>(m_image.FWSize), firmware.layout().package_size + kFourGiB);
}

TEST_F(QZImageTest, TakesTheHighHalfOnlyWithBothMarks) {
    const auto package_size = [this](const std::string& mark) {
        Firmware firmware = small_firmware();
        firmware.reserved = Bytes(61, 0);
        test_support::put_text_at(firmware.reserved, 14, mark, 2);
        test_support::put32_at(firmware.reserved, 16, 1);
        firmware.write(path());
        CQZImage marked;
        EXPECT_EQ(marked.ObjectInit(path(), false), 0);
        return static_cast<uint64_t>(marked.FWSize);
    };
    const uint64_t plain = small_firmware().layout().package_size;
    EXPECT_EQ(package_size("HI"), plain + kFourGiB);
    for (const char* mark : {"", "H", "hi", "Hi", "IH", "HJ", "GI"})
        EXPECT_EQ(package_size(mark), plain) << mark;
}

TEST_F(QZImageTest, EndsThePackageModulo4GiBWithoutAHighHalf) {
    Firmware firmware = small_firmware();
    firmware.package_offset = 0x1000;
    firmware.package_size = 0xFFFFFFFF;  // ends at 0xFFF, one byte before it starts
    ASSERT_EQ(init(firmware), 0);
    EXPECT_EQ(static_cast<uint64_t>(m_image.FWSize), std::numeric_limits<uint64_t>::max());

    firmware.force_large_package_mark = true;
    firmware.write(path());
    CQZImage marked;
    ASSERT_EQ(marked.ObjectInit(path(), false), 0);
    EXPECT_EQ(static_cast<uint64_t>(marked.FWSize), 0xFFFFFFFFU);
}

// ---- GetData ----

class QZImageGetData : public QZImageTest {};

TEST_F(QZImageGetData, ReadsAtAbsoluteOffsets) {
    const Firmware firmware = sample_firmware();
    const Bytes bytes = firmware.build();
    ASSERT_EQ(init(firmware), 0);
    EXPECT_EQ(data(0, 102), slice(bytes, 0, 102));
    const auto where = firmware.layout();
    EXPECT_EQ(data(where.item_data[3], 20001), firmware.items[3].data);
    EXPECT_EQ(data(where.item_data[1] + 8, 100), slice(firmware.items[1].data, 8, 100));
    EXPECT_EQ(data(0, static_cast<uint32_t>(bytes.size())), bytes);
}

TEST_F(QZImageGetData, EndsWithTheFile) {
    const Bytes bytes = small_firmware().build();
    const auto size = static_cast<uint32_t>(bytes.size());
    ASSERT_EQ(init(bytes), 0);
    EXPECT_EQ(data(size - 10, 10), slice(bytes, size - 10, 10));
    EXPECT_EQ(data(size - 10, 11), std::nullopt);
    EXPECT_EQ(data(0, size), bytes);
    EXPECT_EQ(data(0, size + 1), std::nullopt);
    EXPECT_EQ(data(1, size), std::nullopt);
    EXPECT_EQ(data(size, 1), std::nullopt);
    EXPECT_EQ(data(size, 0), Bytes{});
    EXPECT_EQ(data(size + 1, 0), std::nullopt);
}

TEST_F(QZImageGetData, DoesNotReadOutsideTheFile) {
    ASSERT_EQ(init(small_firmware()), 0);
    Bytes buffer(16, 0xEE);
    EXPECT_FALSE(m_image.GetData(m_image.GetImageSize() - 15, 16, buffer.data()));
    EXPECT_EQ(buffer, Bytes(16, 0xEE));
}

TEST_F(QZImageGetData, DoesNotWrapAtTheEndOf64Bits) {
    ASSERT_EQ(init(small_firmware()), 0);
    constexpr uint64_t largest = std::numeric_limits<uint64_t>::max();
    EXPECT_EQ(data(largest, 1), std::nullopt);
    EXPECT_EQ(data(largest, 2), std::nullopt);
    EXPECT_EQ(data(largest - 15, 16), std::nullopt);
    EXPECT_EQ(data(largest - 7, 100), std::nullopt);
    EXPECT_EQ(data(uint64_t{1} << 63, 1), std::nullopt);
    EXPECT_EQ(m_image.GetReadError(), 0);  // nothing was read at all
}

TEST_F(QZImageGetData, FailsForBytesThatTheFileHasLostSince) {
    Bytes bytes = sample_firmware().build();
    const std::size_t size = bytes.size();
    bytes.resize(1000000, 0x55);
    ASSERT_EQ(init(bytes), 0);
    EXPECT_EQ(m_image.GetReadError(), 0);
    std::filesystem::resize_file(path(), size);
    EXPECT_EQ(data(500000, 400000), std::nullopt);
    EXPECT_EQ(m_image.GetReadError(), EIO);
    EXPECT_EQ(data(0, 1000000), std::nullopt);
    EXPECT_EQ(data(999999, 1), std::nullopt);
    EXPECT_EQ(m_image.GetReadError(), EIO);
}

TEST_F(QZImageGetData, TakesAPlaceOutsideTheFileForNoReadError) {
    ASSERT_EQ(init(small_firmware()), 0);
    EXPECT_EQ(data(m_image.GetImageSize(), 1), std::nullopt);
    EXPECT_EQ(m_image.GetReadError(), 0);
}

TEST_F(QZImageGetData, NeedsAnOpenFile) {
    EXPECT_EQ(data(0, 1), std::nullopt);
    EXPECT_EQ(data(0, 0), std::nullopt);
    EXPECT_EQ(init(m_directory / "absent.img"), -1);
    EXPECT_EQ(data(0, 1), std::nullopt);
}

TEST_F(QZImageGetData, WorksOnAfterTheTagOrTheContainerWasRefused) {
    Firmware firmware = small_firmware();
    firmware.tag = "none";
    ASSERT_EQ(init(firmware), -4);
    EXPECT_EQ(data(0, 4), test_support::to_bytes("none"));

    firmware = small_firmware();
    firmware.boot.crc = 0x12345678;
    firmware.write(path());
    CQZImage damaged;
    ASSERT_EQ(damaged.ObjectInit(path(), false), -2006);
    Bytes tag(4);
    EXPECT_TRUE(damaged.GetData(0, 4, tag.data()));
    EXPECT_EQ(tag, test_support::to_bytes("QZFW"));
}

// ---- the open file ----

TEST_F(QZImageTest, ClosesItsFileInTheEnd) {
    small_firmware().write(path());
    const std::ptrdiff_t before = open_files();
    {
        CQZImage loaded;
        ASSERT_EQ(loaded.ObjectInit(path(), false), 0);
        EXPECT_EQ(open_files(), before + 1);
    }
    EXPECT_EQ(open_files(), before);
}

TEST_F(QZImageTest, ClosesItsFileAtOnceInSingleMode) {
    write_file(m_directory / "loader.bin", sample_container().build());
    const std::ptrdiff_t before = open_files();
    ASSERT_EQ(init(m_directory / "loader.bin"), 0);
    EXPECT_EQ(open_files(), before);
}

TEST_F(QZImageTest, ClosesItsFileAfterAFailure) {
    write_file(m_directory / "loader.bin", Bytes(200, 1));
    const std::ptrdiff_t before = open_files();
    for (const char* name : {"loader.bin", "firmware.img"}) {
        write_file(path(), Bytes(200, 1));
        CQZImage failed;
        ASSERT_NE(failed.ObjectInit(m_directory / name, false), 0);
        EXPECT_EQ(open_files(), before + 1) << name;
    }
    EXPECT_EQ(open_files(), before);
}

TEST_F(QZImageTest, KnowsWhichFileItIs) {
    ASSERT_EQ(init(small_firmware()), 0);
    struct stat status {};
    ASSERT_EQ(::stat(path().c_str(), &status), 0);
    EXPECT_TRUE(m_image.GetIdentity().is(status));
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
    EXPECT_EQ(m_image.GetImageSize(), where.file_size);
    EXPECT_EQ(static_cast<uint64_t>(m_image.FWSize), where.package_size);
    EXPECT_EQ(data(where.item_data[1], 3000), firmware.items[1].data);
    EXPECT_EQ(data(where.item_data[0] + kFourGiB - 10, 20), firmware.items[0].islands[0].bytes);
    EXPECT_EQ(data(where.item_data[0], 100), firmware.items[0].data);
    EXPECT_EQ(data(where.file_size - 1, 2), std::nullopt);
    EXPECT_TRUE(m_image.SignFlag);
    EXPECT_EQ(Trailer(m_image).md5, firmware.md5);
    EXPECT_EQ(slice(Trailer(m_image).signature, 0, 128), firmware.signature);
}

}  // namespace
