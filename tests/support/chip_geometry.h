#pragma once

// Sizes of a NAND chip, and the files that a programmer writes to it.

#include "bytes.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>

namespace test_support {

// What is asked of the chip cannot be. The text is one line for the user.
struct ChipError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

enum class ChipKind {
    slc,      // the files have pages with their spare area: units of 1056 bytes with parity, then 0xFF
    spi_nand  // the files have data alone, and the chip corrects by itself
};

struct ChipGeometry {
    ChipKind kind = ChipKind::slc;
    uint32_t page_data = 2048;  // bytes of a page without its spare area, whole KB
    // Bytes of the spare area in the dump. SLC: at least 32 for each KB. SPI NAND: 0 when it is not in the
    // dump.
    uint32_t spare = 64;
    uint32_t pages_per_block = 64;
    uint32_t blocks = 1024;

    bool is_slc() const { return kind == ChipKind::slc; }
    // Bytes in the dump.
    uint64_t page() const { return uint64_t{page_data} + spare; }
    uint64_t block() const { return page() * pages_per_block; }
    // Bytes in a file.
    uint64_t file_page() const { return is_slc() ? page() : page_data; }
    uint64_t file_block() const { return file_page() * pages_per_block; }
    // A unit is what is corrected together. For SPI NAND it is 1 KB of data, which nobody corrects any more.
    uint32_t unit_bytes() const { return is_slc() ? 1056 : 1024; }
    uint32_t units_per_page() const { return page_data / 1024; }

    // ChipError when the sizes do not go together, or a block has more than 256 MiB.
    void check() const {
        if (page_data == 0 || page_data % 1024 != 0)
            throw ChipError("the data of a page has to be whole KB");
        if (is_slc() && spare / 32 < units_per_page())
            throw ChipError("the spare area needs 32 bytes for each KB of the page");
        if (pages_per_block == 0 || blocks == 0)
            throw ChipError("a chip has at least one block of one page");
        if (block() > 256 * kMib)
            throw ChipError("an erase block has at most 256 MiB");
    }
};

// Erase blocks, both included.
struct BlockWindow {
    uint64_t first = 0;
    uint64_t last = 0;

    bool holds(uint64_t block) const { return first <= block && block <= last; }
    bool operator==(const BlockWindow&) const = default;
};

// A file of a conversion. It consists of whole pages; those of SLC have valid units.
struct ChipFile {
    std::string name;                   // such as "rootfs.img"
    uint64_t bytes = 0;                 // its length
    std::optional<BlockWindow> window;  // none: from the next free block on
    // Reads out.size() bytes from the offset on, which lie inside the file. Throws when it fails.
    std::function<void(uint64_t offset, std::span<uint8_t> out)> read;
};

inline ChipFile chip_file(std::string name, Bytes bytes, std::optional<BlockWindow> window = std::nullopt) {
    const uint64_t size = bytes.size();
    return {std::move(name), size, window,
            [bytes = std::move(bytes)](uint64_t offset, std::span<uint8_t> out) {
                std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(offset), out.size(), out.begin());
            }};
}

inline ChipFile chip_file(const std::filesystem::path& path,
                          std::optional<BlockWindow> window = std::nullopt) {
    return {path.filename().string(), std::filesystem::file_size(path), window,
            [path](uint64_t offset, std::span<uint8_t> out) {
                const Bytes piece = read_file_at(path, offset, out.size());
                std::copy(piece.begin(), piece.end(), out.begin());
            }};
}

}  // namespace test_support
