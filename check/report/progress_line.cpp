#include "progress_line.h"

#include <algorithm>
#include <cstdio>

namespace {

constexpr double kMib = 1024 * 1024;

}  // namespace

void ProgressLine::show(uint64_t done, uint64_t total) {
    const Clock::time_point now = Clock::now();
    if (now - m_shown < std::chrono::milliseconds(200))
        return;
    m_shown = now;
    m_visible = true;
    const double seconds = std::chrono::duration<double>(now - m_start).count();
    const double rate = static_cast<double>(done) / kMib / seconds;
    std::fprintf(stderr, "\r\033[K%.0f MiB compared, %.0f MiB/s", static_cast<double>(done) / kMib, rate);
    if (total > done && rate > 0)
        std::fprintf(stderr, ", %.0f s left", static_cast<double>(total - done) / kMib / rate);
    std::fflush(stderr);
}

void ProgressLine::clear() {
    if (m_visible)
        std::fputs("\r\033[K", stderr);
    m_visible = false;
}
