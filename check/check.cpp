#include "check.h"

#include "../src/io/retry.h"
#include "chip/dump_check.h"
#include "comparison/comparison.h"
#include "comparison/conversion_run.h"
#include "comparison/diagnosis.h"
#include "firmware/firmware_file.h"
#include "firmware/read_listing.h"
#include "judge/part_reader.h"
#include "options/conversion_summary.h"
#include "options/part_choice.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <map>
#include <memory>
#include <new>
#include <sys/stat.h>
#include <system_error>
#include <vector>

namespace {

constexpr std::size_t kMostExtraNames = 1000;
constexpr uint64_t kLookedAtOfRest = 16 * 1024 * 1024;

std::string error_text(int error) {
    return std::generic_category().message(error);
}

/// One check from the options to the result.
class Check {
public:
    Check(const CheckOptions& options, const CheckProgress& progress)
        : m_options(options), m_settings(options.conversion.settings), m_choice(options),
          m_progress(progress) {}

    CheckResult run() {
        m_result.conversion = summary_of(m_options.conversion);
        m_result.geometry = geometry_of(m_options.conversion);
        m_result.firmware_path = m_settings.in_firmware;
        m_result.target_path = m_options.target;
        m_result.opinion.asked = m_options.second_opinion;
        m_result.warnings = m_options.warnings;
        if (!open_firmware() || !open_target())
            return finished();
        if (m_result.target_kind == "dump")
            return run_dump_check(m_options, m_target, m_result, m_progress);
        if (!names_are_in_firmware())
            return finished();
        compare();
        if (!m_result.error) {
            judge_rest();
            ask_second_opinion();
        }
        settle();
        return finished();
    }

private:
    bool fail(const std::string& reason) {
        if (!m_result.error)
            m_result.error = reason;
        return false;
    }

    CheckResult finished() {
        if (m_result.error)
            m_result.verdict = Verdict::kTrouble;
        return m_result;
    }

    bool open_firmware() {
        struct stat status {};
        if (const auto reason = refused_firmware(m_settings.in_firmware, status))
            return fail(*reason);
        m_firmware = FileIdentity(status);
        m_result.firmware_bytes = static_cast<uint64_t>(status.st_size);
        return true;
    }

    bool open_target() {
        const std::string& path = m_options.target;
        struct stat status {};
        if (path != "-") {
            if (retry_interrupted([&] { return ::stat(path.c_str(), &status); }) != 0)
                return fail(path + " failed to access: " + error_text(errno));
            if (S_ISDIR(status.st_mode)) {
                m_result.target_kind = "directory";
                m_directory = path.ends_with("/") ? path : path + "/";
                return true;
            }
            if (m_firmware.is(status))
                return fail(path + " is the firmware itself");
        }
        if (const auto reason = m_target.open_or_reason(path))
            return fail(*reason);
        m_result.target_kind = !m_result.geometry.whole_image             ? "dump"
                               : m_target.kind() == Target::Kind::kFile   ? "image"
                               : m_target.kind() == Target::Kind::kDevice ? "device"
                                                                          : "stream";
        m_result.past_the_cache = m_target.past_the_cache();
        return true;
    }

    /// Before the target is read, which may take long. What is wrong with the firmware is said by the
    /// conversion.
    bool names_are_in_firmware() {
        if (!m_choice.has_names())
            return true;
        const auto names = names_of_written_items(m_settings.in_firmware);
        return !names || are_known(*names);
    }

    bool are_known(const std::vector<std::string>& words) {
        const std::optional<std::string> unknown = m_choice.unknown_name(words);
        return !unknown || fail("no part has the name '" + *unknown + "'");
    }

    ComparisonPlan plan() {
        ComparisonPlan plan;
        plan.firmware = m_firmware;
        plan.directory = m_directory;
        plan.target = m_directory.empty() ? &m_target : nullptr;
        plan.geometry = m_result.geometry;
        plan.max_runs = m_options.max_differences;
        return plan;
    }

    void compare() {
        ComparisonPlan watched = plan();
        if (m_result.geometry.spare_areas && m_options.second_opinion)
            watched.watch = [this](const std::string& file, std::span<const uint8_t> bytes) {
                judge_pages(file, bytes);
            };
        watched.is_ignored = [this](const OutputPart& part) {
            return m_choice.is_ignored(option_word(part));
        };
        if (m_progress)
            watched.progress = [this](uint64_t bytes) { m_progress(m_done += bytes, expected_total()); };
        m_comparison = std::make_unique<Comparison>(watched);
        const ConversionRun run = compare_conversion(m_options.conversion, *m_comparison);
        finish_pages();
        add_page_opinions();
        m_result.parts = m_comparison->results();
        // The conversion takes a file that was given up for one that it failed to write.
        m_given_up = failed_to_write(run, m_comparison->given_up_file(), ENOSPC);
        if (!run.done && !m_given_up)
            fail(run.reason);
    }

    /// What the target has, for the progress.
    uint64_t expected_total() const { return m_directory.empty() ? m_target.size() : 0; }

