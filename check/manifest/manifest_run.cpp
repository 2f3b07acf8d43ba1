#include "manifest_run.h"

#include "../../src/io/retry.h"
#include "../base/target.h"
#include "../comparison/conversion_run.h"
#include "../comparison/diagnosis.h"
#include "../firmware/firmware_file.h"
#include "../firmware/read_listing.h"
#include "../options/conversion_summary.h"
#include "manifest_output.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <stdexcept>
#include <sys/stat.h>
#include <system_error>

namespace {

// Bytes of a file that are read at once.
constexpr uint64_t kPiece = 128 * 1024;

// Where partitions of a whole image count from when it has no GPT.
constexpr uint32_t kStartWithoutGpt = 8192;

std::string without_directories(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

std::string without_suffix(const std::string& file) {
    return file.ends_with(".img") ? file.substr(0, file.size() - 4) : file;
}

/// One manifest from the options to the list.
class ManifestRun {
public:
    ManifestRun(const CheckOptions& options, const CheckProgress& progress)
        : m_options(options), m_firmware_path(options.conversion.settings.in_firmware), m_progress(progress) {
    }

    Manifest run() {
        m_manifest.conversion = summary_of(m_options.conversion);
        m_manifest.geometry = geometry_of(m_options.conversion);
        m_manifest.firmware_name = without_directories(m_firmware_path);
        if (!can_make_sums() || !open_firmware() ||
            !(m_options.has_target ? take_target() : take_conversion()))
            m_manifest.files.clear();
        else
            add_places();
        return m_manifest;
    }

private:
    bool fail(const std::string& reason) {
        m_manifest.error = reason;
        return false;
    }

    /// The settings of a machine can forbid the library a checksum. That is not to end a conversion half way.
    bool can_make_sums() {
        try {
            const ManifestSums tried;
            return true;
        } catch (const std::runtime_error& refusal) {
            return fail(refusal.what());
        }
    }

    bool open_firmware() {
        struct stat status {};
        if (const auto reason = refused_firmware(m_firmware_path, status))
            return fail(*reason);
        m_firmware = FileIdentity(status);
        read_listing(m_firmware_path, m_listing);  // whether the firmware is good the conversion says
        m_manifest.firmware_bytes = m_listing.firmware_bytes;
        m_manifest.firmware_version = m_listing.version;
        return true;
    }

    // ---- the files of a conversion ----

    bool take_conversion() {
        ManifestConversion output([this](uint64_t bytes) { tell(bytes); });
        ConversionRun run = run_conversion(m_options.conversion, output);
        if (!run.done)
            return fail(run.reason);
        while (output.needs_pass()) {
            const uint64_t before = output.done();
            output.start_pass();
            run = run_conversion(m_options.conversion, output);
            if (!run.done && !output.refused())
                return fail(run.reason);
            if (output.needs_pass() && output.done() <= before)
                return fail("the firmware has changed while it was read");
        }
        m_has_gpt = output.has_gpt();
        for (ManifestFileSums& file : output.files())
            add_file(file.file(), file.sums());
        return true;
    }

    void add_file(const std::string& name, ManifestSums& sums) {
        ManifestFile file;
        file.name = without_suffix(name);
        file.file = name;
        file.bytes = sums.length();
        file.sum32 = sums.sum32();
        file.crc32 = sums.crc32();
        file.sha256 = sums.sha256();
        m_manifest.files.push_back(file);
    }

    // ---- the files of a target ----

    bool take_target() {
        const std::string& path = m_options.target;
        struct stat status {};
        if (path == "-")
            return fail("--manifest takes a directory or an image, not standard input");
        if (retry_interrupted([&] { return ::stat(path.c_str(), &status); }) != 0)
            return fail(path + " failed to access: " + std::generic_category().message(errno));
        if (S_ISDIR(status.st_mode))
            return take_directory(path.ends_with("/") ? path : path + "/");
        if (!S_ISREG(status.st_mode))
            return fail(path + " is not a directory or an image");
        if (!m_manifest.geometry.whole_image)
            return fail(path + " is not a directory: a manifest is of the files of a conversion");
        return find_names() && take_file(path, without_directories(path));
    }

    bool take_directory(const std::string& directory) {
        if (!find_names())
            return false;
        return std::all_of(m_names.begin(), m_names.end(),
                           [&](const std::string& name) { return take_file(directory + name, name); });
    }

    /// Which files the conversion gives. It is stopped at the first bytes of each.
    bool find_names() {
        ManifestNames output(m_manifest.geometry.whole_image);
        const ConversionRun run = run_conversion(m_options.conversion, output);
        const bool stopped = output.refused() && run.reason.starts_with("failed to write ");
        if (!run.done && !stopped)
            return fail(run.reason);
        m_has_gpt = output.has_gpt();
        m_names = output.names();
        return true;
    }

    bool take_file(const std::string& path, const std::string& name) {
        Target file;
        if (const int error = file.open(path); error != 0)
            return fail(path + " failed to open: " + std::generic_category().message(error));
        if (file.kind() != Target::Kind::kFile)
            return fail(path + " is not a file");
        if (file.identity().device == m_firmware.device && file.identity().inode == m_firmware.inode)
            return fail(path + " is the firmware itself");
        ManifestSums sums;
        if (!add_bytes(file, sums))
            return fail(path + " failed to read: " + std::generic_category().message(errno));
        add_file(name, sums);
        return true;
    }

    bool add_bytes(Target& file, ManifestSums& sums) {
        if (m_piece.size() == 0 && !m_piece.reset(kPiece))
            throw std::bad_alloc();
        while (sums.length() < file.size()) {
            const uint64_t before = sums.length();
            const uint64_t left = file.size() - before;
            if (const uint64_t hole = file.hole_at(before, left); hole != 0) {
                sums.add_zeros(std::min(hole, left));
            } else {
                const auto got = file.read(before, std::min(left, kPiece), m_piece.data());
                if (!got)
                    return false;
                if (*got == 0) {
                    errno = EIO;  // the file has become shorter
                    return false;
                }
                sums.add(m_piece.data(), *got);
            }
            tell(sums.length() - before);
        }
        return true;
    }

    void tell(uint64_t bytes) {
        if (m_progress)
            m_progress(m_done += bytes, 0);
    }

    // ---- places ----

    /// Sectors of a partition of the firmware's table that begins at this sector.
    static ManifestRange sectors_of(const ListedItem& item, uint32_t first) {
        ManifestRange range{.first = first};
        if (item.partition_sectors != kGrows && item.partition_sectors != 0)
            range.last = range.first + item.partition_sectors - 1;
        return range;
    }

    /// The items that the conversion writes, in its order.
    std::vector<ListedItem> written_items() const {
        std::vector<ListedItem> written = m_listing.items;
        std::erase_if(written, [](const ListedItem& item) {
            return item.kind == ItemKind::kEmpty || item.kind == ItemKind::kNotPlaced;
        });
        return written;
    }

    void add_places() {
        const std::vector<ListedItem> items = written_items();
        if (m_manifest.geometry.whole_image)
            add_partitions(items);
        else
            add_places_of_files(items);
    }

    void add_partitions(const std::vector<ListedItem>& items) {
        for (ManifestFile& file : m_manifest.files)
            if (file.bytes != 0)
                file.sectors = {0, (file.bytes - 1) / kSector};
        const uint32_t start = m_has_gpt ? 0 : kStartWithoutGpt;
        for (const ListedItem& item : items) {
            const bool table = item.kind == ItemKind::kParameter;
            m_manifest.partitions.push_back({table && m_has_gpt ? "gpt" : item.name,
                                             sectors_of(item, item.first_sector + start)});  // wraps
        }
    }

    /// The boot block's file is the first one, and each item has one after it. Of files with one name the
    /// last one stays.
    void add_places_of_files(const std::vector<ListedItem>& items) {
        std::vector<ManifestFile>& files = m_manifest.files;
        for (std::size_t i = 0; i < items.size() && i + 1 < files.size(); ++i) {
            files[i + 1].sectors = sectors_of(items[i], items[i].first_sector);
            files[i + 1].blocks = blocks_of(*files[i + 1].sectors);
        }
        std::vector<ManifestFile> last;
        for (auto file = files.begin(); file != files.end(); ++file)
            if (std::none_of(file + 1, files.end(),
                             [&](const ManifestFile& later) { return later.file == file->file; }))
                last.push_back(*file);
        files = last;
    }

    /// With 2 KB of data in a larger page the table does not tell.
    std::optional<ManifestRange> blocks_of(const ManifestRange& sectors) const {
        const StorageSettings& settings = m_options.conversion.settings;
        const uint64_t block = uint64_t{settings.block_size} * 1024 / kSector;
        if (block == 0 || (settings.page_2k && settings.page_size > 2))
            return std::nullopt;
        ManifestRange blocks{.first = sectors.first / block};
        if (sectors.last)
            blocks.last = *sectors.last / block;
        return blocks;
    }

    const CheckOptions& m_options;
    const std::string& m_firmware_path;
    const CheckProgress& m_progress;
    Manifest m_manifest;
    Listing m_listing;
    FileIdentity m_firmware;
    std::vector<std::string> m_names;  // with an entry for each opening
    bool m_has_gpt = false;
    ByteBuffer m_piece;
    uint64_t m_done = 0;
};

}  // namespace

Manifest run_manifest(const CheckOptions& options, const CheckProgress& progress) {
    return ManifestRun(options, progress).run();
}
