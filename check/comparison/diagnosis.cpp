#include "diagnosis.h"

#include "../base/usual_sizes.h"
#include "../judge/part_reader.h"
#include "conversion_run.h"
#include "other_firmware.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace {

// A difference of fewer bytes is damage and not another option.
constexpr uint64_t kSmallestDifference = 256;

// Another option is named when it leaves at most one in this many of the bytes that differ.
constexpr uint64_t kExplains = 8;

// And no more than this, so that a run with options that explain nothing ends soon.
constexpr uint64_t kMostLeft = 4 * 1024 * 1024;

// Bytes of the boot block and of the table that are looked at for a key and for another tool's changes.
constexpr std::size_t kMostCaptured = 4 * 1024 * 1024;

// Most bytes of other parts that are taken before these come. A firmware can have terabytes before its table.
constexpr uint64_t kMostBefore = 1024 * 1024 * 1024;

/// Bytes that are not what the firmware gives, those that are missing or too many included.
uint64_t wrong_bytes(const std::vector<PartResult>& parts) {
    uint64_t wrong = 0;
    for (const PartResult& part : parts)
        if (part.verdict != Verdict::kIgnored)
            wrong += part.differing + part.missing + part.surplus +
                     (part.verdict == Verdict::kMissing ? part.bytes : 0);
    return wrong;
}

/// Nothing when the conversion with these options explains no more.
std::optional<uint64_t> wrong_bytes_with(const ConversionOptions& options, ComparisonPlan plan,
                                         uint64_t limit) {
    plan.geometry = geometry_of(options);
    plan.give_up_at = limit + 1;
    plan.watch = {};
    plan.progress = {};
    Comparison comparison(plan);
    const ConversionRun run = compare_conversion(options, comparison);
    const uint64_t wrong = wrong_bytes(comparison.results());
    return run.done && wrong <= limit ? std::optional<uint64_t>(wrong) : std::nullopt;
}

std::string kilobytes(uint32_t size) {
    return std::to_string(size) + " KB";
}

/// Keeps the first bytes of the first boot block and of the partition table that a conversion gives.
class Capture : public OutputReceiver {
public:
    int open(const std::string& path, OpenMode /*mode*/, uint64_t& size) override {
        size = 0;
        m_file = path;
        m_kind = OutputPart::Kind::kGap;
        return is_complete() ? ECANCELED : 0;
    }
    int bytes(uint64_t offset, const uint8_t* bytes, uint64_t count) override {
        Captured* part = current();
        if (part == nullptr) {
            m_others += count;
            return is_complete() || m_others > kMostBefore ? ECANCELED : 0;
        }
        if (part->bytes.empty()) {
            part->file = m_file;
            part->offset = offset;
        }
        if (offset == part->offset + part->bytes.size())
            part->bytes.insert(
                part->bytes.end(), bytes,
                bytes +
                    std::min<uint64_t>(count, kMostCaptured - std::min(kMostCaptured, part->bytes.size())));
        return 0;
    }
    int zeros(uint64_t /*offset*/, uint64_t /*count*/) override { return EINVAL; }
    uint64_t zeros_from() const override { return kNoZeros; }
    int end(uint64_t /*size*/) override { return 0; }
    int close() override { return 0; }
    bool takes_parts() const override { return true; }
    void begin_part(const OutputPart& part) override {
        m_kind = part.kind;
        m_copy = part.copy;
        m_has_parameter = m_has_parameter || part.kind == OutputPart::Kind::kParameter;
    }

    struct Captured {
        std::string file;
        uint64_t offset = 0;
        std::vector<uint8_t> bytes;
    };
    Captured boot_block;
    Captured gpt;

private:
    Captured* current() {
        if (m_kind == OutputPart::Kind::kBootBlock && m_copy == 1)
            return &boot_block;
        return m_kind == OutputPart::Kind::kGpt ? &gpt : nullptr;
    }

    /// Nothing more is wanted. A firmware has a table or parameter copies.
    bool is_complete() const { return !boot_block.bytes.empty() && (!gpt.bytes.empty() || m_has_parameter); }

    std::string m_file;
    OutputPart::Kind m_kind = OutputPart::Kind::kGap;
    uint32_t m_copy = 0;
    bool m_has_parameter = false;
    uint64_t m_others = 0;  // bytes of parts that are not wanted
};

