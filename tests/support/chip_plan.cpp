#include "chip_plan.h"

#include <algorithm>
#include <set>

namespace test_support {

namespace {

using Remnant = ProgramFailure::Remnant;

std::string range(const BlockWindow& window) {
    return std::to_string(window.first) + " to " + std::to_string(window.last);
}

class Planner {
public:
    Planner(const ChipGeometry& geometry, const std::vector<ChipFile>& files, const ChipFaults& faults)
        : m_geometry(geometry), m_files(files), m_faults(faults) {}

    ChipPlan run() {
        check_files();
        check_windows();
        check_faults();
        mark_factory_bad();
        for (std::size_t file = 0; file < m_files.size(); ++file)
            place(file);
        for (const auto& [block, role] : m_plan.roles) {
            if (role.kind == BlockRole::Kind::factory_bad)
                m_plan.truth.factory_bad.push_back(block);
            if (role.kind == BlockRole::Kind::failed)
                m_plan.truth.failed.push_back(block);
        }
        return std::move(m_plan);
    }

private:
    void check_files() const {
        std::set<std::string> names;
        for (const ChipFile& file : m_files) {
            if (!names.insert(file.name).second)
                throw ChipError("two files have the name " + file.name);
            if (file.bytes == 0)
                throw ChipError(file.name + " is empty");
            if (file.bytes % m_geometry.file_page() != 0)
                throw ChipError(file.name + " is not whole pages of " +
                                std::to_string(m_geometry.file_page()) + " bytes");
        }
    }

    void check_windows() {
        for (const ChipFile& file : m_files) {
            if (!file.window)
                continue;
            if (file.window->first > file.window->last || file.window->last >= m_geometry.blocks)
                throw ChipError("the window of " + file.name + " is blocks " + range(*file.window) +
                                ", and the chip has " + std::to_string(m_geometry.blocks));
            m_windows.push_back(*file.window);
        }
        std::sort(m_windows.begin(), m_windows.end(),
                  [](const BlockWindow& a, const BlockWindow& b) { return a.first < b.first; });
        for (std::size_t i = 1; i < m_windows.size(); ++i)
            if (m_windows[i].first <= m_windows[i - 1].last)
                throw ChipError("windows overlap: blocks " + range(m_windows[i - 1]) + " and " +
                                range(m_windows[i]));
    }

    void check_faults() const {
        const auto check_block = [this](uint64_t block) {
            if (block >= m_geometry.blocks)
                throw ChipError("there is no block " + std::to_string(block) + " in a chip of " +
                                std::to_string(m_geometry.blocks));
        };
        for (const FactoryBad& bad : m_faults.factory_bad)
            check_block(bad.block);
        for (const ProgramFailure& failure : m_faults.failures)
            check_block(failure.block);
        for (const double rate : {m_faults.factory_bad_rate, m_faults.failure_rate, m_faults.bit_error_rate,
                                  m_faults.share_of_sets, m_faults.erased_bit_error_rate})
            if (!(rate >= 0 && rate <= 1))
                throw ChipError("a rate is from 0 to 1");
    }

    void mark_factory_bad() {
        for (uint64_t block = 0; block < m_geometry.blocks; ++block) {
            ChipDice dice(m_faults.seed, DicePurpose::factory_bad, block);
            if (dice.chance(m_faults.factory_bad_rate))
                m_plan.roles[block] = {.kind = BlockRole::Kind::factory_bad, .factory_bad = {.block = block}};
        }
        for (const FactoryBad& bad : m_faults.factory_bad)
            m_plan.roles[bad.block] = {.kind = BlockRole::Kind::factory_bad, .factory_bad = bad};
    }

    // The free blocks between the windows, from the first one that may be used.
    BlockWindow free_window() const {
        BlockWindow free{m_next_free, uint64_t{m_geometry.blocks} - 1};
        for (const BlockWindow& window : m_windows)
            if (window.holds(free.first))
                free.first = window.last + 1;
            else if (window.first > free.first)
                free.last = std::min(free.last, window.first - 1);
        return free;
    }

