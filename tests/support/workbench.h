#pragma once

// A directory with a firmware and an output directory in it, and conversions from one to the other:
// (firmware, options) -> (status, text, files), in this process or by the program.

#include "support/conversion.h"
#include "support/expected/run.h"
#include "support/expected/transcript.h"
#include "support/firmware_builder.h"
#include "support/output_of.h"
#include "support/run_program.h"
#include "support/same_bytes.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <set>
#include <string>

namespace test_support {

namespace fs = std::filesystem;

// What the operating system sees of what main returns.
constexpr int status_of(int code) {
    return code & 0xFF;
}

inline constexpr int kConverted = 0;
inline constexpr int kInitFailed = status_of(-14);
inline constexpr int kCreationFailed = status_of(-15);

enum class By {
    call,    // in this process
    program  // which adds the echo of the options, and a line to a creation that failed
};

struct Result {
    int status = -1;
    std::string text{};
};

using Names = std::set<std::string>;

inline RunResult run(const Arguments& arguments, const RunOptions& options = {}) {
    return run_program(NANDSMITH_PROGRAM, arguments, options);
}

inline void expect_run(const RunResult& result, int status, const std::string& expected) {
    EXPECT_TRUE(result.exited) << "ended by signal " << result.signal;
    EXPECT_EQ(result.exit_status, status);
    EXPECT_EQ(result.out, expected);
    EXPECT_EQ(result.err, "");
}

class Workbench {
public:
    Workbench() { fs::create_directory(out_dir()); }
    explicit Workbench(const Firmware& packed) : Workbench() { pack(packed); }

    fs::path directory() const { return m_directory.path(); }
    fs::path firmware() const { return m_directory / m_firmware_name; }
    fs::path out_dir() const { return m_directory / "out"; }
    fs::path out(const std::string& name) const { return out_dir() / name; }

    void pack(const Firmware& packed) const { packed.write(firmware()); }
    void pack(const Bytes& bytes) const { write_file(firmware(), bytes); }
    // Another name, for the names that mean something.
    void name_firmware(const std::string& name) { m_firmware_name = name; }

    // What every run of the program prints first.
    std::string echo(const Conversion& conversion) const { return conversion.echo(firmware(), out_dir()); }
    RunResult convert(const Conversion& conversion, const RunOptions& options = {}) const {
        return run(conversion.arguments(firmware(), out_dir()), options);
    }
    Result call(const Conversion& conversion) const {
        Result result;
        result.text =
            output_of([&] { result.status = status_of(convert_by_call(conversion, firmware(), out_dir())); });
        return result;
    }

    // Status and the whole text, which is given without what the program adds.
    void expect(const Conversion& conversion, int status, const std::string& text, By by = By::call,
                const RunOptions& options = {}) const {
        if (by == By::program) {
            const bool failed = status == kCreationFailed;
            expect_run(convert(conversion, options), status,
                       echo(conversion) + text + (failed ? "Failed to create programming image.\n" : ""));
            return;
        }
        const Result result = call(conversion);
        EXPECT_EQ(result.status, status);
        EXPECT_EQ(result.text, text);
    }

    // The run, its text and all files are those of the model; the firmware is what it was.
    void expect(const Conversion& conversion, const ExpectedRun& expected, By by = By::call) const {
        const Bytes before = read_file(firmware());
        expect(conversion, kConverted, expected.text, by);
        expect_files(expected.files);
        EXPECT_TRUE(same_bytes(read_file(firmware()), before)) << "firmware";
    }

    // These files and no others.
    void expect_files(const Files& expected) const {
        Names names;
        for (const auto& [name, bytes] : expected)
            names.insert(name);
        EXPECT_EQ(output_names(), names);
        for (const auto& [name, bytes] : outputs())
            EXPECT_TRUE(same_bytes(bytes, expected.count(name) != 0 ? expected.at(name) : bytes)) << name;
    }

    Bytes output(const std::string& name) const { return read_file(out(name)); }
    Names output_names() const { return names_in(out_dir()); }
    // All files of the output directory.
    Files outputs() const {
        Files files;
        for (const std::string& name : output_names())
            files[name] = output(name);
        return files;
    }

private:
    TemporaryDirectory m_directory{};
    std::string m_firmware_name = "fw.img";
};

// The firmware converts as the model says.
inline void expect_converted(const Firmware& firmware, const Conversion& conversion,
                             const GptEntries& gpt = std::nullopt) {
    const Workbench bench(firmware);
    bench.expect(conversion, expected_run(firmware, conversion, bench.out_dir(), gpt));
}

}  // namespace test_support
