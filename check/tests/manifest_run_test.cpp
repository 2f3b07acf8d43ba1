// The manifest of what a conversion would give, held against the files that it writes, and of files that are
// there.

#include "check_bench.h"
#include "parse.h"
#include "support/require_tool.h"

namespace {

using namespace check_test;

Firmware with_odd_names() {
    Firmware firmware = with_gpt();
    firmware.item("misc").name = "a\\b\nc\rd";
    firmware.item("boot").name = "\xFF\xFE";
    firmware.item("rootfs").name = "=a,\"b";
    return firmware;
}

/// Also with names that are not UTF-8. The tests of a comparison take names from its document, where such
/// names are escaped.
std::vector<Made> made_for_manifests() {
    std::vector<Made> all = all_made();
    for (const Conversion& type : kFourTypes)
        all.push_back({type.type + "_odd_names", type, with_odd_names});
    return all;
}

// ---- judges ----

uint32_t sum_of_bytes(const Bytes& bytes) {
    uint32_t sum = 0;
    for (const uint8_t byte : bytes)
        sum += byte;
    return sum;
}

std::string hex(uint32_t value) {
    char text[11];
    std::snprintf(text, sizeof(text), "0x%08x", value);
    return text;
}

std::string bytes_of_hex(const std::string& digits) {
    std::string bytes;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
        bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    return bytes;
}

class ManifestOf : public testing::TestWithParam<Made> {
protected:
    /// Standard output of a run that ends well in a directory of its own, to which it writes nothing.
    std::string manifest(const std::string& form, Arguments more = {}) const {
        const TemporaryDirectory elsewhere;
        more.push_back("--manifest=" + form);
        const RunResult run = run_check_program(m_bench.arguments_without_target(more),
                                                {.working_directory = elsewhere.path()});
        EXPECT_EQ(run.exit_status, 0) << run.out << run.err;
        EXPECT_EQ(run.err, "");
        EXPECT_TRUE(fs::is_empty(elsewhere.path()));
        return run.out;
    }

