#pragma once

#include "../../src/io/byte_buffer.h"
#include "../../src/io/output_receiver.h"
#include "../base/result.h"
#include "../base/target.h"

#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <vector>

/// What is compared, and how much is kept of what differs.
struct ComparisonPlan {
    /// The firmware: an output cannot be in its place.
    FileIdentity firmware;
    /// Where the files of the output lie; empty: target takes the one output.
    std::string directory;
    Target* target = nullptr;
    Geometry geometry;
    uint64_t max_runs = 10;  ///< kept for a part
    /// Bytes of difference, gaps left out, from which on nothing more is compared: the conversion then ends
    /// early.
    uint64_t give_up_at = UINT64_MAX;
    /// Is passed the bytes of the target's file in their order, as far as they are there, after a call with
    /// no bytes. A file that is written again starts with such a call again. May be empty.
    std::function<void(const std::string& file, std::span<const uint8_t> bytes)> watch;
    /// True for a part that does not matter. Of an image, what is missing of it is passed over, so that the
    /// parts after it are compared. May be empty.
    std::function<bool(const OutputPart& part)> is_ignored;
    /// Is told the bytes that were dealt with. May be empty.
    std::function<void(uint64_t bytes)> progress;
};

/// Compares the outputs of a conversion with files or with one image, in place of writing them. Where several
/// parts lie at one place the last one counts, as in the image that is written.
///
/// The same object sees a second conversion when needs_second_pass says so: the first one tells only after
/// the comparison which places are written again. The second one is refused with ECANCELED where no place
/// is written again any more, so that the table over the first sectors does not cost the time of an image.
class Comparison : public OutputReceiver {
public:
    explicit Comparison(ComparisonPlan plan) : m_plan(std::move(plan)) {}

    int open(const std::string& path, OpenMode mode, uint64_t& size) override;
    int bytes(uint64_t offset, const uint8_t* bytes, uint64_t count) override;
    int zeros(uint64_t offset, uint64_t count) override;
    uint64_t zeros_from() const override { return 0; }
    int end(uint64_t size) override;
    int close() override;
    bool takes_parts() const override { return true; }
    void begin_part(const OutputPart& part) override;

    /// True when something differs, is missing or cannot be read that is perhaps written again later.
    bool needs_second_pass();
    /// Forgets the results of what is perhaps written again. Progress and watch are not told of what comes
    /// now.
    void start_second_pass();
    /// Adds the results that were kept. False when the second conversion ended before the last place that is
    /// written again.
    bool finish_second_pass();

    /// Files, or parts of the image in the order of their places. Complete after the conversion.
    std::vector<PartResult> results() const;

    /// A part of an output, where it was written.
    struct Extent {
        OutputPart part;
        std::string file;
        uint64_t offset = 0;
        uint64_t bytes = 0;
        bool written_again = false;  ///< at least in part
        bool same = false;           ///< all of it is in the target
    };
    /// Files of the output that are not in the directory.
    std::vector<std::string> missing_files() const;
    /// All parts of all files.
    std::vector<Extent> extents() const;
    /// Length of the image that the conversion gives.
    uint64_t image_size() const { return m_image_size; }
    /// The first file whose rest was not compared because the target is so much too short; empty: there is
    /// none. The conversion then ends as after a write to it that failed with ENOSPC.
    const std::string& given_up_file() const { return m_given_up_file; }

private:
    /// What is known of a file or a part while it is compared.
    struct Log {
        PartResult result;
        OutputPart part;
        uint64_t last_difference_end = 0;
        uint64_t last_page = UINT64_MAX;
        uint64_t serial = 0;  // of its part; a part that goes on at another place has several logs
        uint64_t run = 0;     // of consecutive writes; those of all files are counted together
        bool ignored = false;
    };
    /// Bytes that are written again, in which run of consecutive writes.
    struct Rewrite {
        uint64_t begin = 0;
        uint64_t end = 0;
        uint64_t run = 0;
    };
    struct File {
        std::string name;
        std::map<uint64_t, uint64_t> covered;  // end of what was written, by its start
        std::vector<Rewrite> rewrites;
        uint64_t first_run = 0;      // of its last opening: an item of the same name replaces a file
        uint64_t next = UINT64_MAX;  // where a consecutive write goes
        uint64_t size = 0;           // of the output
        bool there = false;
        bool watched = false;
        bool ended = false;  // all its bytes were handed over, in the first pass
    };

    static uint64_t wrong_bytes_of(const Log& log);
    Log& log();
    void note_place(uint64_t offset, uint64_t count);
    void cover(uint64_t offset, uint64_t count);
    bool is_too_short(const Log& log) const;
    int take(uint64_t offset, const uint8_t* bytes, uint64_t count);
    void compare_range(uint64_t offset, const uint8_t* bytes, uint64_t count);
    void compare_piece(uint64_t offset, const uint8_t* bytes, uint64_t count);
    void compare_sectors(uint64_t offset, const uint8_t* bytes, uint64_t count);
    void note_differences(uint64_t offset, const uint8_t* expected, uint64_t count);
    void note_difference(Log& log, uint64_t offset, uint8_t expected, uint8_t actual);
    Target& target() { return m_plan.target != nullptr ? *m_plan.target : m_own_target; }

    ComparisonPlan m_plan;
    Target m_own_target;  // the open file of the directory
    std::map<std::string, File> m_files;
    File* m_file = nullptr;
    std::vector<Log> m_logs;
    bool m_new_part = false;
    uint64_t m_serial = 0;
    OutputPart m_part;
    ByteBuffer m_piece;
    std::vector<Log> m_kept;  // of the first pass, while the second one runs
    uint64_t m_run = 0;
    uint64_t m_last_rewrite = 0;  // the run that is the last to write places again
    uint64_t m_wrong = 0;
    uint64_t m_image_size = 0;
    bool m_ended = false;        // the open file, as far as it was handed over
    uint64_t m_passed_over = 0;  // what the missing bytes of ignored parts cost, in bytes
    std::string m_given_up_file;
    bool m_second_pass = false;
    bool m_reached_last_rewrite = false;  // by the second pass
    bool m_cut_before_last_rewrite = false;
};
