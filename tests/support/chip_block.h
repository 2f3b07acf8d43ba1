#pragma once

// What the blocks of a simulated chip hold.

#include "chip_simulator.h"

namespace test_support {

// The three states of a block. Each has the bytes of a block of the dump.
struct BlockStates {
    Bytes expected;     // of a used block: what the file has, and 0xFF after its end
    Bytes programmed;   // after it was programmed
    bool valid = true;  // the units of programmed are valid
    Bytes actual;       // in the dump
};

class BlockMaker {
public:
    BlockMaker(const ChipGeometry& geometry, const std::vector<ChipFile>& files, const ChipFaults& faults)
        : m_geometry(geometry), m_files(files), m_faults(faults) {}

    // role and damage are null where there is none.
    const BlockStates& make(uint64_t block, const BlockRole* role, const BlockDamage* damage);

private:
    void read_file_block(std::size_t file, uint64_t file_block, Bytes& out) const;
    uint64_t other_block(const BlockRole& role) const;

    void make_factory_bad(const FactoryBad& bad);
    void make_failed(const BlockRole& role);
    void make_used(const BlockRole& role, const BlockDamage* damage);
    void program(const BlockRole& role, WriteFault fault);
    void write_over(const Bytes& old);
    void clear_marks(Bytes& bytes) const;

    void age(double rate, uint32_t first_page, uint32_t end_page);
    void apply(const BlockDamage& damage);
    void flip_in_unit(uint32_t page, uint32_t unit, uint32_t flips);
    void flip_bit(uint64_t bit);
    void set_mark();
    ChipDice dice(DicePurpose purpose) const { return {m_faults.seed, purpose, m_block}; }

    const ChipGeometry& m_geometry;
    const std::vector<ChipFile>& m_files;
    const ChipFaults& m_faults;
    uint64_t m_block = 0;
    BlockStates m_states{};
};

}  // namespace test_support