    void judge_pages(const std::string& file, std::span<const uint8_t> bytes) {
        if (is_ignored_file(file))
            return;
        if (bytes.empty()) {
            finish_pages();
            const Geometry& g = m_result.geometry;
            m_page_opinions.erase(file);  // of an item of the same name, which this one replaces
            m_judge = std::make_unique<SlcOpinion>(file, g.page, g.page_data, m_settings.page_list ? 1 : 4,
                                                   m_page_opinions[file]);
        }
        m_judge->take(bytes);
    }

    void finish_pages() {
        if (m_judge)
            m_judge->finish();
        m_judge.reset();
    }

    void add_page_opinions() {
        for (const auto& [file, opinion] : m_page_opinions)
            add_opinion(m_result.opinion, opinion);
    }

    /// What the target has beside and after what the firmware gives.
    void judge_rest() {
        if (!m_directory.empty()) {
            find_extra_files();
            return;
        }
        if (m_given_up)
            return;  // the image that the firmware gives ends after the target
        m_result.rest.offset = m_comparison->image_size();
        if (m_target.size() <= m_result.rest.offset)
            return;
        m_result.rest.bytes = m_target.size() - m_result.rest.offset;
        look_at_rest(m_target.size());
    }

    void look_at_rest(uint64_t end) {
        RestOfTarget& rest = m_result.rest;
        if (!m_options.strict && m_target.kind() == Target::Kind::kDevice)
            end = std::min(end, rest.offset + kLookedAtOfRest);
        ByteBuffer block(kLookedAtOfRest / 64);
        if (!block)
            return;
        for (uint64_t at = rest.offset; at < end;) {
            if (const uint64_t hole = m_target.hole_at(at, end - at); hole != 0) {
                at += hole;
                continue;
            }
            const auto got = m_target.read(at, std::min(block.size(), end - at), block.data());
            if (!got || *got == 0)
                return;
            const uint8_t* first = block.data();
            const uint8_t* last = first + *got;
            if (!std::all_of(first, last, [](uint8_t byte) { return byte == 0; }) &&
                !std::all_of(first, last, [](uint8_t byte) { return byte == 0xFF; })) {
                rest.content = RestOfTarget::Content::kNotEmpty;
                return;
            }
            at += *got;
        }
        if (end == rest.offset + rest.bytes)
            rest.content = RestOfTarget::Content::kEmpty;
    }

    void find_extra_files() {
        // The directory iterator of the standard library ends the process when there is no memory.
        const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir(m_directory.c_str()), ::closedir);
        if (!directory) {
            fail(m_options.target + " failed to read: " + error_text(errno));
            return;
        }
        for (;;) {
            errno = 0;
            const dirent* entry = ::readdir(directory.get());
            if (entry == nullptr)
                break;
            const std::string name = entry->d_name;
            struct stat status {};
            const bool known = name == "." || name == ".." ||
                               std::any_of(m_result.parts.begin(), m_result.parts.end(),
                                           [&](const PartResult& part) { return part.file == name; });
            if (known || (::stat((m_directory + name).c_str(), &status) == 0 && m_firmware.is(status)))
                continue;
            if (m_result.extra.size() == kMostExtraNames)
                break;
            m_result.extra.push_back(name);
        }
        if (errno != 0 && m_result.extra.size() != kMostExtraNames)
            fail(m_options.target + " failed to read: " + error_text(errno));
        std::sort(m_result.extra.begin(), m_result.extra.end());
    }

    // ---- the second opinion ----

    void ask_second_opinion() {
        if (!m_options.second_opinion)
            return;
        const Geometry& g = m_result.geometry;
        const PageLayout layout{.page_data = g.page_data,
                                .page = g.page,
                                .spare_areas = g.spare_areas,
                                .two_kb = m_settings.page_2k};
        std::map<std::string, std::vector<Comparison::Extent>> copies;
        for (const Comparison::Extent& extent : m_comparison->extents()) {
            if (extent.written_again || is_ignored_extent(extent))
                continue;
            if (extent.part.kind == OutputPart::Kind::kGpt)
                with_target(extent, [&](Target& target) {
                    note_judged("GPT");
                    judge_gpt(part_reader(target, extent.offset, layout), m_result.opinion);
                    warn_of_remarks(extent.same);
                });
            else if (extent.part.kind == OutputPart::Kind::kBootBlock)
                with_target(extent, [&](Target& target) {
                    note_judged("boot block");
                    const std::string name = "boot block, copy " + std::to_string(extent.part.copy);
                    judge_boot_block(name, part_reader(target, extent.offset, layout),
                                     data_bytes(layout, extent.bytes), m_result.opinion);
                });
            if (extent.part.kind == OutputPart::Kind::kBootBlock)
                copies["boot block"].push_back(extent);
            if (extent.part.kind == OutputPart::Kind::kParameter)
                copies["parameter"].push_back(extent);
        }
        for (const auto& [name, extents] : copies)
            judge_equal_copies(name, extents, layout);
    }