/// The bytes of the target at the place of what was captured; fewer where the target ends.
std::vector<uint8_t> bytes_of_target(const ComparisonPlan& plan, const Capture::Captured& part) {
    Target file;
    Target* target = plan.target;
    if (target == nullptr) {
        if (file.open(plan.directory + part.file) != 0)
            return {};
        target = &file;
    }
    std::vector<uint8_t> bytes(part.bytes.size());
    bytes.resize(target->read(part.offset, bytes.size(), bytes.data()).value_or(0));
    return bytes;
}

/// The data of pages without spare areas and fill.
std::vector<uint8_t> data_of(const std::vector<uint8_t>& pages, const PageLayout& layout) {
    std::vector<uint8_t> data;
    for (uint64_t position = 0;;) {
        uint64_t together = 0;
        const uint64_t place = place_of_data(layout, position, together);
        if (place >= pages.size())
            return data;
        together = std::min(together, pages.size() - place);
        data.insert(data.end(), pages.begin() + static_cast<std::ptrdiff_t>(place),
                    pages.begin() + static_cast<std::ptrdiff_t>(place + together));
        position += together;
    }
}

/// True when all sectors that differ do so by the same bytes: each sector is scrambled with a keystream that
/// starts anew, so another key shows as one XOR of all of them. The last sector of a stage is scrambled up to
/// the end of the stage.
bool is_another_key(const std::vector<uint8_t>& expected, const std::vector<uint8_t>& actual) {
    constexpr std::size_t kSize = kSector;
    std::vector<uint8_t> difference;
    uint64_t scrambled = 0;
    for (std::size_t at = 0; at + kSize <= std::min(expected.size(), actual.size()); at += kSize) {
        std::vector<uint8_t> now(kSize);
        for (std::size_t i = 0; i < kSize; ++i)
            now[i] = expected[at + i] ^ actual[at + i];
        if (std::all_of(now.begin(), now.end(), [](uint8_t byte) { return byte == 0; }))
            continue;
        if (difference.empty())
            difference = now;
        const auto scrambled_end =
            std::find_if(now.rbegin(), now.rend(), [](uint8_t byte) { return byte != 0; }).base();
        if (!std::equal(now.begin(), scrambled_end, difference.begin()))
            return false;
        ++scrambled;
    }
    const auto zeros = std::count(difference.begin(), difference.end(), uint8_t{0});
    return scrambled >= 2 && zeros < static_cast<std::ptrdiff_t>(kSize / 16);
}

// Places in the first sectors of a disk with a GPT.
constexpr std::size_t kHeader = kSector;
constexpr std::size_t kHeaderChecksum = kHeader + 16;
constexpr std::size_t kBackupSector = kHeader + 32;
constexpr std::size_t kLastUsable = kHeader + 48;
constexpr std::size_t kDiskGuid = kHeader + 56;
constexpr std::size_t kArrayChecksum = kHeader + 88;
constexpr std::size_t kEntries = 2 * kSector;
constexpr std::size_t kEntrySize = 128;
constexpr std::size_t kEntryGuid = 16;
constexpr std::size_t kGuidSize = 16;
constexpr std::size_t kEntryLastSector = 40;
constexpr std::size_t kEntryName = 56;
constexpr std::size_t kTableEnd = kEntries + 128 * kEntrySize;

/// Which bytes of a table may differ for a reason: the rest has to be equal.
bool equal_but(const std::vector<uint8_t>& expected, const std::vector<uint8_t>& actual, bool guids,
               bool disk_size) {
    if (expected.size() < kTableEnd || actual.size() < kTableEnd)
        return false;
    std::vector<bool> free(kTableEnd, false);
    const auto release = [&](std::size_t at, std::size_t size) {
        std::fill_n(free.begin() + static_cast<std::ptrdiff_t>(at), size, true);
    };
    release(kHeaderChecksum, 4);
    release(kArrayChecksum, 4);
    if (guids) {
        release(kDiskGuid, kGuidSize);
        for (std::size_t entry = kEntries; entry < kTableEnd; entry += kEntrySize)
            release(entry + kEntryGuid, kGuidSize);
    }
    if (disk_size) {
        release(0, kSector);  // the protective MBR spans the disk
        release(kBackupSector, 8);
        release(kLastUsable, 8);
        for (std::size_t entry = kEntries; entry < kTableEnd; entry += kEntrySize) {
            const uint8_t* bytes = expected.data() + entry;
            // A partition that grows ends where the disk does.
            if (std::memcmp(bytes + kEntryLastSector, expected.data() + kLastUsable, 8) == 0)
                release(entry + kEntryLastSector, 8);
            // A tool that writes the table again drops the flags, which stand after the end of the name.
            std::size_t name_end = kEntryName;
            while (name_end < kEntrySize && (bytes[name_end] != 0 || bytes[name_end + 1] != 0))
                name_end += 2;
            release(entry + name_end, kEntrySize - name_end);
        }
    }
    for (std::size_t i = 0; i < kTableEnd; ++i)
        if (!free[i] && expected[i] != actual[i])
            return false;
    return true;
}

