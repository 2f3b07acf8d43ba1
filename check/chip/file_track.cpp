#include "file_track.h"

#include "../../src/common/byte_run.h"

#include <algorithm>
#include <utility>

namespace {

// After so many blocks of a file in a row that nothing in the dump belongs to, only kFewTries blocks are
// looked at for each one more. A dump of something else then costs three reads of it and not hundreds.
constexpr uint64_t kMostInVain = 4;
constexpr uint64_t kFewTries = 2;

// Blocks after a damaged one that may be the same block of the file, written again. The second of them is
// for a programmer that met a bad block right after the one that failed.
constexpr uint64_t kMostWrittenAgain = 2;

uint64_t lost_units(const BlockLook& look) {
    return look.counts.beyond + look.missing;
}

}  // namespace

FileTrack::FileTrack(BlockJudge& judge, TrackRules rules)
    : m_judge(judge), m_rules(std::move(rules)), m_next(m_rules.window.first) {}

/// Goes to the next block that is not known to be bad. False when the window has none.
bool FileTrack::pass_known(uint64_t& block, std::vector<SkippedBlock>& passed) const {
    for (; block <= m_rules.window.last; ++block) {
        const BlockKnowledge knowledge = m_rules.knowledge(block);
        if (knowledge == BlockKnowledge::kNothing)
            return true;
        if (knowledge == BlockKnowledge::kTaken)
            return false;
        passed.push_back({block, knowledge == BlockKnowledge::kListedBad ? SkippedBlock::Reason::kListed
                                                                         : SkippedBlock::Reason::kMark});
    }
    return false;
}

uint64_t FileTrack::tries_left() const {
    const uint64_t left = m_rules.most_bad - std::min(m_rules.most_bad, m_passed);
    return m_in_vain < kMostInVain ? left : std::min(left, kFewTries);
}

/// The block that belongs, or the next one when none does. Nothing when the window has no more blocks.
///
/// A programmer marks a block that failed and writes its data again into the next good one. So a block with
/// ruined units is held against the blocks after it, and the best one counts. Without list indexes such a
/// block may belong as well where it is the next one of the same fill, so fill is not held against others,
/// and other blocks only up to the first one that does not belong: after it another copy of the same may
/// begin.
std::optional<FileTrack::Choice> FileTrack::choose(std::span<const uint8_t> expected) {
    const bool comparable =
        m_rules.indexed_units || !holds_only(expected.data(), expected.size(), expected[0]);
    std::optional<Choice> best;
    std::optional<Choice> first;
    std::vector<SkippedBlock> passed;
    uint64_t block = m_next;
    uint64_t most = tries_left();
    for (uint64_t tries = 0; tries <= most && pass_known(block, passed); ++tries, ++block) {
        const BlockLook look = m_judge.look(expected, block, true);
        if (look.belongs()) {
            if (!best)
                most = std::min(most, tries + kMostWrittenAgain);
            if (!best || lost_units(look) < lost_units(best->look))
                best = Choice{look, passed};
            if (look.counts.beyond == 0 || !comparable)
                break;
        } else if (best && !m_rules.indexed_units) {
            break;
        }
        if (!first)
            first = Choice{look, passed};
        passed.push_back({block, SkippedBlock::Reason::kContent});
    }
    return best ? best : first;
}

bool FileTrack::take(std::span<const uint8_t> expected) {
    m_result.bytes += expected.size();
    std::optional<Choice> choice = choose(expected);
    if (!choice) {
        m_result.missing += expected.size();
        ++m_wrong_units;
        ++m_lost_blocks;
        return false;
    }
    return settle(*choice, expected);
}

bool FileTrack::settle(Choice& choice, std::span<const uint8_t> expected) {
    BlockLook& look = choice.look;
    const bool belongs = look.belongs();
    m_begins_well = m_begins_well || (belongs && m_blocks.empty());
    m_in_vain = belongs ? 0 : m_in_vain + 1;
    m_lost_blocks += belongs ? 0 : 1;
    if (!belongs)
        look = m_judge.look(expected, look.block, false);
    for (const SkippedBlock& skipped : choice.passed)
        m_passed += skipped.reason == SkippedBlock::Reason::kContent ? 1 : 0;
    m_result.skipped.insert(m_result.skipped.end(), choice.passed.begin(), choice.passed.end());
    m_blocks.push_back(look.block);
    m_next = look.block + 1;

    m_result.compared += expected.size() - look.missing - look.unreadable;
    m_result.missing += look.missing;
    m_result.unreadable += look.unreadable;
    if (look.worst_unit && look.counts.worst() > m_result.units.worst())
        m_result.worst_unit = look.worst_unit;
    m_result.units.add(look.counts);
    m_wrong_units += look.counts.beyond + (look.missing != 0 ? 1 : 0);
    m_odd_tails += look.odd_tails;
    if (look.counts.flipped_bits() + look.counts.beyond != 0 && m_flipped_blocks.size() < kMostListedBlocks)
        m_flipped_blocks.push_back({.block = look.block,
                                    .flipped_bits = look.counts.flipped_bits(),
                                    .worst = look.counts.worst(),
                                    .beyond = look.counts.beyond});
    if (look.too_many != 0)
        m_judge.log_differences(expected, look.block, m_rules.max_runs, m_result, m_wrong_bits);
    return belongs && look.counts.beyond == 0 && look.missing + look.unreadable == 0;
}
