#include "simulated_chip.h"

#include "support/chip_dice.h"

#include <algorithm>
#include <array>
#include <numeric>

namespace check_test {

namespace {

using Fill = FactoryBad::Fill;
using Remnant = ProgramFailure::Remnant;

constexpr uint32_t kPagesOfBlock = 8;
constexpr uint64_t kMostBadInARow = 2;

Conversion slc(const std::string& page_kb, const std::string& spare) {
    return {.type = "slc",
            .block_kb = std::to_string(kPagesOfBlock * std::stoul(page_kb)),
            .page_kb = page_kb,
            .spare_bytes = spare};
}

Conversion spi_nand(const std::string& page_kb) {
    return {.type = "spinand",
            .block_kb = std::to_string(kPagesOfBlock * std::stoul(page_kb)),
            .page_kb = page_kb};
}

/// Decides on a chip, file by file and block by block.
class ChipDesigner {
public:
    ChipDesigner(const ChipModel& model, const Files& files, uint64_t seed)
        : m_geometry(geometry_of(model)), m_files(files), m_dice(seed, DicePurpose::choice, 0) {
        m_faults.seed = seed;
    }

    RandomChip run() {
        m_bad_rate = one_of({0.0, 0.03, 0.15});
        m_faults.bit_error_rate = one_of({0.0, 1e-5, 1e-4, 4e-4});
        m_faults.share_of_sets = m_dice.fraction();
        m_faults.erased_bit_error_rate = one_of({0.0, 1e-5, 1e-4});
        m_damages = m_dice.chance(0.5);
        m_chip.can_be_searched = m_dice.chance(0.7);
        uint64_t next = 0;
        for (const std::string& name : shuffled_names()) {
            const uint64_t end = place(name, next) + 1;
            next = end + m_dice.below(3);
            if (next != end && m_dice.chance(m_bad_rate))
                m_faults.factory_bad.push_back({end});  // a block that no file uses
        }
        m_geometry.blocks = static_cast<uint32_t>(next);
        ChipSimulator simulator(m_geometry, m_chip_files, m_faults);
        for (const auto& damage : m_damage)
            damage(simulator);
        m_chip.chip = simulator.make();
        return std::move(m_chip);
    }

private:
    /// The block of a file that is next, and the block of the chip that it meets.
    struct Spot {
        const Bytes& file;
        uint64_t file_block;
        uint64_t block;
        bool after_bad;  ///< the block before it in the window is bad

        bool is_first() const { return file_block == 0; }
        bool is_second() const { return file_block == 1; }
    };

    double one_of(std::initializer_list<double> values) {
        return values.begin()[m_dice.below(values.size())];
    }
    uint32_t from_to(uint32_t first, uint32_t last) {
        return first + static_cast<uint32_t>(m_dice.below(last - first + 1));
    }

    std::vector<std::string> shuffled_names() {
        std::vector<std::string> names;
        for (const auto& [name, bytes] : m_files)
            names.push_back(name);
        for (std::size_t i = names.size(); i > 1; --i)
            std::swap(names[i - 1], names[m_dice.below(i)]);
        return names;
    }

    Bytes block_of(const Spot& spot) const {
        const uint64_t start = spot.file_block * m_geometry.file_block();
        return slice(spot.file, start, std::min(spot.file.size() - start, m_geometry.file_block()));
    }
    uint64_t blocks_of_file(const Bytes& file) const {
        return (file.size() + m_geometry.file_block() - 1) / m_geometry.file_block();
    }
    uint32_t pages_of(const Spot& spot) const {
        return static_cast<uint32_t>(block_of(spot).size() / m_geometry.file_page());
    }
    /// SPI NAND: the block is fill, or the same as another one of its file.
    bool is_alike(const Spot& spot) const {
        if (m_geometry.is_slc())
            return false;
        const Bytes bytes = block_of(spot);
        bool alike = std::all_of(bytes.begin(), bytes.end(), [&](uint8_t byte) { return byte == bytes[0]; });
        for (uint64_t i = 0; i < blocks_of_file(spot.file) && !alike; ++i)
            alike = i != spot.file_block && block_of({spot.file, i, 0, false}) == bytes;
        return alike;
    }

