#pragma once

// What the conversions of the small sample firmware print and write, for any page size.

#include "cli/expected_image.h"
#include "cli/transcript.h"
#include "support/bytes.h"
#include "support/firmware_builder.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

namespace cli_test {

inline constexpr std::size_t parameter_sectors = 0x100;
inline constexpr std::size_t boot_sectors = 0x80;
inline constexpr std::size_t misc_sectors = 0x40;

inline uint64_t pages_of(uint64_t bytes, uint64_t page_size) {
    return test_support::round_up(bytes, page_size) / page_size;
}

// The parameter partition of the sample: the record fits in an eighth of it.
inline Bytes sample_parameter_partition(const test_support::Firmware& firmware, std::size_t page_size) {
    const std::size_t slot_pages = pages_of(parameter_sectors * sector_size, page_size) / 8;
    return parameter_copies(firmware.items.at(0).data, 8, slot_pages * page_size);
}

// The partitions of the sample's GPT.
inline std::vector<GptEntry> sample_gpt_entries() {
    return {{.name = "boot", .first = 0x2000, .last = 0x207F},
            {.name = "misc", .first = 0x2080, .last = 0x20BF},
            {.name = std::string("rootfs\0grow", 11),
             .first = 0x20C0,
             .last = last_usable_sector,
             .guid = Bytes{0xE4, 0x19, 0x3C, 0x7A, 0xD0, 0x52, 0x6B, 0x4F, 0x9E, 0x81, 0xC0, 0xFF, 0xEE, 0x12,
                           0x34, 0x56}}};
}

// Everything behind the echo of the options, for eMMC and SPI NOR.
inline Transcript sample_raw_run(bool gpt, std::size_t page_size) {
    Transcript transcript;
    transcript.line("writing idblock...");
    if (gpt) {
        transcript.line("start to write partitions...gpt=1").line("preparing gpt at 0x00000000").gpt();
    } else {
        transcript.line("start to write partitions...gpt=0")
            .line("preparing parameter at 0x00002000")
            .parameter_partition();
    }
    transcript.line(gpt ? "preparing boot at 0x00002000" : "preparing boot at 0x00002100")
        .plain_image("boot", pages_of(boot_sectors * sector_size, page_size))
        .line(gpt ? "preparing misc at 0x00002080" : "preparing misc at 0x00002180")
        .plain_image("misc", pages_of(misc_sectors * sector_size, page_size))
        .line(gpt ? "preparing rootfs at 0x000020c0" : "preparing rootfs at 0x000021c0")
        .plain_image("rootfs", pages_of(20001, page_size));
    return transcript.success();
}

// Everything behind the echo of the options, for SPI NAND and SLC NAND.
inline Transcript sample_nand_run(bool gpt, std::size_t page_size, const std::filesystem::path& out) {
    const auto saving = [&out](const std::string& name) {
        return "preparing " + name + " saving at " + (out / (name + ".img")).string();
    };
    Transcript transcript;
    transcript.line("writing idblock...");
    if (gpt) {
        transcript.line("start to write partitions...gpt=1").line(saving("gpt")).gpt();
    } else {
        transcript.line("start to write partitions...gpt=0").line(saving("parameter")).parameter_partition();
    }
    return transcript.line(saving("boot"))
        .plain_image("boot", pages_of(5000, page_size))
        .line(saving("misc"))
        .plain_image("misc", pages_of(1024, page_size))
        .line(saving("rootfs"))
        .plain_image("rootfs", pages_of(20001, page_size))
        .success();
}

// The whole image of eMMC or SPI NOR, whose boot block copies have so many sectors and start at sector 64 and
// at `second_copy`.
inline Bytes sample_raw_image(const test_support::Firmware& firmware, bool gpt, ExpectedImage image,
                              std::size_t page_size, std::size_t block_size, std::size_t boot_block_sectors,
                              uint64_t second_copy) {
    const Bytes block = boot_block(firmware.boot, boot_block_sectors);
    image.at(64).write(block).at(second_copy).write(block);
    const uint64_t first = gpt ? 0x2000 : 0x2100;
    if (gpt) {
        image.at(0).write(gpt_table(sample_gpt_entries()));
    } else {
        image.at(0x2000).partition(sample_parameter_partition(firmware, page_size), parameter_sectors);
    }
    image.at(first).partition(firmware.items.at(1).data, boot_sectors);
    image.at(first + 0x80).partition(firmware.items.at(2).data, misc_sectors);
    image.at(first + 0xC0).write(firmware.items.at(3).data);
    return image.pad_to_block(block_size).bytes();
}

}  // namespace cli_test
