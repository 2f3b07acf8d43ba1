#include "../src/common/rc4_key.h"
#include "../src/io/retry.h"
#include "base/words.h"
#include "check.h"
#include "chip/ecc_run.h"
#include "extraction/extraction.h"
#include "firmware/read_listing.h"
#include "manifest/manifest_run.h"
#include "options/conversion_summary.h"
#include "options/options.h"
#include "report/ecc_report.h"
#include "report/extraction_report.h"
#include "report/listing_report.h"
#include "report/progress_line.h"
#include "report/report.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <new>
#include <string>
#include <string_view>
#include <system_error>
#include <unistd.h>

namespace {

std::string version_text() {
    return std::string("nandsmith-check 1.0\nRC4 key: ") + build_key_kind() + "\n";
}

/// Writes all of text. False, with errno set, when that failed.
bool write_all(int descriptor, const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t count =
            retry_interrupted([&] { return ::write(descriptor, text.data() + done, text.size() - done); });
        if (count <= 0)
            return false;
        done += static_cast<std::size_t>(count);
    }
    return true;
}

void warn(const CheckOptions& options, const std::string& text) {
    if (!options.quiet)
        write_all(STDERR_FILENO, "nandsmith-check: " + text + "\n");
}

bool wants(When when, int descriptor) {
    if (when == When::kAuto)
        return ::isatty(descriptor) != 0;
    return when == When::kAlways;
}

bool wants_color(const CheckOptions& options) {
    const char* no_color = std::getenv("NO_COLOR");
    if (options.color == When::kAuto && no_color != nullptr && *no_color != '\0')
        return false;
    return wants(options.color, STDOUT_FILENO);
}

/// Writes what a run has found. False when it does not arrive whole.
bool put(const CheckOptions& options, const std::string& text) {
    if (options.quiet || write_all(STDOUT_FILENO, text))
        return true;
    warn(options, "the report failed to be written: " + std::generic_category().message(errno));
    return false;
}

bool put_json(const CheckOptions& options, const std::string& text) {
    if (options.json_file.empty())
        return put(options, text);
    const int file = ::open(options.json_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    const bool written = file >= 0 && write_all(file, text);
    const int error = errno;
    if (file >= 0 && ::close(file) == 0 && written)
        return true;
    warn(options, options.json_file + " failed to be written: " + std::generic_category().message(error));
    return false;
}

using MakeReport = std::function<std::string()>;

/// Writes the reports that are asked for. Returns the exit status.
int report(const CheckOptions& options, Status status, const MakeReport& text, const MakeReport& json) {
    bool written = true;
    if (options.json)
        written = put_json(options, json());
    if (!options.json || !options.json_file.empty())
        written = put(options, text()) && written;
    return written ? status : kStatusTrouble;
}

ReportStyle style_of(const CheckOptions& options) {
    return {wants_color(options), options.verbose};
}

int report(const CheckOptions& options, const CheckResult& result) {
    return report(
        options, result.status(), [&] { return text_report(result, style_of(options)); },
        [&] { return json_report(result); });
}

int report(const CheckOptions& options, const EccResult& result) {
    return report(
        options, result.status(), [&] { return ecc_text(result, style_of(options)); },
        [&] { return ecc_json(result); });
}

int report(const CheckOptions& options, const ExtractionResult& result) {
    return report(
        options, result.status(), [&] { return extraction_text(result, style_of(options)); },
        [&] { return extraction_json(result); });
}

/// A list in place of a report. What the trouble is goes to standard error, unless a document says it.
int report(const CheckOptions& options, const Manifest& manifest) {
    const ManifestForm form = options.manifest_form;
    if (form != ManifestForm::kJson && manifest.error) {
        warn(options, escaped(*manifest.error));
        return kStatusTrouble;
    }
    const std::string text = form == ManifestForm::kCsv    ? manifest_csv(manifest)
                             : form == ManifestForm::kJson ? manifest_json(manifest)
                                                           : manifest_sums(manifest);
    return put(options, text) ? manifest.status() : kStatusTrouble;
}

Manifest manifest_trouble(const CheckOptions& options) {
    Manifest manifest;
    manifest.conversion = summary_of(options.conversion);
    manifest.error = options.error;
    return manifest;
}

CheckResult trouble(const CheckOptions& options, const std::string& reason) {
    CheckResult result;
    result.firmware_path = options.conversion.settings.in_firmware;
    result.target_path = options.target;
    result.geometry.page = result.geometry.block = result.geometry.page_data = 1;
    result.opinion.asked = false;
    result.error = reason;
    result.verdict = Verdict::kTrouble;
    return result;
}

int list(const CheckOptions& options) {
    Listing listing;
    const std::string& firmware = options.conversion.settings.in_firmware;
    if (const auto reason = read_listing(firmware, listing))
        return report(options, trouble(options, *reason));
    return report(
        options, kStatusSame, [&] { return text_listing(listing, wants_color(options)); },
        [&] { return json_listing(listing); });
}

/// Reports what run(options, progress) finds.
template <typename Run>
int report_run(const CheckOptions& options, Run run) {
    if (options.quiet || !wants(options.progress, STDERR_FILENO))
        return report(options, run(options, CheckProgress{}));
    ProgressLine line;
    const auto result = run(options, [&line](uint64_t done, uint64_t total) { line.show(done, total); });
    line.clear();
    return report(options, result);
}

int run(const CheckOptions& options) {
    if (options.error && options.action == Action::kManifest && !options.json)
        return report(options, manifest_trouble(options));
    if (options.error)
        return report(options, trouble(options, *options.error));
    for (const std::string& warning : options.warnings)
        warn(options, warning);
    switch (options.action) {
    case Action::kVersion:
        return put(options, version_text()) ? kStatusSame : kStatusTrouble;
    case Action::kHelp:
        return put(options, check_help()) ? kStatusSame : kStatusTrouble;
    case Action::kList:
        return list(options);
    case Action::kEcc:
        return report_run(options, run_ecc);
    case Action::kExtract:
        return report_run(options, [](const CheckOptions& asked, const CheckProgress& progress) {
            return run_extraction(asked, progress);
        });
    case Action::kManifest:
        return report_run(options, run_manifest);
    case Action::kCheck:
        break;
    }
    return report_run(options, run_check);
}

/// Opens closed standard descriptors: a target with such a descriptor would get the report.
void occupy_standard_descriptors() {
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor)
        // A descriptor that was closed stays of no use: what is written to it fails.
        if (::fcntl(descriptor, F_GETFD) < 0)
            ::open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY);
}

}  // namespace

int main(int argc, char* argv[]) {
    occupy_standard_descriptors();
    std::signal(SIGPIPE, SIG_IGN);  // a report that nobody reads is trouble, like one on a full disk
    std::signal(SIGXFSZ, SIG_IGN);
    CheckOptions options;
    try {
        options = parse_check_options(argc, argv);
        return run(options);
    } catch (const std::bad_alloc&) {
        constexpr std::string_view kLine = "nandsmith-check: out of memory\n";  // no memory is needed for it
        if (!options.quiet && ::write(STDERR_FILENO, kLine.data(), kLine.size()) < 0)
            return kStatusTrouble;
    } catch (const std::exception& exception) {
        warn(options, exception.what());
    }
    return kStatusTrouble;
}
