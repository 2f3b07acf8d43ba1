#pragma once

// The dump of a chip with the files of a conversion, put together block by block, and checks of it.

#include "check/base/chip_result.h"
#include "check/check.h"
#include "check_bench.h"

#include <cstdint>
#include <string>
#include <vector>

namespace check_test {

/// 8 pages of 2 KB to an erase block.
inline const Conversion kSmallSlc{.type = "slc", .block_kb = "16", .page_kb = "2", .spare_bytes = "64"};
inline const Conversion kSmallSpiNand{.type = "spinand", .block_kb = "16", .page_kb = "2"};

/// Items that take from one block to twelve, beside the boot block and the parameter.
Firmware chip_firmware();

class ChipBench : public CheckBench {
public:
    /// The chip has this many erase blocks, all erased.
    explicit ChipBench(const Conversion& conversion = kSmallSlc, const Firmware& packed = chip_firmware(),
                       std::size_t blocks = 128);

    std::size_t page() const { return m_page; }    ///< bytes with the spare area
    std::size_t block() const { return m_block; }  ///< bytes with the spare areas

    /// Bytes of one block of a file of the output.
    Bytes block_of(const std::string& file, std::size_t number) const;
    std::size_t blocks_of(const std::string& file) const { return output(file).size() / m_block; }

    /// Writes a block of the chip.
    void put(std::size_t block, const Bytes& bytes);
    /// Writes a file from this block on, past the bad ones, which stay as they are. Returns its blocks.
    std::vector<uint64_t> place(const std::string& file, std::size_t first,
                                const std::vector<std::size_t>& bad = {});
    /// Writes all files one after another, each from the next block on; the first one at block 0.
    void place_all();
    /// Flips count bits of a unit: every second one from its bit first on.
    void flip(std::size_t block, std::size_t page, std::size_t unit, std::size_t count,
              std::size_t first = 0);
    /// Makes a block random.
    void ruin(std::size_t block, uint32_t seed = 1);
    void erase(std::size_t block) { put(block, Bytes(m_block, 0xFF)); }

    Bytes& bytes() { return m_bytes; }
    std::string dump() const { return (directory() / "chip.bin").string(); }

    /// Writes the dump and checks it in this process.
    CheckResult result(const ChipOptions& chip = {}, const Arguments& more = {}) const;
    /// Writes the dump and checks it by the program.
    RunResult run(const Arguments& more = {}) const;

private:
    std::size_t m_page;
    std::size_t m_block;
    Bytes m_bytes;
};

/// The part of a file, which is there.
const PartResult& part_of(const CheckResult& result, const std::string& file);

/// All parts are the same, and nothing else was found.
void expect_same(const CheckResult& result);

std::vector<uint64_t> skipped_blocks(const PartResult& part);

/// Codes of all diagnoses, with blanks between them.
std::string codes_of(const CheckResult& result);

}  // namespace check_test
