// The firmware is the only copy of what is converted: no name that a run writes to may lead to it, whichever
// way. The run before tells the names.

#include "fuzz/small_firmware.h"
#include "program_run.h"

#include <gtest/gtest.h>
#include <tuple>

namespace robustness {
namespace {

using namespace test_support;
namespace fs = std::filesystem;

constexpr const char* temporary = "unsparse_tmp.bin";

class SelfOverwrite : public testing::TestWithParam<std::tuple<ENUM_FLASH_TYPE, bool>> {
protected:
    SelfOverwrite() {
        for (const auto& [name, bytes] : place_.undisturbed(type_, {}))
            names_.push_back(name);
        names_.emplace_back(temporary);
    }

    void expect_refusal(const std::string& name, const fs::path& firmware, const fs::path& output) {
        SCOPED_TRACE(name + ", from " + firmware.string() + " to " + output.string());
        const RunResult run = run_program(NANDSMITH_PROGRAM, program_arguments(type_, {}, firmware, output),
                                          {.timeout_seconds = 60});
        EXPECT_TRUE(run.exited);
        EXPECT_EQ(run.exit_status, name == "out_image.img" ? status_init_failed : status_creation_failed);
        EXPECT_NE(run.out.find("failed to create " + (output / name).string() + ",err=16\n"),
                  std::string::npos)
            << run.out;
        EXPECT_EQ(place_.damage(), "");
    }

    ENUM_FLASH_TYPE type_ = std::get<0>(GetParam());
    Workplace place_{small_firmware({.gpt = std::get<1>(GetParam())})};
    std::vector<std::string> names_;
};

TEST_P(SelfOverwrite, IsRefusedThroughASymbolicLink) {
    for (const std::string& name : names_) {
        place_.empty_output();
        fs::create_symlink("../firmware.img", place_.output() / "between");
        fs::create_symlink("between", place_.output() / name);
        expect_refusal(name, place_.firmware(), place_.output());
    }
}

TEST_P(SelfOverwrite, IsRefusedThroughAHardLink) {
    for (const std::string& name : names_) {
        place_.empty_output();
        fs::create_hard_link(place_.firmware(), place_.output() / name);
        expect_refusal(name, place_.firmware(), place_.output());
    }
}

TEST_P(SelfOverwrite, IsRefusedWhereFirmwareAndOutputAreOneName) {
    for (const std::string& name : names_) {
        if (name == temporary)
            continue;  // a firmware of that name would be taken for a bare container
        place_.empty_output();
        const fs::path out = place_.output();
        fs::create_hard_link(place_.firmware(), out / name);
        expect_refusal(name, out / name, out);
        expect_refusal(name, out / "." / name, out);
        expect_refusal(name, out / ".." / "out" / name, out / ".");
    }
}

// What has been written to it so far is kept.
TEST_P(SelfOverwrite, OfTheOpenOutputByTheTemporaryFileIsRefused) {
    const bool one_image = type_ == FLASH_EMMC || type_ == FLASH_NOR;
    const std::string open_output = one_image ? "out_image.img" : "rootfs.img";
    place_.empty_output();
    fs::create_symlink(open_output, place_.output() / temporary);
    expect_refusal(temporary, place_.firmware(), place_.output());
    EXPECT_EQ(fs::file_size(place_.output() / open_output) != 0, one_image);
}

INSTANTIATE_TEST_SUITE_P(Types, SelfOverwrite,
                         testing::Combine(testing::ValuesIn(storage_types), testing::Bool()),
                         [](const auto& tested) {
                             return std::string(type_name(std::get<0>(tested.param))) +
                                    (std::get<1>(tested.param) ? "Gpt" : "Parameter");
                         });

}  // namespace
}  // namespace robustness
