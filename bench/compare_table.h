#pragma once

// What the comparison prints.

#include "measured_process.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// One command over all its runs.
struct Timing {
    std::vector<double> seconds{};
    std::vector<double> ratios{};  // to the copy, or to cmp, of the same pair; empty without pairs
    std::vector<double> user_seconds{};
    std::vector<double> system_seconds{};
    double peak_mib = 0;  // the highest
    void add(const Measurement& measurement);
};

// The middle value; the mean of the middle two of an even number.
double median(std::vector<double> values);

struct OtherResult {
    std::string tool{};
    Timing timing{};
};

struct RowResult {
    std::string name{};
    uint64_t mib = 0;
    double limit = 0;
    Timing program{};
    bool is_check = false;     // beside cmp, by processor time
    bool is_manifest = false;  // a check beside openssl
    double least_rate = 0;     // GB for a second of processor time; 0: any
    uint64_t bytes = 0;        // that are read, for that rate
    Timing copy{};             // of cmp or openssl for a check; without runs: too large for pairs
    std::optional<double> calls_per_mib{};  // of output
    std::vector<OtherResult> others{};
};

struct EncoderResult {
    std::string name{};
    double gigabytes_per_second = 0;
    std::optional<double> limit{};  // at least
};

// Prints rows as they come, and counts those that are over their limits.
class ComparisonTable {
public:
    void print_row(const RowResult& row);
    // Tools that do a part of the same work, after all rows.
    void print_others() const;
    void print_encoder(const std::vector<EncoderResult>& results);
    int rows_over() const { return m_over; }

private:
    void print_header(const RowResult& row);

    std::string m_beside{};  // the command in the header that was printed last
    int m_over = 0;
    std::vector<RowResult> m_with_others{};
};
