#include "chip_simulator.h"

#include "chip_block.h"

#include <fstream>

namespace test_support {

ChipSimulator::ChipSimulator(const ChipGeometry& geometry, std::vector<ChipFile> files, ChipFaults faults)
    : m_geometry(geometry), m_files(std::move(files)), m_faults(std::move(faults)),
      m_plan(plan_chip(m_geometry, m_files, m_faults)) {}

const BlockRole* ChipSimulator::used_role(uint64_t block) const {
    const auto at = m_plan.roles.find(block);
    const bool used = at != m_plan.roles.end() && at->second.kind == BlockRole::Kind::used;
    return used ? &at->second : nullptr;
}

uint32_t ChipSimulator::pages_used(uint64_t block) const {
    const BlockRole* const role = used_role(block);
    return role == nullptr ? 0 : pages_in_block(m_files[role->file], m_geometry, role->file_block);
}

void ChipSimulator::spoil(uint64_t block, WriteFault fault) {
    const BlockRole* const role = used_role(block);
    const std::string where = "block " + std::to_string(block);
    if (role == nullptr)
        throw ChipError(where + " is not used by a file");
    const bool needs_other = fault == WriteFault::other_block || fault == WriteFault::over_other_block;
    if (needs_other && blocks_of(m_files[role->file], m_geometry) < 2)
        throw ChipError(where + ": " + m_files[role->file].name + " has no other block");
    m_damage[block].fault = fault;
}

BlockDamage& ChipSimulator::damage_at(uint64_t block, uint32_t page) {
    if (block >= m_geometry.blocks || page >= m_geometry.pages_per_block)
        throw ChipError("there is no page " + std::to_string(page) + " of block " + std::to_string(block));
    return m_damage[block];
}

void ChipSimulator::flip_in_unit(uint64_t block, uint32_t page, uint32_t unit, uint32_t flips) {
    BlockDamage& damage = damage_at(block, page);
    if (unit >= m_geometry.units_per_page())
        throw ChipError("a page has no unit " + std::to_string(unit));
    if (flips > 8 * m_geometry.unit_bytes())
        throw ChipError("a unit has no " + std::to_string(flips) + " bits");
    damage.unit_flips[{page, unit}] = flips;
}

void ChipSimulator::flip(uint64_t block, uint32_t page, uint64_t bit) {
    BlockDamage& damage = damage_at(block, page);
    if (bit >= 8 * m_geometry.page())
        throw ChipError("a page has no bit " + std::to_string(bit));
    damage.flips.emplace_back(page, bit);
}

ChipTruth ChipSimulator::make(const std::function<void(std::span<const uint8_t> block)>& receive) const {
    ChipTruth truth = m_plan.truth;
    ChipWitness witness(m_geometry, truth);
    BlockMaker maker(m_geometry, m_files, m_faults);
    for (uint64_t block = 0; block < m_geometry.blocks; ++block) {
        const auto role = m_plan.roles.find(block);
        const auto damage = m_damage.find(block);
        const BlockStates& states = maker.make(block, role == m_plan.roles.end() ? nullptr : &role->second,
                                               damage == m_damage.end() ? nullptr : &damage->second);
        if (used_role(block) != nullptr)
            witness.take_used(role->second.file, block, pages_used(block), states.expected, states.actual);
        witness.take_any(states.programmed, states.valid, states.actual);
        receive(states.actual);
    }
    for (const FileTruth& file : truth.files)
        truth.units.add(file.units);
    return truth;
}

SimulatedChip ChipSimulator::make() const {
    SimulatedChip chip;
    chip.truth = make([&](std::span<const uint8_t> block) {
        chip.dump.insert(chip.dump.end(), block.begin(), block.end());
    });
    return chip;
}

ChipTruth ChipSimulator::write(const std::filesystem::path& out) const {
    std::ofstream file(out, std::ios::binary | std::ios::trunc);
    const auto expect_success = [&] {
        if (!file)
            throw std::runtime_error("cannot write " + out.string());
    };
    expect_success();
    ChipTruth truth = make([&](std::span<const uint8_t> block) {
        file.write(reinterpret_cast<const char*>(block.data()), static_cast<std::streamsize>(block.size()));
        expect_success();
    });
    file.close();
    expect_success();
    return truth;
}

}  // namespace test_support
