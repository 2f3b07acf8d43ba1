#include "dump_diagnosis.h"

#include "../../src/common/byte_run.h"
#include "../base/bit_flips.h"
#include "../base/places.h"
#include "../base/words.h"
#include "../comparison/conversion_run.h"
#include "../comparison/diagnosis.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace {

// Erase blocks of the dump, from the first one on, in which a page is looked for.
constexpr uint64_t kMostBlocks = 1024;

// Bytes of a file that are looked for, at least a page.
constexpr uint64_t kMostProbe = 64 * 1024;
constexpr uint64_t kProbePages = 4;

constexpr uint64_t kLongestHeader = 64 * 1024;

// Bytes at its start that tell quickly that a page does not lie somewhere, and how many of their bits may
// differ.
constexpr uint64_t kQuickBytes = 16;
constexpr uint64_t kQuickFlips = 2;

using Bytes = std::vector<uint8_t>;

/// Bytes to look for. They are held against the dump in pieces, as units or the chunks that stand for them.
struct Probe {
    Bytes bytes;
    uint64_t piece = 0;

    bool is_telling() const {
        return piece != 0 && ::is_telling(bytes, {.unit = piece, .per_page = UINT64_MAX});
    }
};

/// True when at least three quarters of the pieces have no more flips than are corrected.
bool fits(const Probe& probe, const uint8_t* actual) {
    uint64_t pieces = 0;
    uint64_t fitting = 0;
    for (uint64_t at = 0; at < probe.bytes.size(); at += probe.piece, ++pieces) {
        const uint64_t size = std::min<uint64_t>(probe.piece, probe.bytes.size() - at);
        if (flips_between(probe.bytes.data() + at, actual + at, size, kCorrectableFlips).all() <=
            kCorrectableFlips)
            ++fitting;
    }
    return 4 * fitting >= 3 * pieces;
}

/// Where the probe lies: at the start of an erase block of so many bytes.
std::optional<uint64_t> find(Target& target, const Probe& probe, uint64_t header, uint64_t block_bytes) {
    if (!probe.is_telling() || block_bytes == 0)
        return std::nullopt;
    Bytes actual(probe.bytes.size());
    for (uint64_t block = 0; block < kMostBlocks; ++block) {
        const auto got = target.read(header + block * block_bytes, actual.size(), actual.data());
        if (got == 0)
            break;
        if (got == actual.size() && fits(probe, actual.data()))
            return block;
    }
    return std::nullopt;
}

/// Keeps the first bytes of the first file of a conversion and then ends it.
class FirstBytes : public OutputReceiver {
public:
    explicit FirstBytes(uint64_t wanted) : m_wanted(wanted) {}

    int open(const std::string& /*path*/, OpenMode /*mode*/, uint64_t& size) override {
        size = 0;
        return m_bytes.empty() ? 0 : ECANCELED;
    }
    int bytes(uint64_t /*offset*/, const uint8_t* bytes, uint64_t count) override {
        m_bytes.insert(m_bytes.end(), bytes, bytes + std::min<uint64_t>(count, m_wanted - m_bytes.size()));
        return m_bytes.size() == m_wanted ? ECANCELED : 0;
    }
    int zeros(uint64_t /*offset*/, uint64_t /*count*/) override { return EINVAL; }
    uint64_t zeros_from() const override { return kNoZeros; }
    int end(uint64_t /*size*/) override { return 0; }
    int close() override { return 0; }

    Bytes take() { return std::move(m_bytes); }

private:
    uint64_t m_wanted;
    Bytes m_bytes;
};

/// The first pages of the first file that a conversion gives: of the boot block.
Probe first_pages(const ConversionOptions& options) {
    const Geometry geometry = geometry_of(options);
    const uint64_t pages = std::clamp<uint64_t>(kMostProbe / geometry.page, 1, kProbePages);
    if (geometry.page > kMostProbe)
        return {};
    FirstBytes first(pages * geometry.page);
    run_conversion(options, first);
    return {.bytes = first.take(), .piece = unit_layout(geometry).unit};
}

