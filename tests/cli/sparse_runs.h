#pragma once

// Firmware with a sparse partition in it, and what its conversion prints.

#include "cli/sample_runs.h"
#include "cli/workbench.h"
#include "support/sparse_builder.h"

namespace cli_test {

using test_support::SparseChunk;
using test_support::SparseImage;

// The parameter item of the sample, and one item "system".
inline test_support::Firmware with_system(Bytes image, uint32_t sectors) {
    test_support::Firmware firmware = test_support::sample_firmware();
    firmware.items.resize(1);
    firmware.items.push_back(
        {.name = "system", .part_size = sectors, .flash_offset = 0x200, .data = std::move(image)});
    return firmware;
}

// Everything before the partition on eMMC or SPI NOR.
inline Transcript start_of_system(const Workbench& bench, const Conversion& conversion) {
    return bench.echo(conversion).start_of_raw_run().line("preparing system at 0x00002200");
}

// Everything before the partition on a NAND chip.
inline Transcript start_of_nand_system(const Workbench& bench, const Conversion& conversion) {
    return bench.echo(conversion)
        .start_of_nand_run(bench.out_dir())
        .line("preparing system saving at " + bench.out("system.img").string());
}

// The bytes of the output from the partition on.
inline Bytes system_bytes(const Workbench& bench) {
    const Bytes image = bench.output("out_image.img");
    const std::size_t start = 0x2200 * sector_size;
    return test_support::slice(image, start, image.size() - start);
}

inline uint64_t declared_size(const SparseImage& image) {
    const Bytes bytes = image.build();
    return uint64_t{image.block_size} * test_support::get32(bytes, test_support::sparse_field::total_blocks);
}

}  // namespace cli_test
