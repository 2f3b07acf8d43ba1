#pragma once

#include <cstdint>
#include <string>
#include <utility>

/// Lines on standard output, the tool's only way to speak. Every line is flushed.

/// Prints text and a newline.
void print_line(const std::string& text);

/// Prints text between the colour sequences of an error (black on red before, white on black after) and a
/// newline.
void print_error_line(const std::string& text);

/// Replaces the line above the cursor by text: cursor up, clear the line, text, newline.
void redraw_line(const std::string& text);

/// ",err=" and the errno in decimal, as messages about files end.
std::string error_suffix(int error_number);

/// ",ret=" and the result in decimal, as messages about steps end.
std::string result_suffix(int result);

/// 100 * done / total rounded down; 100 when total is 0.
uint64_t percent_of(uint64_t done, uint64_t total);

/// A progress line that is redrawn only when the whole percentage changes.
class Progress {
public:
    /// prefix stands before the percentage; 0 counts as shown already.
    explicit Progress(std::string prefix) : m_prefix(std::move(prefix)) {}

    /// Changes the text and keeps the percentage that was shown last.
    void set_prefix(std::string prefix) { m_prefix = std::move(prefix); }

    /// Redraws the line when the percentage of done out of total is not the one shown last.
    void show(uint64_t done, uint64_t total);

    /// Shows done + step, done + 2 * step and so on up to end (itself the last), all out of total. Costs as
    /// much as the lines that come of it, not as the steps. step is not 0.
    void show_steps(uint64_t done, uint64_t end, uint64_t step, uint64_t total);

    /// The least that has to be added to done, at least 1, for show to redraw the line.
    uint64_t steps_until_change(uint64_t done, uint64_t total) const;

private:
    std::string m_prefix;
    uint64_t m_shown = 0;
};
