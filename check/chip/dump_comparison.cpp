#include "dump_comparison.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace {

// Blocks of a file that are compared with all places where it may lie. From then on places stay only where
// as few blocks are lost as anywhere.
constexpr uint64_t kBlocksOfChoice = 4;

// Bytes of a file after which one of the places is chosen, if the file does not end before. Copies of the
// parameter are alike almost to the end of their file, and it has a few MB.
constexpr uint64_t kBytesOfChoice = 32 * 1024 * 1024;

// Places that are followed, the lowest ones. Files of nothing but fill look alike.
constexpr std::size_t kMostCandidates = 16;

// Bytes of a file that are looked for after the end of the dump. A firmware can ask for terabytes.
constexpr uint64_t kMostMissing = 256 * 1024 * 1024;

// First pages of files that are kept.
constexpr uint64_t kMostFirstPages = 1024 * 1024;

constexpr uint64_t kLeastBadBlocks = 2;
constexpr uint64_t kGoodOfOneBad = 50;  // two percent may be bad

std::string without_suffix(const std::string& file) {
    return file.ends_with(".img") ? file.substr(0, file.size() - 4) : file;
}

/// SPI NAND corrects by itself: a bit that differs is a difference.
uint32_t max_flips(const DumpPlan& plan) {
    return plan.geometry.spare_areas ? plan.chip.max_flips : 0;
}

}  // namespace

DumpFormat dump_format(const Geometry& geometry, const ChipOptions& options) {
    return {.page = geometry.page,
            .page_spare = geometry.spare_areas ? 0 : options.dump_spare,
            .block_pages = geometry.block / geometry.page,
            .header = options.skip};
}

DumpComparison::DumpComparison(DumpPlan plan)
    : m_plan(std::move(plan)), m_dump(*m_plan.target, dump_format(m_plan.geometry, m_plan.chip)),
      m_judge(m_dump, unit_layout(m_plan.geometry), max_flips(m_plan)),
      m_used(std::min(m_dump.blocks(), kMostDumpBlocks)) {}

int DumpComparison::open(const std::string& path, OpenMode /*mode*/, uint64_t& size) {
    size = 0;
    forget(path);
    m_files.emplace_back();
    m_files.back().result.file = path;
    m_files.back().result.name = m_files.back().result.choice = m_name = without_suffix(path);
    m_placements.emplace_back();
    m_placements.back().file = path;
    m_filled = m_position = m_blocks = m_missing = 0;
    m_ended = false;
    m_others.assign(m_used.size(), false);
    m_plan.layout.mark_others(m_name, m_others);
    begin_part({});
    if (m_plan.watch)
        m_plan.watch(path, {}, true);
    const bool memory =
        m_judge.prepare() && (m_gathered.size() != 0 || m_gathered.reset(m_plan.geometry.block));
    return memory ? 0 : ENOMEM;
}

/// An item of the same name replaces the file of an earlier one.
void DumpComparison::forget(const std::string& file) {
    for (std::size_t i = 0; i < m_files.size(); ++i) {
        if (m_files[i].result.file != file)
            continue;
        for (const uint64_t block : m_placements[i].blocks)
            m_used[block] = false;
        m_first_page_bytes -= m_files[i].first_page.size();
        m_files.erase(m_files.begin() + static_cast<std::ptrdiff_t>(i));
        m_placements.erase(m_placements.begin() + static_cast<std::ptrdiff_t>(i));
        break;
    }
    std::erase_if(m_extents, [&](const Extent& extent) { return extent.file == file; });
}

void DumpComparison::begin_part(const OutputPart& part) {
    m_extents.push_back({.part = part, .file = m_files.back().result.file, .offset = m_position, .bytes = 0});
}

int DumpComparison::bytes(uint64_t offset, const uint8_t* bytes, uint64_t count) {
    if (count == 0)
        return 0;
    return offset == m_position ? take(bytes, count) : EINVAL;
}

int DumpComparison::zeros(uint64_t offset, uint64_t count) {
    static constexpr uint8_t kZeros[4096] = {};
    int error = count == 0 || offset == m_position ? 0 : EINVAL;
    while (count != 0 && error == 0) {
        const uint64_t part = std::min<uint64_t>(count, sizeof kZeros);
        error = take(kZeros, part);
        count -= part;
    }
    return error;
}

/// An erase block that is whole in the bytes is compared where it lies.
int DumpComparison::take(const uint8_t* bytes, uint64_t count) {
    const uint64_t block = m_plan.geometry.block;
    m_ended = false;
    m_position += count;
    m_extents.back().bytes += count;
    if (m_plan.progress)
        m_plan.progress(count);
    while (count != 0) {
        const uint64_t part = std::min(count, block - m_filled);
        int error = 0;
        if (part == block) {
            error = take_block({bytes, static_cast<std::size_t>(block)});
        } else {
            std::memcpy(m_gathered.data() + m_filled, bytes, part);
            m_filled += part;
            if (m_filled == block) {
                m_filled = 0;
                error = take_block({m_gathered.data(), static_cast<std::size_t>(block)});
            }
        }
        if (error != 0)
            return error;
        bytes += part;
        count -= part;
    }
    return 0;
}

