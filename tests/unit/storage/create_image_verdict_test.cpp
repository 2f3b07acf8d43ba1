// Runs of create_image whose output, or firmware, fails on the way: all steps go on, and the run ends in the
// line that names the file.

#include "create_image_fixture.h"
#include "support/process_limits.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <string>
#include <unistd.h>

namespace {

using namespace storage_test;
using namespace test_support;

class CreateImageVerdictTest : public CreateImageTest {
protected:
    std::string verdict(int error) const {
        return error_line("failed to write " + out_path("out_image.img").string() +
                          ",err=" + std::to_string(error));
    }
};

TEST_F(CreateImageVerdictTest, FullDeviceBehindTheImageEndsInItsVerdict) {
    for (const bool gpt : {false, true}) {
        const Firmware firmware = sample_firmware({.gpt = gpt});
        std::filesystem::remove(out_path("out_image.img"));
        std::string output = run_emmc(firmware);
        ASSERT_EQ(output.substr(output.size() - success_line.size()), success_line);
        output.erase(output.size() - success_line.size());

        // Every step and every line of it as in a good run, but no success.
        std::filesystem::remove(out_path("out_image.img"));
        std::filesystem::create_symlink("/dev/full", out_path("out_image.img"));
        EXPECT_EQ(run_emmc(firmware, false), output + verdict(ENOSPC));
    }
}

TEST_F(CreateImageVerdictTest, BareBootContainerOnAFullDeviceFailsToo) {
    const std::string loader = (m_directory / "loader.bin").string();
    write_file(loader, sample_firmware().boot.build());
    std::filesystem::create_symlink("/dev/full", out_path("out_image.img"));
    Exposed<CNorStorage> storage(64, 2, 0, loader, out_dir().string(), false);
    EXPECT_EQ(run(storage, false), "writing idblock...\n" + verdict(ENOSPC));
}

TEST_F(CreateImageVerdictTest, FailureOfAStepIsReportedBeforeThatOfTheOutput) {
    Firmware firmware = bare_firmware();
    firmware.items[0].part_size = 0;
    std::filesystem::create_symlink("/dev/full", out_path("out_image.img"));
    const std::string output = run_emmc(firmware, false);
    EXPECT_EQ(output.substr(output.rfind("\x1b[30;41m")), error_line("failed to write parameter,ret=-1"));
}

TEST_F(CreateImageVerdictTest, DiskThatFillsUpKeepsTheStartOfTheImage) {
    const Firmware firmware = sample_firmware();
    std::string output = run_emmc(firmware);
    output.replace(output.size() - success_line.size(), std::string::npos, verdict(EFBIG));
    const Bytes image = out_image();
    // Inside a boot block, the parameter copies and the last partition.
    for (const std::size_t size : {std::size_t{33000}, std::size_t{4200000}, std::size_t{4428400}}) {
        std::filesystem::remove(out_path("out_image.img"));
        const auto storage = make<Exposed<CEmmcStorage>>();
        {
            const FileSizeLimit limit(size);
            EXPECT_EQ(run(*storage, false), output);
        }
        EXPECT_TRUE(same_bytes(out_image(), slice(image, 0, size)));
    }
}

// The image ends in zeros, of which nothing but the length has to reach the disk.
TEST_F(CreateImageVerdictTest, LengthOfTheImageIsPartOfIt) {
    std::string output = run_emmc(sample_firmware());
    output.replace(output.size() - success_line.size(), std::string::npos, verdict(EFBIG));
    const Bytes image = out_image();
    const FileSizeLimit limit(image.size() - 1);
    EXPECT_EQ(run(*make<Exposed<CEmmcStorage>>(), false), output);
    EXPECT_TRUE(same_bytes(out_image(), slice(image, 0, out_image().size())));
}

TEST_F(CreateImageVerdictTest, LimitOfExactlyTheImageIsEnough) {
    run_emmc(sample_firmware());
    const Bytes image = out_image();
    const FileSizeLimit limit(image.size());
    run_emmc(sample_firmware());
    EXPECT_TRUE(same_bytes(out_image(), image));
}

TEST_F(CreateImageVerdictTest, FirstFailureIsTheOneThatIsNamed) {
    write_firmware(sample_firmware());
    const auto storage = make<Exposed<CEmmcStorage>>();
    ASSERT_TRUE(storage->storage_init());
    storage->m_write_failure.note("earlier file", EIO);
    const std::string output = output_of([&] { EXPECT_FALSE(storage->create_image()); });
    EXPECT_EQ(output.substr(output.rfind("\x1b[30;41m")), error_line("failed to write earlier file,err=5"));
}

TEST_F(CreateImageVerdictTest, NothingMoreReachesAnOutputThatHasFailed) {
    write_firmware(sample_firmware());
    const auto storage = make<Exposed<CEmmcStorage>>();
    ASSERT_TRUE(storage->storage_init());
    storage->m_fout.give_up(EIO);
    const std::string output = output_of([&] { EXPECT_FALSE(storage->create_image()); });
    EXPECT_EQ(output, start_lines + parameter_lines("00002000") + partition_lines("boot", "00002100", 32) +
                          partition_lines("misc", "00002180", 16) +
                          partition_lines("rootfs", "000021c0", 10) + verdict(EIO));
    EXPECT_EQ(out_image(), Bytes());
}

// The descriptor under which this process has the file open.
int descriptor_of(const std::filesystem::path& path) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        if (std::filesystem::exists(entry) && std::filesystem::equivalent(entry, path))
            return std::stoi(entry.path().filename());
    return -1;
}

