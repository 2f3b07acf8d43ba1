#include "dump_check.h"

#include "../base/places.h"
#include "../base/words.h"
#include "../comparison/conversion_run.h"
#include "../comparison/diagnosis.h"
#include "../firmware/read_listing.h"
#include "../judge/part_reader.h"
#include "../judge/second_opinion.h"
#include "../options/part_choice.h"
#include "dump_comparison.h"
#include "dump_diagnosis.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <memory>
#include <optional>
#include <utility>

namespace {

/// Erase blocks that the file of each item takes, about: those of its partition, or of its data if there are
/// more.
std::map<std::string, uint64_t> blocks_of_items(const std::string& firmware, const Geometry& geometry) {
    std::map<std::string, uint64_t> blocks;
    Listing listing;
    read_listing(firmware, listing);  // what is wrong with the firmware is said by the conversion
    const uint64_t block_data = geometry.block / geometry.page * geometry.page_data;
    for (const ListedItem& item : listing.items) {
        const bool grows = item.partition_sectors == kGrows;
        const uint64_t partition = grows ? UINT64_MAX : item.partition_sectors * kSector;
        blocks[item.name] = divided_up(std::max(item.bytes, partition), block_data);
    }
    return blocks;
}

/// Says what is compared with what. Returns why that cannot be.
std::optional<std::string> fill_plan(const CheckOptions& options, Target& target, DumpPlan& plan) {
    plan.target = &target;
    plan.geometry = geometry_of(options.conversion);
    plan.chip = options.chip;
    plan.max_runs = options.max_differences;
    plan.blocks_of = [blocks = blocks_of_items(options.conversion.settings.in_firmware, plan.geometry)](
                         const std::string& name) {
        const auto found = blocks.find(name);
        return found != blocks.end() ? found->second : 0;
    };
    if (auto wrong = plan.layout.add_options(options.chip))
        return wrong;
    const uint64_t blocks = Dump(target, dump_format(plan.geometry, options.chip)).blocks();
    if (blocks > kMostDumpBlocks)
        return "the dump has " + std::to_string(blocks) + " erase blocks, and at most " +
               std::to_string(kMostDumpBlocks) + " can be compared";
    return std::nullopt;
}

/// True when the conversion failed because so much of a file is missing that its rest was given up. The
/// conversion takes that for a failed write.
bool ended_early(const ConversionRun& run, const DumpComparison& comparison) {
    return failed_to_write(run, comparison.given_up_file(), ENOSPC);
}

class DumpCheck {
public:
    DumpCheck(const CheckOptions& options, Target& target, CheckResult result, const CheckProgress& progress)
        : m_options(options), m_target(target), m_choice(options), m_progress(progress),
          m_result(std::move(result)) {}

    CheckResult run() {
        m_output = m_result.geometry;
        DumpPlan plan = make_plan();
        const DumpFormat format = dump_format(m_output, m_options.chip);
        m_result.geometry.chip = true;
        m_result.geometry.page = format.page_stride();
        m_result.geometry.block = format.block_stride();
        m_result.geometry.header = format.header;
        if (!m_result.error) {
            DumpComparison comparison(std::move(plan));
            compare(comparison);
        }
        if (m_result.error)
            m_result.verdict = Verdict::kTrouble;
        return std::move(m_result);
    }

private:
    void fail(const std::string& reason) {
        if (!m_result.error)
            m_result.error = reason;
    }

    DumpPlan make_plan() {
        DumpPlan plan;
        if (const auto wrong = fill_plan(m_options, m_target, plan))
            fail(*wrong);
        m_placed_names = plan.layout.names();
        check_names_by_firmware();
        if (m_output.spare_areas && m_options.second_opinion)
            plan.watch = [this](const std::string& file, std::span<const uint8_t> bytes, bool there) {
                judge_pages(file, bytes, there);
            };
        if (m_progress)
            plan.progress = [this](uint64_t bytes) { m_progress(m_done += bytes, m_target.size()); };
        return plan;
    }

    void compare(DumpComparison& comparison) {
        const ConversionRun run = run_conversion(m_options.conversion, comparison);
        finish_pages();
        for (const DumpComparison::File& file : comparison.files())
            m_result.parts.push_back(file.result);
        if (!run.done && !ended_early(run, comparison))
            return fail(run.reason);
        check_names(option_words(m_result.parts));
        check_placed_names(option_words(m_result.parts));
        choose_parts();
        count(comparison);
        add_warnings(comparison);
        ask_second_opinion(comparison);
        settle(comparison);
    }

    /// Before the dump is read, which may take long. What is wrong with the firmware is said by the
    /// conversion.
    void check_names_by_firmware() {
        if (!m_choice.has_names() && m_placed_names.empty())
            return;
        auto names = names_of_written_items(m_options.conversion.settings.in_firmware);
        if (!names)
            return;
        check_names(*names);
        // Which of these files there are is known after the conversion.
        names->insert(names->end(), {"idblock", "gpt", "parameter"});
        check_placed_names(*names);
    }

