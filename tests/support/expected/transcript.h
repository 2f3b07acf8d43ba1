#pragma once

// What a run prints, line by line.

#include "support/sparse_builder.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace test_support {

std::string line(std::string_view text);
// Black on red before, white on black after.
std::string error_line(std::string_view text);
// The line above the cursor is replaced.
std::string redrawn(std::string_view text);
std::string not_created(const std::string& path, int error);
std::string not_written(const std::string& path, int error);

// The whole percentages after `prefix` as so many equal steps are done, each shown once.
std::string progress_lines(const std::string& prefix, uint64_t steps);
// An image of so many pages: "writing boot...", percentages, "OK".
std::string writing_lines(const std::string& name, uint64_t pages);
// The parameter partition, or the GPT.
std::string table_lines(const std::string& name);

// A sparse image whose chunks are expanded in pieces of these lengths; `status` other than 0 ends the
// expansion.
std::string sparse_lines(const std::string& name, const std::vector<uint64_t>& pieces, uint64_t declared,
                         uint64_t pages, int status = 0);
std::string sparse_lines(const std::string& name, const Bytes& image, uint64_t page_size, uint64_t pages,
                         int status = 0);

}  // namespace test_support
