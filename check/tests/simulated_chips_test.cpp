// Hundreds of simulated chips: what the checker says of each is what was done to it, exactly.

#include "check/chip/ecc_run.h"
#include "extraction_bench.h"
#include "simulated_chip.h"

#include <gtest/gtest.h>

namespace {

using namespace check_test;

using Blocks = std::vector<uint64_t>;

// A slow build looks at every fifth chip.
#if defined(__SANITIZE_ADDRESS__) || defined(NANDSMITH_COVERAGE)
constexpr uint64_t kStep = 5;
#else
constexpr uint64_t kStep = 1;
#endif

constexpr uint64_t kChipsOfTest = 5;

/// Tells a unit that is beyond by its place.
struct Lost {
    uint64_t block, page, unit, flips;
    DifferenceRun::Holds holds;

    bool operator==(const Lost&) const = default;
};

void PrintTo(const Lost& lost, std::ostream* out) {
    *out << "block " << lost.block << " page " << lost.page << " unit " << lost.unit << ": " << lost.flips
         << " flips, " << static_cast<int>(lost.holds);
}

/// A chip, and the runs of the checker over its dump.
class ChipTrial {
public:
    ChipTrial(ChipBench& bench, const ChipModel& model, uint64_t seed)
        : m_bench(bench), m_model(model), m_geometry(geometry_of(model)),
          m_random(random_chip(model, bench.outputs(), seed)) {
        m_bench.bytes() = m_random.chip.dump;
        m_options.dump_spare = model.dump_spare;
        m_options.max_bad_blocks = m_random.most_skipped;
        m_options.max_flips = m_options.warn_flips = seed % 4 == 0 ? 5 : 16;
        m_options.layout_file = (bench.directory() / "layout.csv").string();
        write_file(m_options.layout_file, to_bytes(m_random.layout));
    }

    void expect_right_answers() {
        {
            SCOPED_TRACE("by the layout");
            expect_right(m_bench.result(m_options, {"--max-differences=0"}), true);
        }
        if (m_random.can_be_searched) {
            SCOPED_TRACE("by search");
            ChipOptions options = m_options;
            options.layout_file.clear();
            expect_right(m_bench.result(options, {"--max-differences=0"}), false);
        }
        if (m_geometry.is_slc())
            expect_right_parity();
        expect_plain_data();
    }

private:
    const ChipTruth& truth() const { return m_random.chip.truth; }

    // ---- against the firmware ----

    void expect_right(const CheckResult& result, bool windows_are_known) {
        EXPECT_EQ(result.error, std::nullopt);
        for (const FileTruth& file : truth().files)
            expect_file(part_of(result, file.file), file, windows_are_known);
        EXPECT_EQ(result.parts.size(), truth().files.size());
        expect_flipped_blocks(result);
        expect_lost(result);
        expect_blocks_of_chip(result);
        for (const std::string& warning : result.warnings)
            EXPECT_EQ(warning.find(" alike: taken as "), std::string::npos) << warning;
        const bool same = std::all_of(truth().files.begin(), truth().files.end(),
                                      [&](const FileTruth& file) { return is_same(file); });
        EXPECT_EQ(result.verdict, same ? Verdict::kSame : Verdict::kDiffers);
        EXPECT_EQ(result.chip.has_value(), m_geometry.is_slc());
        if (result.chip)
            expect_units(*result.chip, truth().units);
    }

    bool is_same(const FileTruth& file) const {
        if (!m_geometry.is_slc())
            return file.can_be_read(ChipKind::spi_nand);
        return file.units.beyond == 0 && file.units.worst() <= m_options.max_flips;
    }

    void expect_file(const PartResult& part, const FileTruth& file, bool windows_are_known) {
        SCOPED_TRACE(file.file);
        EXPECT_EQ(part.found_at, file.found_at);
        EXPECT_EQ(part.verdict, is_same(file) ? Verdict::kSame : Verdict::kDiffers);
        expect_units(part.units, file.units);
        Blocks before;
        Blocks between;
        for (const SkippedBlock& skipped : part.skipped) {
            (skipped.block < file.found_at ? before : between).push_back(skipped.block);
            EXPECT_EQ(skipped.reason,
                      is_marked(skipped.block) ? SkippedBlock::Reason::kMark : SkippedBlock::Reason::kContent)
                << skipped.block;
        }
        EXPECT_EQ(between, blocks_of(file.skipped));
        Blocks expected = blocks_of(file.skipped_before);
        // A search does not know where the programmer began. It starts at the first block that begins as
        // the file does.
        if (!windows_are_known && before.size() < expected.size())
            expected.erase(expected.begin(), expected.end() - static_cast<std::ptrdiff_t>(before.size()));
        EXPECT_EQ(before, expected);
    }

