#include "extraction.h"

#include "../../src/io/retry.h"
#include "../base/words.h"
#include "../chip/dump_check.h"
#include "../comparison/conversion_run.h"
#include "../comparison/diagnosis.h"
#include "../firmware/read_listing.h"
#include "../options/conversion_summary.h"
#include "../options/part_choice.h"
#include "boot_stages.h"
#include "extracted_file.h"
#include "extraction_plan.h"
#include "extraction_target.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <new>
#include <sys/stat.h>
#include <system_error>

namespace {

constexpr uint64_t kDataAtOnce = 480 * 1024;  // whole sectors, so that each chunk of a stage starts at one

std::string error_text(int error) {
    return std::generic_category().message(error);
}

std::string without_slashes_at_end(std::string path) {
    while (path.size() > 1 && path.ends_with('/'))
        path.pop_back();
    return path;
}

std::string last_name(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

/// The directory that holds what has this path.
std::string parent_of(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

/// True when the path leads to the directory or to something below it.
bool lies_in(const std::string& path, const FileIdentity& directory) {
    const std::unique_ptr<char, void (*)(void*)> real(::realpath(path.c_str(), nullptr), std::free);
    if (!real)
        return false;
    for (std::string at = real.get();; at = parent_of(at)) {
        struct stat status {};
        if (::stat(at.c_str(), &status) == 0 && directory.is(status))
            return true;
        if (at == "/")
            return false;
    }
}

/// One extraction from the options to the result.
class Extraction {
public:
    Extraction(const CheckOptions& options, const CheckProgress& progress,
               const FindPlacements& find_placements)
        : m_options(options), m_choice(options), m_progress(progress), m_find_placements(find_placements),
          m_geometry(geometry_of(options.conversion)),
          m_target(m_geometry, options.chip.dump_spare, options.chip.skip) {}

    ExtractionResult run() {
        m_result.conversion = summary_of(m_options.conversion);
        m_result.geometry = m_geometry;
        m_result.firmware_path = m_options.conversion.settings.in_firmware;
        m_result.target_path = m_options.target;
        m_result.directory = m_options.chip.extract_directory;
        m_result.warnings = m_options.warnings;
        m_layout = {.page_data = m_geometry.page_data,
                    .page = m_geometry.page,
                    .spare_areas = m_geometry.spare_areas,
                    .two_kb = m_options.conversion.settings.page_2k};
        const bool planned = m_result.firmware_path.empty() ? plan_dump() : plan_conversion();
        if (planned && names_are_known() && open_directory())
            extract_all();
        settle();
        return std::move(m_result);
    }

private:
    bool fail(const std::string& reason) {
        if (!m_result.error)
            m_result.error = reason;
        return false;
    }

    std::string path_of(const std::string& output) const {
        const std::string& directory = m_result.directory;
        return directory + (directory.ends_with('/') ? "" : "/") + output;
    }

    // ---- what there is to extract ----

    bool plan_conversion() {
        Listing listing;
        if (const auto reason = read_listing(m_result.firmware_path, listing))
            return fail(*reason);
        struct stat status {};
        if (retry_interrupted([&] { return ::stat(m_result.firmware_path.c_str(), &status); }) != 0)
            return fail(m_result.firmware_path + " failed to access: " + error_text(errno));
        m_firmware = FileIdentity(status);
        m_result.firmware_bytes = listing.firmware_bytes;
        if (!open_target([this](Target& dump, std::vector<Placement>& placements) {
                return m_find_placements(m_options, dump, placements);
            }))
            return false;
        OutputMap map;
        const ConversionRun run = run_conversion(m_options.conversion, map);
        if (!run.done)
            return fail(run.reason);
        m_index_step = m_options.conversion.settings.page_list ? 1 : 4;
        plan_stages(map, listing.loader_entries);
        for (PlannedPart& part : plan_items(listing, map, m_layout, m_geometry.whole_image))
            m_parts.push_back(std::move(part));
        refuse_names(m_parts);
        return !m_result.error;
    }

    void plan_stages(const OutputMap& map, const std::vector<ListedLoaderEntry>& entries) {
        std::vector<PlannedPart> plan;
        for (const OutputMap::Extent& extent : map.extents()) {
            if (extent.part.kind != OutputPart::Kind::kBootBlock || m_choice.is_ignored("idblock"))
                continue;
            std::vector<PlannedPart> parts = stages_in(map, extent, entries);
            const bool whole = !parts.empty() && std::ranges::none_of(parts, &PlannedPart::overwritten);
            if (plan.empty() || whole)
                plan = std::move(parts);
            if (whole)
                break;
        }
        if (plan.empty())
            for (const char* name : {"FlashData", "FlashBoot"})
                plan.push_back({.name = name,
                                .choice = "idblock",
                                .output = name,
                                .file = {},
                                .refusal = "no boot block of this build's key is in the target"});
        for (PlannedPart& part : plan)
            m_parts.push_back(std::move(part));
    }

    /// The stages of a copy of the boot block. None when its header is not right.
    std::vector<PlannedPart> stages_in(const OutputMap& map, const OutputMap::Extent& extent,
                                       const std::vector<ListedLoaderEntry>& entries) {
        std::vector<PlannedPart> parts;
        FilePlaces places;
        Target* const target = source_of(extent.file, places);
        if (target == nullptr)
            return parts;
        PartData data(*target, {.places = places, .layout = m_layout, .offset = extent.offset});
        const auto stages =
            find_boot_stages([&](uint64_t position, std::size_t size,
                                 uint8_t* out) { return data.read(position, size, out) == size; },
                             entries);
        if (!stages)
            return parts;
        const uint64_t room = data_bytes(m_layout, extent.bytes);
        for (const BootStage& stage : *stages) {
            const uint64_t bytes = std::min(stage.bytes, room - std::min(stage.position, room));
            parts.push_back(
                {.name = stage.name,
                 .choice = "idblock",
                 .output = stage.name,
                 .file = extent.file,
                 .offset = extent.offset,
                 .position = stage.position,
                 .bytes = bytes,
                 .overwritten = is_overwritten(map, extent, m_layout, stage.position, bytes),
                 .scrambled = stage.scrambled,
                 .note = bytes < stage.bytes ? "cut: the boot block ends before it" : stage.note});
        }
        return parts;
    }

    /// Without a firmware: all pages of the dump.
    bool plan_dump() {
        if (m_geometry.whole_image)
            return fail("firmware is none; give it with -i");
        if (m_geometry.page_data % kUnitData != 0)
            return fail("page size is out of range");
        if (!open_target({}))
            return false;
        if (m_target.is_directory())
            return fail(m_options.target + " is a directory: without a firmware the target is one file");
        const uint64_t together = pages_together(m_layout);
        const uint64_t whole = m_target.dump_bytes() / (together * m_target.dump_page());
        if (whole == 0)
            return fail(less_than_a_page(m_target.dump_bytes(), m_options.chip.skip != 0,
                                         together * m_target.dump_page()));
        const std::string name = m_options.target == "-" ? "stdin" : last_name(m_options.target);
        m_parts.push_back({.name = name,
                           .choice = name,
                           .output = name + ".data",
                           .file = {},
                           .bytes = whole * m_layout.page_data});
        m_surplus = m_target.dump_bytes() % (together * m_target.dump_page());
        refuse_names(m_parts);
        return true;
    }

    bool open_target(const ExtractionTarget::Find& find) {
        if (m_geometry.spare_areas &&
            (m_geometry.page_data % 1024 != 0 || m_geometry.page < m_geometry.page_data / 1024 * kUnit))
            return fail("size of oob is not enough");
        const auto reason = m_target.open(m_options.target, m_firmware, find);
        m_result.target_kind = m_target.kind();
        m_result.past_the_cache = m_target.past_the_cache();
        return reason ? fail(*reason) : true;
    }

    Target* source_of(const std::string& file, FilePlaces& places) {
        std::optional<std::string> trouble;
        Target* const source = m_target.source_of(file, places, trouble);
        if (trouble)
            fail(*trouble);
        return source;
    }

    // ---- the directory that is written to ----

    bool open_directory() {
        const std::string& path = m_result.directory;
        const std::string plain = without_slashes_at_end(path);
        struct stat status {};
        const bool exists = ::stat(path.c_str(), &status) == 0;
        if (exists && m_options.target != "-" && lies_in(m_options.target, FileIdentity(status)))
            return fail(m_options.target + " lies in " + path + ", which is written to");
        if (m_target.is_directory() && lies_in(exists ? plain : parent_of(plain), m_target.identity()))
            return fail(path + " lies in " + m_options.target + ", which is not written to");
        if (const int error = m_output.open(path); error != 0)
            return fail(path + " failed to open: " + error_text(error));
        for (const PlannedPart& part : m_parts)
            if (is_wanted(part) && part.refusal.empty() && !may_create(part))
                return false;
        return true;
    }

    bool may_create(const PlannedPart& part) {
        std::optional<struct stat> status;
        if (const int error = m_output.find(part.output, status); error != 0)
            return fail(path_of(part.output) + " failed to access: " + error_text(error));
        if (!status)
            return true;
        if (m_firmware.is(*status) || m_target.identity().is(*status))
            return fail(path_of(part.output) +
                        (m_firmware.is(*status) ? " is the firmware" : " is the target"));
        return m_options.chip.force || fail(path_of(part.output) + " exists; --force replaces it");
    }

    // ---- extracting ----

    bool is_wanted(const PlannedPart& part) const { return !m_choice.is_ignored(part.choice); }

    bool names_are_known() {
        std::vector<std::string> words;
        for (const PlannedPart& part : m_parts)
            words.push_back(part.choice);
        const auto unknown = m_choice.unknown_name(words);
        return !unknown || fail("no part has the name '" + *unknown + "'");
    }

    void extract_all() {
        if (!m_data.reset(kDataAtOnce))
            throw std::bad_alloc();
        for (const PlannedPart& part : m_parts)
            if (is_wanted(part))
                m_total += part.bytes;
        for (const PlannedPart& part : m_parts) {
            ExtractedPart result{.name = part.name, .file = part.output, .note = part.note};
            const bool goes_on = extract(part, result);
            m_result.parts.push_back(std::move(result));
            if (!goes_on)
                return;
        }
    }

    /// False when the directory takes no more files.
    bool extract(const PlannedPart& part, ExtractedPart& result) {
        if (!is_wanted(part)) {
            result.verdict = Verdict::kIgnored;
            return true;
        }
        result.overwritten = part.overwritten;
        result.surplus = m_surplus;
        Target* const target = part.refusal.empty() ? source_of(part.file, result.places) : nullptr;
        if (target == nullptr) {
            result.verdict = Verdict::kMissing;
            result.note = !part.refusal.empty() ? part.refusal : part.file + " is not in the target";
            return true;
        }
        PartData data(*target,
                      {result.places, m_layout, part.offset, m_index_step, m_options.max_differences});
        ExtractedFile file(m_output,
                           {.replace = m_options.chip.force, .holes = m_options.chip.holes != When::kNever});
        if (const int error = file.open(part.output); error != 0)
            return fail(path_of(part.output) + " failed to be created: " + error_text(error));
        if (const int error = copy(part, data, file); error != 0)
            return fail(path_of(part.output) + " failed to be written: " + error_text(error));
        result.counts = data.counts();
        result.missing = part.bytes - file.size();
        if (part.bytes != 0 && file.size() == 0) {
            result.verdict = Verdict::kMissing;
            result.note = "the target ends before it";
            return true;
        }
        if (const int error = file.complete(); error != 0)
            return fail(path_of(part.output) + " failed to be written: " + error_text(error));
        result.bytes = file.size();
        judge(result);
        return true;
    }

    /// Returns 0 or an errno of writing. The file ends where the target does.
    int copy(const PlannedPart& part, PartData& data, ExtractedFile& file) {
        for (uint64_t done = 0; done < part.bytes;) {
            const uint64_t wanted = std::min(kDataAtOnce, part.bytes - done);
            const uint64_t got = data.read(part.position + done, wanted, m_data.data());
            if (part.scrambled)
                descramble_stage(m_data.data(), got);
            if (const int error = file.append(m_data.data(), got); error != 0)
                return error;
            done += got;
            if (m_progress)
                m_progress(m_done += got, m_total);
            if (got != wanted)
                break;
        }
        return 0;
    }

    void judge(ExtractedPart& result) {
        const DataCounts& counts = result.counts;
        const bool right = counts.units.beyond + counts.unreadable + counts.erased_pages +
                                   counts.foreign_pages + result.missing + result.surplus ==
                               0 &&
                           !result.overwritten;
        result.verdict = right ? Verdict::kSame : Verdict::kDiffers;
        if (counts.units.worst() > m_options.chip.warn_flips)
            m_result.warnings.push_back(result.name + ": a unit has " + std::to_string(counts.units.worst()) +
                                        " flipped bits; " + std::to_string(kCorrectableFlips) +
                                        " can be corrected");
    }

    // ---- the answer ----

    void settle() {
        uint64_t unreadable = 0;
        bool extracted = false;
        bool differs = m_options.strict && !m_result.warnings.empty();
        for (const ExtractedPart& part : m_result.parts) {
            unreadable += part.counts.unreadable;
            extracted = extracted || part.verdict == Verdict::kSame || part.verdict == Verdict::kDiffers;
            differs = differs || part.verdict == Verdict::kDiffers || part.verdict == Verdict::kMissing;
        }
        if (unreadable != 0)
            fail(std::to_string(unreadable) + " bytes of the target failed to be read");
        if (!extracted)
            fail("nothing was extracted");
        m_result.verdict = m_result.error ? Verdict::kTrouble : differs ? Verdict::kDiffers : Verdict::kSame;
    }

    const CheckOptions& m_options;
    const PartChoice m_choice;
    const CheckProgress& m_progress;
    const FindPlacements& m_find_placements;
    const Geometry m_geometry;
    ExtractionTarget m_target;
    PageLayout m_layout;
    uint32_t m_index_step = 0;  // without a firmware it is not known which page of a file a page is
    ExtractionResult m_result;
    FileIdentity m_firmware;
    std::vector<PlannedPart> m_parts;
    uint64_t m_surplus = 0;  // bytes of a dump after its last whole page
    ExtractionDirectory m_output;
    ByteBuffer m_data;
    uint64_t m_done = 0;
    uint64_t m_total = 0;
};

}  // namespace

ExtractionResult run_extraction(const CheckOptions& options, const CheckProgress& progress) {
    return run_extraction(options, progress, find_placements);
}

ExtractionResult run_extraction(const CheckOptions& options, const CheckProgress& progress,
                                const FindPlacements& find_placements) {
    return Extraction(options, progress, find_placements).run();
}