// A disk error under the firmware that no step failed with.
TEST_F(CreateImageVerdictTest, ReadThatFailedSomewhereIsNoSuccess) {
    Firmware firmware = bare_firmware();
    firmware.items.push_back(
        {.name = "far", .part_size = 64, .flash_offset = 64, .data = patterned(5000, 1), .offset = 4 << 20});
    write_firmware(firmware);
    const auto storage = make<Exposed<CEmmcStorage>>();
    ASSERT_TRUE(storage->storage_init());

    const int descriptor = descriptor_of(firmware_path());
    ASSERT_GE(descriptor, 0);
    const int kept = ::dup(descriptor);
    const int unreadable = ::open("/dev/null", O_WRONLY);
    ::dup2(unreadable, descriptor);
    STRUCT_QZIMAGE_ITEM item = item_in(firmware, 1);
    EXPECT_EQ(output_of([&] { EXPECT_FALSE(storage->is_sparse_image(item)); }),
              "failed to get sparse info\n");
    ::dup2(kept, descriptor);
    ::close(unreadable);
    ::close(kept);

    EXPECT_EQ(output_of([&] { EXPECT_FALSE(storage->create_image()); }),
              start_lines + parameter_lines("00002000") + partition_lines("far", "00002040", 16) +
                  error_line("failed to read " + firmware_path().string() + ",err=9"));
}

// The way to the verdict is short however large the image was to be.
TEST_F(CreateImageVerdictTest, HugeImageOnAFullDeviceEndsInMoments) {
    Firmware firmware = bare_firmware();
    firmware.items.push_back(
        {.name = "boot", .part_size = 0xFFFFF000, .flash_offset = 0xFFFF0000, .data = patterned(5000, 1)});
    firmware.items[0].data = parameter_record("TYPE: GPT\nCMDLINE: mtdparts=x:-@0x0(a)\n");
    std::filesystem::create_symlink("/dev/full", out_path("out_image.img"));
    EXPECT_EQ(run_emmc(firmware, false),
              "writing idblock...\nstart to write partitions...gpt=1\npreparing gpt at 0x00000000\n"
              "writing gpt...\n" +
                  redrawn("writing gpt...OK") + "preparing boot at 0xffff0000\n" + "writing boot...\n" +
                  progress_lines("writing boot...", 100) + redrawn("writing boot...OK") + verdict(ENOSPC));
}

}  // namespace