    /// Gives the last block of the window.
    uint64_t place(const std::string& name, uint64_t first) {
        const Bytes& file = m_files.at(name);
        const uint64_t blocks = blocks_of_file(file);
        const uint64_t reserve = 2 + m_dice.below(4);
        m_stale = m_dice.chance(0.3) && blocks > 1;
        m_stale_used = m_dice.chance(0.5);
        m_has_stale = false;
        uint64_t skipped = 0;
        uint64_t bad_in_a_row = 0;
        uint64_t block = first;
        for (uint64_t file_block = 0; file_block < blocks; ++block) {
            const Spot spot{file, file_block, block, bad_in_a_row != 0};
            // The first block of a chip is always good.
            if (block != 0 && skipped < reserve && bad_in_a_row < kMostBadInARow && !m_is_doubtful &&
                m_dice.chance(m_bad_rate)) {
                make_bad(spot);
                ++skipped;
                ++bad_in_a_row;
                continue;
            }
            if (m_damages)
                damage(spot);
            bad_in_a_row = 0;
            m_is_doubtful = false;
            ++file_block;
        }
        m_chip.most_skipped = std::max(m_chip.most_skipped, skipped);
        const test_support::BlockWindow window{first, first + blocks + reserve - 1};
        m_chip_files.push_back(chip_file(name, file, window));
        m_chip.layout += name.substr(0, name.rfind(".img")) + "," + std::to_string(window.first) + "," +
                         std::to_string(window.last) + "\n";
        return window.last;
    }

    // ---- bad blocks ----

    void make_bad(const Spot& spot) {
        const bool alike = is_alike(spot);
        if (m_dice.chance(0.4))
            m_faults.factory_bad.push_back(
                {spot.block, alike ? Fill::random
                                   : std::array{Fill::random, Fill::zeros, Fill::erased}[m_dice.below(3)]});
        else
            m_faults.failures.push_back(
                alike ? ProgramFailure{.block = spot.block, .remnant = Remnant::old_data} : failure(spot));
    }

    ProgramFailure failure(const Spot& spot) {
        std::vector<Remnant> remnants{Remnant::nothing, Remnant::old_data, Remnant::ruined_units};
        if (pages_of(spot) > 1)
            remnants.push_back(Remnant::first_pages);
        if (m_stale && !m_stale_used && !spot.is_second())
            remnants.push_back(Remnant::other_block);
        ProgramFailure failure{.block = spot.block, .remnant = remnants[m_dice.below(remnants.size())]};
        if (failure.remnant == Remnant::first_pages)
            failure.count = from_to(1, pages_of(spot) - 1);
        if (failure.remnant == Remnant::ruined_units)
            failure.count = from_to(1, pages_of(spot) * m_geometry.units_per_page());
        failure.marked = m_dice.chance(0.5);
        m_is_doubtful = !m_geometry.is_slc() &&
                        (failure.remnant == Remnant::first_pages || failure.remnant == Remnant::ruined_units);
        return failure;
    }

    // ---- damage ----

    void damage(const Spot& spot) {
        flip_some(spot);
        if (spot.after_bad || is_alike(spot) || (spot.is_first() && m_chip.can_be_searched))
            return;
        if (m_stale) {
            if (m_stale_used && !m_has_stale && !spot.is_second() && m_dice.chance(0.2))
                spoil(spot, WriteFault::other_block);
            return;
        }
        if (m_dice.chance(0.1))
            spoil(spot,
                  std::array{
                      WriteFault::unwritten, WriteFault::over_random,
                      WriteFault::over_other_block}[m_dice.below(blocks_of_file(spot.file) > 1 ? 3 : 2)]);
        else if (m_dice.chance(0.15))
            ruin(spot);
    }

