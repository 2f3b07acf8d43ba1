// Times whole runs of the program against a copy of what they wrote, pair by pair, and prints a table.
// bench/compare builds it and calls it.

#include "compare_inputs.h"
#include "compare_rows.h"
#include "compare_table.h"
#include "encoder_speed.h"
#include "measured_process.h"
#include "work_directory.h"

#include <cstdio>
#include <exception>
#include <optional>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr uint64_t kLargestMib = 8192;
constexpr int kRunsAtLargest = 3;

struct Arguments {
    fs::path data{};      // directory for the big files; emptied first, removed at the end
    fs::path programs{};  // top of the build tree
    bool quick = false;
    std::regex rows{".*"};

    int pairs() const { return quick ? 3 : 7; }
    std::vector<uint64_t> sizes_mib() const {
        return quick ? std::vector<uint64_t>{512} : std::vector<uint64_t>{512, 2048};
    }
};

struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

Arguments parse_arguments(const std::vector<std::string>& words) {
    Arguments arguments;
    for (std::size_t i = 0; i < words.size(); ++i)
        if (words[i] == "--quick")
            arguments.quick = true;
        else if (i + 1 == words.size())
            throw UsageError("unknown option, or one without its value: " + words[i]);
        else if (words[i] == "--data")
            arguments.data = words[++i];
        else if (words[i] == "--programs")
            arguments.programs = words[++i];
        else if (words[i] == "--rows")
            arguments.rows = std::regex(words[++i]);
        else
            throw UsageError("unknown option " + words[i]);
    if (arguments.data.empty() || arguments.programs.empty())
        throw UsageError("usage: compare_runs --data DIR --programs DIR [--quick] [--rows REGEX]");
    return arguments;
}

class Comparison {
public:
    explicit Comparison(const Arguments& arguments) : m_arguments(arguments), m_work(arguments.data) {}

    // Number of rows over their limits.
    int run() {
        const std::vector<Row> rows = selected_rows();
        for (const uint64_t mib : m_arguments.sizes_mib()) {
            for (const Row& row : rows)
                m_table.print_row(row.is_check() ? run_checks(row, mib) : run_pairs(row, mib));
            m_work.empty(m_work.inputs());
        }
        if (!m_arguments.quick) {
            for (const Row& row : rows)
                if (row.at_largest_size)
                    m_table.print_row(run_alone(row, kLargestMib));
        }
        m_table.print_others();
        if (is_selected("encoder")) {
            m_table.print_encoder(measure_encoder(m_arguments.programs / "bench/bch_benchmark",
                                                  m_arguments.pairs(), m_work.scratch("encoder.csv")));
        }
        return m_table.rows_over();
    }

private:
    bool is_selected(const std::string& name) const { return std::regex_search(name, m_arguments.rows); }

    std::vector<Row> selected_rows() const {
        const fs::path check = m_arguments.programs / "nandsmith-check";
        std::vector<Row> rows =
            comparison_rows({.nandsmith = m_arguments.programs / "nandsmith",
                             .nandsmith_check = check,
                             .convert_with_path = m_arguments.programs / "bench/convert_with_path",
                             .check_with_path = m_arguments.programs / "bench/check_with_path",
                             .make_sample_dump = m_arguments.programs / "tests/make_sample_dump"});
        std::erase_if(rows, [this](const Row& row) { return !is_selected(row.name); });
        const bool can_check = fs::exists(check);
        if (std::erase_if(rows, [&](const Row& row) { return row.is_check() && !can_check; }) != 0)
            std::printf("Left out: the rows of nandsmith-check, which is not built.\n");
        return rows;
    }

    Input input_of(const Row& row, uint64_t mib, bool with_payload) const {
        return prepare_input(m_work, m_arguments.programs / "bench/make_bench_firmware", row.input, mib,
                             with_payload);
    }

    RowResult run_pairs(const Row& row, uint64_t mib) {
        const Input input = input_of(row, mib, !row.others.empty());
        const Command program = command_of(row, input, m_work);
        RowResult result{.name = row.name, .mib = mib, .limit = row.limit};
        for (const OtherTool tool : row.others)
            if (have_tool(name_of(tool)))
                result.others.push_back({.tool = name_of(tool), .timing = {}});
        for (int pair = 0; pair <= m_arguments.pairs(); ++pair) {
            RowResult discarded = result;
            run_pair(row, input, program, pair == 0 ? discarded : result);  // the first one warms up
        }
        clear();
        result.calls_per_mib = calls_per_mib(program);
        clear();
        return result;
    }

