#include "compare_table.h"

#include <algorithm>
#include <cstdio>

namespace {

constexpr double kPeakLimitMib = 16;
constexpr double kCallsLimitPerMib = 16;  // one per 64 KiB

std::string number(double value, int decimals) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.*f", decimals, value);
    return text;
}

// GB for a second of processor time.
double rate(const RowResult& row) {
    return static_cast<double>(row.bytes) / 1e9 /
           (median(row.program.user_seconds) + median(row.program.system_seconds));
}

std::string limit_text(const RowResult& row) {
    return row.limit != 0 && !row.program.ratios.empty() ? number(row.limit, 1) : "-";
}

// "ok", or what is over.
std::string verdict(const RowResult& row) {
    std::string over;
    const bool over_ratio = row.limit != 0 && median(row.program.ratios) > row.limit;
    if (over_ratio || (row.least_rate != 0 && rate(row) < row.least_rate))
        over += " time";
    if (row.program.peak_mib > kPeakLimitMib)
        over += " memory";
    if (!row.is_check && row.calls_per_mib.value_or(0) > kCallsLimitPerMib)
        over += " calls";
    return over.empty() ? "ok" : "over:" + over;
}

// Of a row that is bound by its rate.
std::string rate_text(const RowResult& row) {
    if (row.least_rate == 0)
        return "";
    return ", " + number(rate(row), 2) + " GB/s, at least " + number(row.least_rate, 1);
}

}  // namespace

void Timing::add(const Measurement& measurement) {
    seconds.push_back(measurement.seconds);
    user_seconds.push_back(measurement.user_seconds);
    system_seconds.push_back(measurement.system_seconds);
    peak_mib = std::max(peak_mib, measurement.peak_mib);
}

double median(std::vector<double> values) {
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

void ComparisonTable::print_header(const RowResult& row) {
    const std::string beside = row.is_manifest ? "openssl" : row.is_check ? "cmp" : "cp";
    if (m_beside == beside)
        return;
    m_beside = beside;
    std::printf("\n%-20s %6s %9s %8s %8s %9s %7s %6s %9s %9s  %s\n", "row", "MiB", "seconds", "user s",
                "system s", (beside + " s").c_str(), "ratio", "limit", "peak MiB", "calls/MiB",
                row.is_check ? "(ratio of processor time)" : "");
}

void ComparisonTable::print_row(const RowResult& row) {
    print_header(row);
    const bool paired = !row.program.ratios.empty();
    const std::string result = verdict(row);
    std::printf("%-20s %6llu %9s %8s %8s %9s %7s %6s %9s %9s  %s\n", row.name.c_str(),
                static_cast<unsigned long long>(row.mib), number(median(row.program.seconds), 3).c_str(),
                number(median(row.program.user_seconds), 3).c_str(),
                number(median(row.program.system_seconds), 3).c_str(),
                paired ? number(median(row.copy.seconds), 3).c_str() : "-",
                paired ? number(median(row.program.ratios), 2).c_str() : "-", limit_text(row).c_str(),
                number(row.program.peak_mib, 1).c_str(),
                row.calls_per_mib ? number(*row.calls_per_mib, 1).c_str() : "-",
                (result + rate_text(row)).c_str());
    std::fflush(stdout);
    m_over += result == "ok" ? 0 : 1;
    if (!row.others.empty())
        m_with_others.push_back(row);
}

void ComparisonTable::print_others() const {
    if (m_with_others.empty())
        return;
    std::printf("\n%-20s %6s %-10s %9s %12s %16s\n", "beside", "MiB", "tool", "seconds", "ratio to cp",
                "nandsmith's ratio");
    for (const RowResult& row : m_with_others) {
        for (const OtherResult& other : row.others) {
            std::printf("%-20s %6llu %-10s %9s %12s %16s\n", row.name.c_str(),
                        static_cast<unsigned long long>(row.mib), other.tool.c_str(),
                        number(median(other.timing.seconds), 3).c_str(),
                        number(median(other.timing.ratios), 2).c_str(),
                        number(median(row.program.ratios), 2).c_str());
        }
    }
    std::fflush(stdout);
}

void ComparisonTable::print_encoder(const std::vector<EncoderResult>& results) {
    std::printf("\n%-34s %14s %9s\n", "encoder, 256 KiB of data", "GB/s", "at least");
    for (const EncoderResult& result : results) {
        const bool slow = result.limit && result.gigabytes_per_second < *result.limit;
        std::printf("%-34s %14s %9s  %s\n", result.name.c_str(),
                    number(result.gigabytes_per_second, 2).c_str(),
                    result.limit ? number(*result.limit, 2).c_str() : "-",
                    !result.limit ? "" : (slow ? "over: time" : "ok"));
        m_over += slow ? 1 : 0;
    }
    std::fflush(stdout);
}
