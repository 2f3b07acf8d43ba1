// The comparison of nandsmith-check: a target that an input bends from the right image, and the results held
// against a plain comparison of the same bytes.

#include "check/comparison/comparison.h"
#include "check/comparison/conversion_run.h"
#include "check/comparison/diagnosis.h"
#include "fuzz_target.h"
#include "right_target.h"
#include "small_firmware.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace robustness {

using namespace test_support;

namespace {

// ---- what is compared: a few conversions whose outputs were written to files once ----

struct Case {
    ConversionOptions options{};
    Geometry geometry{};
    Files files{};
    fs::path directory{};
};

// All of them stay as long as the program runs.
class Cases {
public:
    Cases() {
        const Bytes gpt = small_firmware({.gpt = true}).build();
        add("emmc", "gpt.img", gpt, 8, 2);
        // The table lies over the first boot block.
        add("emmc", "large-pages.img", gpt, 64, 64);
        add("spinor", "loader.bin", small_container(), 64, 2);
        add("spinand", "nand.img", gpt, 8, 2);
        add("slc", "slc.img", gpt, 8, 2, 64);
    }

    const Case& operator[](std::size_t index) const { return m_cases[index]; }

private:
    void add(const std::string& type, const std::string& name, const Bytes& firmware, uint32_t block_kb,
             uint32_t page_kb, uint32_t spare_bytes = 0) {
        const fs::path directory = m_top / (name + ".out");
        fs::create_directory(directory);
        const fs::path path = m_top / name;
        write_file(path, firmware);
        const auto found = std::ranges::find(storage_types(), type, &StorageType::word);
        const ConversionOptions options{&*found,
                                        {block_kb, page_kb, spare_bytes, path, directory, false, false}};
        convert_to_files(options);
        m_cases.push_back({options, geometry_of(options), files_in(directory), directory});
    }

    TemporaryDirectory m_top{memory_directory()};
    std::vector<Case> m_cases{};
};

// ---- the target ----

// The body is a list of changes: 3 bytes of position, 1 byte of kind and size, then the bytes of a write.
Bytes bent(Bytes image, const Bytes& changes) {
    constexpr std::size_t head = 4;
    constexpr std::size_t largest_growth = 70000;
    const std::size_t limit = image.size() + largest_growth;
    for (std::size_t at = 0; changes.size() - at >= head;) {
        const std::size_t position = (get16(changes, at) | uint32_t{changes[at + 2]} << 16) % limit;
        const unsigned kind = changes[at + 3] >> 6;
        const std::size_t size = changes[at + 3] & 63U;
        at += head;
        if (kind == 0) {  // the target ends here
            image.resize(position);
            continue;
        }
        // Bytes from the input, a byte many times, or bits flipped many times.
        const std::size_t from_input = std::min(kind == 1 ? size : 1, changes.size() - at);
        const std::size_t count = kind == 1 ? from_input : (size + 1) * 64;
        if (from_input == 0)
            continue;
        if (kind == 1)  // a write may make the target longer
            image.resize(std::max(image.size(), position + count));
        if (position >= image.size())
            continue;
        for (std::size_t i = 0; i < std::min(count, image.size() - position); ++i) {
            const uint8_t value = changes[at + (kind == 1 ? i : 0)];
            uint8_t& byte = image[position + i];
            byte = kind == 3 ? static_cast<uint8_t>(byte ^ value) : value;
        }
        at += from_input;
    }
    return image;
}

// ---- the plain comparison ----

struct Counts {
    uint64_t differing = 0;
    uint64_t flips = 0;
    uint64_t missing = 0;
    uint64_t surplus = 0;
};

Counts compare_plainly(const Bytes& expected, const Bytes& actual) {
    constexpr std::size_t step = 4096;
    Counts counts;
    const std::size_t common = std::min(expected.size(), actual.size());
    for (std::size_t from = 0; from < common; from += step) {
        const std::size_t to = std::min(from + step, common);
        if (std::memcmp(expected.data() + from, actual.data() + from, to - from) == 0)
            continue;
        for (std::size_t i = from; i < to; ++i) {
            const auto difference = static_cast<uint8_t>(expected[i] ^ actual[i]);
            counts.differing += difference != 0;
            counts.flips += static_cast<uint64_t>(std::popcount(difference));
        }
    }
    counts.missing = expected.size() - common;
    counts.surplus = actual.size() - common;
    return counts;
}

void check_runs(const PartResult& part, const Bytes& expected, const Bytes& actual, Counts& found) {
    require(part.runs.size() == part.runs_found, "runs are missing though all were asked for");
    for (const DifferenceRun& run : part.runs) {
        const uint64_t end = run.offset + run.length;
        require(run.length != 0 && end <= expected.size() && end <= actual.size(), "a run beside the bytes");
        require(run.expected == expected[run.offset] && run.actual == actual[run.offset],
                "a run names other bytes");
        for (uint64_t i = run.offset; i < end; ++i)
            require(expected[i] != actual[i], "a run has a byte that is the same");
        found.differing += run.length;
        found.flips += run.flips;
    }
}

// The parts of one file, or of the image.
void check_parts(const std::vector<PartResult>& parts, const Bytes& expected, const Bytes& actual,
                 bool is_there, bool counts_surplus) {
    const Counts wanted = compare_plainly(expected, actual);
    Counts listed;
    Counts sum;
    bool same = true;
    for (const PartResult& part : parts) {
        check_runs(part, expected, actual, listed);
        sum.differing += part.differing;
        sum.missing += part.missing;
        sum.surplus += part.surplus;
        same = same && part.verdict == Verdict::kSame;
        require(part.unreadable == 0 && part.verdict != Verdict::kTrouble, "trouble with what can be read");
        require((part.differing == 0) == (part.differing_pages == 0), "bytes differ and no page, or no byte");
        require(is_there || part.verdict == Verdict::kMissing, "a file that is not there is not missing");
    }
    require(sum.differing == wanted.differing, "another number of bytes differ");
    require(listed.differing == wanted.differing, "the runs have another number of bytes");
    require(listed.flips == wanted.flips, "the runs have another number of bits");
    require(sum.missing == wanted.missing, "another number of bytes are missing");
    require(!counts_surplus || sum.surplus == wanted.surplus, "another number of bytes are too many");
    const bool is_same =
        is_there && wanted.differing == 0 && wanted.missing == 0 && (!counts_surplus || wanted.surplus == 0);
    require(same == is_same, "another verdict");
}

// ---- one comparison ----

std::vector<PartResult> compare(const Case& tested, ComparisonPlan plan) {
    plan.geometry = tested.geometry;
    plan.max_runs = UINT64_MAX;
    Comparison comparison(std::move(plan));
    require(compare_conversion(tested.options, comparison).done,
            "a conversion that succeeds into files fails");
    return comparison.results();
}

void compare_image(const Case& tested, const Bytes& changes) {
    static const MemoryFile file;
    const Bytes& expected = tested.files.begin()->second;
    const Bytes actual = bent(expected, changes);
    file.fill(actual);
    Target target;
    require(target.open(file.path()) == 0 && target.size() == actual.size(), "the target does not open");
    ComparisonPlan plan;
    plan.target = &target;
    check_parts(compare(tested, std::move(plan)), expected, actual, true, false);
}

void compare_directory(const Case& tested, const Bytes& changes, uint8_t choice, bool removes) {
    auto chosen = tested.files.begin();
    std::advance(chosen, choice % tested.files.size());
    const Bytes actual = removes ? Bytes() : bent(chosen->second, changes);
    const fs::path path = tested.directory / chosen->first;
    if (removes)
        fs::remove(path);
    else
        write_file(path, actual);
    Bytes watched;
    ComparisonPlan plan;
    plan.directory = tested.directory.string() + '/';
    plan.watch = [&](const std::string& name, std::span<const uint8_t> bytes) {
        if (name == chosen->first)
            watched.insert(watched.end(), bytes.begin(), bytes.end());
    };
    const std::vector<PartResult> parts = compare(tested, std::move(plan));
    write_file(path, chosen->second);

    std::map<std::string, std::vector<PartResult>> by_file;
    for (const PartResult& part : parts)
        by_file[part.file].push_back(part);
    require(by_file.size() == tested.files.size(), "another number of files");
    for (const auto& [name, bytes] : tested.files) {
        const bool is_chosen = name == chosen->first;
        check_parts(by_file[name], bytes, is_chosen ? actual : bytes, !is_chosen || !removes, true);
    }
    const std::size_t seen = std::min(actual.size(), chosen->second.size());
    require(watched == slice(actual, 0, seen), "other bytes were watched than the file has");
}

constexpr std::size_t kControls = 2;

NamedInput seed(const std::string& name, Bytes changes, uint8_t first, uint8_t file = 0) {
    put_bytes(changes, {first, file});
    return {name, changes};
}

}  // namespace

