#pragma once

#include "block_judge.h"
#include "dump_layout.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

/// What is known of a block of the dump before it is looked at.
enum class BlockKnowledge {
    kNothing,
    kListedBad,  ///< --bad-blocks names it
    kMarkedBad,  ///< its spare area has a mark
    kTaken,      ///< of another file
};

/// Rules for all tracks.
struct TrackRules {
    BlockWindow window;          ///< blocks of the dump that the file may use
    uint64_t most_bad = 2;       ///< that may be passed over because of what they hold
    uint64_t max_runs = 10;      ///< differences that are kept
    bool indexed_units = false;  ///< pages of fill differ by their list indexes
    std::function<BlockKnowledge(uint64_t block)> knowledge;
};

/// A file that is followed through the blocks of a dump. It takes the file's erase blocks one after the other
/// and finds a block of the dump for each: the next one that belongs, or else the next one as it is.
class FileTrack {
public:
    /// Starts at the window's first block. The judge outlives it.
    FileTrack(BlockJudge& judge, TrackRules rules);

    /// Takes the bytes of the file's next erase block; the last one may have fewer. True when they are in the
    /// dump, perhaps with flips that can be corrected.
    bool take(std::span<const uint8_t> expected);

    /// Blocks of the file so far, those that do not belong among them.
    const std::vector<uint64_t>& blocks() const { return m_blocks; }
    /// Units that are beyond, or not in the dump.
    uint64_t wrong_units() const { return m_wrong_units; }
    /// Units in the dump with more flips than are allowed.
    uint64_t differing_units() const { return m_result.runs_found; }
    /// Blocks of the file so far that no block of the dump belonged to.
    uint64_t lost_blocks() const { return m_lost_blocks; }
    /// True when a block of the dump belonged to the first block of the file.
    bool begins_well() const { return m_begins_well; }
    /// What was found so far, without names and verdict.
    PartResult& result() { return m_result; }
    const std::vector<BlockCounts>& flipped_blocks() const { return m_flipped_blocks; }
    const BitFlips& wrong_bits() const { return m_wrong_bits; }
    uint64_t odd_tails() const { return m_odd_tails; }

private:
    /// A block of the dump for a block of the file, and what is passed over before it.
    struct Choice {
        BlockLook look;
        std::vector<SkippedBlock> passed;
    };
    bool pass_known(uint64_t& block, std::vector<SkippedBlock>& passed) const;
    std::optional<Choice> choose(std::span<const uint8_t> expected);
    uint64_t tries_left() const;
    bool settle(Choice& choice, std::span<const uint8_t> expected);

    BlockJudge& m_judge;
    TrackRules m_rules;
    uint64_t m_next;         // block of the dump
    uint64_t m_passed = 0;   // because of what they hold
    uint64_t m_in_vain = 0;  // blocks of the file in a row that no block of the dump belonged to
    uint64_t m_lost_blocks = 0;
    bool m_begins_well = false;
    uint64_t m_wrong_units = 0;
    uint64_t m_odd_tails = 0;
    std::vector<uint64_t> m_blocks;
    std::vector<BlockCounts> m_flipped_blocks;
    BitFlips m_wrong_bits;
    PartResult m_result;
};
