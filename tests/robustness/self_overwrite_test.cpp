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

constexpr const char* kTemporary = "unsparse_tmp.bin";

class SelfOverwrite : public testing::TestWithParam<std::tuple<ENUM_FLASH_TYPE, bool>> {
protected:
    SelfOverwrite() {
        for (const auto& [name, bytes] : m_place.undisturbed(m_type, {}))
            m_names.push_back(name);
        m_names.emplace_back(kTemporary);
    }

    void expect_refusal(const std::string& name, const fs::path& firmware, const fs::path& output) {
        SCOPED_TRACE(name + ", from " + firmware.string() + " to " + output.string());
        const RunResult run = run_program(NANDSMITH_PROGRAM, program_arguments(m_type, {}, firmware, output),
                                          {.timeout_seconds = 60});
        EXPECT_TRUE(run.exited);
        EXPECT_EQ(run.exit_status, name == "out_image.img" ? kStatusInitFailed : kStatusCreationFailed);
        EXPECT_NE(run.out.find("failed to create " + (output / name).string() + ",err=16\n"),
                  std::string::npos)
            << run.out;
        EXPECT_EQ(m_place.damage(), "");
    }

    ENUM_FLASH_TYPE m_type = std::get<0>(GetParam());
    Workplace m_place{small_firmware({.gpt = std::get<1>(GetParam())})};
    std::vector<std::string> m_names;
};

TEST_P(SelfOverwrite, IsRefusedThroughASymbolicLink) {
    for (const std::string& name : m_names) {
        m_place.empty_output();
        fs::create_symlink("../firmware.img", m_place.output() / "between");
        fs::create_symlink("between", m_place.output() / name);
        expect_refusal(name, m_place.firmware(), m_place.output());
    }
}

TEST_P(SelfOverwrite, IsRefusedThroughAHardLink) {
    for (const std::string& name : m_names) {
        m_place.empty_output();
        fs::create_hard_link(m_place.firmware(), m_place.output() / name);
        expect_refusal(name, m_place.firmware(), m_place.output());
    }
}

TEST_P(SelfOverwrite, IsRefusedWhereFirmwareAndOutputAreOneName) {
    for (const std::string& name : m_names) {
        if (name == kTemporary)
            continue;  // a firmware of that name would be taken for a bare container
        m_place.empty_output();
        const fs::path out = m_place.output();
        fs::create_hard_link(m_place.firmware(), out / name);
        expect_refusal(name, out / name, out);
        expect_refusal(name, out / "." / name, out);
        expect_refusal(name, out / ".." / "out" / name, out / ".");
    }
}

// What has been written to it so far is kept.
TEST_P(SelfOverwrite, OfTheOpenOutputByTheTemporaryFileIsRefused) {
    const bool one_image = m_type == FLASH_EMMC || m_type == FLASH_NOR;
    const std::string open_output = one_image ? "out_image.img" : "rootfs.img";
    m_place.empty_output();
    fs::create_symlink(open_output, m_place.output() / kTemporary);
    expect_refusal(kTemporary, m_place.firmware(), m_place.output());
    EXPECT_EQ(fs::file_size(m_place.output() / open_output) != 0, one_image);
}

INSTANTIATE_TEST_SUITE_P(Types, SelfOverwrite,
                         testing::Combine(testing::ValuesIn(kStorageTypes), testing::Bool()),
                         [](const auto& tested) {
                             return std::string(type_name(std::get<0>(tested.param))) +
                                    (std::get<1>(tested.param) ? "Gpt" : "Parameter");
                         });

}  // namespace
}  // namespace robustness
