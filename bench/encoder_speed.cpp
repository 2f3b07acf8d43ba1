#include "encoder_speed.h"

#include "measured_process.h"

#include <fstream>
#include <sstream>
#include <string>
#include <string_view>

namespace {

constexpr int kSpeedField = 5;  // of a report line: name, iterations, real time, CPU time, unit, bytes/s

// Gigabytes a second that a path has to reach.
std::optional<double> limit_of(const std::string& name) {
    if (name.find("/carry_less") != std::string::npos)
        return 7.0;
    if (name.find("/portable") != std::string::npos)
        return 0.75;
    return std::nullopt;
}

void cut_prefix(std::string& text, std::string_view prefix) {
    if (text.starts_with(prefix))
        text.erase(0, prefix.size());
}

// A line such as "name_median",5,0.1,0.1,ns,1e+09,,,,, ; nothing for other lines.
std::optional<EncoderResult> parse_line(const std::string& line) {
    constexpr std::string_view mark = "_median\"";
    const std::size_t end = line.find(mark);
    if (!line.starts_with('"') || end == std::string::npos)
        return std::nullopt;
    std::string name = line.substr(1, end - 1);
    std::istringstream fields(line);
    std::string field;
    for (int i = 0; i <= kSpeedField; ++i)
        std::getline(fields, field, ',');
    const std::optional<double> limit = limit_of(name);
    cut_prefix(name, "bch_encode_units/");
    return EncoderResult{.name = name, .gigabytes_per_second = std::stod(field) / 1e9, .limit = limit};
}

}  // namespace

std::vector<EncoderResult> measure_encoder(const std::filesystem::path& benchmark, int repetitions,
                                           const std::filesystem::path& scratch) {
    run_measured(
        {{benchmark.string(), "--benchmark_min_time=0.1",
          "--benchmark_repetitions=" + std::to_string(repetitions), "--benchmark_report_aggregates_only=true",
          "--benchmark_out_format=csv", "--benchmark_out=" + scratch.string()},
         {}});
    std::vector<EncoderResult> results;
    std::ifstream report(scratch);
    std::string line;
    while (std::getline(report, line))
        if (const auto result = parse_line(line))
            results.push_back(*result);
    return results;
}