int DumpComparison::take_block(std::span<const uint8_t> expected) {
    if (m_blocks == 0)
        start_file(expected);
    bool there = false;
    for (Candidate& candidate : m_candidates)
        there = candidate.track->take(expected) || there;
    if (++m_blocks == 1)
        leave_good_candidates(expected.first(std::min<uint64_t>(m_plan.geometry.page, expected.size())));
    if (m_blocks >= kBlocksOfChoice)
        leave_best_candidates();
    if (m_blocks >= kBlocksOfChoice && m_blocks >= kBytesOfChoice / m_plan.geometry.block)
        choose_candidate();
    if (m_candidates.empty())
        m_missing += expected.size();
    if (m_plan.watch)
        m_plan.watch(m_files.back().result.file, expected, there);
    if (missing_bytes() < kMostMissing)
        return 0;
    if (m_given_up_file.empty())
        m_given_up_file = m_files.back().result.file;
    return ENOSPC;
}

/// Of the open file, at the place where the fewest are missing.
uint64_t DumpComparison::missing_bytes() const {
    uint64_t missing = m_candidates.empty() ? m_missing : UINT64_MAX;
    for (const Candidate& candidate : m_candidates)
        missing = std::min(missing, candidate.track->result().missing);
    return missing;
}

int DumpComparison::end(uint64_t /*size*/) {
    m_ended = true;
    return 0;
}

int DumpComparison::close() {
    int error = 0;
    if (m_filled != 0)
        error = take_block({m_gathered.data(), static_cast<std::size_t>(std::exchange(m_filled, 0))});
    choose_candidate();
    finish_file();
    return error;
}

// ---- where a file lies ----

void DumpComparison::start_file(std::span<const uint8_t> expected) {
    const auto page = expected.first(std::min<uint64_t>(m_plan.geometry.page, expected.size()));
    keep_first_page(page);
    const uint64_t blocks = m_used.size();
    std::optional<BlockWindow> window = m_plan.layout.window_of(m_name);
    if (!window)
        return search(expected);
    if (window->first >= blocks)
        return;
    window->last = std::min(window->last, blocks - 1);
    add_candidate(*window);
}

/// By the first page. If that is nowhere, it may be damaged: by the page in the middle of the first block.
void DumpComparison::search(std::span<const uint8_t> expected) {
    const uint64_t size = m_plan.geometry.page;
    const uint64_t middle = expected.size() / size / 2;
    search_page(expected.first(std::min<uint64_t>(size, expected.size())), 0);
    const auto page = expected.subspan(middle * size).first(std::min<uint64_t>(size, expected.size()));
    if (m_candidates.empty() && middle != 0 && is_telling(page, unit_layout(m_plan.geometry)))
        search_page(page, middle);
}

void DumpComparison::search_page(std::span<const uint8_t> expected, uint64_t page) {
    const uint64_t blocks = m_used.size();
    for (uint64_t block = 0; block < blocks && m_candidates.size() < kMostCandidates; ++block)
        if (knowledge_of(block) == BlockKnowledge::kNothing &&
            m_judge.page_fits(expected, block, page, false))
            add_candidate({.first = block, .last = blocks - 1});
}

void DumpComparison::add_candidate(const BlockWindow& window) {
    TrackRules rules;
    rules.window = window;
    rules.most_bad = most_bad();
    rules.max_runs = m_plan.max_runs;
    rules.indexed_units = m_plan.geometry.spare_areas;
    rules.knowledge = [this](uint64_t block) { return knowledge_of(block); };
    m_candidates.push_back({window.first, std::make_unique<FileTrack>(m_judge, rules)});
}

/// After the first block of a file that was searched. Its first page alone may be there by chance, such as a
/// page that is fill but for its list index. Where no whole block belongs, a first page that says which one
/// it is has to fit to its last unit.
void DumpComparison::leave_good_candidates(std::span<const uint8_t> page) {
    if (m_plan.layout.window_of(m_name))
        return;
    const auto begins_well = [](const Candidate& candidate) { return candidate.track->begins_well(); };
    const bool some = std::any_of(m_candidates.begin(), m_candidates.end(), begins_well);
    const bool telling = is_telling(page, unit_layout(m_plan.geometry));
    std::erase_if(m_candidates, [&](const Candidate& candidate) {
        return some ? !begins_well(candidate)
                    : !telling || !m_judge.page_fits(page, candidate.block, 0, true);
    });
}

