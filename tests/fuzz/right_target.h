#pragma once

// What the targets of nandsmith-check need to make a right target that an input then bends.

#include "fuzz_target.h"

#include "options/conversion_options.h"
#include "support/work_directory.h"

#include <string>

namespace robustness {

// Converts into files of the output directory, which exists. Throws Misbehaviour when that fails.
void convert_to_files(const ConversionOptions& options);

// A file in memory, which a check opens by its path.
class MemoryFile {
public:
    MemoryFile();
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;
    ~MemoryFile();

    void fill(const test_support::Bytes& bytes) const;
    std::string path() const { return "/proc/self/fd/" + std::to_string(m_descriptor); }

private:
    int m_descriptor;
};

}  // namespace robustness
