#pragma once

// A directory with a firmware and an output directory in it, and the runs of the program on them.

#include "cli/transcript.h"
#include "support/bytes.h"
#include "support/firmware_builder.h"
#include "support/run_program.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace cli_test {

namespace fs = std::filesystem;

using Arguments = std::vector<std::string>;

#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool address_sanitizer = true;
#elif defined(__has_feature)
inline constexpr bool address_sanitizer = __has_feature(address_sanitizer);
#else
inline constexpr bool address_sanitizer = false;
#endif

// What the operating system sees of what main returns.
constexpr int status_of(int code) {
    return code & 0xFF;
}

inline constexpr int init_failed = status_of(-14);
inline constexpr int creation_failed = status_of(-15);

inline test_support::RunResult run(const Arguments& arguments, const test_support::RunOptions& options = {}) {
    return test_support::run_program(NANDSMITH_PROGRAM, arguments, options);
}

inline void expect_run(const test_support::RunResult& result, int status, const Transcript& expected) {
    EXPECT_TRUE(result.exited) << "ended by signal " << result.signal;
    EXPECT_EQ(result.exit_status, status);
    EXPECT_EQ(result.out, expected.text());
    EXPECT_EQ(result.err, "");
}

// Compares without printing megabytes.
inline void expect_same_bytes(const test_support::Bytes& found, const test_support::Bytes& expected,
                              const std::string& what) {
    const auto [at, other] = std::mismatch(found.begin(), found.end(), expected.begin(), expected.end());
    EXPECT_TRUE(found == expected) << what << ": " << found.size() << " bytes, expected " << expected.size()
                                   << ", first difference at byte " << at - found.begin();
}

// The options of one conversion, in the order in which they are given.
struct Conversion {
    std::string type = "emmc";
    std::string block_kb = "512";
    std::string page_kb = "2";
    std::string spare_bytes{};  // empty: not given
    bool two_kilobytes_data = false;
    bool page_list = false;

    Arguments arguments(const fs::path& firmware, const fs::path& out) const {
        Arguments arguments{"-i", firmware, "-o", out, "-t", type, "-b", block_kb, "-p", page_kb};
        if (!spare_bytes.empty()) {
            arguments.insert(arguments.end(), {"-s", spare_bytes});
        }
        if (two_kilobytes_data) {
            arguments.emplace_back("-2");
        }
        if (page_list) {
            arguments.emplace_back("--page_list");
        }
        return arguments;
    }

    // What is printed while the options are read.
    Transcript echo(const fs::path& firmware, const fs::path& out) const {
        Transcript transcript;
        transcript.line("input firmware is '" + firmware.string() + "'")
            .line("output directory is '" + out.string() + "'")
            .line("flash type is '" + type + "'")
            .line("block size is '" + block_kb + "'")
            .line("page size is '" + page_kb + "'");
        if (!spare_bytes.empty()) {
            transcript.line("oob size is '" + spare_bytes + "'");
        }
        if (two_kilobytes_data) {
            transcript.line("2k data page on.");
        }
        if (page_list) {
            transcript.line("page linked list on.");
        }
        return transcript;
    }
};

inline void PrintTo(const Conversion& conversion, std::ostream* out) {
    for (const std::string& argument : conversion.arguments("FIRMWARE", "OUT")) {
        *out << argument << ' ';
    }
}

class Workbench {
public:
    Workbench() { fs::create_directory(out_dir()); }
    explicit Workbench(const test_support::Firmware& packed) : Workbench() { pack(packed); }

    fs::path directory() const { return directory_.path(); }
    fs::path firmware() const { return directory_ / firmware_name; }
    fs::path out_dir() const { return directory_ / "out"; }
    fs::path out(const std::string& name) const { return out_dir() / name; }

    void pack(const test_support::Firmware& packed) const { packed.write(firmware()); }
    // Another name, for the names that mean something.
    void name_firmware(const std::string& name) { firmware_name = name; }

    test_support::RunResult convert(const Conversion& conversion,
                                    const test_support::RunOptions& options = {}) const {
        return run(conversion.arguments(firmware(), out_dir()), options);
    }
    // What every run of this conversion prints first.
    Transcript echo(const Conversion& conversion) const { return conversion.echo(firmware(), out_dir()); }

    test_support::Bytes output(const std::string& name) const { return test_support::read_file(out(name)); }
    std::vector<std::string> output_names() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(out_dir())) {
            names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

private:
    test_support::TemporaryDirectory directory_{};
    std::string firmware_name = "fw.img";
};

using Names = std::vector<std::string>;

}  // namespace cli_test
