#include "console.h"

#include "../common/messages.h"

#include <algorithm>

namespace {

// Holds a hundred times any size.
__extension__ using Wide = unsigned __int128;

}  // namespace

void print_line(const std::string& text) {
    put_message(text + "\n");
}

void print_error_line(const std::string& text) {
    put_message("\033[30;41m" + text + "\033[37;40m\n");
}

void redraw_line(const std::string& text) {
    put_message("\033[1A\033[2K" + text + "\n");
}

std::string error_suffix(int error_number) {
    return ",err=" + std::to_string(error_number);
}

std::string result_suffix(int result) {
    return ",ret=" + std::to_string(result);
}

uint64_t percent_of(uint64_t done, uint64_t total) {
    if (total == 0)
        return 100;
    if (done <= UINT64_MAX / 100)
        return done * 100 / total;  // needed for each page; the wide division is several times slower
    return static_cast<uint64_t>(Wide{done} * 100 / total);
}

void Progress::show(uint64_t done, uint64_t total) {
    const uint64_t percent = percent_of(done, total);
    if (percent == m_shown)
        return;
    m_shown = percent;
    redraw_line(m_prefix + std::to_string(percent) + "%");
}

void Progress::show_steps(uint64_t done, uint64_t end, uint64_t step, uint64_t total) {
    while (done < end) {
        const uint64_t steps = (steps_until_change(done, total) - 1) / step + 1;
        done = steps > (end - done) / step ? end : done + steps * step;
        show(done, total);
    }
}

uint64_t Progress::steps_until_change(uint64_t done, uint64_t total) const {
    if (percent_of(done + 1, total) != m_shown)
        return 1;
    // With a total of 0 the percentage is always 100.
    const Wide next_change = total == 0 ? Wide{UINT64_MAX} : (Wide{m_shown + 1} * total + 99) / 100;
    return static_cast<uint64_t>(std::min<Wide>(next_change, UINT64_MAX)) - done;
}
