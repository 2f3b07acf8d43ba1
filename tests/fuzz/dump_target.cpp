// The dump of a chip in nandsmith-check: an input bends the right dump, which is then held against its
// firmware, judged by its parity and extracted. What has to come out is known where the input only flips
// bits.

#include "check/check.h"
#include "check/chip/dump_layout.h"
#include "check/chip/ecc_run.h"
#include "check/extraction/extraction.h"
#include "check/report/ecc_report.h"
#include "check/report/extraction_report.h"
#include "check/report/report.h"
#include "fuzz_target.h"
#include "right_target.h"
#include "small_firmware.h"
#include "support/plain_data.h"

#include <algorithm>
#include <bit>
#include <limits>
#include <nlohmann/json.hpp>
#include <set>

namespace robustness {

using namespace test_support;

namespace {

// ---- right dumps ----

struct ChipSizes {
    uint32_t block_kb = 0;
    uint32_t page_kb = 0;
    uint32_t spare = 0;
    bool two_kb = false;
    bool page_list = false;
    uint32_t dump_spare = 0;
};

struct Chip {
    CheckOptions options;  // of a check that has to end in "same"
    Bytes dump;            // the files one after another, then erased blocks
    Files data;            // that an extraction gives
    std::size_t page = 0;  // bytes of a page in the dump
    std::size_t block = 0;
    std::size_t used = 0;                        // bytes of the files
    std::map<std::string, std::size_t> first{};  // block of a part

