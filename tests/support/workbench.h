#pragma once

// Conversions in a directory: (firmware, options) -> (status, text, files), in this process or by the
// program.

#include "support/conversion.h"
#include "support/expected/run.h"
#include "support/expected/transcript.h"
#include "support/output_of.h"
#include "support/run_program.h"
#include "support/same_bytes.h"
#include "support/work_directory.h"

#include <cerrno>
#include <gtest/gtest.h>

namespace test_support {

enum class By {
    call,    // in this process
    program  // which adds the echo of the options, and a line to a creation that failed
};

struct Result {
    int status = -1;
    std::string text{};
};

inline RunResult run(const Arguments& arguments, const RunOptions& options = {}) {
    return run_program(NANDSMITH_PROGRAM, arguments, options);
}

inline void expect_run(const RunResult& result, int status, const std::string& expected) {
    EXPECT_TRUE(result.exited) << "ended by signal " << result.signal;
    EXPECT_EQ(result.exit_status, status);
    EXPECT_EQ(result.out, expected);
    EXPECT_EQ(result.err, "");
}

using Lines = std::vector<std::string>;

inline void expect_lines(const Arguments& arguments, int status, const Lines& lines,
                         const RunOptions& options = {}) {
    SCOPED_TRACE(testing::PrintToString(arguments));
    std::string expected;
    for (const std::string& text : lines)
        expected += line(text);
    expect_run(run(arguments, options), status, expected);
}

// What may stand in the place of an output file, and the errno of a run that comes to it.
struct Obstacle {
    std::string what;
    int error;
    void (*put)(const fs::path& file, const fs::path& firmware);
};

inline const std::vector<Obstacle> kObstacles{
    {"a directory: ", EISDIR,
     [](const fs::path& file, const fs::path&) { fs::create_directories(file / "kept"); }},
    {"a link into a directory that is not there: ", ENOENT,
     [](const fs::path& file, const fs::path&) { fs::create_symlink("missing/file", file); }},
    {"a link to itself: ", ELOOP,
     [](const fs::path& file, const fs::path&) { fs::create_symlink(file.filename(), file); }},
    {"a link to the firmware: ", EBUSY,
     [](const fs::path& file, const fs::path& firmware) { fs::create_symlink(firmware, file); }},
    {"the firmware: ", EBUSY,
     [](const fs::path& file, const fs::path& firmware) { fs::create_hard_link(firmware, file); }},
};

class Workbench : public WorkDirectory {
public:
    Workbench() = default;
    explicit Workbench(const Firmware& packed) { pack(packed); }

    // What every run of the program prints first.
    std::string echo(const Conversion& conversion) const { return conversion.echo(firmware(), out_dir()); }
    RunResult convert(const Conversion& conversion, const RunOptions& options = {}) const {
        return run(conversion.arguments(firmware(), out_dir()), options);
    }
    Result call(const Conversion& conversion) const {
        Result result;
        result.text = output_of([&] { result.status = convert_by_call(conversion, firmware(), out_dir()); });
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

    // The conversion fails with this text while the obstacle is in the place of the file. It stays.
    void expect_blocked(const Obstacle& obstacle, const fs::path& file, const Conversion& conversion,
                        int status, const std::string& text) const {
        SCOPED_TRACE(obstacle.what + file.string());
        fs::remove_all(file);
        obstacle.put(file, firmware());
        const fs::file_type type = fs::symlink_status(file).type();
        expect(conversion, status, text);
        EXPECT_EQ(fs::symlink_status(file).type(), type);
        fs::remove_all(file);
    }
};

// The firmware converts as the model says.
inline void expect_converted(const Firmware& firmware, const Conversion& conversion,
                             const GptEntries& gpt = std::nullopt) {
    const Workbench bench(firmware);
    bench.expect(conversion, expected_run(firmware, conversion, bench.out_dir(), gpt));
}

}  // namespace test_support
