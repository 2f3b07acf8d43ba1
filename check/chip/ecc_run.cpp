#include "ecc_run.h"

#include "../base/target.h"
#include "../base/words.h"
#include "../comparison/diagnosis.h"
#include "../options/conversion_summary.h"
#include "dump_shape.h"
#include "ecc_scan.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace {

constexpr uint64_t kPiece = 256 * 1024;  // bytes that are read at once, when a page is not larger

std::string pages_text(uint64_t page_data, uint64_t spare, bool with_options) {
    const std::string page_kb = std::to_string(page_data / 1024);
    const std::string text = "pages of " + page_kb + " KB with " + counted(spare, "byte") + " of spare area";
    return with_options ? text + " (-p " + page_kb + " -s " + std::to_string(spare) + ")" : text;
}

/// One run from the options to the result.
class EccRun {
public:
    EccRun(const CheckOptions& options, const CheckProgress& progress)
        : m_options(options), m_progress(progress), m_skip(options.chip.skip) {}

    EccResult run() {
        m_result.conversion = summary_of(m_options.conversion);
        m_result.geometry = geometry_of(m_options.conversion);
        m_result.target_path = m_options.target;
        m_result.max_flips = std::min(m_options.chip.max_flips, kCorrectableFlips);
        m_result.warnings = m_options.warnings;
        if (geometry_can_be() && open_dump() && measure_dump() && shape_is_right())
            judge_pages();
        settle();
        return m_result;
    }

private:
    bool fail(const std::string& reason) {
        if (!m_result.error)
            m_result.error = reason;
        return false;
    }

    bool geometry_can_be() {
        const Geometry& g = m_result.geometry;
        const uint64_t spare = m_options.conversion.settings.oob_size;
        if (!g.spare_areas)
            return fail("only slc has parity that can be judged; give -t slc");
        if (g.page_data % kUnitData != 0)
            return fail("pages of " + std::to_string(m_result.conversion.page_kb) + " KB cannot be");
        if (spare < g.page_data / kUnitData * (kUnit - kUnitData))
            return fail("size of oob is not enough");
        if (g.page > DumpShapes::kLargestPage)
            return fail("pages of more than " + readable_bytes(DumpShapes::kLargestPage) + " are not judged");
        return true;
    }

    bool open_dump() {
        if (const auto reason = m_target.open_or_reason(m_options.target))
            return fail(*reason);
        m_result.target_kind = m_target.kind() == Target::Kind::kFile     ? "dump"
                               : m_target.kind() == Target::Kind::kDevice ? "device"
                                                                          : "stream";
        m_result.past_the_cache = m_target.past_the_cache();
        return true;
    }

    bool measure_dump() {
        const Geometry& g = m_result.geometry;
        const uint64_t bytes = m_target.size() - std::min(m_skip, m_target.size());
        m_pages = bytes / g.page;
        if (m_pages == 0)
            return fail(less_than_a_page(bytes, m_skip != 0, g.page));
        const uint64_t pages_of_block = g.block / g.page;
        if (bytes % g.page != 0)
            m_result.warnings.push_back("the dump ends inside a page: its last " +
                                        counted(bytes % g.page, "byte") + " were not judged");
        else if (m_pages % pages_of_block != 0)
            m_result.warnings.push_back("the dump ends inside an erase block: its last block has " +
                                        std::to_string(m_pages % pages_of_block) + " of " +
                                        counted(pages_of_block, "page"));
        return true;
    }

    // ---- the geometry ----

    /// False, with diagnoses, when the dump does not have pages of the given sizes.
    bool shape_is_right() {
        const Geometry& g = m_result.geometry;
        const DumpShape given{.page_data = g.page_data, .spare = g.page - g.page_data, .skip = m_skip};
        DumpShapes shapes(m_target, given);
        if (!shapes.is_ready())
            return fail("out of memory");
        const ShapeSample& sample = shapes.given_sample();
        if (!sample.is_garbage() && !sample.is_misplaced())
            return true;
        const std::optional<DumpShape> other = shapes.find(g.block);
        if (!other && !(sample.is_garbage() && sample.full))
            return true;  // damage, or pages that something else wrote
        const std::string not_given = "not " + pages_text(given.page_data, given.spare, false) +
                                      (m_skip != 0 ? " after " + counted(m_skip, "byte") : "");
        if (other)
            name_shape(not_given, given, *other);
        else
            name_no_shape(not_given);
        return false;
    }