    static Blocks blocks_of(const std::vector<SkipTruth>& skips) {
        Blocks blocks;
        for (const SkipTruth& skip : skips)
            blocks.push_back(skip.block);
        return blocks;
    }

    void expect_units(const UnitCounts& units, const UnitTruth& expected) {
        EXPECT_EQ(units.units, expected.units);
        EXPECT_EQ(units.flips, expected.flips);
        EXPECT_EQ(units.beyond, expected.beyond);
        EXPECT_EQ(units.foreign, expected.foreign);
        EXPECT_EQ(units.erased, expected.erased);
        EXPECT_EQ(units.cleared, expected.cleared);
        EXPECT_EQ(units.set, expected.set);
    }

    void expect_flipped_blocks(const CheckResult& result) {
        std::vector<BlockTruth> blocks;
        for (const BlockCounts& seen : result.flipped_blocks)
            blocks.push_back({seen.block, seen.flipped_bits, seen.worst, seen.beyond});
        EXPECT_TRUE(blocks == truth().blocks);
    }

    void expect_lost(const CheckResult& result) {
        std::vector<Lost> lost;
        for (const PartResult& part : result.parts)
            for (const DifferenceRun& run : part.runs)
                if (run.flips > kCorrectableFlips)
                    lost.push_back(place_of_run(run));
        std::sort(lost.begin(), lost.end(), [](const Lost& a, const Lost& b) {
            return std::tie(a.block, a.page, a.unit) < std::tie(b.block, b.page, b.unit);
        });
        std::vector<Lost> expected;
        for (const LostUnit& unit : truth().lost)
            expected.push_back({unit.block, unit.page, unit.unit, unit.flips, holds_of(unit.what)});
        EXPECT_EQ(lost, expected);
    }

    Lost place_of_run(const DifferenceRun& run) const {
        const uint64_t page = run.offset / m_geometry.page();
        return {page / m_geometry.pages_per_block, page % m_geometry.pages_per_block,
                run.offset % m_geometry.page() / m_geometry.unit_bytes(), run.flips, run.holds};
    }

    DifferenceRun::Holds holds_of(UnitClass what) const {
        if (what == UnitClass::erased)
            return DifferenceRun::Holds::kErased;
        if (!m_geometry.is_slc())
            return DifferenceRun::Holds::kNotKnown;
        return what == UnitClass::foreign ? DifferenceRun::Holds::kOtherData : DifferenceRun::Holds::kRuined;
    }

    // ---- blocks that are not those of files ----

    /// The first byte of the spare area of page 0 or 1 is a mark, where it is in the dump and is not data.
    /// Random bytes may have a mark as well.
    bool is_marked(uint64_t block) const {
        if (m_geometry.is_slc() || m_geometry.spare == 0)
            return false;
        const uint64_t first = block * m_geometry.block() + m_geometry.page_data;
        return is_mark(m_random.chip.dump.at(first)) ||
               is_mark(m_random.chip.dump.at(first + m_geometry.page()));
    }
    static bool is_mark(uint8_t byte) { return std::popcount(byte) <= 3; }

    bool is_erased(uint64_t block) const {
        for (uint64_t page = 0; page < m_geometry.pages_per_block; ++page)
            for (uint64_t unit = 0; unit < m_geometry.units_per_page(); ++unit) {
                const uint64_t at =
                    block * m_geometry.block() + page * m_geometry.page() + unit * m_geometry.unit_bytes();
                int zeros = 0;
                for (uint64_t byte = at; byte < at + m_geometry.unit_bytes(); ++byte)
                    zeros += std::popcount(static_cast<uint8_t>(~m_random.chip.dump[byte]));
                if (zeros > 16)
                    return false;
            }
        return true;
    }

