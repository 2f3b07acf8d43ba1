#pragma once

// One conversion as a user asks for it.

#include "common/bch/paths.h"
#include "io/output_receiver.h"

#include <array>
#include <filesystem>
#include <ostream>
#include <string>
#include <vector>

namespace test_support {

using Arguments = std::vector<std::string>;

// What the operating system sees of what main returns.
constexpr int status_of(int code) {
    return code & 0xFF;
}

inline constexpr int kConverted = 0;
inline constexpr int kInitFailed = status_of(-14);
inline constexpr int kCreationFailed = status_of(-15);
inline constexpr int kOutOfMemory = status_of(-16);

inline const std::array<std::string, 4> kStorageTypes{"emmc", "spinor", "spinand", "slc"};

// The options in the order in which they are given.
struct Conversion {
    std::string type = "emmc";
    std::string block_kb = "512";
    std::string page_kb = "2";
    std::string spare_bytes{};  // empty: not given
    bool two_kilobytes_data = false;
    bool page_list = false;

    std::size_t page_size() const { return 1024 * std::stoul(page_kb); }
    std::size_t block_size() const { return 1024 * std::stoul(block_kb); }
    // One image of the whole device in place of a file for each partition.
    bool is_whole_device() const { return type == "emmc" || type == "spinor"; }

    Arguments arguments(const std::filesystem::path& firmware, const std::filesystem::path& out) const;
    // What is printed while the options are read.
    std::string echo(const std::filesystem::path& firmware, const std::filesystem::path& out) const;
};

// Converts in this process, as in a fresh one: the storage class that main makes from the options, its
// storage_init and create_image. The exit status. SLC NAND is encoded on the path, or on the fastest one.
// The output goes to the receiver, or to files.
int convert_by_call(const Conversion& conversion, const std::filesystem::path& firmware,
                    const std::filesystem::path& out, const BchPath* path = nullptr,
                    OutputReceiver* receiver = nullptr);

void PrintTo(const Conversion& conversion, std::ostream* out);

}  // namespace test_support
