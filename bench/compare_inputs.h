#pragma once

// The firmware images that the comparison converts, made when a row asks for them.

#include "work_directory.h"

#include <cstdint>
#include <filesystem>
#include <string>

enum class InputKind { dense, gaps, sparse };

struct Input {
    std::filesystem::path firmware{};
    std::filesystem::path payload{};  // the root file system alone, as it is in the firmware; not for gaps
};

// Makes the input of that kind and size unless it is there, and reads it into the page cache. maker is the
// program that writes it.
Input prepare_input(const WorkDirectory& work, const std::filesystem::path& maker, InputKind kind,
                    uint64_t mib, bool with_payload);
