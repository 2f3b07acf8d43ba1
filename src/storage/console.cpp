#include "console.h"

#include "../common/messages.h"

void print_line(const std::string& text) {
    put_message(text + "\n");
}

std::string error_message(const std::string& text) {
    return "\033[30;41m" + text + "\033[37;40m\n";
}

void print_error_line(const std::string& text) {
    put_message(error_message(text));
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
        return done * 100 / total;
    // A hundred times this size does not fit 64 bits, so its fraction of the total is added up.
    uint64_t percent = done / total * 100;
    uint64_t rest = 0;
    for (uint32_t i = 0; i < 100; ++i) {
        const uint64_t missing = total - done % total;  // of the fraction to the whole
        const bool is_whole = rest >= missing;
        rest = is_whole ? rest - missing : rest + done % total;
        percent += is_whole ? 1 : 0;
    }
    return percent;
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
    if (total == 0)
        return UINT64_MAX - done;  // the percentage is always 100
    // That many percent of the total, rounded up. The products of their hundreds and their remainders fit 64
    // bits each; that with the hundreds of the total may not.
    const uint64_t percent = m_shown + 1;
    const uint64_t of_remainder = percent / 100 * (total % 100) + (percent % 100 * (total % 100) + 99) / 100;
    const uint64_t hundredth = total / 100;
    if (hundredth != 0 && percent > (UINT64_MAX - of_remainder) / hundredth)
        return UINT64_MAX - done;
    return percent * hundredth + of_remainder - done;
}