    void check_names(const std::vector<std::string>& words) {
        if (const auto unknown = m_choice.unknown_name(words))
            fail("no part has the name '" + *unknown + "'");
    }

    /// A place is that of a file. One for another name would keep its blocks from the files that there are.
    void check_placed_names(const std::vector<std::string>& files) {
        for (const std::string& name : m_placed_names)
            if (std::find(files.begin(), files.end(), name) == files.end())
                fail("no part has the name '" + name + "', which has a place in the dump");
    }

    void choose_parts() {
        for (PartResult& part : m_result.parts)
            if (m_choice.is_ignored(part.choice))
                part.verdict = Verdict::kIgnored;
            else if (part.verdict == Verdict::kMissing)
                m_result.missing.push_back(part.file);
    }

    void count(DumpComparison& comparison) {
        UnitCounts sum;
        for (const DumpComparison::File& file : comparison.files()) {
            sum.add(file.result.units);
            for (const BlockCounts& block : file.flipped_blocks)
                if (m_result.flipped_blocks.size() < kMostListedBlocks)
                    m_result.flipped_blocks.push_back(block);
        }
        if (m_output.spare_areas)
            m_result.chip = sum;
        m_result.blocks_of_chip = comparison.count_blocks();
        std::sort(m_result.flipped_blocks.begin(), m_result.flipped_blocks.end(),
                  [](const BlockCounts& a, const BlockCounts& b) { return a.block < b.block; });
    }

    // ---- what is odd ----

    void add_warnings(DumpComparison& comparison) {
        if (const uint64_t excess = comparison.dump().excess(); excess != 0)
            m_result.warnings.push_back("the dump is not whole erase blocks: " + counted(excess, "byte") +
                                        " after the last one");
        for (std::size_t i = 0; i < m_result.parts.size(); ++i) {
            if (m_result.parts[i].verdict == Verdict::kIgnored)
                continue;
            warn_of_twins(m_result.parts[i], comparison.placements()[i]);
            warn_of_flips(m_result.parts[i]);
            if (const uint64_t pages = comparison.files()[i].odd_tails; pages != 0)
                m_result.warnings.push_back(m_result.parts[i].file + ": " + counted(pages, "page") +
                                            " with " + "more than " + std::to_string(kCorrectableFlips) +
                                            " flipped bits after the last unit");
        }
    }

    void warn_of_twins(const PartResult& part, const Placement& placement) {
        if (placement.also_at.empty())
            return;
        std::vector<std::string> blocks = {std::to_string(placement.blocks.front())};
        for (const uint64_t block : placement.also_at)
            blocks.push_back(std::to_string(block));
        m_result.warnings.push_back(part.file + " lies at block " + enumerated(blocks) + " alike: taken as " +
                                    blocks.front());
    }

    void warn_of_flips(const PartResult& part) {
        const ChipOptions& chip = m_options.chip;
        uint64_t units = 0;
        for (uint32_t flips = chip.warn_flips + 1; flips <= std::min(chip.max_flips, kCorrectableFlips);
             ++flips)
            units += part.units.flips[flips];
        if (units == 0 || !m_output.spare_areas)
            return;
        const Place place = place_of(*part.worst_unit, m_result.geometry);
        m_result.warnings.push_back(part.file + ": " + counted(units, "unit") + " with more than " +
                                    std::to_string(chip.warn_flips) + " flipped bits, at most " +
                                    std::to_string(part.units.worst()) + ": block " +
                                    std::to_string(place.block) + ", page " + std::to_string(place.page) +
                                    ", unit " + std::to_string(place.unit.value_or(0)));
    }

    // ---- the second opinion ----

    /// Bytes that are in the dump but for flips that can be corrected are what the chip gives.
    void judge_pages(const std::string& file, std::span<const uint8_t> bytes, bool there) {
        if (m_choice.is_ignored(file.substr(0, file.rfind(".img"))))
            return;
        if (bytes.empty()) {
            finish_pages();
            m_page_opinions.erase(file);  // of an item of the same name, which this one replaces
            m_judge = std::make_unique<SlcOpinion>(file, m_output.page, m_output.page_data,
                                                   m_options.conversion.settings.page_list ? 1 : 4,
                                                   m_page_opinions[file]);
        } else if (there) {
            m_judge->take(bytes);
        } else {
            m_judge->pass_over(bytes.size() / m_output.page);
        }
    }

    void finish_pages() {
        if (m_judge)
            m_judge->finish();
        m_judge.reset();
    }

    void ask_second_opinion(DumpComparison& comparison) {
        if (!m_options.second_opinion)
            return;
        for (const auto& [file, opinion] : m_page_opinions)
            add_opinion(m_result.opinion, opinion);
        std::vector<DumpComparison::Extent> parameters;
        for (const DumpComparison::Extent& extent : comparison.extents()) {
            if (extent.bytes == 0 || clean_placement(comparison, extent.file) == nullptr)
                continue;
            if (extent.part.kind == OutputPart::Kind::kGpt) {
                m_result.opinion.judged.emplace_back("GPT");
                judge_gpt(reader(comparison, extent), m_result.opinion);
            }
            if (extent.part.kind == OutputPart::Kind::kBootBlock) {
                m_result.opinion.judged.emplace_back("boot block");
                judge_boot_block("boot block, copy " + std::to_string(extent.part.copy),
                                 reader(comparison, extent), data_of(extent), m_result.opinion);
            }
            if (extent.part.kind == OutputPart::Kind::kParameter)
                parameters.push_back(extent);
        }
        judge_parameter_copies(comparison, parameters);
        for (const std::string& remark : m_result.opinion.remarks)
            m_result.warnings.push_back("odd, but so by the firmware: " + remark);
    }