void DumpComparison::leave_best_candidates() {
    uint64_t fewest = UINT64_MAX;
    for (const Candidate& candidate : m_candidates)
        fewest = std::min(fewest, candidate.track->lost_blocks());
    std::erase_if(m_candidates,
                  [&](const Candidate& candidate) { return candidate.track->lost_blocks() > fewest; });
}

/// The place with the fewest lost blocks, and of those with the fewest wrong units and then the fewest that
/// differ; of equal ones the first. A place before a block that failed while it was programmed leads to the
/// same blocks as the one after it, and is not another one.
void DumpComparison::choose_candidate() {
    if (m_candidates.size() < 2)
        return;
    leave_best_candidates();
    const auto faults = [](const Candidate& candidate) {
        return std::pair(candidate.track->wrong_units(), candidate.track->differing_units());
    };
    const auto best =
        std::min_element(m_candidates.begin(), m_candidates.end(),
                         [&](const Candidate& a, const Candidate& b) { return faults(a) < faults(b); });
    for (const Candidate& other : m_candidates)
        if (faults(other) == faults(*best) && other.track->blocks().front() != best->track->blocks().front())
            m_placements.back().also_at.push_back(other.track->blocks().front());
    Candidate chosen = std::move(*best);
    m_candidates.clear();
    m_candidates.push_back(std::move(chosen));
}

uint64_t DumpComparison::most_bad() const {
    if (m_plan.chip.max_bad_blocks)
        return *m_plan.chip.max_bad_blocks;
    const uint64_t all = m_used.size();
    const uint64_t of_file = m_plan.blocks_of ? m_plan.blocks_of(m_name) : all;
    const uint64_t blocks = m_plan.layout.blocks_of(m_name).value_or(of_file);
    return std::max(std::min(blocks, all) / kGoodOfOneBad, kLeastBadBlocks);
}

BlockKnowledge DumpComparison::knowledge_of(uint64_t block) {
    const std::vector<uint64_t>& bad = m_plan.chip.bad_blocks;
    if (m_used[block] || m_others[block])
        return BlockKnowledge::kTaken;
    if (std::binary_search(bad.begin(), bad.end(), block))
        return BlockKnowledge::kListedBad;
    return m_dump.is_marked(block) ? BlockKnowledge::kMarkedBad : BlockKnowledge::kNothing;
}

// ---- what came of it ----

void DumpComparison::keep_first_page(std::span<const uint8_t> page) {
    if (page.size() > kMostFirstPages - m_first_page_bytes)
        return;
    m_first_page_bytes += page.size();
    m_files.back().first_page.assign(page.begin(), page.end());
}

void DumpComparison::finish_file() {
    File& file = m_files.back();
    Placement& placement = m_placements.back();
    PartResult& result = file.result;
    if (m_candidates.empty()) {
        result.bytes = result.missing = m_missing;
        result.ended = m_ended;
        // A file of no bytes takes no block, and nothing of it can be missing.
        placement.placed = m_missing == 0;
        if (!placement.placed)
            result.verdict = Verdict::kMissing;
        return;
    }
    FileTrack& track = *m_candidates.front().track;
    track.result().file = result.file;
    track.result().name = result.name;
    track.result().choice = result.choice;
    result = std::move(track.result());
    result.ended = m_ended;
    file.flipped_blocks = track.flipped_blocks();
    file.wrong_bits = track.wrong_bits();
    file.odd_tails = track.odd_tails();
    placement.placed = !track.blocks().empty();
    placement.blocks = track.blocks();
    placement.skipped = result.skipped;
    m_candidates.clear();
    for (const uint64_t block : placement.blocks)
        m_used[block] = true;
    if (placement.placed) {
        result.found_at = placement.blocks.front();
        result.offset = m_dump.place_of(placement.blocks.front(), 0);
    }
    if (result.missing != 0 && result.compared + result.unreadable == 0)
        result.verdict = Verdict::kMissing;
    else if (result.differing != 0 || result.missing != 0)
        result.verdict = Verdict::kDiffers;
    else if (result.unreadable != 0)
        result.verdict = Verdict::kTrouble;
}

ChipBlocks DumpComparison::count_blocks() {
    std::vector<bool> bad(m_used.size(), false);
    for (const Placement& placement : m_placements)
        for (const SkippedBlock& skipped : placement.skipped)
            bad[skipped.block] = true;
    m_others.assign(m_used.size(), false);
    ChipBlocks counts;
    counts.all = m_used.size();
    for (uint64_t block = 0; block < m_used.size(); ++block) {
        if (m_used[block])
            ++counts.used;
        else if (bad[block] || knowledge_of(block) != BlockKnowledge::kNothing)
            ++counts.bad;
        else if (m_judge.is_erased(block))
            ++counts.erased;
        else
            ++counts.other;
        if (m_plan.progress && !m_used[block])
            m_plan.progress(m_plan.geometry.block);
    }
    return counts;
}
