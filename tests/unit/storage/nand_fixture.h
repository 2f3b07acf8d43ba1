#pragma once

// What the tests of the two NAND types share: a firmware with every kind of partition image, and what a run
// over it prints and puts into the files before the page format of the type.

#include "support/expected/boot_block.h"
#include "sparse_fixture.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <utility>

namespace storage_test {

// parameter (128 KB), boot (5000 bytes), misc (1024 bytes) and a sparse rootfs of 18,000 bytes, of which the
// chunks write 17,500. The boot block has 16 sectors.
inline test_support::Firmware nand_firmware(bool gpt = false) {
    using test_support::patterned;
    using test_support::SparseChunk;
    test_support::Firmware firmware = test_support::sample_firmware({.gpt = gpt});
    test_support::SparseImage rootfs{.block_size = 1000, .chunks = {}};
    rootfs.chunks = {SparseChunk::raw(patterned(7000, 41), 1000), SparseChunk::dont_care(5),
                     SparseChunk::fill(0x5A5A5A5A, 3), SparseChunk::raw(patterned(2500, 42), 1000)};
    firmware.item("rootfs").data = rootfs.build();
    return firmware;
}

inline const std::set<std::string> nand_files{"idblock.img", "parameter.img", "boot.img", "misc.img",
                                              "rootfs.img"};

// The pages of data of each file, padding to the erase block not included; the boot block is judged apart.
inline std::map<std::string, Bytes> nand_partitions(const test_support::Firmware& original,
                                                    std::size_t page_size) {
    test_support::Firmware firmware = original;
    const std::size_t parameter_sectors = firmware.item("parameter").part_size;
    const auto pages = static_cast<std::size_t>(
        test_support::round_up(parameter_sectors * test_support::sector_size, page_size) / page_size);
    return {
        {"parameter.img", parameter_pages(firmware.item("parameter").data, page_size, pages, 8, pages / 8)},
        {"boot.img", padded(firmware.item("boot").data, page_size)},
        {"misc.img", padded(firmware.item("misc").data, page_size)},
        {"rootfs.img", test_support::expected_sparse_partition(firmware.item("rootfs").data, page_size)}};
}

// All that a successful run over it prints, from the boot block on.
inline std::string nand_lines(const test_support::Firmware& original, const std::string& directory,
                              std::size_t page_size) {
    test_support::Firmware firmware = original;
    const auto preparing = [&](const std::string& name) {
        return line("preparing " + name + " saving at " + directory + "/" + name + ".img");
    };
    const auto pages = [&](const std::string& name) {
        return nand_partitions(original, page_size).at(name).size() / page_size;
    };
    return line("writing idblock...") + line("start to write partitions...gpt=0") + preparing("parameter") +
           line("writing parameter...") + redrawn("writing parameter...OK") + preparing("boot") +
           writing_lines("boot", pages("boot.img")) + preparing("misc") +
           writing_lines("misc", pages("misc.img")) + preparing("rootfs") +
           sparse_lines("rootfs", firmware.item("rootfs").data, page_size, pages("rootfs.img")) +
           line("creating programming image ok.");
}

class NandTest : public StorageTest {
protected:
    // storage_init and create_image; the messages stay in m_output.
    template <typename Storage>
    bool create(Storage& storage) {
        bool created = false;
        m_output = output_of([&] { created = storage.storage_init() && storage.create_image(); });
        return created;
    }

    Bytes out_file(const std::string& name) const { return test_support::read_file(out_path(name)); }

    // An item that only has a name.
    static STRUCT_QZIMAGE_ITEM named(const std::string& name) {
        STRUCT_QZIMAGE_ITEM item{};
        std::memcpy(item.name, name.data(), std::min(name.size(), sizeof(item.name)));
        return item;
    }

    std::string m_output{};
};

}  // namespace storage_test