    bool has_parity() const { return options.conversion.type->needs_spare; }
};

constexpr uint8_t kErased = 0xFF;
constexpr std::size_t kErasedBlocks = 6;

Chip chip_of(const fs::path& top, const std::string& type, const Firmware& firmware, const ChipSizes& sizes) {
    const fs::path output = top / "out";
    fs::create_directories(output);
    write_file(top / "fw.img", firmware.build());
    Chip chip;
    CheckOptions& options = chip.options;
    options.conversion = {
        &*std::ranges::find(storage_types(), type, &StorageType::word),
        {sizes.block_kb, sizes.page_kb, sizes.spare, top / "fw.img", output, sizes.two_kb, sizes.page_list}};
    options.chip.dump_spare = sizes.dump_spare;
    options.chip.extract_directory = top / "data";
    convert_to_files(options.conversion);

    const std::size_t page = sizes.page_kb * kIb + (chip.has_parity() ? sizes.spare : 0);
    chip.page = page + sizes.dump_spare;
    chip.block = sizes.block_kb / sizes.page_kb * chip.page;
    for (const auto& [name, file] : files_in(output)) {
        chip.first[name.substr(0, name.find(".img"))] = chip.dump.size() / chip.block;
        for (std::size_t at = 0; at < file.size(); at += page) {
            put_bytes(chip.dump, slice(file, at, page));
            chip.dump.resize(chip.dump.size() + sizes.dump_spare, kErased);
        }
        chip.dump = padded(std::move(chip.dump), chip.block, kErased);
    }
    chip.used = chip.dump.size();
    chip.dump.resize(chip.used + kErasedBlocks * chip.block, kErased);
    chip.data = plain_data(firmware);
    if (chip.first.contains("gpt"))
        chip.data.erase("parameter.img");  // the table is there in its place
    return chip;
}

// All of them stay as long as the program runs.
const std::vector<Chip>& chips() {
    static const TemporaryDirectory top{memory_directory()};
    const auto make = [](const std::string& type, bool gpt, const ChipSizes& sizes) {
        static int count = 0;
        return chip_of(top / std::to_string(count++), type, small_firmware({.gpt = gpt}), sizes);
    };
    static const std::vector<Chip> made = {
        make("slc", true, {.block_kb = 8, .page_kb = 2, .spare = 64}),
        make("slc", false, {.block_kb = 16, .page_kb = 4, .spare = 160, .page_list = true}),
        make("slc", true, {.block_kb = 16, .page_kb = 4, .spare = 128, .two_kb = true}),
        make("spinand", true, {.block_kb = 8, .page_kb = 2}),
        make("spinand", false, {.block_kb = 8, .page_kb = 2, .dump_spare = 64}),
    };
    return made;
}

// ---- what an input changes ----

// Control bytes: the last ones of an input.
enum Control : std::size_t {
    kChip,        // and, in its upper bits, which runs there are
    kFlags,       // of ChipFlag
    kMaxFlips,    // 0: as without the option
    kBlock,       // of a place, and of a bad block
    kHeader,      // --skip and --dump-spare
    kGeometry,    // 0: the right one
    kLayoutSize,  // bytes of the layout, at the end of the body
    kRuns,        // --max-differences
    kControls
};

enum ChipFlag : unsigned {
    kRightPlace,
    kWrongPlace,
    kLayout,
    kBadBlock,
    kMostBad,
    kStrict,
    kNoOpinion,
    kForce
};

struct Bent {
    Bytes dump;
    bool only_flips = true;
    std::size_t header = 0;
};

void flip_bits(Bytes& dump, std::size_t unit, unsigned count, unsigned first) {
    constexpr unsigned step = 131;
    for (unsigned i = 0; i < count; ++i) {
        const std::size_t bit = (first + i * step) % (8 * kUnit);
        if (unit * kUnit + bit / 8 < dump.size())
            dump[unit * kUnit + bit / 8] ^= static_cast<uint8_t>(1U << bit % 8);
    }
}

Bytes block_of(const Bytes& dump, std::size_t block_bytes, uint8_t kind, uint8_t value) {
    const std::size_t start = value * block_bytes;
    if (kind % 4 == 3 && start + block_bytes <= dump.size())
        return slice(dump, start, block_bytes);
    return kind % 4 == 2 ? patterned(block_bytes, value)
                         : Bytes(block_bytes, kind % 4 == 1 ? uint8_t{0} : kErased);
}

// One change: its kind and three numbers.
void bend(Bent& bent, std::size_t block_bytes, const uint8_t* change) {
    enum Kind { kFlip, kInsert, kRemove, kReplace, kSwap, kCut, kPutHeader, kWrite, kKinds };
    Bytes& dump = bent.dump;
    const int kind = change[0] % kKinds;
    const std::size_t number = change[1] | std::size_t{change[2]} << 8;
    if (kind == kFlip)
        return flip_bits(dump, number % (dump.size() / kUnit + 1), change[3] % 64, change[0] * 33U);
    bent.only_flips = false;
    const std::size_t start = change[1] * block_bytes;
    const auto has_block_at = [&](uint8_t block) { return (block + 1U) * block_bytes <= dump.size(); };
    const bool has_block = has_block_at(change[1]);
    const auto at = dump.begin() + static_cast<std::ptrdiff_t>(std::min(start, dump.size()));
    if (kind == kInsert) {
        const Bytes block = block_of(dump, block_bytes, change[2], change[3]);
        dump.insert(at, block.begin(), block.end());
    } else if (kind == kRemove && has_block) {
        dump.erase(at, at + static_cast<std::ptrdiff_t>(block_bytes));
    } else if (kind == kReplace && has_block) {
        put_bytes_at(dump, start, block_of(dump, block_bytes, change[2], change[3]));
    } else if (kind == kSwap && has_block && has_block_at(change[2])) {
        std::swap_ranges(at, at + static_cast<std::ptrdiff_t>(block_bytes),
                         dump.begin() + static_cast<std::ptrdiff_t>(change[2] * block_bytes));
    } else if (kind == kCut) {
        dump.resize(std::min(dump.size(), start + (change[2] | std::size_t{change[3]} << 8)));
    } else if (kind == kPutHeader) {
        dump.insert(dump.begin(), change[1], change[2]);
        bent.header += change[1];
    } else if (kind == kWrite && number * 64 < dump.size()) {
        std::fill_n(dump.begin() + static_cast<std::ptrdiff_t>(number * 64),
                    std::min<std::size_t>(64, dump.size() - number * 64), change[3]);
    }
}

Bent bent_dump(const Chip& chip, const Bytes& changes) {
    constexpr std::size_t size_of_change = 4;
    Bent bent{.dump = chip.dump};
    for (std::size_t at = 0; at + size_of_change <= changes.size(); at += size_of_change)
        if (bent.dump.size() <= 2 * chip.dump.size())
            bend(bent, chip.block, changes.data() + at);
    return bent;
}

// ---- options ----

void choose_places(CheckOptions& options, const Chip& chip, const ControlBytes& controls) {
    const auto chosen = std::next(chip.first.begin(), controls[kBlock] % static_cast<int>(chip.first.size()));
    if (controls.flag(kFlags, kRightPlace))
        options.chip.at.push_back({chosen->first, chosen->second});
    if (controls.flag(kFlags, kWrongPlace))
        options.chip.at.push_back({chip.first.begin()->first, controls[kBlock]});
    if (controls.flag(kFlags, kBadBlock))
        options.chip.bad_blocks = {controls[kBlock], 300};
    if (controls.flag(kFlags, kMostBad))
        options.chip.max_bad_blocks = controls[kBlock];
}

void choose_sizes(CheckOptions& options, const ControlBytes& controls, std::size_t header) {
    const uint8_t choice = controls[kHeader];
    constexpr uint64_t none = 0;
    const uint64_t skips[] = {header, none, header + 512, 77, INT64_MAX};
    const uint64_t spares[] = {options.chip.dump_spare, 64, 1, UINT32_MAX};
    options.chip.skip = skips[choice % std::size(skips)];
    options.chip.dump_spare = spares[choice / 16 % std::size(spares)];
    struct {
        uint32_t block_kb, page_kb, spare;
    } constexpr sizes[] = {{16, 2, 64}, {8, 2, 128}, {8, 4, 128}, {1, 1, 32},       {8, 2, 63}, {9, 3, 96},
                           {0, 2, 64},  {8, 0, 64},  {2, 4, 128}, {4096, 64, 2048}, {7, 2, 65}};
    if (controls[kGeometry] == 0)
        return;
    const auto& size = sizes[controls[kGeometry] % std::size(sizes)];
    StorageSettings& settings = options.conversion.settings;
    settings.block_size = size.block_kb;
    settings.page_size = size.page_kb;
    settings.oob_size = size.spare;
}

CheckOptions options_of(const Chip& chip, const ControlBytes& controls, std::size_t header) {
    CheckOptions options = chip.options;
    choose_places(options, chip, controls);
    choose_sizes(options, controls, header);
    if (controls[kMaxFlips] != 0) {
        options.chip.max_flips = controls[kMaxFlips] % 17;
        options.chip.warn_flips = std::min<uint32_t>(controls[kMaxFlips] / 17, options.chip.max_flips);
    }
    options.strict = controls.flag(kFlags, kStrict);
    options.second_opinion = !controls.flag(kFlags, kNoOpinion);
    options.chip.force = controls.flag(kFlags, kForce);
    options.max_differences = controls[kRuns] == 0 ? 10 : controls[kRuns];
    return options;
}

// True when the options say what is so, and no more.
bool are_right(const ControlBytes& controls) {
    constexpr unsigned right_flags = 1U << kRightPlace | 1U << kMostBad | 1U << kNoOpinion | 1U << kForce;
    return (controls[kFlags] & ~right_flags) == 0 && controls[kHeader] == 0 && controls[kGeometry] == 0;
}

// ---- what holds of every result ----

constexpr auto kMostLines = 200;

void check_counts(const UnitCounts& counts) {
    uint64_t units = counts.beyond;
    uint64_t bits = 0;
    for (std::size_t flips = 0; flips < counts.flips.size(); ++flips) {
        units += counts.flips[flips];
        bits += flips * counts.flips[flips];
    }
    require(units == counts.units, "the units are not those with flips and those beyond");
    require(bits == counts.flipped_bits(), "the directions of the flips are of another number of flips");
    require(counts.foreign <= counts.beyond, "units of other data that are not beyond");
    require(counts.erased_right <= counts.erased && counts.erased <= counts.units,
            "another number of erased units");
}

void check_answer(Verdict verdict, Status status, bool has_error, const std::string& text,
                  const std::string& json) {
    require(status >= kStatusSame && status <= kStatusTrouble, "no such status");
    require(has_error == (verdict == Verdict::kTrouble), "an error without trouble, or trouble without one");
    require(std::ranges::count(text, '\n') <= kMostLines, "a report of too many lines");
    require(text.ends_with('\n') && json.ends_with('\n'), "a report without a line feed at its end");
    require(nlohmann::json::accept(json), "a report that is not JSON");
    require(std::ranges::all_of(json, [](char c) { return static_cast<unsigned char>(c) < 0x80; }),
            "JSON that is not ASCII");
}

void check_part(const PartResult& part, uint64_t most_runs) {
    check_counts(part.units);
    require(part.compared + part.missing + part.unreadable == part.bytes, "bytes of a part are not counted");
    require(part.unreadable == 0, "what can be read is unreadable");
    require(part.runs.size() == std::min(part.runs_found, most_runs), "another number of runs is listed");
    require((part.differing == 0) == (part.differing_pages == 0), "bytes differ and no page, or no byte");
    require(std::ranges::is_sorted(part.skipped, std::ranges::less_equal(), &SkippedBlock::block),
            "skipped blocks are not in their order");
}

CheckResult check(const CheckOptions& options) {
    const CheckResult result = run_check(options, {});
    check_answer(result.verdict, result.status(), result.error.has_value(), text_report(result, {}),
                 json_report(result));
    for (const PartResult& part : result.parts)
        check_part(part, options.max_differences);
    if (result.chip)
        check_counts(*result.chip);
    if (result.blocks_of_chip) {
        const ChipBlocks& blocks = *result.blocks_of_chip;
        require(blocks.used + blocks.bad + blocks.erased + blocks.other == blocks.all,
                "blocks of the chip are not counted");
    }
    return result;
}

EccResult judge(const CheckOptions& options) {
    const EccResult result = run_ecc(options, {});
    check_answer(result.verdict, result.status(), result.error.has_value(), ecc_text(result, {}),
                 ecc_json(result));
    check_counts(result.units);
    require(result.judged || result.units.units == 0, "units of a dump that was not judged");
    return result;
}

ExtractionResult extract(const CheckOptions& options, Files& files) {
    const fs::path into = options.chip.extract_directory;
    fs::remove_all(into);
    const ExtractionResult result = run_extraction(options, {});
    check_answer(result.verdict, result.status(), result.error.has_value(), extraction_text(result, {}),
                 extraction_json(result));
    files = fs::exists(into) ? files_in(into) : Files();
    fs::remove_all(into);
    std::size_t written = 0;
    for (const ExtractedPart& part : result.parts) {
        check_counts(part.counts.units);
        if (part.verdict != Verdict::kSame && part.verdict != Verdict::kDiffers)
            continue;
        ++written;
        require(files.count(part.file) != 0 && files[part.file].size() == part.bytes,
                "a file of another length than the report says");
    }
    require(written == files.size(), "files that the report does not have");
    return result;
}

// ---- what has to come out when only bits were flipped ----

// Flips by a plain comparison with the right dump.
struct PlainFlips {
    std::array<uint64_t, kCorrectableFlips + 1> units{};  // of the whole dump
    uint64_t beyond = 0;
    uint64_t of_files = 0;  // bits that lie in files
    uint64_t worst_of_files = 0;
    uint64_t all = 0;  // bits
};

uint64_t flips_in(const Bytes& right, const Bytes& dump, std::size_t from, std::size_t size) {
    uint64_t flips = 0;
    for (std::size_t at = from; at < from + size; ++at)
        flips += static_cast<uint64_t>(std::popcount(static_cast<uint8_t>(right[at] ^ dump[at])));
    return flips;
}

PlainFlips compare_plainly(const Chip& chip, const Bytes& dump) {
    PlainFlips plain;
    plain.all = flips_in(chip.dump, dump, 0, dump.size());
    const std::size_t units = chip.options.conversion.settings.page_size;
    for (std::size_t page = 0; page < dump.size(); page += chip.page)
        for (std::size_t unit = 0; chip.has_parity() && unit < units; ++unit) {
            const uint64_t flips = flips_in(chip.dump, dump, page + unit * kUnit, kUnit);
            if (flips > kCorrectableFlips)
                ++plain.beyond;
            else
                ++plain.units[flips];
            if (page >= chip.used)
                continue;
            plain.of_files += flips;
            plain.worst_of_files = std::max(plain.worst_of_files, flips);
        }
    return plain;
}

void expect_flips(const CheckResult& result, const PlainFlips& plain, uint32_t max_flips) {
    require(result.chip.has_value(), "a dump with parity whose units were not counted");
    require((result.verdict == Verdict::kSame) == (plain.worst_of_files <= max_flips),
            "another verdict than the flips ask for");
    require(result.chip->beyond == 0 && result.chip->flipped_bits() == plain.of_files,
            "another number of flips in the files");
}

void expect_data(const ExtractionResult& result, const Files& files, const Files& expected) {
    require(result.verdict == Verdict::kSame, "a right dump is extracted with another verdict");
    for (const auto& [name, bytes] : expected)
        require(files.count(name) != 0 && files.at(name) == bytes, "another file was extracted");
}

// ---- the layout ----

void read_layout(const std::string& text) {
    DumpLayout layout;
    if (layout.add_lines(text))
        return;
    std::vector<BlockWindow> windows;
    std::set<std::string> names;
    for (const std::string& name : layout.names()) {
        require(!name.empty() && names.insert(name).second, "a name without letters, or one twice");
        const auto window = layout.window_of(name);
        require(window && window->first <= window->last, "a window without blocks");
        windows.push_back(*window);
        std::vector<bool> others(600);
        layout.mark_others(name, others);
        for (uint64_t block = window->first; block <= window->last && block < others.size(); ++block)
            require(!others[block], "a block of a window belongs to another one");
    }
    std::ranges::sort(windows, {}, &BlockWindow::first);
    for (std::size_t i = 1; i < windows.size(); ++i)
        require(windows[i - 1].last < windows[i].first, "windows overlap");
}

NamedInput seed(const std::string& name, Bytes body, std::initializer_list<uint8_t> first_controls,
                const std::string& layout = {}) {
    Bytes controls = first_controls;
    controls.resize(kControls);
    controls[kLayoutSize] = static_cast<uint8_t>(layout.size());
    put_bytes(body, to_bytes(layout));
    put_bytes(body, controls);
    return {name, body};
}

}  // namespace

void run_dump(const Bytes& input) {
    static const MemoryFile target;
    static const MemoryFile layout;
    const ControlBytes controls(input, kControls);
    const Chip& chip = chips()[controls[kChip] % chips().size()];
    const std::size_t layout_size = std::min<std::size_t>(controls[kLayoutSize], controls.body().size());
    const std::size_t changes_size = controls.body().size() - layout_size;
    const Bytes text = slice(controls.body(), changes_size, layout_size);
    read_layout(std::string(text.begin(), text.end()));

    const Bent bent = bent_dump(chip, slice(controls.body(), 0, changes_size));
    target.fill(bent.dump);
    layout.fill(text);
    CheckOptions options = options_of(chip, controls, bent.header);
    options.target = target.path();
    if (controls.flag(kFlags, kLayout))
        options.chip.layout_file = layout.path();

    const PlainFlips plain = bent.only_flips ? compare_plainly(chip, bent.dump) : PlainFlips();
    const bool is_known =
        bent.only_flips && are_right(controls) && plain.beyond == 0 && (chip.has_parity() || plain.all == 0);
    const unsigned left_out = controls[kChip] / 64;  // one of the runs, or none
    if (left_out != 1) {
        const CheckResult result = check(options);
        if (is_known && chip.has_parity())
            expect_flips(result, plain, options.chip.max_flips);
        require(!is_known || chip.has_parity() || result.verdict == Verdict::kSame, "a right dump differs");
    }
    if (left_out != 2) {
        const EccResult result = judge(options);
        require(!is_known || !chip.has_parity() || result.units.flips == plain.units,
                "the parity tells another number of flips");
    }
    if (left_out != 3) {
        Files files;
        const ExtractionResult result = extract(options, files);
        if (is_known)
            expect_data(result, files, chip.data);
        options.conversion.settings.in_firmware.clear();
        const ExtractionResult pages = extract(options, files);
        require(pages.verdict != Verdict::kSame || (files.size() == 1 && !files.begin()->second.empty()),
                "an extraction of nothing succeeds");
    }
}

std::vector<NamedInput> dump_seeds() {
    const char* const names[] = {"slc", "slc-list", "slc-2k", "spinand", "spinand-spare"};
    std::vector<NamedInput> seeds;
    for (uint8_t i = 0; i < 5; ++i) {
        const std::string name = names[i];
        seeds.push_back(seed(name + "-same", {}, {i}));
        seeds.push_back(seed(name + "-flips", {0, 3, 0, 16, 8, 9, 0, 1, 0, 0, 1, 12}, {i}));
        seeds.push_back(seed(name + "-max-flips", {0, 3, 0, 5}, {i, 1U << kRightPlace, 4}));
        seeds.push_back(seed(name + "-beyond", {0, 3, 0, 40}, {i}));
        seeds.push_back(seed(name + "-bad-block", {1, 1, 2, 9}, {i, 1U << kBadBlock, 0, 1}));
        seeds.push_back(seed(name + "-moved", {4, 1, 4, 0, 2, 6, 0, 0}, {i}));
        seeds.push_back(seed(name + "-replaced", {3, 2, 3, 5, 3, 4, 0, 0, 3, 6, 1, 0}, {i}));
        seeds.push_back(seed(name + "-cut", {5, 3, 100, 1}, {i}));
        seeds.push_back(seed(name + "-header", {6, 77, 1, 0}, {i}));
        seeds.push_back(seed(name + "-header-not-told", {6, 77, 1, 0}, {i, 0, 0, 0, 1}));
        seeds.push_back(seed(name + "-wrong-place", {}, {i, 1U << kWrongPlace, 0, 7}));
        seeds.push_back(seed(name + "-written", {7, 5, 1, 0xAA, 7, 90, 1, 0x55}, {i, 1U << kStrict}));
        seeds.push_back(
            seed(name + "-layout", {}, {i, 1U << kLayout}, "boot,2,3\ndata,0x4,0x5\r\nidblock,0,0\n"));
        for (uint8_t geometry = 1; geometry <= 11; ++geometry)
            seeds.push_back(
                seed(name + "-geometry-" + std::to_string(geometry), {}, {i, 0, 0, 0, 0, geometry}));
    }
    return seeds;
}

}  // namespace robustness