    void name_shape(const std::string& not_given, const DumpShape& given, const DumpShape& other) {
        const bool other_sizes = given.page_data != other.page_data || given.spare != other.spare;
        std::string code = "page-or-spare-size";
        std::vector<std::string> traits;
        if (other_sizes)
            traits.push_back(pages_text(other.page_data, other.spare, true));
        if (given.skip != other.skip) {
            traits.push_back(other.skip == 0 ? "no header (without --skip)"
                                             : "a header of " + counted(other.skip, "byte") +
                                                   " (--skip=" + std::to_string(other.skip) + ")");
            code = "offset";
        }
        if (other.swapped) {
            traits.push_back("16-bit words with exchanged bytes");
            code = "byte-swapped";
        }
        m_result.diagnoses.push_back({code, not_given + "; it looks like " + enumerated(traits)});
    }

    /// The dump of data alone has no parity, so only its length speaks for it.
    void name_no_shape(const std::string& not_given) {
        const Geometry& g = m_result.geometry;
        const uint64_t block_data = g.block / g.page * g.page_data;
        const uint64_t bytes = m_target.size() - m_skip;
        if (bytes % block_data == 0 && bytes % g.block != 0)
            m_result.diagnoses.push_back({"no-spare", not_given + "; its length is that of " +
                                                          counted(bytes / block_data, "erase block") +
                                                          " without spare areas"});
        else
            m_result.diagnoses.push_back({"no-parity", not_given + ", and no usual ones"});
    }

    // ---- the units ----

    void judge_pages() {
        const uint64_t page = m_result.geometry.page;
        const uint64_t together = std::max<uint64_t>(kPiece / page, 1);
        ByteBuffer piece(together * page);
        if (!piece) {
            fail("out of memory");
            return;
        }
        EccScan scan(m_result.geometry, m_result);
        const uint64_t pages_of_block = m_result.geometry.block / page;
        const std::vector<uint64_t>& bad = m_options.chip.bad_blocks;
        auto next_bad = bad.begin();
        for (uint64_t first = 0, count = 0; first < m_pages; first += count) {
            const uint64_t ready = next_bad == bad.end() ? m_pages : *next_bad * pages_of_block;
            if (first == ready) {
                scan.pass_block();
                count = pages_of_block;
                ++next_bad;
                continue;
            }
            count = std::min({together, m_pages - first, ready - first});
            if (!take_pages(scan, first, count, piece.data()))
                for (uint64_t i = first; i < first + count; ++i)
                    take_page(scan, i, piece.data());
            if (m_progress)
                m_progress((first + count) * page, m_pages * page);
        }
        scan.finish();
        m_result.judged = true;
        if (m_unreadable_pages != 0)
            fail(
                counted(m_unreadable_pages, "page") + " of the dump failed to be read: " +
                (m_read_error != 0 ? std::generic_category().message(m_read_error) : "the dump got shorter"));
    }

    /// False, with nothing taken, when a byte of them cannot be read.
    bool take_pages(EccScan& scan, uint64_t first, uint64_t count, uint8_t* pages) {
        const uint64_t bytes = count * m_result.geometry.page;
        const auto got = m_target.read(m_skip + first * m_result.geometry.page, bytes, pages);
        if (got != bytes) {
            m_read_error = got ? 0 : errno;
            return false;
        }
        scan.take(pages, count);
        return true;
    }

    void take_page(EccScan& scan, uint64_t number, uint8_t* page) {
        if (take_pages(scan, number, 1, page))
            return;
        ++m_unreadable_pages;
        scan.pass_unreadable();
    }

    // ---- the answer ----

    void settle() {
        warn_of_flips();
        const bool wrong = !m_result.diagnoses.empty() || m_result.units.beyond != 0 ||
                           m_result.over_limit() != 0 || (m_options.strict && !m_result.warnings.empty());
        m_result.verdict = m_result.error ? Verdict::kTrouble : wrong ? Verdict::kDiffers : Verdict::kSame;
    }

    void warn_of_flips() {
        uint64_t many = 0;
        for (std::size_t n = std::size_t{m_options.chip.warn_flips} + 1; n < m_result.units.flips.size(); ++n)
            many += m_result.units.flips[n];
        if (many != 0)
            m_result.warnings.push_back(counted(many, "unit") + (many == 1 ? " has" : " have") +
                                        " more than " + counted(m_options.chip.warn_flips, "flipped bit"));
    }

    const CheckOptions& m_options;
    const CheckProgress& m_progress;
    const uint64_t m_skip;
    EccResult m_result;
    Target m_target;
    uint64_t m_pages = 0;  // whole ones of the dump
    uint64_t m_unreadable_pages = 0;
    int m_read_error = 0;  // 0: no bytes came
};

}  // namespace

EccResult run_ecc(const CheckOptions& options, const CheckProgress& progress) {
    return EccRun(options, progress).run();
}