void look_at_parts(const ConversionOptions& options, const ComparisonPlan& plan, CheckResult& result) {
    Capture capture;
    run_conversion(options, capture);
    const Geometry geometry = geometry_of(options);
    const PageLayout layout{.page_data = geometry.page_data,
                            .page = geometry.page,
                            .spare_areas = geometry.spare_areas,
                            .two_kb = options.settings.page_2k};
    const std::vector<uint8_t> boot_block = bytes_of_target(plan, capture.boot_block);
    if (boot_block != capture.boot_block.bytes &&
        is_another_key(data_of(capture.boot_block.bytes, layout), data_of(boot_block, layout)))
        result.diagnoses.push_back({"rc4-key", "the boot block was built with another key"});

    const auto table_of = [&](const std::vector<uint8_t>& pages) {
        std::vector<uint8_t> table = data_of(pages, layout);
        table.resize(std::min(table.size(), kTableEnd));  // without the padding
        return table;
    };
    const std::vector<uint8_t> expected = table_of(capture.gpt.bytes);
    const std::vector<uint8_t> actual = table_of(bytes_of_target(plan, capture.gpt));
    if (expected == actual)
        return;
    if (equal_but(expected, actual, true, false))
        result.diagnoses.push_back(
            {"gpt-guids", "only GUIDs of the GPT differ: it was made on a machine with another C library"});
    else if (equal_but(expected, actual, false, true))
        result.diagnoses.push_back({"gpt-adapted",
                                    "the GPT was adapted to the size of the device; "
                                    "the partitions are unchanged, but one that grows ends with the disk"});
}

bool target_is_blank(const ComparisonPlan& plan, const CheckResult& result) {
    if (plan.target != nullptr)
        return is_blank(*plan.target);
    std::vector<std::string> files;
    for (const PartResult& part : result.parts)
        if (part.compared != 0 && std::find(files.begin(), files.end(), part.file) == files.end())
            files.push_back(part.file);
    return !files.empty() && std::all_of(files.begin(), files.end(), [&](const std::string& name) {
        Target file;
        return file.open(plan.directory + name) == 0 && is_blank(file);
    });
}

}  // namespace

std::vector<Candidate> candidates_for(const ConversionOptions& given) {
    std::vector<Candidate> candidates;
    const StorageSettings& s = given.settings;
    const auto add = [&](const StorageSettings& settings, const std::string& code, const std::string& text) {
        candidates.push_back({{.type = given.type, .settings = settings}, {code, text}});
    };
    StorageSettings other = s;
    other.page_2k = !s.page_2k;
    add(other, "2k-data",
        std::string("made ") + (s.page_2k ? "without" : "with") + " -2 (2 KB of data in a page)");
    if (given.type->needs_spare) {
        other = s;
        other.page_list = !s.page_list;
        add(other, "page-list", std::string("made ") + (s.page_list ? "without" : "with") + " --page_list");
    }
    for (const uint32_t size : kUsualBlockSizes) {
        other = s;
        other.block_size = size;
        if (size != s.block_size)
            add(other, "block-size",
                "made for erase blocks of " + kilobytes(size) + " (-b " + std::to_string(size) + ")");
    }
    for (const uint32_t page : kUsualPageSizes) {
        other = s;
        other.page_size = page;
        const std::string text = "made for pages of " + kilobytes(page) + " (-p " + std::to_string(page);
        if (!given.type->needs_spare && page != s.page_size)
            add(other, "page-or-spare-size", text + ")");
        if (!given.type->needs_spare)
            continue;
        std::vector<uint32_t> spares(std::begin(kUsualSpareSizes), std::end(kUsualSpareSizes));
        spares.insert(spares.begin(), s.oob_size);
        for (const uint32_t spare : spares) {
            other.oob_size = spare;
            const bool same = page == s.page_size && spare == s.oob_size;
            if (!same && spare >= page * 32)
                add(other, "page-or-spare-size",
                    text + ") with " + std::to_string(spare) + " bytes of spare area (-s " +
                        std::to_string(spare) + ")");
        }
    }
    return candidates;
}

