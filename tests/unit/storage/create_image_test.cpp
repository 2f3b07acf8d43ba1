// create_image from within: the hooks that it calls, and failures that only the object knows of.

#include "partition_fixture.h"
#include "support/expected/run.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace {

using namespace storage_test;

using Log = std::vector<std::string>;

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

    Log log{};
    std::string refused{};

private:
    bool note(const std::string& hook) {
        log.push_back(hook);
        return hook != "prepare " + refused;
    }
};

class CreateImageTest : public StorageTest {
protected:
    static std::size_t last_line(const std::string& text) { return text.rfind('\n', text.size() - 2) + 1; }

    // The hooks that a run calls, which ends in this line; with `refused` that step refuses.
    Log hooks(const Firmware& firmware, const std::string& end, const std::string& refused = "") {
        write_firmware(firmware);
        const auto storage = make<HookedStorage>();
        storage->refused = refused;
        const std::string output = output_of([&] {
            EXPECT_TRUE(storage->storage_init());
            EXPECT_EQ(storage->create_image(), end.starts_with("creating"));
        });
        EXPECT_EQ(output.substr(last_line(output)), end);
        EXPECT_FALSE(storage->m_fout.is_open());
        return storage->log;
    }

    // A run after storage_init fails after all its steps, in this line.
    void expect_failed_verdict(Exposed<CEmmcStorage>& storage, const Firmware& firmware,
                               const std::string& verdict) {
        const std::string text = expected_run(firmware, {}, out_dir()).text;
        EXPECT_EQ(output_of([&] { EXPECT_FALSE(storage.create_image()); }),
                  text.substr(0, last_line(text)) + verdict);
    }
};

TEST_F(CreateImageTest, CallsTheHooksInOrderAndAsksNoEndingOne) {
    EXPECT_EQ(hooks(sample_firmware({.gpt = true}), line("creating programming image ok.")),
              (Log{"prepare idblock", "post idblock", "prepare gpt", "post", "prepare boot", "post",
                   "prepare misc", "post", "prepare rootfs", "post"}));
}

TEST_F(CreateImageTest, EndsWithTheStepThatRefusesOrFails) {
    EXPECT_EQ(hooks(sample_firmware(), error_line("failed to write idblock,ret=-3"), "idblock"),
              Log{"prepare idblock"});
    EXPECT_EQ(hooks(sample_firmware({.gpt = true}), error_line("failed to prepare gpt"), "gpt"),
              (Log{"prepare idblock", "post idblock", "prepare gpt"}));
    EXPECT_EQ(hooks(sample_firmware(), error_line("failed to prepare misc"), "misc"),
              (Log{"prepare idblock", "post idblock", "prepare parameter", "post", "prepare boot", "post",
                   "prepare misc"}));
    Firmware too_small = sample_firmware();
    too_small.items[1].part_size = 0;
    EXPECT_EQ(hooks(too_small, error_line("failed to write boot,ret=-1")).back(), "prepare boot");
}

TEST_F(CreateImageTest, BootBlockBeyondTheMemoryHasItsCode) {
    if (!kMemoryCanBeLimited)
        GTEST_SKIP() << "needs a build without sanitizers or emulator";
    write_firmware(sample_firmware());
    const auto storage = make<Exposed<CEmmcStorage>>({.block_kb = 2097152});
    const MemoryLimit limit(256 * kMib);
    EXPECT_EQ(output_of([&] {
                  EXPECT_TRUE(storage->storage_init());
                  EXPECT_FALSE(storage->create_image());
              }),
              line("writing idblock...") + error_line("failed to write idblock,ret=-5"));
}

TEST_F(CreateImageTest, WritesNothingToAnOutputThatHasFailed) {
    write_firmware(sample_firmware());
    const auto storage = make<Exposed<CEmmcStorage>>();
    ASSERT_TRUE(storage->storage_init());
    storage->m_fout.give_up(EIO);
    expect_failed_verdict(*storage, sample_firmware(), not_written(out_path("out_image.img"), EIO));
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

    expect_failed_verdict(*storage, firmware,
                          error_line("failed to read " + firmware_path().string() + ",err=9"));
}

}  // namespace
