#pragma once

// How the output of a run has to end that failed: the last lines name the reason, in the form that belongs to
// the exit status.

#include <optional>
#include <string>

namespace robustness {

// Empty when the output ends as that of a run with this status, which is not 0; else what is wrong with it.
std::string wrong_reason(int exit_status, const std::string& out);

// The errno that the last reason of the output ends in, if it ends in one.
std::optional<int> errno_of_reason(const std::string& out);

}  // namespace robustness