    void judge_parameter_copies(DumpComparison& comparison,
                                const std::vector<DumpComparison::Extent>& extents) {
        if (extents.size() < 2)
            return;
        m_result.opinion.judged.emplace_back("parameter");
        std::vector<ReadPart> readers;
        uint64_t bytes = UINT64_MAX;
        for (const DumpComparison::Extent& extent : extents) {
            readers.push_back(reader(comparison, extent));
            bytes = std::min(bytes, data_of(extent));
        }
        judge_copies("parameter", readers, bytes, m_result.opinion);
    }

    /// Where a file lies that has no flips and is not ignored; else null.
    const Placement* clean_placement(const DumpComparison& comparison, const std::string& file) const {
        for (std::size_t i = 0; i < m_result.parts.size(); ++i) {
            const PartResult& part = m_result.parts[i];
            if (part.file == file && part.verdict == Verdict::kSame && part.units.flipped_bits() == 0)
                return &comparison.placements()[i];
        }
        return nullptr;
    }

    PageLayout page_layout() const {
        return {.page_data = m_output.page_data,
                .page = m_output.page,
                .spare_areas = m_output.spare_areas,
                .two_kb = m_options.conversion.settings.page_2k};
    }

    uint64_t data_of(const DumpComparison::Extent& extent) const {
        return data_bytes(page_layout(), extent.bytes);
    }

    ReadPart reader(DumpComparison& comparison, const DumpComparison::Extent& extent) const {
        const Placement* placement = clean_placement(comparison, extent.file);
        return part_reader(
            [&comparison, placement, block_bytes = m_output.block](uint64_t offset, uint64_t size,
                                                                   uint8_t* out) {
                for (uint64_t done = 0; done < size;) {
                    const uint64_t block = (offset + done) / block_bytes;
                    const uint64_t first = (offset + done) % block_bytes;
                    const uint64_t part = std::min(size - done, block_bytes - first);
                    if (block >= placement->blocks.size())
                        return false;
                    const DumpBytes bytes =
                        comparison.dump().read(placement->blocks[block], first, part, out + done);
                    if (bytes.there != part || !bytes.unreadable.empty())
                        return false;
                    done += part;
                }
                return true;
            },
            extent.offset, page_layout());
    }

    // ---- the answer ----

    void settle(DumpComparison& comparison) {
        uint64_t unreadable = 0;
        bool differs = false;
        for (const PartResult& part : m_result.parts) {
            if (part.verdict == Verdict::kIgnored)
                continue;
            unreadable += part.unreadable;
            differs = differs || part.verdict == Verdict::kDiffers || part.verdict == Verdict::kMissing;
        }
        if (unreadable != 0)
            fail(std::to_string(unreadable) + " bytes of the target failed to be read");
        if (differs && !m_result.error)
            diagnose_dump(m_options.conversion, m_options.chip, m_target, comparison, m_result);
        const bool rest_matters = m_options.strict && !m_choice.is_ignored("rest");
        m_result.rest_counts = rest_matters && m_result.blocks_of_chip->other != 0;
        m_result.warnings_count = m_options.strict && !m_result.warnings.empty();
        differs = differs || m_result.rest_counts || m_result.warnings_count ||
                  m_result.opinion.findings_found != 0;
        m_result.verdict = differs ? Verdict::kDiffers : Verdict::kSame;
        if (const auto reason = not_compared(m_result, rest_matters); reason && !differs)
            fail(*reason);
    }

    const CheckOptions& m_options;
    Target& m_target;
    const PartChoice m_choice;
    const CheckProgress& m_progress;
    CheckResult m_result;
    Geometry m_output;  // of the conversion's files
    std::vector<std::string> m_placed_names;
    std::unique_ptr<SlcOpinion> m_judge;
    std::map<std::string, SecondOpinion> m_page_opinions;  // by the names of the files
    uint64_t m_done = 0;
};

}  // namespace

CheckResult run_dump_check(const CheckOptions& options, Target& target, CheckResult result,
                           const CheckProgress& progress) {
    return DumpCheck(options, target, std::move(result), progress).run();
}

std::optional<std::string> find_placements(const CheckOptions& options, Target& dump,
                                           std::vector<Placement>& placements) {
    DumpPlan plan;
    if (auto wrong = fill_plan(options, dump, plan))
        return wrong;
    DumpComparison comparison(std::move(plan));
    const ConversionRun run = run_conversion(options.conversion, comparison);
    if (!run.done && !ended_early(run, comparison))
        return run.reason;
    placements = comparison.placements();
    return std::nullopt;
}