/// One look for reasons.
class DumpDiagnosis {
public:
    DumpDiagnosis(const ConversionOptions& options, const ChipOptions& chip, Target& target,
                  const DumpComparison& comparison, CheckResult& result)
        : m_options(options), m_chip(chip), m_target(target), m_comparison(comparison), m_result(result),
          m_geometry(geometry_of(options)) {}

    void run() {
        if (is_blank(m_target)) {
            add("blank", "nothing was written here: all bytes that were looked at are 0 or 0xFF");
            return;
        }
        m_pages = first_pages(m_options);
        if (most_is_wrong() && !look_for_format() && !look_for_options())
            look_for_block_size();
        if (m_result.diagnoses.empty())
            look_at_directions();
        if (m_result.diagnoses.empty() && nothing_is_there())
            add("other-firmware",
                "no file was found: it was made from another firmware, or it is not a raw dump");
    }

private:
    void add(const std::string& code, const std::string& text) { m_result.diagnoses.push_back({code, text}); }

    /// True when a file is missing, or differs in most of its pages.
    bool most_is_wrong() const {
        return std::any_of(m_result.parts.begin(), m_result.parts.end(), [&](const PartResult& part) {
            return part.verdict == Verdict::kMissing ||
                   (part.verdict == Verdict::kDiffers &&
                    2 * part.differing_pages > divided_up(part.bytes, m_geometry.page));
        });
    }

    bool nothing_is_there() const {
        return std::all_of(m_result.parts.begin(), m_result.parts.end(),
                           [](const PartResult& part) { return !part.found_at; });
    }

    /// The boot block's first page alone.
    Probe first_page() const {
        Probe page = m_pages;
        page.bytes.resize(std::min<uint64_t>(page.bytes.size(), m_geometry.page));
        return page;
    }

    /// Other ways to write the same pages to a file. True when one of them was named.
    bool look_for_format() {
        const Probe page = first_page();
        if (!page.is_telling() || find(m_target, page, m_chip.skip, m_result.geometry.block))
            return false;
        return (m_geometry.spare_areas &&
                (look_for_spare_that_was_not_read(page) || look_for_data_alone(page))) ||
               look_for_swapped_bytes(page) || look_for_header(page);
    }

    /// Pages without their spare area: the chip's bytes as they lie, or the data that a controller gives.
    bool look_for_data_alone(const Probe& page) {
        const uint64_t block = m_geometry.block / m_geometry.page * m_geometry.page_data;
        Probe main_area = page;
        main_area.bytes.resize(m_geometry.page_data);
        Probe data{.bytes = {}, .piece = 1024};
        for (uint64_t unit = 0; unit < m_geometry.page_data / 1024; ++unit) {
            const auto first = page.bytes.begin() + static_cast<std::ptrdiff_t>(unit * kUnit);
            data.bytes.insert(data.bytes.end(), first, first + 1024);
        }
        if (!find(m_target, main_area, m_chip.skip, block) && !find(m_target, data, m_chip.skip, block))
            return false;
        add("no-spare", "the dump has no spare areas: dump the pages with them, " +
                            std::to_string(m_geometry.page) + " bytes each, and without correction");
        return true;
    }

    bool look_for_spare_that_was_not_read(const Probe& page) {
        // The last unit reaches into the spare area, so only the other bytes are looked for.
        Probe main_area = page;
        main_area.bytes.resize(m_geometry.page_data);
        const auto block = find(m_target, main_area, m_chip.skip, m_geometry.block);
        if (!block)
            return false;
        Bytes actual(m_geometry.page);
        const uint64_t spare = m_geometry.page - m_geometry.page_data;
        if (m_target.read(m_chip.skip + *block * m_geometry.block, actual.size(), actual.data()) !=
                actual.size() ||
            !holds_only(actual.data() + m_geometry.page_data, spare, 0xFF))
            return false;
        add("spare-not-read", "the spare areas in the dump are 0xFF: the programmer did not read them");
        return true;
    }

