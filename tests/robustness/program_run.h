#pragma once

// Runs of the program over a firmware in a directory of their own, and what has to be true after each of
// them.

#include "fuzz/conversion.h"
#include "fuzz/scratch_directory.h"
#include "support/bytes.h"
#include "support/firmware_builder.h"
#include "support/run_program.h"

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace robustness {

#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif
#else
inline constexpr bool kSanitized = false;
#endif

// Names and contents of the regular files of a directory.
using Files = std::map<std::string, test_support::Bytes>;
Files files_in(const std::filesystem::path& directory);

// Which files differ, one a line; empty when the directories are equal.
std::string difference(const Files& wanted, const Files& got);

// The program's options for a conversion.
std::vector<std::string> program_arguments(ENUM_FLASH_TYPE type, const Geometry& geometry,
                                           const std::filesystem::path& firmware,
                                           const std::filesystem::path& output);

// A firmware and an output directory under one top directory that holds nothing else.
class Workplace {
public:
    explicit Workplace(const test_support::Firmware& firmware);

    std::filesystem::path firmware() const { return m_top / "firmware.img"; }
    std::filesystem::path output() const { return m_top / "out"; }
    const std::filesystem::path& top() const { return m_top.path(); }

    void empty_output() const;
    test_support::RunResult run(ENUM_FLASH_TYPE type, const Geometry& geometry,
                                test_support::RunOptions options = {}) const;
    // What a run that nothing disturbs leaves in the output directory.
    Files undisturbed(ENUM_FLASH_TYPE type, const Geometry& geometry) const;

    // Empty when the firmware has its bytes and nothing stands beside it and the output directory; else what
    // is wrong.
    std::string damage() const;

private:
    ScratchDirectory m_top;
    test_support::Bytes m_firmware_bytes;
};

// Empty when a run that may have failed ended as it should: success with exactly the wanted files in the
// output directory, or a known exit status and the lines that belong to it as the reason. A reason that ends
// in an errno has this one, when it is given. `tolerated` may be left over beside the wanted files.
std::string misbehaviour(const test_support::RunResult& run, const Files& wanted,
                         const std::filesystem::path& output, const std::string& tolerated = {},
                         std::optional<int> error = {});

}  // namespace robustness