void run_check(const Bytes& input) {
    static const Cases cases;
    const ControlBytes controls(input, kControls);
    const Case& tested = cases[controls[0] % 5];
    if (tested.geometry.whole_image)
        compare_image(tested, controls.body());
    else
        compare_directory(tested, controls.body(), controls[1], controls.flag(0, 7));
}

std::vector<NamedInput> check_seeds() {
    const char* const names[] = {"emmc", "large-pages", "nor", "spinand", "slc"};
    std::vector<NamedInput> seeds;
    for (uint8_t i = 0; i < 5; ++i) {
        const std::string name = names[i];
        seeds.push_back(seed(name + "-same", {}, i));
        seeds.push_back(seed(name + "-bit", {0x05, 0x00, 0x00, 0xC0, 0x01}, i));
        seeds.push_back(seed(name + "-boot-block", {0x10, 0x80, 0x00, 0x43, 'a', 'b', 'c'}, i));
        seeds.push_back(seed(name + "-erased", {0x00, 0x08, 0x00, 0xBF, 0xFF}, i));
        seeds.push_back(seed(name + "-short", {0x00, 0x11, 0x00, 0x00}, i, 1));
        seeds.push_back(seed(name + "-empty", {0x00, 0x00, 0x00, 0x00}, i, 1));
        seeds.push_back(seed(name + "-long", {0x00, 0x00, 0x80, 0x41, 'x'}, i));
        seeds.push_back(seed(name + "-short-and-bent", {0x05, 0x00, 0x00, 0xC0, 0x01, 0x00, 0x81, 0, 0}, i));
    }
    // The highest bit removes a file: 128 and 129 are the cases 3 and 4.
    for (uint8_t file = 0; file < 4; ++file) {
        seeds.push_back(seed("spinand-removed-" + std::to_string(file), {}, 0x80, file));
        seeds.push_back(seed("slc-removed-" + std::to_string(file), {}, 0x81, file));
    }
    return seeds;
}

}  // namespace robustness
