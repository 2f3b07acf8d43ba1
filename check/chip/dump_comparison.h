#pragma once

#include "../../src/io/byte_buffer.h"
#include "../../src/io/output_receiver.h"
#include "block_judge.h"
#include "dump_layout.h"
#include "file_track.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

/// How the files of a conversion are compared with the dump of a chip.
struct DumpPlan {
    Target* target = nullptr;  ///< outlives the comparison
    Geometry geometry;         ///< of the conversion's output: geometry_of
    ChipOptions chip;          ///< without the layout file and the places, which are in layout
    DumpLayout layout;
    uint64_t max_runs = 10;  ///< kept for a part
    /// Erase blocks that the file of this name takes on the chip, about. Two percent of them may be bad. May
    /// be empty.
    std::function<uint64_t(const std::string& name)> blocks_of;
    /// Is passed the bytes of each erase block of a file, and whether they are in the dump but for flips that
    /// can be corrected. A call without bytes starts a file. May be empty.
    std::function<void(const std::string& file, std::span<const uint8_t> bytes, bool there)> watch;
    /// Is told the bytes that were dealt with. May be empty.
    std::function<void(uint64_t bytes)> progress;
};

/// How the erase blocks of the conversion's output lie in a dump.
DumpFormat dump_format(const Geometry& geometry, const ChipOptions& options);

/// Most erase blocks of a dump. More are the sign of a wrong size, and their numbers would take too much
/// memory.
constexpr uint64_t kMostDumpBlocks = 256 * 1024;

/// Compares the files of a conversion, as it gives them, with the dump of a chip. Each file is placed by the
/// layout or searched by a page of its first block. Holds one erase block of the output, and of the dump one
/// page or 128 KB.
class DumpComparison : public OutputReceiver {
public:
    explicit DumpComparison(DumpPlan plan);

    int open(const std::string& path, OpenMode mode, uint64_t& size) override;
    int bytes(uint64_t offset, const uint8_t* bytes, uint64_t count) override;
    int zeros(uint64_t offset, uint64_t count) override;
    uint64_t zeros_from() const override { return 0; }
    int end(uint64_t size) override;
    int close() override;
    bool takes_parts() const override { return true; }
    void begin_part(const OutputPart& part) override;

    /// What came of a file.
    struct File {
        PartResult result;
        std::vector<BlockCounts> flipped_blocks;
        BitFlips wrong_bits;
        uint64_t odd_tails = 0;  ///< pages with over kCorrectableFlips flips after their units
        /// Of the expected bytes. Empty after the first files of a firmware with very many or large pages.
        std::vector<uint8_t> first_page;
    };
    /// In the order of the conversion.
    const std::vector<File>& files() const { return m_files; }
    /// Beside files().
    const std::vector<Placement>& placements() const { return m_placements; }

    /// A part of a file, such as a copy of the parameter.
    struct Extent {
        OutputPart part;
        std::string file;
        uint64_t offset = 0;  ///< in the file
        uint64_t bytes = 0;
    };
    const std::vector<Extent>& extents() const { return m_extents; }

    /// Counts the blocks of the dump. Reads those that no file uses.
    ChipBlocks count_blocks();
    /// The first file of which so much is missing that the rest of it was not compared; empty: there is none.
    /// The conversion then ends as after a write to it that failed with ENOSPC.
    const std::string& given_up_file() const { return m_given_up_file; }
    Dump& dump() { return m_dump; }

private:
    struct Candidate {
        uint64_t block = 0;
        std::unique_ptr<FileTrack> track;
    };
    int take(const uint8_t* bytes, uint64_t count);
    int take_block(std::span<const uint8_t> expected);
    void start_file(std::span<const uint8_t> expected);
    void search(std::span<const uint8_t> expected);
    void search_page(std::span<const uint8_t> expected, uint64_t page);
    void add_candidate(const BlockWindow& window);
    void leave_good_candidates(std::span<const uint8_t> page);
    void leave_best_candidates();
    void choose_candidate();
    uint64_t missing_bytes() const;
    void finish_file();
    void forget(const std::string& file);
    BlockKnowledge knowledge_of(uint64_t block);
    uint64_t most_bad() const;
    void keep_first_page(std::span<const uint8_t> page);

    DumpPlan m_plan;
    Dump m_dump;
    BlockJudge m_judge;
    std::vector<bool> m_used;    // blocks of files
    std::vector<bool> m_others;  // blocks of the windows of files that are not open
    std::vector<File> m_files;
    std::vector<Placement> m_placements;
    std::vector<Extent> m_extents;
    uint64_t m_first_page_bytes = 0;  // of all files
    std::string m_given_up_file;

    // Of the open file:
    std::string m_name;       // without ".img"
    ByteBuffer m_gathered;    // an erase block that comes in pieces
    uint64_t m_filled = 0;    // bytes of it
    uint64_t m_position = 0;  // of the next byte in the file
    uint64_t m_blocks = 0;    // that were taken
    uint64_t m_missing = 0;   // bytes of a file that was not found
    std::vector<Candidate> m_candidates;
    bool m_ended = false;  // as far as it was handed over
};