    void place(std::size_t index) {
        const ChipFile& file = m_files[index];
        const bool has_window = file.window.has_value();
        FileTruth truth{.file = file.name, .window = has_window ? *file.window : free_window()};
        const uint64_t wanted = blocks_of(file, m_geometry);
        uint64_t next = truth.window.first;
        while (truth.blocks.size() < wanted) {
            if (next > truth.window.last)
                throw ChipError(file.name + " does not fit into blocks " + range(truth.window) +
                                ": good ones " + std::to_string(truth.blocks.size()) + ", needed " +
                                std::to_string(wanted));
            offer(truth, index, next++);
        }
        truth.found_at = truth.blocks.front();
        if (!has_window)
            truth.window.last = next - 1;
        m_next_free = std::max(m_next_free, truth.window.last + 1);
        m_plan.truth.files.push_back(std::move(truth));
    }

    // The block takes the file's next one, or is passed over.
    void offer(FileTruth& truth, std::size_t index, uint64_t block) {
        std::vector<SkipTruth>& skipped = truth.blocks.empty() ? truth.skipped_before : truth.skipped;
        if (m_plan.roles.count(block) != 0) {
            skipped.push_back({block, SkipTruth::Reason::factory});
            return;
        }
        BlockRole role{.file = index, .file_block = truth.blocks.size()};
        if (const std::optional<ProgramFailure> failure = failure_of(block, role)) {
            role.kind = BlockRole::Kind::failed;
            role.failure = *failure;
            skipped.push_back({block, SkipTruth::Reason::failed});
        } else {
            truth.blocks.push_back(block);
        }
        m_plan.roles[block] = role;
    }

    std::optional<ProgramFailure> failure_of(uint64_t block, const BlockRole& role) const {
        for (const ProgramFailure& failure : m_faults.failures) {
            if (failure.block != block)
                continue;
            check_failure(failure, role);
            return failure;
        }
        ChipDice dice(m_faults.seed, DicePurpose::failure, block);
        if (!dice.chance(m_faults.failure_rate))
            return std::nullopt;
        return random_failure(block, role, dice);
    }

    void check_failure(const ProgramFailure& failure, const BlockRole& role) const {
        const std::string where = "block " + std::to_string(failure.block);
        if (failure.remnant == Remnant::other_block && blocks_of(m_files[role.file], m_geometry) < 2)
            throw ChipError(where + ": " + m_files[role.file].name + " has no other block");
        if (failure.count == 0 || failure.count > most_of(failure.remnant, role))
            throw ChipError(where + " has not " + std::to_string(failure.count) +
                            " pages or units to be left in it");
    }

    uint32_t most_of(Remnant remnant, const BlockRole& role) const {
        const uint32_t pages = pages_in_block(m_files[role.file], m_geometry, role.file_block);
        return remnant == Remnant::ruined_units ? pages * m_geometry.units_per_page() : pages;
    }

    ProgramFailure random_failure(uint64_t block, const BlockRole& role, ChipDice& dice) const {
        std::vector<Remnant> remnants{Remnant::nothing, Remnant::old_data, Remnant::first_pages,
                                      Remnant::ruined_units};
        if (blocks_of(m_files[role.file], m_geometry) > 1)
            remnants.push_back(Remnant::other_block);
        ProgramFailure failure{.block = block, .remnant = remnants[dice.below(remnants.size())]};
        failure.count = static_cast<uint32_t>(1 + dice.below(most_of(failure.remnant, role)));
        failure.marked = dice.chance(0.5);
        return failure;
    }

    const ChipGeometry& m_geometry;
    const std::vector<ChipFile>& m_files;
    const ChipFaults& m_faults;
    std::vector<BlockWindow> m_windows{};  // ascending
    uint64_t m_next_free = 0;
    ChipPlan m_plan{};
};

}  // namespace

uint64_t blocks_of(const ChipFile& file, const ChipGeometry& geometry) {
    return round_up(file.bytes, geometry.file_block()) / geometry.file_block();
}

uint32_t pages_in_block(const ChipFile& file, const ChipGeometry& geometry, uint64_t file_block) {
    const uint64_t bytes = file.bytes - file_block * geometry.file_block();
    return static_cast<uint32_t>(std::min(bytes, geometry.file_block()) / geometry.file_page());
}

ChipPlan plan_chip(const ChipGeometry& geometry, const std::vector<ChipFile>& files,
                   const ChipFaults& faults) {
    geometry.check();
    return Planner(geometry, files, faults).run();
}

}  // namespace test_support
