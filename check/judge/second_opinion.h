#pragma once

#include "../base/result.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

/// Judges a target by the formats alone. Uses nothing of src/ that writes. Findings are sentences that name
/// the place. Pages and units count from 0, entries and copies from 1. What cannot be read is a finding too.

/// One SLC NAND file: the parity of every unit, the list index of every page, the other system bytes, and the
/// 0xFF after the units. The bytes come in order, in pieces of any size. A unit or page that is cut off by
/// the end of the file is a finding.
class SlcOpinion {
public:
    /// page: bytes of a flash page with its spare area, of which data are data (a multiple of 1024).
    /// index_step: 1 for a page linked list, else 4. What is found is added to opinion, which outlives this.
    /// Where units of 1024 bytes of data do not fit the page, a finding says so and nothing is judged.
    SlcOpinion(std::string file, uint64_t page, uint64_t data, uint32_t index_step, SecondOpinion& opinion);
    ~SlcOpinion();

    /// The next bytes of the file.
    void take(std::span<const uint8_t> bytes);
    /// The next pages are not judged. The bytes before them end with a page.
    void pass_over(uint64_t pages);
    /// No more bytes come.
    void finish();

private:
    struct State;
    std::unique_ptr<State> m_state;
};

/// Reads size bytes at an offset in a part's data (without spare areas). False when they cannot be read.
using ReadPart = std::function<bool(uint64_t offset, std::size_t size, uint8_t* out)>;

/// Protective MBR, GPT header and entry array at the start of read: signature, sizes, checksums, fields that
/// depend on each other, entries that overlap. A table that was adapted to the size of its disk is right.
void judge_gpt(const ReadPart& read, SecondOpinion& opinion);

/// A boot block at the start of read, of at most bytes: magic, sizes and reserved bytes of its header, stages
/// within it. Its header has to be scrambled with the key of this build.
void judge_boot_block(const std::string& name, const ReadPart& read, uint64_t bytes, SecondOpinion& opinion);

/// copies of a record that are to be equal in their first bytes: a name for messages, and how each is read.
void judge_copies(const std::string& name, const std::vector<ReadPart>& copies, uint64_t bytes,
                  SecondOpinion& opinion);

/// Adds a finding; keeps the first ones and counts all.
void add_finding(SecondOpinion& opinion, const std::string& sentence);

/// Adds what is odd but comes from the firmware; keeps the first ones.
void add_remark(SecondOpinion& opinion, const std::string& sentence);

/// Adds what was found in the pages of one file.
void add_opinion(SecondOpinion& sum, const SecondOpinion& file);