    const CheckBench m_bench = bench_of(GetParam());
};

TEST_P(ManifestOf, AConversionHasTheSumsOfItsFiles) {
    const Json document = Json::parse(manifest("json"));
    const std::string sums = manifest("sums");  // which sha256sum judges
    EXPECT_EQ(document.at("status"), 0);
    EXPECT_EQ(document.at("error"), nullptr);
    Names names;
    for (const Json& file : document.at("files")) {
        const std::string name = file.contains("file_hex") ? bytes_of_hex(file.at("file_hex"))
                                                           : file.at("file").get<std::string>();
        ASSERT_TRUE(names.insert(name).second) << name;
        ASSERT_TRUE(m_bench.output_names().contains(name)) << name;
        const Bytes bytes = m_bench.output(name);
        EXPECT_EQ(file.at("bytes"), bytes.size()) << name;
        EXPECT_EQ(file.at("sum32"), hex(sum_of_bytes(bytes))) << name;
        EXPECT_EQ(file.at("crc32"), hex(crc32_standard(bytes))) << name;
        EXPECT_NE(sums.find(file.at("sha256").get<std::string>() + "  "), std::string::npos) << name;
    }
    EXPECT_EQ(names, m_bench.output_names());
}

TEST_P(ManifestOf, ADirectoryIsThatOfItsConversion) {
    for (const char* form : {"csv", "json", "sums"})
        EXPECT_EQ(manifest(form, {m_bench.out_dir()}), manifest(form)) << form;
    EXPECT_EQ(manifest("json", {"-o", m_bench.out_dir().string() + "/"}), manifest("json"));
}

TEST_P(ManifestOf, AConversionIsReadBySha256sum) {
    REQUIRE_TOOL("sha256sum");
    const std::string text = manifest("sums");
    EXPECT_EQ(static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')),
              m_bench.output_names().size());
    const fs::path list = m_bench.directory() / "list";
    write_file(list, Bytes(text.begin(), text.end()));
    const auto judged = [&] {
        return run_program("sha256sum", {"-c", "--strict", "--quiet", list},
                           {.working_directory = m_bench.out_dir()});
    };
    const RunResult good = judged();
    EXPECT_EQ(good.exit_status, 0) << good.out << good.err;
    m_bench.damage(m_bench.main_file(), 0);
    EXPECT_EQ(judged().exit_status, 1);
    EXPECT_NE(manifest("sums", {m_bench.out_dir()}), text);
}

INSTANTIATE_TEST_SUITE_P(Made, ManifestOf, testing::ValuesIn(made_for_manifests()),
                         [](const auto& made) { return made.param.name; });

// ---- places ----

Json document_of(const CheckBench& bench, Arguments more = {}) {
    more.emplace_back("--manifest=json");
    return Json::parse(run_check_program(bench.arguments_without_target(more)).out);
}

std::string range(const Json& object, const std::string& unit) {
    return object.at("first_" + unit).dump() + "-" + object.at("last_" + unit).dump();
}

Firmware with_places() {
    Firmware firmware = with_gpt();
    firmware.item("misc").flash_offset = 512;
    firmware.item("misc").part_size = 513;
    firmware.item("rootfs").flash_offset = 4096;
    firmware.item("rootfs").part_size = 0xFFFFFFFF;
    return firmware;
}

TEST(ManifestPlaces, OfNandAreThoseOfTheTable) {
    for (const Conversion& type : {kSlcNand, kSpiNand}) {
        const Json files = document_of(CheckBench(type, with_places())).at("files");
        std::map<std::string, std::string> places;
        for (const Json& file : files)
            places[file.at("name")] = range(file, "sector") + " " + range(file, "block");
        EXPECT_EQ(places.at("idblock"), "null-null null-null");
        EXPECT_EQ(places.at("misc"), "512-1024 2-4");
        EXPECT_EQ(places.at("rootfs"), "4096-null 16-null");
        EXPECT_EQ(places.count("gpt"), 1U);
    }
}

TEST(ManifestPlaces, HaveNoBlocksWithTwoKbInAPage) {
    const CheckBench bench(with_two_kb(with(kSpiNand, "256", "4")), with_places());
    const Json document = document_of(bench);
    for (const Json& file : document.at("files"))
        EXPECT_EQ(range(file, "block"), "null-null");
}

TEST(ManifestPlaces, OfAnImageAreInSectors) {
    for (const bool gpt : {true, false}) {
        Firmware firmware = sample_firmware({.gpt = gpt});
        firmware.item("misc").flash_offset = 0x3000;
        firmware.item("misc").part_size = 4;
        const CheckBench bench(kEmmc, firmware);
        const Json document = document_of(bench);
        const uint64_t sectors = bench.output("out_image.img").size() / 512;
        EXPECT_EQ(range(document.at("files").at(0), "sector"), "0-" + std::to_string(sectors - 1));
        EXPECT_EQ(document.at("partitions").size(), 4U);
        EXPECT_EQ(document.at("partitions").at(0).at("name"), gpt ? "gpt" : "parameter");
        std::map<std::string, std::string> places;
        for (const Json& partition : document.at("partitions"))
            places[partition.at("name")] = range(partition, "sector");
        EXPECT_EQ(places.at("misc"), gpt ? "12288-12291" : "20480-20483");
        EXPECT_EQ(document_of(bench, {bench.out_dir()}), document);
    }
}

TEST(ManifestOfAnImage, HasTheNameOfTheFile) {
    const CheckBench bench(kEmmc);
    const fs::path image = bench.directory() / "chip 1.bin";
    fs::copy_file(bench.out("out_image.img"), image);
    const Json file = document_of(bench, {image}).at("files").at(0);
    EXPECT_EQ(file.at("file"), "chip 1.bin");
    EXPECT_EQ(file.at("crc32"), hex(crc32_standard(bench.output("out_image.img"))));
}

// ---- trouble ----

/// A line on standard error for csv and sums, a document for json, and nothing when quiet.
void expect_no_manifest(const Arguments& arguments, const std::string& reason) {
    SCOPED_TRACE(reason);
    const auto run = [&](const Arguments& more) {
        Arguments all = arguments;
        all.insert(all.end(), more.begin(), more.end());
        const RunResult result = run_check_program(all);
        EXPECT_EQ(result.exit_status, kTrouble) << result.out << result.err;
        return result;
    };
    for (const char* form : {"csv", "sums"}) {
        const RunResult result = run({std::string("--manifest=") + form});
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "nandsmith-check: " + reason + "\n");
        const RunResult quiet = run({"-q", std::string("--manifest=") + form});
        EXPECT_EQ(quiet.out + quiet.err, "");
    }
    const RunResult result = run({"--manifest=json"});
    EXPECT_EQ(result.err, "");
    const Json document = Json::parse(result.out);
    EXPECT_EQ(document.at("schema"), 1);
    EXPECT_EQ(document.at("status"), 2);
    EXPECT_EQ(document.at("error"), reason);
    EXPECT_EQ(document.at("files"), Json::array());
    EXPECT_EQ(document.at("partitions"), Json::array());
    EXPECT_EQ(document.at("programmer"), nullptr);
}

TEST(ManifestTrouble, IsAMissingFile) {
    for (const Conversion& type : kFourTypes) {
        const CheckBench bench(type);
        const fs::path file = bench.out(bench.main_file());
        fs::remove(file);
        expect_no_manifest(bench.arguments(), file.string() + " failed to open: No such file or directory");
    }
}

TEST(ManifestTrouble, IsATargetThatHasNoManifest) {
    const CheckBench bench(kSlcNand);
    const std::string missing = bench.directory() / "missing";
    expect_no_manifest(bench.arguments_without_target({missing}),
                       missing + " failed to access: No such file or directory");
    const std::string file = bench.out("misc.img");
    expect_no_manifest(bench.arguments_without_target({file}),
                       file + " is not a directory: a manifest is of the files of a conversion");
    expect_no_manifest(bench.arguments_without_target({"/dev/null"}),
                       "/dev/null is not a directory or an image");
    expect_no_manifest(bench.arguments_without_target({"-"}),
                       "--manifest takes a directory or an image, not standard input");
}

