#include "compare_rows.h"

#include "common/bch/paths.h"

#include <fstream>
#include <stdexcept>
#include <utility>

namespace fs = std::filesystem;

namespace {

using Words = std::vector<std::string>;

constexpr double kCopyLimit = 1.0;
constexpr double kGapsLimit = 0.5;
constexpr double kSparseLimit = 1.6;
constexpr double kCarryLessLimit = 1.5;
constexpr double kTableLimit = 2.6;

// Of processor time, to cmp.
constexpr double kCheckLimit = 1.0;
constexpr double kCheckGapsLimit = 0.6;
constexpr double kCheckSparseLimit = 1.1;
constexpr double kCheckSlcCompareLimit = 1.5;
constexpr double kCheckSlcLimit = 2.0;
constexpr double kCheckTableLimit = 4.0;
constexpr double kCheckDumpLimit = 2.0;
constexpr double kManifestLimit = 1.3;  // to openssl
constexpr double kEccRate = 2.0;
constexpr double kEccTableRate = 1.0;
constexpr double kEccFlipsRate = 1.0;

Words program_words(const Programs& programs, const Words& options) {
    Words words{programs.nandsmith.string(), "-i", "@firmware", "-o", "@output"};
    words.insert(words.end(), options.begin(), options.end());
    return words;
}

struct SlcGeometry {
    std::string name{};
    std::string block_kib{};
    std::string page_kib{};
    std::string spare_bytes{};
    bool two_kilobytes_data = false;
};

const SlcGeometry kSlcGeometries[] = {{"slc-2k", "128", "2", "64", false},
                                      {"slc-2k-2", "128", "2", "64", true},
                                      {"slc-4k", "256", "4", "128", false},
                                      {"slc-4k-2", "256", "4", "128", true}};

void add_flag(Words& words, const SlcGeometry& geometry) {
    if (geometry.two_kilobytes_data)
        words.push_back("-2");
}

// The program selects the fastest path of this processor.
double slc_limit() {
    return bch_fastest_path(bch_paths()).name == kBchPortable.name ? kTableLimit : kCarryLessLimit;
}

Row slc_row(const Programs& programs, const SlcGeometry& geometry) {
    Row row{.name = geometry.name,
            .limit = slc_limit(),
            .words = program_words(programs, {"-t", "slc", "-b", geometry.block_kib, "-p", geometry.page_kib,
                                              "-s", geometry.spare_bytes}),
            .at_largest_size = geometry.name == "slc-2k"};
    add_flag(row.words, geometry);
    return row;
}

// What a processor without anything special makes of it; the program has no option for the path.
Row portable_slc_row(const Programs& programs, const SlcGeometry& geometry) {
    Row row{.name = geometry.name + "/portable",
            .limit = kTableLimit,
            .words = {programs.convert_with_path.string(), "portable", "@firmware", "@output",
                      geometry.block_kib, geometry.page_kib, geometry.spare_bytes}};
    add_flag(row.words, geometry);
    return row;
}

void add_slc_rows(const Programs& programs, std::vector<Row>& rows) {
    for (const SlcGeometry& geometry : kSlcGeometries) {
        rows.push_back(slc_row(programs, geometry));
        rows.push_back(portable_slc_row(programs, geometry));
    }
}

Row check_row(const Programs& programs, const std::string& name, InputKind input, double limit,
              const Words& options, const Words& own_options = {}) {
    Row row{.name = name,
            .input = input,
            .limit = limit,
            .words = {programs.nandsmith_check.string(), "-i", "@firmware", "-o", "@output"},
            .preparation = program_words(programs, options)};
    row.words.insert(row.words.end(), options.begin(), options.end());
    row.words.insert(row.words.end(), own_options.begin(), own_options.end());
    return row;
}

// Converts, and makes the dump of a chip in place of the files: "$1" the bit error rate.
constexpr const char* kMakeDump = R"(set -e
"$2" -i "$4" -o "$5" -t slc -b 128 -p 2 -s 64
blocks=$(($(cat "$5"/*.img | wc -c) / (64 * 2112) * 105 / 100 + 64))
"$3" --from "$5" --page 2112 --pages-per-block 64 --blocks $blocks --ber "$1" --out "$6/chip.bin"
rm "$5"/*
mv "$6/chip.bin" "$5")";

// The dump of a chip with bits that flipped at this rate. mode: words before those of the geometry.
Row dump_row(const Programs& programs, const std::string& name, const std::string& rate, const Words& mode) {
    Row row{.name = name,
            .words = mode,
            .preparation = {"sh", "-c", kMakeDump, "make-dump", rate, programs.nandsmith.string(),
                            programs.make_sample_dump.string(), "@firmware", "@output", "@copy"}};
    for (const char* word : {"-t", "slc", "-b", "128", "-p", "2", "-s", "64", "@dump"})
        row.words.emplace_back(word);
    return row;
}

void add_dump_rows(const Programs& programs, std::vector<Row>& rows) {
    const std::string check = programs.nandsmith_check.string();
    const std::string on_path = programs.check_with_path.string();
    const auto add = [&](const std::string& name, const std::string& rate, double limit, double least_rate,
                         const Words& mode) {
        Row row = dump_row(programs, name, rate, mode);
        row.limit = limit;
        row.least_rate = least_rate;
        rows.push_back(std::move(row));
    };
    add("check-dump", "0", kCheckDumpLimit, 0, {check, "-i", "@firmware"});
    add("check-ecc", "0", 0, kEccRate, {check, "--ecc"});
    add("check-ecc/flips", "1e-4", 0, kEccFlipsRate, {check, "--ecc"});
    add("check-ecc/portable", "0", 0, kEccTableRate, {on_path, "portable", "--ecc"});
}

void add_check_rows(const Programs& programs, std::vector<Row>& rows) {
    const Words emmc{"-t", "emmc", "-b", "512", "-p", "2"};
    const Words nor{"-t", "spinor", "-b", "64", "-p", "2"};
    const Words spi_nand{"-t", "spinand", "-b", "128", "-p", "2"};
    const Words slc{"-t", "slc", "-b", "128", "-p", "2", "-s", "64"};
    const auto add = [&](const std::string& name, InputKind input, double limit, const Words& options,
                         const Words& own_options = {}) {
        rows.push_back(check_row(programs, name, input, limit, options, own_options));
    };
    add("check-emmc", InputKind::dense, kCheckLimit, emmc);
    add("check-nor", InputKind::dense, kCheckLimit, nor);
    add("check-spinand", InputKind::dense, kCheckLimit, spi_nand);
    add("check-gaps", InputKind::gaps, kCheckGapsLimit, emmc);
    add("check-sparse", InputKind::sparse, kCheckSparseLimit, emmc);
    add("check-slc/compare", InputKind::dense, kCheckSlcCompareLimit, slc, {"--no-second-opinion"});
    add("check-slc", InputKind::dense, kCheckSlcLimit, slc);
    add("check-slc/portable", InputKind::dense, kCheckTableLimit, slc);
    std::vector<std::string>& portable = rows.back().words;
    portable[0] = programs.check_with_path.string();
    portable.insert(portable.begin() + 1, "portable");
    add("manifest-emmc", InputKind::dense, kManifestLimit, emmc, {"--manifest=json"});
    rows.back().is_manifest = true;
    add("manifest-slc", InputKind::dense, kManifestLimit, slc, {"--manifest=json"});
    rows.back().is_manifest = true;
}

void write_genimage_config(const fs::path& path, const Input& input, uint64_t mib) {
    std::ofstream config(path);
    config << "image out_image.img {\n"
           << "    hdimage {\n        partition-table-type = \"gpt\"\n    }\n"
           << "    partition rootfs {\n        image = \"" << input.payload.filename().string() << "\"\n"
           << "        offset = 8M\n        size = " << mib << "M\n    }\n}\n";
    if (!config.flush())
        throw std::runtime_error("cannot write " + path.string());
}

Command genimage_command(const Input& input, uint64_t mib, const WorkDirectory& work) {
    const fs::path config = work.scratch("genimage.cfg");
    write_genimage_config(config, input, mib);
    const fs::path root = work.scratch("empty_root");
    fs::create_directories(root);
    return {{"genimage", "--config", config.string(), "--rootpath", root.string(), "--tmppath",
             (work.copy() / "tmp").string(), "--inputpath", work.inputs().string(), "--outputpath",
             (work.copy() / "images").string()},
            {}};
}

Command command_of(const Words& words, const Input& input, const WorkDirectory& work) {
    Command command{words, {}};
    for (std::string& word : command.words)
        if (word == "@firmware")
            word = input.firmware.string();
        else if (word == "@output")
            word = work.output().string();
        else if (word == "@copy")
            word = work.copy().string();
        else if (word == "@dump")
            word = (work.output() / "chip.bin").string();
    return command;
}

}  // namespace

std::vector<Row> comparison_rows(const Programs& programs) {
    std::vector<Row> rows{
        {.name = "emmc-dense",
         .limit = kCopyLimit,
         .words = program_words(programs, {"-t", "emmc", "-b", "512", "-p", "2"}),
         .others = {OtherTool::cat, OtherTool::genimage},
         .at_largest_size = true},
        {.name = "nor-dense",
         .limit = kCopyLimit,
         .words = program_words(programs, {"-t", "spinor", "-b", "64", "-p", "2"})},
        {.name = "spinand-dense",
         .limit = kCopyLimit,
         .words = program_words(programs, {"-t", "spinand", "-b", "128", "-p", "2"})},
        {.name = "emmc-gaps",
         .input = InputKind::gaps,
         .limit = kGapsLimit,
         .words = program_words(programs, {"-t", "emmc", "-b", "512", "-p", "2"})},
        {.name = "emmc-sparse",
         .input = InputKind::sparse,
         .limit = kSparseLimit,
         .words = program_words(programs, {"-t", "emmc", "-b", "512", "-p", "2"}),
         .others = {OtherTool::cat, OtherTool::simg2img}},
    };
    add_slc_rows(programs, rows);
    add_check_rows(programs, rows);
    add_dump_rows(programs, rows);
    return rows;
}

Command command_of(const Row& row, const Input& input, const WorkDirectory& work) {
    return command_of(row.words, input, work);
}

Command preparation_of(const Row& row, const Input& input, const WorkDirectory& work) {
    return command_of(row.preparation, input, work);
}

Command copy_command(const WorkDirectory& work) {
    Command command{{"cp", "--sparse=never", "--reflink=never"}, {}};
    for (const fs::path& file : files_in(work.output()))
        command.words.push_back(file.string());
    command.words.push_back(work.copy().string());
    return command;
}

Command compare_command(const WorkDirectory& work) {
    const std::vector<fs::path> files = files_in(work.output());
    if (files.size() == 1)
        return {{"cmp", files[0].string(), (work.copy() / files[0].filename()).string()}, {}};
    Command command{{"sh", "-c", R"(copy=$0; for file; do cmp "$file" "$copy/${file##*/}" || exit; done)",
                     work.copy().string()},
                    {}};
    for (const fs::path& file : files)
        command.words.push_back(file.string());
    return command;
}

Command digest_command(const WorkDirectory& work) {
    Command command{{"openssl", "dgst", "-sha256"}, {}};
    for (const fs::path& file : files_in(work.output()))
        command.words.push_back(file.string());
    return command;
}

std::string name_of(OtherTool tool) {
    switch (tool) {
    case OtherTool::cat:
        return "cat";
    case OtherTool::simg2img:
        return "simg2img";
    case OtherTool::genimage:
        break;
    }
    return "genimage";
}

Command other_command(OtherTool tool, const Input& input, uint64_t mib, const WorkDirectory& work) {
    if (tool == OtherTool::genimage)
        return genimage_command(input, mib, work);
    if (tool == OtherTool::simg2img)
        return {{"simg2img", input.payload.string(), (work.copy() / "rootfs.img").string()}, {}};
    Command command{{"cat"}, work.copy() / "all"};
    for (const fs::path& file : files_in(work.output()))
        command.words.push_back(file.string());
    return command;
}