    // Checks of one output, in turn with cmp of it and its copy, or with openssl. Nothing is written
    // meanwhile.
    RowResult run_checks(const Row& row, uint64_t mib) {
        const Input input = input_of(row, mib, false);
        clear();
        run_measured(preparation_of(row, input, m_work));
        run_measured(copy_command(m_work));
        m_work.settle();
        const Command check = command_of(row, input, m_work);
        const Command beside = row.is_manifest ? digest_command(m_work) : compare_command(m_work);
        RowResult result{.name = row.name, .mib = mib, .limit = row.limit, .is_check = true};
        result.is_manifest = row.is_manifest;
        result.least_rate = row.least_rate;
        result.bytes = bytes_in(m_work.output());
        for (int pair = 0; pair <= m_arguments.pairs(); ++pair) {
            const Measurement checked = run_measured(check);
            const Measurement compared = run_measured(beside);
            if (pair == 0)  // it warms up
                continue;
            result.program.add(checked);
            result.program.ratios.push_back(checked.processor_seconds() / compared.processor_seconds());
            result.copy.add(compared);
        }
        result.calls_per_mib = calls_per_mib(check);
        clear();
        return result;
    }

    void run_pair(const Row& row, const Input& input, const Command& program, RowResult& result) {
        m_work.empty(m_work.copy());
        const Measurement converted = run_again(program, m_work.output());
        const Measurement copied = run_again(copy_command(m_work), m_work.copy());
        result.program.add(converted);
        result.program.ratios.push_back(converted.seconds / copied.seconds);
        result.copy.add(copied);

        std::size_t next = 0;
        for (const OtherTool tool : row.others) {
            if (have_tool(name_of(tool))) {
                const Measurement other =
                    run_again(other_command(tool, input, result.mib, m_work), m_work.copy());
                Timing& timing = result.others[next++].timing;
                timing.add(other);
                timing.ratios.push_back(other.seconds / copied.seconds);
            }
        }
    }

    // Measures a command that writes into the directory, after a run that is not measured and whose files are
    // gone. A virtual machine gives memory that nobody uses back to its host and waits long to get it back;
    // so the run finds memory that files of the same kind had a moment ago.
    Measurement run_again(const Command& command, const fs::path& directory) const {
        m_work.empty(directory);
        m_work.settle();
        run_measured(command);
        m_work.empty(directory);
        return run_measured(command);
    }

    // Input, output and copy of the largest size would not fit the page cache together, so there is no pair.
    RowResult run_alone(const Row& row, uint64_t mib) {
        const Input input = input_of(row, mib, false);
        const Command program = command_of(row, input, m_work);
        RowResult result{.name = row.name, .mib = mib, .limit = row.limit};
        for (int run = 0; run < kRunsAtLargest; ++run) {
            clear();
            result.program.add(run_measured(program));
        }
        clear();
        result.calls_per_mib = calls_per_mib(program);
        clear();
        return result;
    }

    std::optional<double> calls_per_mib(const Command& program) {
        const std::optional<uint64_t> calls = count_system_calls(program, m_work.scratch("strace.txt"));
        if (!calls)
            return std::nullopt;
        return static_cast<double>(*calls) * (1 << 20) / static_cast<double>(bytes_in(m_work.output()));
    }

    void clear() const {
        m_work.empty(m_work.copy());
        m_work.empty(m_work.output());
        m_work.settle();
    }

    Arguments m_arguments;
    WorkDirectory m_work;
    ComparisonTable m_table{};
};

}  // namespace

int main(int argc, char** argv) {
    try {
        const Arguments arguments = parse_arguments(std::vector<std::string>(argv + 1, argv + argc));
        const int over = Comparison(arguments).run();
        std::printf("\n%s\n", over == 0 ? "Every row is within its figure." : "Some rows are over.");
        return over == 0 ? 0 : 1;
    } catch (const UsageError& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "compare_runs: %s\n", error.what());
        return 3;
    }
}