TEST(ManifestTrouble, IsATargetThatIsTheFirmware) {
    const CheckBench bench(kEmmc);
    expect_no_manifest(bench.arguments_without_target({bench.firmware()}),
                       bench.firmware().string() + " is the firmware itself");
}

TEST(ManifestTrouble, IsAFirmwareThatDoesNotConvert) {
    Firmware firmware = with_gpt();
    firmware.item("parameter").name = "other";
    for (const Conversion& type : kFourTypes) {
        const Workbench bench(firmware);
        const Arguments all = type.arguments(bench.firmware(), bench.out_dir());
        expect_no_manifest(all, "not found parameter in the firmware");
        Arguments without_target = all;
        without_target.erase(std::find(without_target.begin(), without_target.end(), "-o"),
                             std::find(without_target.begin(), without_target.end(), "-o") + 2);
        expect_no_manifest(without_target, "not found parameter in the firmware");
    }
}

TEST(ManifestTrouble, IsASpareAreaThatIsTooSmall) {
    const CheckBench bench(kSlcNand);
    const Conversion small = with(kSlcNand, "128", "2", "63");
    expect_no_manifest(bench.arguments_as(small), "size of oob is not enough");
    Arguments without_target = bench.arguments_as(small);
    const auto output = std::find(without_target.begin(), without_target.end(), "-o");
    without_target.erase(output, output + 2);
    expect_no_manifest(without_target, "size of oob is not enough");
}

TEST(ManifestTrouble, IsAWrongOption) {
    expect_no_manifest({"-t", "emmc", "-b", "512", "-p", "2"}, "firmware is none; give it with -i");
    expect_no_manifest({"-i", "fw", "-t", "emmc", "-b", "512", "-p", "2", "--strict"},
                       "--strict is of no use with --manifest");
}

TEST(ManifestTrouble, IsALibraryThatMayNotMakeASum) {
    const CheckBench bench(kSpiNand);
    const fs::path settings = bench.directory() / "openssl.cnf";
    const std::string text = "openssl_conf = init\n[init]\nalg_section = algorithms\n"
                             "[algorithms]\ndefault_properties = provider=none\n";
    write_file(settings, Bytes(text.begin(), text.end()));
    for (const Arguments& arguments : {bench.arguments(), bench.arguments_without_target()}) {
        Arguments all = arguments;
        all.emplace_back("--manifest=json");
        const RunResult run = run_check_program(all, {.environment = {{"OPENSSL_CONF", settings.string()}}});
        EXPECT_EQ(run.exit_status, kTrouble) << run.err;
        EXPECT_EQ(Json::parse(run.out).at("error"), "libcrypto failed to make a SHA-256");
    }
}

TEST(ManifestTrouble, IsOutputThatDoesNotArrive) {
    const CheckBench bench(kSpiNand);
    for (const char* form : {"--manifest=csv", "--manifest=json", "--manifest=sums"}) {
        const RunResult run = run_check_in_shell(R"("$0" "$@" > /dev/full)", bench.arguments({form}));
        EXPECT_EQ(run.exit_status, kTrouble);
        EXPECT_EQ(run.err, "nandsmith-check: the report failed to be written: No space left on device\n");
    }
}

// ---- options ----

TEST(ManifestOption, TakesAForm) {
    EXPECT_EQ(parse_with({"--manifest=csv"}).manifest_form, ManifestForm::kCsv);
    EXPECT_EQ(parse_with({"--manifest", "json"}).manifest_form, ManifestForm::kJson);
    EXPECT_EQ(parse_with({"--manifest=sums", "-q", "--progress=never"}).manifest_form, ManifestForm::kSums);
    EXPECT_EQ(parse_with({"--manifest=sums"}).action, Action::kManifest);
    EXPECT_EQ(parse_with({"--manifest=sums"}).error, std::nullopt);
    EXPECT_EQ(parse_with({"--manifest=xml"}).error, "--manifest takes csv, json or sums, not 'xml'");
    EXPECT_EQ(parse_with({"--manifest"}).error, "option --manifest needs a value");
}

TEST(ManifestOption, TellsWhetherATargetIsNamed) {
    EXPECT_FALSE(parse_with({"--manifest=csv"}).has_target);
    EXPECT_TRUE(parse_with({"--manifest=csv", "."}).has_target);
    EXPECT_TRUE(parse_with({"--manifest=csv", "-o", "out"}).has_target);
}

TEST(ManifestOption, RefusesOptionsThatAreOfNoUse) {
    for (const std::string word :
         {"--only=misc", "--ignore=misc", "--strict", "--max-differences=3", "--no-second-opinion",
          "--verbose", "--color", "--json", "--at=misc=3", "--max-flips=3", "--bad-blocks=3"}) {
        const std::string name = word.substr(0, word.find('=', 2));
        EXPECT_EQ(parse_with({"--manifest=csv", word}).error, name + " is of no use with --manifest");
    }
    EXPECT_EQ(parse_with({"--manifest=csv", "--force"}).error, "--force is for --extract");
    EXPECT_EQ(parse_with({"--manifest=csv", "--list"}).error,
              "--list, --ecc, --extract and --manifest exclude each other");
}

}  // namespace