bool is_blank(Target& target) {
    constexpr uint64_t kPlaces = 256;
    std::vector<uint8_t> bytes(4096);
    std::optional<uint8_t> value;
    if (target.size() == 0)
        return false;
    for (uint64_t place = 0; place < kPlaces; ++place) {
        const auto got = target.read(target.size() / kPlaces * place, bytes.size(), bytes.data());
        if (!got || *got == 0)
            return false;
        if (!value)
            value = bytes[0];
        const auto end = bytes.begin() + static_cast<std::ptrdiff_t>(*got);
        if ((*value != 0 && *value != 0xFF) ||
            !std::all_of(bytes.begin(), end, [&](uint8_t byte) { return byte == *value; }))
            return false;
    }
    return true;
}

Geometry geometry_of(const ConversionOptions& options) {
    const StorageSettings& s = options.settings;
    Geometry geometry;
    const std::string type = options.type != nullptr ? options.type->word : "";
    geometry.whole_image = type == "emmc" || type == "spinor";
    geometry.spare_areas = type == "slc";
    geometry.page_data = std::max<uint64_t>(uint32_t{s.page_size << 10}, 1);  // wraps, as in the conversion
    geometry.page = geometry.page_data + (geometry.spare_areas ? s.oob_size : 0);
    const uint64_t pages = std::max<uint64_t>(uint32_t{s.block_size << 10} / geometry.page_data, 1);
    geometry.block = pages * geometry.page;
    return geometry;
}

void name_good_copies(CheckResult& result) {
    const auto copies_of = [&](const std::string& prefix) {
        std::vector<PartResult*> copies;
        for (PartResult& part : result.parts)
            if (!part.item && part.name.starts_with(prefix) && part.verdict != Verdict::kIgnored)
                copies.push_back(&part);
        return copies;
    };
    bool found = false;
    for (const std::string prefix : {"boot block, copy ", "parameter, copy "}) {
        const std::vector<PartResult*> copies = copies_of(prefix);
        const auto good = std::find_if(copies.begin(), copies.end(), [](const PartResult* part) {
            return part->verdict == Verdict::kSame;
        });
        if (good == copies.end())
            continue;
        for (PartResult* part : copies)
            if (part->verdict == Verdict::kDiffers) {
                part->note = (*good)->name.substr((*good)->name.rfind("copy ")) + " is good";
                found = true;
            }
    }
    if (found)
        result.diagnoses.push_back({"copy-good", "another copy of what differs is good"});
}

void diagnose(const ConversionOptions& options, const ComparisonPlan& plan, CheckResult& result) {
    const uint64_t wrong = wrong_bytes(result.parts);
    if (target_is_blank(plan, result)) {
        result.diagnoses.push_back(
            {"blank", "nothing was written here: all bytes that were looked at are 0 or 0xFF"});
        return;
    }
    look_at_parts(options, plan, result);
    const bool lengths = std::any_of(result.parts.begin(), result.parts.end(), [](const PartResult& part) {
        return part.verdict != Verdict::kIgnored && part.missing + part.surplus != 0;
    });
    if (wrong < kSmallestDifference && !lengths)
        return;
    const Candidate* best = nullptr;
    uint64_t limit = std::min(wrong / kExplains, kMostLeft);
    const std::vector<Candidate> candidates = candidates_for(options);
    for (const Candidate& candidate : candidates) {
        const auto left = wrong_bytes_with(candidate.options, plan, limit);
        if (!left)
            continue;
        best = &candidate;
        if (*left == 0)
            break;
        limit = *left - 1;
    }
    if (best != nullptr)
        result.diagnoses.push_back(best->diagnosis);
    else if (result.diagnoses.empty() && is_other_firmware(options, plan, result))
        result.diagnoses.push_back(
            {"other-firmware", "most of it differs: it was made from another firmware"});
}