    bool look_for_swapped_bytes(const Probe& page) {
        Probe swapped = page;
        for (std::size_t at = 0; at + 1 < swapped.bytes.size(); at += 2)
            std::swap(swapped.bytes[at], swapped.bytes[at + 1]);
        if (!find(m_target, swapped, m_chip.skip, m_result.geometry.block))
            return false;
        add("byte-swapped", "the two bytes of each 16-bit word are swapped");
        return true;
    }

    /// The boot block starts in the first 64 KB, where no erase block does.
    bool look_for_header(const Probe& page) {
        const std::size_t size = page.bytes.size();
        Bytes start(kLongestHeader + size);
        start.resize(m_target.read(0, start.size(), start.data()).value_or(0));
        for (uint64_t at = 1; at + size <= start.size(); ++at) {
            const uint8_t* actual = start.data() + at;
            if (flips_between(page.bytes.data(), actual, kQuickBytes, kQuickFlips).all() > kQuickFlips ||
                !fits(page, actual))
                continue;
            add("offset",
                "the dump has a header of " + counted(at, "byte") + ": try --skip=" + std::to_string(at));
            return true;
        }
        return false;
    }

    /// Other options of the conversion, by the first pages of the boot block. True when one was named.
    bool look_for_options() {
        if (find(m_target, m_pages, m_chip.skip, m_result.geometry.block))
            return false;
        for (const Candidate& candidate : candidates_for(m_options)) {
            const DumpFormat format = dump_format(geometry_of(candidate.options), m_chip);
            if (candidate.diagnosis.code == "block-size" || format.page_spare != 0)
                continue;
            if (!find(m_target, first_pages(candidate.options), m_chip.skip, format.block_stride()))
                continue;
            m_result.diagnoses.push_back(candidate.diagnosis);
            return true;
        }
        return false;
    }

    /// Smaller erase blocks, by the files that were not found: they start where none of the given size does.
    void look_for_block_size() {
        std::optional<Diagnosis> best;
        std::size_t most = 0;
        for (const Candidate& candidate : candidates_for(m_options)) {
            const uint64_t block = dump_format(geometry_of(candidate.options), m_chip).block_stride();
            if (candidate.diagnosis.code != "block-size" || block >= m_result.geometry.block)
                continue;
            const std::size_t found = missing_files_at(block);
            if (found >= std::max<std::size_t>(most, 1)) {  // of equal ones the largest
                most = found;
                best = candidate.diagnosis;
            }
        }
        if (best)
            m_result.diagnoses.push_back(*best);
    }

    std::size_t missing_files_at(uint64_t block_bytes) {
        std::size_t found = 0;
        for (const DumpComparison::File& file : m_comparison.files()) {
            const Probe page{.bytes = file.first_page, .piece = unit_layout(m_geometry).unit};
            if (file.result.verdict == Verdict::kMissing && m_chip.dump_spare == 0 &&
                find(m_target, page, m_chip.skip, block_bytes))
                ++found;
        }
        return found;
    }

    void look_at_directions() {
        BitFlips wrong;
        for (const DumpComparison::File& file : m_comparison.files()) {
            wrong.cleared += file.wrong_bits.cleared;
            wrong.set += file.wrong_bits.set;
        }
        if (wrong.cleared != 0 && wrong.set == 0)
            add("only-cleared", "all bits that differ are 0 and should be 1: written over without an erase");
        else if (wrong.set != 0 && wrong.cleared == 0)
            add("only-set", "all bits that differ are 1 and should be 0: erased, or not written");
    }

    const ConversionOptions& m_options;
    const ChipOptions& m_chip;
    Target& m_target;
    const DumpComparison& m_comparison;
    CheckResult& m_result;
    const Geometry m_geometry;  // of the conversion's files
    Probe m_pages;
};

}  // namespace

void diagnose_dump(const ConversionOptions& options, const ChipOptions& chip, Target& target,
                   const DumpComparison& comparison, CheckResult& result) {
    DumpDiagnosis(options, chip, target, comparison, result).run();
}
