#pragma once

// What a run prints, composed from what happens in it.

#include "support/sparse_builder.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace cli_test {

class Transcript {
public:
    Transcript() = default;
    // Word for word what another run printed.
    explicit Transcript(std::string text) : text_(std::move(text)) {}

    const std::string& text() const { return text_; }

    Transcript& then(const Transcript& more) {
        text_ += more.text_;
        return *this;
    }
    Transcript& line(const std::string& line) {
        text_ += line + "\n";
        return *this;
    }
    // Black on red, and back to white on black before the line ends.
    Transcript& error(const std::string& line) { return this->line("\033[30;41m" + line + "\033[37;40m"); }
    // One line up, clear it, write it anew.
    Transcript& redraw(const std::string& line) { return this->line("\033[1A\033[2K" + line); }

    Transcript& success() { return line("creating programming image ok."); }
    Transcript& failure() { return line("Failed to create programming image."); }

    Transcript& parameter_partition() {
        return line("writing parameter...").redraw("writing parameter...OK");
    }
    Transcript& gpt() { return line("writing gpt...").redraw("writing gpt...OK"); }

    // How most runs without a GPT start: boot block, a look at every item, parameter partition. Nothing can
    // be read where some of the items should be.
    Transcript& start_of_raw_run(int unreadable_items = 0) {
        return table_without_gpt(unreadable_items)
            .line("preparing parameter at 0x00002000")
            .parameter_partition();
    }
    Transcript& start_of_nand_run(const std::filesystem::path& out, int unreadable_items = 0) {
        return table_without_gpt(unreadable_items)
            .line("preparing parameter saving at " + (out / "parameter.img").string())
            .parameter_partition();
    }

    // A plain partition image that takes so many pages.
    Transcript& plain_image(const std::string& name, uint64_t pages) {
        line("writing " + name + "...");
        shown_ = 0;
        page_progress(name, pages);
        return redraw("writing " + name + "...OK");
    }

    // A sparse one that is expanded in these pieces, out of `expanded_size` bytes that its header declares.
    Transcript& sparse_image(const std::string& name, const std::vector<uint64_t>& pieces,
                             uint64_t expanded_size, uint64_t pages) {
        extraction(name, pieces, expanded_size).line("");
        page_progress(name, pages);
        return redraw("writing " + name + "...OK");
    }

    // The expansion pass of a sparse image alone.
    Transcript& extraction(const std::string& name, const std::vector<uint64_t>& pieces,
                           uint64_t expanded_size) {
        line("writing " + name + "...").line("extracting " + name + "...");
        shown_ = 0;
        uint64_t written = 0;
        for (const uint64_t piece : pieces) {
            written += piece;
            progress("extracting... " + name + "...", written, expanded_size);
        }
        return *this;
    }

private:
    Transcript& table_without_gpt(int unreadable_items) {
        line("writing idblock...");
        for (int i = 0; i < unreadable_items; ++i) {
            line("failed to get sparse info");
        }
        return line("start to write partitions...gpt=0");
    }

    void page_progress(const std::string& name, uint64_t pages) {
        for (uint64_t page = 1; page <= pages; ++page) {
            progress("writing " + name + "...", page, pages);
        }
    }

    // Whole percentages, each shown once; nothing is shown for the one shown last.
    void progress(const std::string& prefix, uint64_t done, uint64_t total) {
        const uint64_t percent = total == 0 ? 100 : done * 100 / total;
        if (percent != shown_) {
            redraw(prefix + std::to_string(percent) + "%");
            shown_ = percent;
        }
    }

    std::string text_{};
    uint64_t shown_ = 0;
};

// Bytes of each piece in which the chunks of a sparse image are expanded: at most a page at a time.
inline std::vector<uint64_t> expansion_pieces(const test_support::SparseImage& image, uint64_t page_size) {
    using test_support::SparseChunk;
    std::vector<uint64_t> pieces;
    for (const SparseChunk& chunk : image.chunks) {
        uint64_t length = 0;
        if (chunk.type == SparseChunk::raw_type) {
            length = chunk.data.size();
        } else if (chunk.type == SparseChunk::fill_type || chunk.type == SparseChunk::dont_care_type) {
            length = uint64_t{chunk.blocks} * image.block_size;
        }
        for (; length > page_size; length -= page_size) {
            pieces.push_back(page_size);
        }
        if (length != 0) {
            pieces.push_back(length);
        }
    }
    return pieces;
}

}  // namespace cli_test