    void expect_blocks_of_chip(const CheckResult& result) {
        const uint64_t all = m_random.chip.dump.size() / m_geometry.block();
        std::set<uint64_t> used;
        std::set<uint64_t> bad;
        for (const FileTruth& file : truth().files)
            used.insert(file.blocks.begin(), file.blocks.end());
        for (const PartResult& part : result.parts)
            for (const SkippedBlock& skipped : part.skipped)
                bad.insert(skipped.block);
        uint64_t erased = 0;
        for (uint64_t block = 0; block < all; ++block) {
            if (is_marked(block))
                bad.insert(block);
            if (used.count(block) == 0 && bad.count(block) == 0 && is_erased(block))
                ++erased;
        }
        ASSERT_TRUE(result.blocks_of_chip.has_value());
        EXPECT_EQ(result.blocks_of_chip->all, all);
        EXPECT_EQ(result.blocks_of_chip->used, used.size());
        EXPECT_EQ(result.blocks_of_chip->bad, bad.size());
        EXPECT_EQ(result.blocks_of_chip->erased, erased);
        EXPECT_EQ(result.blocks_of_chip->other, all - used.size() - bad.size() - erased);
    }

    // ---- without the firmware ----

    CheckOptions options() const {
        CheckOptions options = options_of(m_model.conversion, m_bench.firmware());
        options.target = m_bench.dump();
        options.chip = m_options;
        return options;
    }

    void expect_right_parity() {
        SCOPED_TRACE("by the parity");
        const EccResult result = run_ecc(options(), {});
        EXPECT_EQ(result.error, std::nullopt);
        ASSERT_TRUE(result.judged);
        expect_units(result.units, truth().by_parity);
        EXPECT_EQ(result.erased_blocks, truth().erased_blocks);
        EXPECT_EQ(result.blocks, m_random.chip.dump.size() / m_geometry.block());
        const bool same = result.units.beyond == 0 && truth().by_parity.worst() <= m_options.max_flips;
        EXPECT_EQ(result.verdict, same ? Verdict::kSame : Verdict::kDiffers);
    }

    // ---- extraction ----

    void expect_plain_data() {
        SCOPED_TRACE("extracted");
        const bool readable =
            std::all_of(truth().files.begin(), truth().files.end(),
                        [&](const FileTruth& file) { return file.can_be_read(m_geometry.kind); });
        if (!readable)
            return;
        const fs::path into = m_bench.directory() / "data";
        CheckOptions extraction = options();
        extraction.chip.extract_directory = into;
        const ExtractionResult result = run_extraction(extraction, {});
        EXPECT_EQ(result.error, std::nullopt);
        EXPECT_EQ(result.verdict, Verdict::kSame);
        Files files = files_in(into);
        Files expected = plain_data(firmware_of(m_model));
        if (m_model.gpt) {
            expected.erase("parameter.img");
            files.erase("gpt.img");  // its GUIDs are random
        }
        for (const auto& [name, bytes] : expected)
            EXPECT_TRUE(same_bytes(files[name], bytes)) << name;
        EXPECT_EQ(files.size(), expected.size());
        fs::remove_all(into);
    }

    ChipBench& m_bench;
    const ChipModel& m_model;
    const ChipGeometry m_geometry;
    const RandomChip m_random;
    ChipOptions m_options{};
};

// ---- the tests ----

struct Seeds {
    ChipModel model;
    uint64_t first;
};

void PrintTo(const Seeds& seeds, std::ostream* out) {
    *out << seeds.model.name << " from seed " << seeds.first;
}

std::vector<Seeds> all_seeds() {
    std::vector<Seeds> all;
    for (const ChipModel& model : chip_models())
        for (uint64_t first = 1; first <= 70; first += kChipsOfTest)
            all.push_back({model, first});
    return all;
}

class SimulatedChips : public testing::TestWithParam<Seeds> {};

TEST_P(SimulatedChips, AreJudgedExactly) {
    const auto& [model, first] = GetParam();
    ChipBench bench(model.conversion, firmware_of(model), 0);
    for (uint64_t seed = first; seed < first + kChipsOfTest; seed += kStep) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        ChipTrial(bench, model, seed).expect_right_answers();
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, SimulatedChips, testing::ValuesIn(all_seeds()), [](const auto& tested) {
    return tested.param.model.name + "_" + std::to_string(tested.param.first);
});

}  // namespace
