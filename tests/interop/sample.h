#pragma once

// The sample firmware of real parts, made once for each kind of it and shared by the tests of the program,
// and what a test needs to know of it. It is read from the firmware file itself.

#include "support/boot_rom.h"
#include "support/require_tool.h"
#include "support/workbench.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

// Skips a test when the sample cannot be made here.
#define REQUIRE_SAMPLE_TOOLS()                                                                               \
    REQUIRE_TOOL("mke2fs");                                                                                  \
    REQUIRE_TOOL("debugfs");                                                                                 \
    REQUIRE_TOOL("img2simg");                                                                                \
    REQUIRE_TOOL("e2fsck")

namespace interop_test {

namespace fs = std::filesystem;
using namespace test_support;

struct PackedItem {
    std::string name{};
    uint32_t part_size = 0;     // sectors
    uint32_t flash_offset = 0;  // sectors
    Bytes data{};
};

inline std::string text_up_to_nul(const Bytes& bytes) {
    const std::string text = to_text(bytes);
    return text.substr(0, text.find('\0'));
}

class Sample {
public:
    Sample(bool gpt, bool sparse) : m_gpt(gpt) {
        Arguments arguments{"--out", firmware(), "--work", m_directory.path(), "--rootfs-mb", "4"};
        if (gpt)
            arguments.emplace_back("--gpt");
        if (!sparse)
            arguments.emplace_back("--no-sparse");
        const RunResult made = run_program(MAKE_SAMPLE_FIRMWARE, arguments);
        if (!made.succeeded())
            throw std::runtime_error(made.err);
        m_root_file_system = read_file(root_file_system_path());
        take_parts(read_file(firmware()));
    }

    fs::path firmware() const { return m_directory / "sample.img"; }
    bool gpt() const { return m_gpt; }
    const std::vector<PackedItem>& items() const { return m_items; }  // those that are placed
    const Bytes& first_stage() const { return m_first_stage; }
    const Bytes& second_stage() const { return m_second_stage; }

    // The ext4 file system that the item "rootfs" holds, plain or sparse.
    const Bytes& root_file_system() const { return m_root_file_system; }
    fs::path root_file_system_path() const { return m_directory / "rootfs.ext4"; }
    // The bytes that the partition starts with.
    const Bytes& contents(const PackedItem& item) const {
        return item.name == "rootfs" ? m_root_file_system : item.data;
    }

private:
    void take_parts(const Bytes& firmware_bytes) {
        const std::size_t package = get32(firmware_bytes, head_field::kPackageOffset);
        const uint32_t count = get32(firmware_bytes, package + package_field::kItemCount);
        for (std::size_t i = 0; i < count; ++i) {
            const Bytes record =
                slice(firmware_bytes, package + package_field::kItems + i * item_field::kRecordBytes,
                      item_field::kRecordBytes);
            if (get32(record, item_field::kFlashOffset) != kNotPlaced) {
                m_items.push_back({.name = text_up_to_nul(slice(record, 0, item_field::kNameBytes)),
                                   .part_size = get32(record, item_field::kPartSize),
                                   .flash_offset = get32(record, item_field::kFlashOffset),
                                   .data = slice(firmware_bytes, package + get32(record, item_field::kOffset),
                                                 get32(record, item_field::kSize))});
            }
        }
        const Bytes boot = slice(firmware_bytes, get32(firmware_bytes, head_field::kBootOffset),
                                 get32(firmware_bytes, head_field::kBootSize));
        m_first_stage = loader_entry(boot, 0);
        m_second_stage = loader_entry(boot, 1);
    }

    static Bytes loader_entry(const Bytes& boot, std::size_t index) {
        const std::size_t record =
            get32(boot, boot_field::kOffsetLoader) + index * boot.at(boot_field::kSizeLoader);
        return slice(boot, get32(boot, record + boot_entry_field::kDataOffset),
                     get32(boot, record + boot_entry_field::kDataSize));
    }

    TemporaryDirectory m_directory{};
    bool m_gpt;
    std::vector<PackedItem> m_items{};
    Bytes m_first_stage{};
    Bytes m_second_stage{};
    Bytes m_root_file_system{};
};

inline const Sample& sample(bool gpt, bool sparse) {
    static std::map<std::pair<bool, bool>, Sample> made;
    return made.try_emplace({gpt, sparse}, gpt, sparse).first->second;
}

// Converts the sample into `out`; an empty directory to begin with.
inline void convert(const Sample& firmware, const Conversion& conversion, const fs::path& out) {
    fs::remove_all(out);
    fs::create_directory(out);
    const RunResult result = run(conversion.arguments(firmware.firmware(), out));
    ASSERT_EQ(result.exit_status, 0) << result.out;
    ASSERT_EQ(result.err, "");
}

// The file system check finds nothing to mend.
inline void expect_clean_ext4(const Bytes& image) {
    const TemporaryDirectory scratch;
    const fs::path file = scratch / "fs.ext4";
    write_file(file, image);
    const RunResult result = run_program(find_program("e2fsck"), {"-f", "-n", file});
    EXPECT_EQ(result.exit_status, 0) << result.out << result.err;
}

// The boot ROM finds a block there and takes both stages out of it.
inline void expect_boot_block(const Bytes& image, uint64_t sector, const Sample& firmware) {
    const BootBlock block = read_boot_block(image, sector);
    ASSERT_TRUE(block.found) << (block.errors.empty() ? "" : block.errors.front());
    EXPECT_TRUE(block.reserved_zero);
    EXPECT_EQ(block.chip_tag, "QZ28");
    EXPECT_TRUE(slice(block.stage1, 0, firmware.first_stage().size()) == firmware.first_stage());
    EXPECT_TRUE(slice(block.stage2, 0, firmware.second_stage().size()) == firmware.second_stage());
}

}  // namespace interop_test
