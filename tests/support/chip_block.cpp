#include "chip_block.h"

#include <algorithm>
#include <set>

namespace test_support {

namespace {

using Remnant = ProgramFailure::Remnant;

}  // namespace

// ---- bytes of files ----

void BlockMaker::read_file_block(std::size_t file, uint64_t file_block, Bytes& out) const {
    out.assign(static_cast<std::size_t>(m_geometry.block()), 0xFF);
    const std::span<uint8_t> bytes(out);
    const uint64_t start = file_block * m_geometry.file_block();
    const uint32_t pages = pages_in_block(m_files[file], m_geometry, file_block);
    const auto page = static_cast<std::size_t>(m_geometry.page());
    const auto file_page = static_cast<std::size_t>(m_geometry.file_page());
    if (page == file_page) {
        m_files[file].read(start, bytes.first(pages * page));
        return;
    }
    for (uint32_t i = 0; i < pages; ++i)
        m_files[file].read(start + i * file_page, bytes.subspan(i * page, file_page));
}

// Of the same file. The same one at each call.
uint64_t BlockMaker::other_block(const BlockRole& role) const {
    const uint64_t blocks = blocks_of(m_files[role.file], m_geometry);
    return (role.file_block + 1 + dice(DicePurpose::choice).below(blocks - 1)) % blocks;
}

// ---- bad blocks ----

void BlockMaker::set_mark() {
    if (m_geometry.page() > m_geometry.page_data)
        m_states.actual[m_geometry.page_data] = 0x00;
}

void BlockMaker::make_factory_bad(const FactoryBad& bad) {
    Bytes& bytes = m_states.programmed;
    if (bad.fill == FactoryBad::Fill::random)
        dice(DicePurpose::old_data).fill(bytes);
    if (bad.fill == FactoryBad::Fill::zeros)
        std::fill(bytes.begin(), bytes.end(), uint8_t{0});
    m_states.valid = bad.fill == FactoryBad::Fill::erased;
    m_states.actual = bytes;
    set_mark();
}

void BlockMaker::make_failed(const BlockRole& role) {
    const ProgramFailure& failure = role.failure;
    Bytes& bytes = m_states.programmed;
    m_states.valid = failure.remnant != Remnant::old_data;
    if (failure.remnant == Remnant::old_data)
        dice(DicePurpose::old_data).fill(bytes);
    if (failure.remnant == Remnant::other_block)
        read_file_block(role.file, other_block(role), bytes);
    if (failure.remnant == Remnant::first_pages || failure.remnant == Remnant::ruined_units)
        read_file_block(role.file, role.file_block, bytes);
    if (failure.remnant == Remnant::first_pages) {
        const auto end = static_cast<std::ptrdiff_t>(failure.count * m_geometry.page());
        std::fill(bytes.begin() + end, bytes.end(), uint8_t{0xFF});
    }
    m_states.actual = bytes;
    if (failure.remnant == Remnant::ruined_units) {
        const uint32_t pages = pages_in_block(m_files[role.file], m_geometry, role.file_block);
        const uint32_t per_page = m_geometry.units_per_page();
        ChipDice choice = dice(DicePurpose::choice);
        std::set<uint64_t> units;
        while (units.size() < failure.count)
            units.insert(choice.below(uint64_t{pages} * per_page));
        for (const uint64_t unit : units)
            flip_in_unit(static_cast<uint32_t>(unit / per_page), static_cast<uint32_t>(unit % per_page),
                         static_cast<uint32_t>(17 + choice.below(48)));
    }
    if (failure.marked)
        set_mark();
}

// ---- used blocks ----

void BlockMaker::write_over(const Bytes& old) {
    m_states.valid = false;
    std::transform(old.begin(), old.end(), m_states.programmed.begin(), m_states.programmed.begin(),
                   [](uint8_t before, uint8_t now) { return static_cast<uint8_t>(before & now); });
}

// The block is good: the bytes for the mark of a bad block are 0xFF, where they are not data.
void BlockMaker::clear_marks(Bytes& bytes) const {
    if (m_geometry.is_slc() || m_geometry.spare == 0)
        return;
    for (uint64_t at = m_geometry.page_data; at < bytes.size(); at += m_geometry.page())
        bytes[static_cast<std::size_t>(at)] = 0xFF;
}

void BlockMaker::program(const BlockRole& role, WriteFault fault) {
    Bytes& bytes = m_states.programmed;
    Bytes old(bytes.size());
    switch (fault) {
    case WriteFault::unwritten:
        std::fill(bytes.begin(), bytes.end(), uint8_t{0xFF});
        break;
    case WriteFault::over_random:
        dice(DicePurpose::old_data).fill(old);
        clear_marks(old);
        write_over(old);
        break;
    case WriteFault::over_other_block:
        read_file_block(role.file, other_block(role), old);
        write_over(old);
        break;
    case WriteFault::other_block:
        read_file_block(role.file, other_block(role), bytes);
        break;
    }
}

void BlockMaker::make_used(const BlockRole& role, const BlockDamage* damage) {
    read_file_block(role.file, role.file_block, m_states.expected);
    m_states.programmed = m_states.expected;
    uint32_t written = pages_in_block(m_files[role.file], m_geometry, role.file_block);
    if (damage != nullptr && damage->fault) {
        program(role, *damage->fault);
        if (*damage->fault == WriteFault::unwritten)
            written = 0;
        else if (*damage->fault == WriteFault::over_random)
            written = m_geometry.pages_per_block;
    }
    m_states.actual = m_states.programmed;
    age(m_faults.bit_error_rate, 0, written);
    age(m_faults.erased_bit_error_rate, written, m_geometry.pages_per_block);
}

// ---- flips ----

void BlockMaker::flip_bit(uint64_t bit) {
    uint8_t& byte = m_states.actual[static_cast<std::size_t>(bit / 8)];
    byte = static_cast<uint8_t>(byte ^ (1U << bit % 8));
}

void BlockMaker::age(double rate, uint32_t first_page, uint32_t end_page) {
    const double rate_of_set = std::min(1.0, 2 * rate * m_faults.share_of_sets);
    const double rate_of_cleared = std::min(1.0, 2 * rate * (1 - m_faults.share_of_sets));
    const double rate_of_either = std::max(rate_of_set, rate_of_cleared);
    if (rate_of_either == 0)
        return;
    const uint64_t page_bits = 8 * m_geometry.page();
    const uint64_t ageing_bits = 8 * m_geometry.file_page();
    const uint64_t end = end_page * ageing_bits;
    const RareEvents flips(rate_of_either);
    // The first page in the number keeps the two parts of a block apart.
    ChipDice random(m_faults.seed ^ first_page, DicePurpose::ageing, m_block);
    for (uint64_t i = first_page * ageing_bits + flips.trials_without(random); i < end;
         i += 1 + flips.trials_without(random)) {
        const uint64_t bit = i / ageing_bits * page_bits + i % ageing_bits;
        const bool is_set = (m_states.actual[static_cast<std::size_t>(bit / 8)] >> bit % 8 & 1) != 0;
        if (random.chance((is_set ? rate_of_cleared : rate_of_set) / rate_of_either))
            flip_bit(bit);
    }
}

void BlockMaker::flip_in_unit(uint32_t page, uint32_t unit, uint32_t flips) {
    const uint64_t start = page * m_geometry.page() + uint64_t{unit} * m_geometry.unit_bytes();
    const auto first = static_cast<std::ptrdiff_t>(start);
    std::copy_n(m_states.programmed.begin() + first, m_geometry.unit_bytes(),
                m_states.actual.begin() + first);
    ChipDice random = dice(DicePurpose::ruin);
    // A stream for each unit: the flips of one do not depend on those of another.
    ChipDice choice(random.next(), DicePurpose::ruin, start);
    std::set<uint64_t> bits;
    while (bits.size() < flips)
        bits.insert(choice.below(uint64_t{8} * m_geometry.unit_bytes()));
    for (const uint64_t bit : bits)
        flip_bit(8 * start + bit);
}

void BlockMaker::apply(const BlockDamage& damage) {
    for (const auto& [place, flips] : damage.unit_flips)
        flip_in_unit(place.first, place.second, flips);
    for (const auto& [page, bit] : damage.flips)
        flip_bit(8 * page * m_geometry.page() + bit);
}

const BlockStates& BlockMaker::make(uint64_t block, const BlockRole* role, const BlockDamage* damage) {
    m_block = block;
    m_states.programmed.assign(static_cast<std::size_t>(m_geometry.block()), 0xFF);
    m_states.valid = true;
    if (role == nullptr) {
        m_states.actual = m_states.programmed;
        age(m_faults.erased_bit_error_rate, 0, m_geometry.pages_per_block);
    } else if (role->kind == BlockRole::Kind::factory_bad) {
        make_factory_bad(role->factory_bad);
    } else if (role->kind == BlockRole::Kind::failed) {
        make_failed(*role);
    } else {
        make_used(*role, damage);
    }
    if (damage != nullptr)
        apply(*damage);
    return m_states;
}

}  // namespace test_support
