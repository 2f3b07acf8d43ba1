#pragma once

// Many conversions of bent firmware, one after the other in a child process under limits. Every one has to
// end in a known way; the first that does not ends the child and is reported by what was bent.

#include "program_run.h"

#include <cstddef>
#include <functional>
#include <string>

namespace robustness {

struct BentFirmware {
    std::string what;  // for the report
    test_support::Bytes bytes;
};

struct BentRuns {
    std::size_t count = 0;
    std::function<BentFirmware(std::size_t index)> make{};
    bool container = false;  // the bytes are a bare boot container
    test_support::Conversion conversion = small_blocks({});
};

// What is asked of every run: an exit status that fits its messages, at most a second of processor time,
// the firmware as it was, nothing beside firmware and output directory, and at most 64 MB of memory. With
// sanitizers every third run is made.
void expect_orderly_ends(const std::string& type, BentRuns runs);

}  // namespace robustness