    /// What is odd in a table. It comes from the firmware where the target has the table of the firmware.
    void warn_of_remarks(bool same) {
        for (const std::string& remark : m_result.opinion.remarks)
            m_result.warnings.push_back(
                (same ? "odd, but so by the firmware: " : "odd in the table of the target: ") + remark);
    }

    void note_judged(const std::string& what) {
        std::vector<std::string>& judged = m_result.opinion.judged;
        if (std::find(judged.begin(), judged.end(), what) == judged.end())
            judged.push_back(what);
    }

    void judge_equal_copies(const std::string& name, const std::vector<Comparison::Extent>& extents,
                            const PageLayout& layout) {
        if (extents.size() < 2)
            return;
        with_target(extents.front(), [&](Target& target) {
            note_judged(name);
            std::vector<ReadPart> readers;
            uint64_t bytes = UINT64_MAX;
            for (const Comparison::Extent& extent : extents) {
                readers.push_back(part_reader(target, extent.offset, layout));
                bytes = std::min(bytes, data_bytes(layout, extent.bytes));
            }
            judge_copies(name, readers, bytes, m_result.opinion);
        });
    }

    template <typename Use>
    void with_target(const Comparison::Extent& extent, Use use) {
        Target file;
        Target& target = m_directory.empty() ? m_target : file;
        if (!m_directory.empty() && file.open(m_directory + extent.file) != 0)
            return;  // a file that is missing has its own line
        target.clear_read_failed();
        use(target);
        if (target.read_failed())
            fail("the target failed to be read for the second opinion");
    }

    bool is_ignored_extent(const Comparison::Extent& extent) const {
        return m_choice.is_ignored(option_word(extent.part));
    }

    // ---- the answer ----

    /// Of a whole image parts are ignored, and never the file.
    bool is_ignored_file(const std::string& file) const {
        return !m_result.geometry.whole_image && m_choice.is_ignored(file.substr(0, file.rfind(".img")));
    }

    void settle() {
        uint64_t unreadable = 0;
        bool differs = false;
        for (const std::string& file : m_comparison->missing_files())
            if (!is_ignored_file(file))
                m_result.missing.push_back(file);
        for (PartResult& part : m_result.parts) {
            const bool hides_others = m_given_up && m_result.geometry.whole_image && !part.ended;
            const bool ignored = m_choice.is_ignored(part.choice);
            if (ignored && !hides_others) {
                part.verdict = Verdict::kIgnored;
                continue;
            }
            if (ignored)
                part.note = "the parts after it were not compared";
            unreadable += part.unreadable;
            differs = differs || part.verdict == Verdict::kDiffers || part.verdict == Verdict::kMissing;
        }
        // The items of an image after a part that was given up have no part.
        if (!m_result.error && !m_given_up && !are_known(option_words(m_result.parts)))
            return;
        if (unreadable != 0)
            fail(std::to_string(unreadable) + " bytes of the target failed to be read");
        if (differs && !m_result.error) {
            name_good_copies(m_result);
            diagnose(m_options.conversion, plan(), m_result);
        }
        const RestOfTarget& rest = m_result.rest;
        const bool rest_matters = m_options.strict && !m_choice.is_ignored("rest");
        if (rest_matters && rest.bytes != 0 && rest.content == RestOfTarget::Content::kUnknown)
            fail("the rest of the target failed to be read");
        m_result.rest_counts = rest_matters && rest.content == RestOfTarget::Content::kNotEmpty;
        m_result.warnings_count = m_options.strict && !m_result.warnings.empty();
        const bool extra_counts = m_options.strict && !m_result.extra.empty();
        differs = differs || m_result.rest_counts || m_result.warnings_count || extra_counts ||
                  m_result.opinion.findings_found != 0;
        m_result.verdict = differs ? Verdict::kDiffers : Verdict::kSame;
        if (const auto reason = not_compared(m_result, rest_matters); reason && !differs)
            fail(*reason);
        if (!m_result.geometry.whole_image)
            return;
        for (PartResult& part : m_result.parts)
            part.file.clear();  // there is but one
        // Without differences a gap is not worth a row, unless somebody asks for it.
        std::erase_if(m_result.parts, [&](const PartResult& part) {
            return !part.item && part.name == "gaps" && part.verdict == Verdict::kSame &&
                   !m_choice.is_asked_for("gaps");
        });
    }

    const CheckOptions& m_options;
    const StorageSettings& m_settings;
    const PartChoice m_choice;
    const CheckProgress& m_progress;
    CheckResult m_result;
    FileIdentity m_firmware;
    std::string m_directory;  // with a slash at its end; empty: m_target is the image
    Target m_target;
    std::unique_ptr<Comparison> m_comparison;
    std::unique_ptr<SlcOpinion> m_judge;
    std::map<std::string, SecondOpinion> m_page_opinions;  // by the names of the files
    uint64_t m_done = 0;
    bool m_given_up = false;  // a file or the image, because so much of it is missing
};

}  // namespace

CheckResult run_check(const CheckOptions& options, const CheckProgress& progress) {
    return Check(options, progress).run();
}