    void spoil(const Spot& spot, WriteFault fault) {
        m_has_stale = m_has_stale || fault == WriteFault::other_block;
        m_damage.push_back(
            [block = spot.block, fault](ChipSimulator& simulator) { simulator.spoil(block, fault); });
    }

    void flip_units(const Spot& spot, uint32_t count, uint32_t least, uint32_t most) {
        for (uint32_t i = 0; i < count; ++i) {
            const uint32_t page = from_to(0, pages_of(spot) - 1);
            const uint32_t unit = from_to(0, m_geometry.units_per_page() - 1);
            const uint32_t flips = from_to(least, most);
            m_damage.push_back([=, block = spot.block](ChipSimulator& simulator) {
                simulator.flip_in_unit(block, page, unit, flips);
            });
        }
    }
    void flip_some(const Spot& spot) {
        if (m_dice.chance(0.2))
            flip_units(spot, from_to(1, 3), 0, kCorrectableUnitFlips);
    }
    void ruin(const Spot& spot) { flip_units(spot, from_to(1, 2), kCorrectableUnitFlips + 1, 64); }

    ChipGeometry m_geometry;
    const Files& m_files;
    ChipDice m_dice;
    double m_bad_rate = 0;
    bool m_damages = false;  // blocks of files have more than single flipped bits
    RandomChip m_chip{};
    ChipFaults m_faults{};
    std::vector<ChipFile> m_chip_files{};
    std::vector<std::function<void(ChipSimulator&)>> m_damage{};

    // Of the file that is placed:
    bool m_stale = false;        // blocks may hold other blocks of the file, and none is ruined:
    bool m_stale_used = false;   // one used block, or else any failed ones
    bool m_has_stale = false;    // that used block was chosen
    bool m_is_doubtful = false;  // the block before is of SPI NAND and failed with its own data in it
};

}  // namespace

const std::vector<ChipModel>& chip_models() {
    static const std::vector<ChipModel> models{
        {.name = "Slc1K", .conversion = slc("1", "32"), .gpt = true},
        {.name = "Slc2K", .conversion = slc("2", "64")},
        {.name = "Slc4K", .conversion = slc("4", "224"), .gpt = true},
        {.name = "Slc4KWithData2K", .conversion = with_two_kb(slc("4", "128"))},
        {.name = "Slc2KPageList", .conversion = with_page_list(slc("2", "128")), .gpt = true},
        {.name = "SpiNand2K", .conversion = spi_nand("2"), .gpt = true},
        {.name = "SpiNand2KSpare", .conversion = spi_nand("2"), .dump_spare = 64},
        {.name = "SpiNand1KSpare", .conversion = spi_nand("1"), .dump_spare = 16, .gpt = true},
    };
    return models;
}

Firmware firmware_of(const ChipModel& model) {
    Firmware firmware = sample_firmware({.gpt = model.gpt});
    firmware.item("boot").data = patterned(30000, 11);
    firmware.item("boot").part_size = 0x100;
    Bytes& rootfs = firmware.item("rootfs").data;
    rootfs = patterned(140000, 12);
    std::fill_n(rootfs.begin() + 50000, 60000, uint8_t{0});
    firmware.item("rootfs").part_size = 0x400;
    return firmware;
}

ChipGeometry geometry_of(const ChipModel& model) {
    const Conversion& conversion = model.conversion;
    const bool is_slc = conversion.type == "slc";
    return {.kind = is_slc ? ChipKind::slc : ChipKind::spi_nand,
            .page_data = static_cast<uint32_t>(conversion.page_size()),
            .spare = is_slc ? static_cast<uint32_t>(std::stoul(conversion.spare_bytes)) : model.dump_spare,
            .pages_per_block = kPagesOfBlock};
}

RandomChip random_chip(const ChipModel& model, const Files& files, uint64_t seed) {
    return ChipDesigner(model, files, seed).run();
}

}  // namespace check_test
