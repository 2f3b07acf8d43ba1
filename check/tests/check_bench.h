#pragma once

// What a conversion made, and runs of nandsmith-check over it.

#include "support/process_limits.h"
#include "support/workbench.h"

#include <nlohmann/json.hpp>

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

namespace check_test {

using namespace test_support;
using Json = nlohmann::json;

inline const Conversion kEmmc{.type = "emmc", .block_kb = "512", .page_kb = "2"};
inline const Conversion kSpiNor{.type = "spinor", .block_kb = "64", .page_kb = "2"};
inline const Conversion kSpiNand{.type = "spinand", .block_kb = "128", .page_kb = "2"};
inline const Conversion kSlcNand{.type = "slc", .block_kb = "128", .page_kb = "2", .spare_bytes = "64"};
inline const std::vector<Conversion> kFourTypes{kEmmc, kSpiNor, kSpiNand, kSlcNand};

/// The same conversion with other sizes, 2 KB of data in a page, or a page linked list.
Conversion with(Conversion conversion, const std::string& block_kb, const std::string& page_kb,
                const std::string& spare = {});
Conversion with_two_kb(Conversion conversion);
Conversion with_page_list(Conversion conversion);

inline constexpr int kSame = 0;
inline constexpr int kDiffers = 1;
inline constexpr int kTrouble = 2;

/// As a shell runs it, with a sanitizer that leaves standard error alone.
inline RunResult run_check_program(const Arguments& arguments, RunOptions options = {}) {
    options.timeout_seconds = options.timeout_seconds.value_or(60);
    return run_program(NANDSMITH_CHECK_PROGRAM, arguments, options);
}

/// Runs a line of the shell in which "$0" "$@" is the program with its arguments.
inline RunResult run_check_in_shell(const std::string& line, const Arguments& arguments,
                                    RunOptions options = {}) {
    Arguments all{"-c", line, NANDSMITH_CHECK_PROGRAM};
    all.insert(all.end(), arguments.begin(), arguments.end());
    options.timeout_seconds = options.timeout_seconds.value_or(60);
    return run_program("/bin/sh", all, options);
}

/// The program as somebody runs it who may not do everything: this process's user, or nobody in place of
/// root.
struct UnprivilegedRun {
    std::string why_not{};  ///< it cannot be run so; empty: it can
    std::string program{};
    Arguments arguments{};

    RunResult run() const { return run_program(program, arguments, {.timeout_seconds = 60}); }
};

UnprivilegedRun unprivileged(const Arguments& arguments);

/// The last line without its line feed.
inline std::string last_line(const std::string& text) {
    const std::vector<std::string> lines = split(text, '\n');
    return lines.empty() ? "" : lines.back();
}

/// What the files of a directory are besides their bytes.
struct FileState {
    uint64_t inode = 0;
    int64_t size = 0;
    int64_t changed_s = 0, changed_ns = 0;    // time of the last change of the file's properties
    int64_t modified_s = 0, modified_ns = 0;  // and of its bytes
    uint32_t mode = 0;

    bool operator==(const FileState&) const = default;
};

/// The directory and all in it, by their paths.
std::map<std::string, FileState> states_below(const fs::path& directory);

/// A firmware and what a conversion made of it.
class CheckBench : public Workbench {
public:
    explicit CheckBench(const Conversion& conversion, const Firmware& packed = sample_firmware({.gpt = true}))
        : Workbench(packed), m_conversion(conversion) {
        convert_once();
    }
    /// A file of any bytes and name, for a bare boot container.
    CheckBench(const Conversion& conversion, const Bytes& file, const std::string& name)
        : m_conversion(conversion) {
        name_firmware(name);
        pack(file);
        convert_once();
    }

    const Conversion& conversion() const { return m_conversion; }
    /// The one image, or the file with the most bytes.
    std::string main_file() const;

    Arguments arguments(const Arguments& more = {}) const { return arguments_as(m_conversion, more); }
    Arguments arguments_as(const Conversion& conversion, const Arguments& more = {}) const {
        Arguments all = conversion.arguments(firmware(), out_dir());
        all.insert(all.end(), more.begin(), more.end());
        return all;
    }
    /// Without -o.
    Arguments arguments_without_target(const Arguments& more = {}) const;

    RunResult check(const Arguments& more = {}) const { return run_check_program(arguments(more)); }
    RunResult check_as(const Conversion& conversion, const Arguments& more = {}) const {
        return run_check_program(arguments_as(conversion, more));
    }
    /// The document. Its status is that of the run.
    Json document(const Arguments& more = {}) const { return document_as(m_conversion, more); }
    Json document_as(const Conversion& conversion, const Arguments& more = {}) const;

    /// Inverts bytes of an output.
    void damage(const std::string& name, uint64_t offset, std::size_t count = 1) const;
    void bend(const std::string& name, uint64_t offset, const Bytes& bytes) const;

private:
    void convert_once() const {
        if (call(m_conversion).status != kConverted)
            throw std::runtime_error("the conversion fails");
    }

    Conversion m_conversion;
};

// ---- all kinds of conversions ----

Firmware with_gpt();
Firmware without_gpt();
Firmware with_scrambled_stages();
Firmware with_sparse_item();
Firmware with_two_of_one_name();
/// Items that lie over each other and in descending order, with gaps, and one without data.
Firmware with_overlaps();

/// A conversion of a firmware, or of its boot container alone.
struct Made {
    std::string name;  ///< of letters, digits and underscores
    Conversion conversion;
    std::function<Firmware()> firmware;
    bool loader_alone = false;
};

std::vector<Made> all_made();
CheckBench bench_of(const Made& made);

// ---- documents ----

/// The document that a run printed, and nothing else.
Json parsed(const RunResult& run);

/// The part of that name, or null.
Json part_of(const Json& document, const std::string& name);

/// Codes of all diagnoses, with blanks between them.
std::string codes_of(const Json& document);

/// Sum of a number over all parts.
uint64_t sum_of(const Json& document, const std::string& key);

}  // namespace check_test
