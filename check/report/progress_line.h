#pragma once

#include <chrono>
#include <cstdint>

/// A line on standard error with what was compared, the rate and the time left. It is redrawn at most five
/// times a second.
class ProgressLine {
public:
    /// done and total in bytes; total 0: unknown.
    void show(uint64_t done, uint64_t total);
    /// Removes the line.
    void clear();

private:
    using Clock = std::chrono::steady_clock;

    Clock::time_point m_start = Clock::now();
    Clock::time_point m_shown = m_start;
    bool m_visible = false;
};
