// create_image from within: the hooks that it calls, and failures that only the object knows of.

#include "partition_fixture.h"
#include "support/expected/run.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace {

using namespace storage_test;

// Notes the hooks and what they are given; refuses the one of that name.
class HookedStorage : public Exposed<CEmmcStorage> {
public:
    using Exposed<CEmmcStorage>::Exposed;

    bool prepare_write_idblock() override {
        return note("prepare idblock") && CEmmcStorage::prepare_write_idblock();
    }
    bool post_write_idblock() override {
        note("post idblock");
        return false;  // nobody asks
    }
    bool prepare_write_partition(STRUCT_QZIMAGE_ITEM& item) override {
        return note("prepare " + item_name(item)) && CEmmcStorage::prepare_write_partition(item);
    }
    bool post_write_partition() override {
        note("post");
        return false;
    }

    std::vector<std::string> log{};
    std::string refused{};

private:
    bool note(const std::string& hook) {
        log.push_back(hook);
        return hook != "prepare " + refused;
    }
};

class CreateImageTest : public StorageTest {
protected:
    // The hooks that a run calls, which with `refused` ends before that step, and its last line.
    std::vector<std::string> hooks(const Firmware& firmware, const std::string& refused = "",
                                   const std::string& error = "creating programming image ok.") {
        write_firmware(firmware);
        const auto storage = make<HookedStorage>();
        storage->refused = refused;
        const std::string output = output_of([&] {
            EXPECT_TRUE(storage->storage_init());
            EXPECT_EQ(storage->create_image(), refused.empty());
        });
        const std::size_t end = output.rfind('\n', output.size() - 2) + 1;
        EXPECT_EQ(output.substr(end), refused.empty() ? line(error) : error_line(error));
        EXPECT_FALSE(storage->m_fout.is_open());
        return storage->log;
    }

    // All that a run prints before its last line.
    std::string steps(const Firmware& firmware) const {
        const std::string text = expected_run(firmware, {}, out_dir()).text;
        return text.substr(0, text.rfind('\n', text.size() - 2) + 1);
    }
};

using Log = std::vector<std::string>;

TEST_F(CreateImageTest, CallsTheHooksInOrderAndAsksNoEndingOne) {
    EXPECT_EQ(hooks(sample_firmware({.gpt = true})),
              (Log{"prepare idblock", "post idblock", "prepare gpt", "post", "prepare boot", "post",
                   "prepare misc", "post", "prepare rootfs", "post"}));
}

TEST_F(CreateImageTest, LayoutMayRefuseAnyStep) {
    EXPECT_EQ(hooks(sample_firmware(), "idblock", "failed to write idblock,ret=-3"), Log{"prepare idblock"});
    EXPECT_EQ(hooks(sample_firmware({.gpt = true}), "gpt", "failed to prepare gpt"),
              (Log{"prepare idblock", "post idblock", "prepare gpt"}));
    EXPECT_EQ(hooks(sample_firmware(), "misc", "failed to prepare misc"),
              (Log{"prepare idblock", "post idblock", "prepare parameter", "post", "prepare boot", "post",
                   "prepare misc"}));
}

TEST_F(CreateImageTest, PartitionThatFailedIsNotEnded) {
    Firmware firmware = sample_firmware();
    firmware.items[1].part_size = 0;
    write_firmware(firmware);
    const auto storage = make<HookedStorage>();
    output_of([&] {
        EXPECT_TRUE(storage->storage_init());
        EXPECT_FALSE(storage->create_image());
    });
    EXPECT_EQ(storage->log.back(), "prepare boot");
}

TEST_F(CreateImageTest, BootBlockBeyondTheMemoryHasItsCode) {
    if (!kMemoryCanBeLimited)
        GTEST_SKIP() << "needs a build without sanitizers";
    write_firmware(sample_firmware());
    const auto storage = make<Exposed<CEmmcStorage>>({.block_kb = 2097152});
    const MemoryLimit limit(256 * kMib);
    EXPECT_EQ(output_of([&] {
                  EXPECT_TRUE(storage->storage_init());
                  EXPECT_FALSE(storage->create_image());
              }),
              line("writing idblock...") + error_line("failed to write idblock,ret=-5"));
}

// ---- the verdict ----

TEST_F(CreateImageTest, NamesTheFirstFailure) {
    write_firmware(sample_firmware());
    const auto storage = make<Exposed<CEmmcStorage>>();
    ASSERT_TRUE(storage->storage_init());
    storage->m_write_failure.note("earlier file", EIO);
    EXPECT_EQ(output_of([&] { EXPECT_FALSE(storage->create_image()); }),
              steps(sample_firmware()) + not_written("earlier file", EIO));
}

TEST_F(CreateImageTest, WritesNothingToAnOutputThatHasFailed) {
    write_firmware(sample_firmware());
    const auto storage = make<Exposed<CEmmcStorage>>();
    ASSERT_TRUE(storage->storage_init());
    storage->m_fout.give_up(EIO);
    EXPECT_EQ(output_of([&] { EXPECT_FALSE(storage->create_image()); }),
              steps(sample_firmware()) + not_written(out_path("out_image.img"), EIO));
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
TEST_F(CreateImageTest, ReadThatFailedSomewhereIsNotASuccess) {
    Firmware firmware = sample_firmware();
    firmware.items.resize(1);
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
              line("failed to get sparse info"));
    ::dup2(kept, descriptor);
    ::close(unreadable);
    ::close(kept);

    EXPECT_EQ(output_of([&] { EXPECT_FALSE(storage->create_image()); }),
              steps(firmware) + error_line("failed to read " + firmware_path().string() + ",err=9"));
}

}  // namespace
