#pragma once

#include <cstdint>
#include <string>
#include <utility>

/// All messages of the program are lines on standard output. Every line is flushed.

/// Prints text and a newline.
void print_line(const std::string& text);

/// The message of an error: text in black on red, white on black after it, and a newline.
std::string error_message(const std::string& text);

/// Prints the message of an error.
void print_error_line(const std::string& text);

/// Replaces the line above the cursor by text.
void redraw_line(const std::string& text);

/// ",err=" and the errno in decimal.
std::string error_suffix(int error_number);

/// ",ret=" and the result in decimal.
std::string result_suffix(int result);

/// 100 * done / total rounded down; 100 when total is 0.
uint64_t percent_of(uint64_t done, uint64_t total);

/// A progress line that is redrawn only when the whole percentage changes.
class Progress {
public:
    /// prefix is the text before the percentage. 0 % counts as shown.
    explicit Progress(std::string prefix) : m_prefix(std::move(prefix)) {}

    /// Changes the text. The percentage that was shown last stays.
    void set_prefix(std::string prefix) { m_prefix = std::move(prefix); }

    /// Redraws the line when the percentage of done out of total is not the one shown last.
    void show(uint64_t done, uint64_t total);

    /// Shows done + step, done + 2 * step and so on, and end as the last, all out of total. step is not 0.
    /// The time that this takes depends on the number of lines and not on the number of steps.
    void show_steps(uint64_t done, uint64_t end, uint64_t step, uint64_t total);

    /// How much has to be added to done, at least 1, until show redraws the line.
    uint64_t steps_until_change(uint64_t done, uint64_t total) const;

private:
    std::string m_prefix;
    uint64_t m_shown = 0;
};
