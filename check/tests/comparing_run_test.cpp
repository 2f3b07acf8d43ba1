// What the program says of outputs that are as the firmware gives them, and of those that are not. All
// numbers are compared with those of a comparison byte by byte.

#include "check_bench.h"
#include "support/sparse_builder.h"

#include <bit>
#include <sys/stat.h>

namespace {

using namespace check_test;

// ---- a comparison byte by byte ----

struct ByteRun {
    uint64_t offset = 0;
    uint64_t length = 0;
    uint64_t flips = 0;

    bool operator==(const ByteRun&) const = default;
};

void PrintTo(const ByteRun& run, std::ostream* out) {
    *out << run.length << " bytes at " << run.offset << ", " << run.flips << " bits";
}

std::vector<ByteRun> runs_of(const Bytes& expected, const Bytes& actual) {
    std::vector<ByteRun> runs;
    for (std::size_t i = 0; i < std::min(expected.size(), actual.size()); ++i) {
        if (expected[i] == actual[i])
            continue;
        if (runs.empty() || runs.back().offset + runs.back().length != i)
            runs.push_back({.offset = i});
        ++runs.back().length;
        runs.back().flips +=
            static_cast<uint64_t>(std::popcount(static_cast<unsigned>(expected[i] ^ actual[i])));
    }
    return runs;
}

std::vector<ByteRun> runs_in(const Json& part) {
    std::vector<ByteRun> runs;
    for (const Json& run : part.at("differences"))
        runs.push_back({run.at("offset"), run.at("length"), run.at("flips")});
    return runs;
}

/// Runs of all parts, those that touch joined: parts of an image end where others start.
std::vector<ByteRun> runs_in_all(const Json& document) {
    std::vector<ByteRun> all;
    for (const Json& part : document.at("parts"))
        for (const ByteRun& run : runs_in(part))
            all.push_back(run);
    std::sort(all.begin(), all.end(), [](const ByteRun& a, const ByteRun& b) { return a.offset < b.offset; });
    std::vector<ByteRun> joined;
    for (const ByteRun& run : all) {
        if (!joined.empty() && joined.back().offset + joined.back().length == run.offset) {
            joined.back().length += run.length;
            joined.back().flips += run.flips;
        } else {
            joined.push_back(run);
        }
    }
    return joined;
}

class Comparing : public testing::TestWithParam<Made> {
protected:
    const CheckBench m_bench = bench_of(GetParam());

    /// The report has the numbers of the comparison byte by byte.
    void expect_numbers(const std::string& file, const Bytes& expected) const {
        const std::vector<ByteRun> runs = runs_of(expected, m_bench.output(file));
        ASSERT_FALSE(runs.empty());
        uint64_t differing = 0;
        for (const ByteRun& run : runs)
            differing += run.length;
        const Json document = m_bench.document({"--max-differences=0"});
        EXPECT_EQ(document.at("verdict"), "differs");
        EXPECT_EQ(sum_of(document, "differing_bytes"), differing);
        EXPECT_EQ(sum_of(document, "missing_bytes"), 0U);
        EXPECT_EQ(sum_of(document, "surplus_bytes"), 0U);
        EXPECT_EQ(runs_in_all(document), runs);
        uint64_t first = UINT64_MAX;
        for (const Json& part : document.at("parts"))
            if (!part.at("first_difference").is_null())
                first = std::min(first, part.at("first_difference").get<uint64_t>());
        EXPECT_EQ(first, runs.front().offset);
    }
};

TEST_P(Comparing, FindsAnOutputTheSame) {
    const RunResult run = m_bench.check();
    EXPECT_EQ(run.exit_status, kSame) << run.out;
    EXPECT_EQ(run.err, "");
    EXPECT_TRUE(last_line(run.out).starts_with("same: ")) << run.out;
    const Json document = m_bench.document();
    uint64_t bytes = 0;
    for (const auto& [name, file] : m_bench.outputs())
        bytes += file.size();
    EXPECT_LE(sum_of(document, "compared"), bytes);
    EXPECT_EQ(sum_of(document, "differing_bytes"), 0U);
    EXPECT_EQ(document.at("missing"), Json::array());
    EXPECT_EQ(document.at("extra"), Json::array());
    EXPECT_EQ(document.at("second_opinion").at("findings"), Json::array());
    EXPECT_EQ(document.at("diagnoses"), Json::array());
    if (m_bench.conversion().is_whole_device())
        return;
    for (const Json& part : document.at("parts")) {
        const std::string file = part.at("file");
        EXPECT_EQ(part.at("bytes"), m_bench.output(file).size()) << file;
        EXPECT_EQ(part.at("compared"), part.at("bytes")) << file;
    }
}

TEST_P(Comparing, KnowsTheNamesOfItsParts) {
    std::string names = "idblock";
    const Json all = m_bench.document();
    for (const Json& part : all.at("parts"))
        if (const std::string name = part.at("name"); name.find(", copy ") == std::string::npos)
            names += "," + name;
    const Json document = m_bench.document({"--only=" + names});
    EXPECT_EQ(document.at("verdict"), "same") << names << document.at("error");
}

TEST_P(Comparing, FindsDamageAtAnyPlace) {
    const std::string file = m_bench.main_file();
    const Bytes expected = m_bench.output(file);
    const std::size_t border = 128 * kIb;
    std::set<std::size_t> places{0, expected.size() / 2, expected.size() - 1, 17 * kIb};
    if (expected.size() > border)
        places.insert({border - 1, border});
    for (const std::size_t place : places) {
        if (place >= expected.size())
            continue;
        SCOPED_TRACE(place);
        m_bench.damage(file, place);
        expect_numbers(file, expected);
        m_bench.damage(file, place);  // inverted again: as it was
    }
    EXPECT_EQ(m_bench.check().exit_status, kSame);
}

TEST_P(Comparing, CountsDamageAtManyPlacesAtOnce) {
    const std::string file = m_bench.main_file();
    const Bytes expected = m_bench.output(file);
    Bytes damaged = expected;
    for (std::size_t at = 0; at < damaged.size(); at += 1 + damaged.size() / 40)
        for (std::size_t i = at; i < std::min(at + 1 + at % 700, damaged.size()); ++i)
            damaged[i] = static_cast<uint8_t>(damaged[i] ^ (1U << at % 8));
    write_file(m_bench.out(file), damaged);
    expect_numbers(file, expected);
}

INSTANTIATE_TEST_SUITE_P(Made, Comparing, testing::ValuesIn(all_made()),
                         [](const auto& made) { return made.param.name; });

// ---- files of a directory ----

class ComparingFiles : public testing::TestWithParam<Conversion> {
protected:
    const CheckBench m_bench{GetParam()};
};

TEST_P(ComparingFiles, NamesAMissingFile) {
    const std::string file = m_bench.main_file();
    fs::remove(m_bench.out(file));
    const Json document = m_bench.document();
    EXPECT_EQ(document.at("verdict"), "differs");
    EXPECT_EQ(document.at("missing"), Json::array({file}));
    for (const Json& part : document.at("parts"))
        EXPECT_EQ(part.at("verdict"), part.value("file", file) == file ? "missing" : "same") << part;
    const RunResult run = m_bench.check();
    EXPECT_NE(run.out.find("\n" + file + " "), std::string::npos) << run.out;
    std::size_t rows = 0;
    for (const std::string& line : split(run.out, '\n'))
        rows += line.ends_with("  missing") ? 1 : 0;
    EXPECT_EQ(rows, 1U) << run.out;
}

TEST_P(ComparingFiles, FindsAShorterFile) {
    const std::string file = m_bench.main_file();
    const uint64_t size = fs::file_size(m_bench.out(file));
    for (const uint64_t cut : {uint64_t{1}, uint64_t{512}, size / 2, size - 1}) {
        SCOPED_TRACE(cut);
        fs::resize_file(m_bench.out(file), size - cut);
        const Json document = m_bench.document({"--no-second-opinion"});
        EXPECT_EQ(document.at("verdict"), "differs");
        EXPECT_EQ(sum_of(document, "missing_bytes"), cut);
        EXPECT_EQ(sum_of(document, "differing_bytes"), 0U);
        ASSERT_EQ(m_bench.call(m_bench.conversion()).status, kConverted);
    }
}

TEST_P(ComparingFiles, FindsALongerFile) {
    const std::string file = m_bench.main_file();
    const uint64_t size = fs::file_size(m_bench.out(file));
    fs::resize_file(m_bench.out(file), size + 3);
    const Json document = m_bench.document({"--no-second-opinion"});
    EXPECT_EQ(document.at("verdict"), "differs");
    EXPECT_EQ(sum_of(document, "surplus_bytes"), 3U);
    EXPECT_EQ(sum_of(document, "differing_bytes"), 0U);
}

TEST_P(ComparingFiles, TakesAnEmptyFileForAShortOne) {
    const std::string file = m_bench.main_file();
    const uint64_t size = fs::file_size(m_bench.out(file));
    fs::resize_file(m_bench.out(file), 0);
    const Json document = m_bench.document({"--no-second-opinion"});
    EXPECT_EQ(document.at("verdict"), "differs");
    EXPECT_EQ(sum_of(document, "missing_bytes"), size);
    const uint64_t others = sum_of(document, "bytes") - size;
    EXPECT_EQ(sum_of(document, "compared"), m_bench.conversion().is_whole_device() ? 0 : others);
}

TEST_P(ComparingFiles, TakesADirectoryOfTheNameForMissing) {
    const std::string file = m_bench.main_file();
    fs::remove(m_bench.out(file));
    fs::create_directory(m_bench.out(file));
    const Json document = m_bench.document();
    EXPECT_EQ(document.at("verdict"), "differs");
    EXPECT_EQ(document.at("missing"), Json::array({file}));
}

TEST_P(ComparingFiles, TakesAnEmptyDirectoryForAllMissing) {
    const Names names = m_bench.output_names();
    m_bench.empty_output();
    const Json document = m_bench.document();
    EXPECT_EQ(document.at("verdict"), "differs");
    EXPECT_EQ(document.at("missing").get<Names>(), names);
    EXPECT_EQ(sum_of(document, "compared"), 0U);
    EXPECT_TRUE(last_line(m_bench.check().out).starts_with("differs: 0 of ")) << m_bench.check().out;
}

TEST_P(ComparingFiles, NamesExtraFilesThatDoNotMatter) {
    write_file(m_bench.out("old.img"), {1});
    write_file(m_bench.out("unsparse_tmp.bin"), {1});
    fs::create_directory(m_bench.out("deeper"));
    const RunResult run = m_bench.check();
    EXPECT_EQ(run.exit_status, kSame) << run.out;
    EXPECT_NE(run.out.find("extra: not of this firmware\n"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("extra: left over by a conversion that failed\n"), std::string::npos) << run.out;
    EXPECT_NE(last_line(run.out).find(", 3 extra; "), std::string::npos) << run.out;
    EXPECT_EQ(m_bench.document().at("extra"), Json::array({"deeper", "old.img", "unsparse_tmp.bin"}));
}

TEST_P(ComparingFiles, CountsExtraFilesWhenStrict) {
    EXPECT_EQ(m_bench.check({"--strict"}).exit_status, kSame);
    write_file(m_bench.out("old.img"), {1});
    const RunResult run = m_bench.check({"--strict"});
    EXPECT_EQ(run.exit_status, kDiffers) << run.out;
    EXPECT_TRUE(last_line(run.out).starts_with("differs: 0 of ")) << run.out;
}

TEST_P(ComparingFiles, TakesTheTargetWithOrWithoutO) {
    for (const std::string& target : {m_bench.out_dir().string(), m_bench.out_dir().string() + "/"}) {
        const RunResult run = run_check_program(m_bench.arguments_without_target({target}));
        EXPECT_EQ(run.exit_status, kSame) << run.out;
    }
    const RunResult here =
        run_check_program(m_bench.arguments_without_target(), {.working_directory = m_bench.out_dir()});
    EXPECT_EQ(here.exit_status, kSame) << here.out;
}

TEST_P(ComparingFiles, KeepsOrdersAndCountsFromRunToRun) {
    m_bench.damage(m_bench.main_file(), 1000, 300);
    const RunResult first = m_bench.check();
    EXPECT_EQ(m_bench.check().out, first.out);
    EXPECT_EQ(m_bench.document().dump(), m_bench.document().dump());
}

INSTANTIATE_TEST_SUITE_P(Types, ComparingFiles, testing::ValuesIn(kFourTypes),
                         [](const auto& made) { return made.param.type; });

// ---- gaps and holes ----

TEST(ComparingGaps, FindsDamageInAGap) {
    const CheckBench bench(kEmmc);
    const Json document = bench.document({"--verbose"});
    const uint64_t after_table = 40 * kSectorSize;
    ASSERT_TRUE(all_bytes_are(bench.output("out_image.img"), 0, after_table, 100));
    bench.bend("out_image.img", after_table, {0x5A});
    const Json damaged = bench.document();
    EXPECT_EQ(damaged.at("verdict"), "differs");
    EXPECT_EQ(part_of(damaged, "gaps").at("first_difference"), after_table);
    EXPECT_EQ(part_of(damaged, "gaps").at("verdict"), "differs");
    EXPECT_EQ(bench.check({"--ignore=gaps"}).exit_status, kSame);
}

TEST(ComparingGaps, FindsAHoleWhereBytesAreDue) {
    const CheckBench bench(kEmmc);
    const fs::path image = bench.out("out_image.img");
    const uint64_t size = fs::file_size(image);
    const Bytes expected = bench.output("out_image.img");
    fs::resize_file(image, 0x2000 * kSectorSize);
    fs::resize_file(image, size);  // the partitions are a hole now
    const Json document = bench.document({"--max-differences=0"});
    EXPECT_EQ(document.at("verdict"), "differs");
    EXPECT_EQ(runs_in_all(document), runs_of(expected, read_file(image)));
}

TEST(ComparingGaps, TakesWrittenZerosForAHole) {
    const CheckBench bench(kEmmc);
    const Bytes bytes = bench.output("out_image.img");
    write_file(bench.out("out_image.img"), bytes);
    EXPECT_EQ(bench.check().exit_status, kSame);
}

TEST(ComparingGaps, FindsOneByteInAHoleOfZeros) {
    const CheckBench bench(kEmmc, with_sparse_item());
    const uint64_t hole = 0x3000 * kSectorSize + 4096 + 12345;  // in the chunk that is not stored
    ASSERT_EQ(bench.output("out_image.img").at(hole), 0);
    bench.bend("out_image.img", hole, {1});
    const Json document = bench.document();
    EXPECT_EQ(part_of(document, "misc").at("first_difference"), hole);
    EXPECT_EQ(part_of(document, "misc").at("differing_bytes"), 1);
}

// ---- images and streams ----

class ComparingImages : public testing::TestWithParam<Conversion> {
protected:
    RunResult check(const std::string& shell_line, Arguments more = {}) const {
        more.emplace_back("-");
        return run_check_in_shell(shell_line, m_bench.arguments_without_target(more),
                                  {.environment = {{"IMAGE", m_bench.out("out_image.img")}}});
    }
    RunResult check_image(const Arguments& more = {}) const {
        Arguments all = m_bench.arguments_without_target(more);
        all.push_back(m_bench.out("out_image.img"));
        return run_check_program(all);
    }

    const CheckBench m_bench{GetParam()};
    const std::string m_from_file = R"(exec "$0" "$@" < "$IMAGE")";
    const std::string m_from_pipe = R"(cat "$IMAGE" | "$0" "$@")";
};

TEST_P(ComparingImages, TakesAnImage) {
    EXPECT_EQ(check_image().exit_status, kSame);
    EXPECT_EQ(parsed(check_image({"--json"})).at("target").at("kind"), "image");
}

TEST_P(ComparingImages, TakesStandardInput) {
    for (const std::string& line : {m_from_file, m_from_pipe}) {
        const RunResult run = check(line);
        EXPECT_EQ(run.exit_status, kSame) << run.out << run.err;
        const Json document = parsed(check(line, {"--json"}));
        EXPECT_EQ(document.at("target").at("kind"), "stream");
        EXPECT_EQ(document.at("target").at("path"), "-");
    }
}

TEST_P(ComparingImages, FindsDamageInAStream) {
    const Bytes expected = m_bench.output("out_image.img");
    m_bench.damage("out_image.img", expected.size() - 3, 3);
    for (const std::string& line : {m_from_file, m_from_pipe}) {
        const Json document = parsed(check(line, {"--json"}));
        EXPECT_EQ(document.at("verdict"), "differs");
        EXPECT_EQ(runs_in_all(document), runs_of(expected, m_bench.output("out_image.img")));
    }
}

TEST_P(ComparingImages, FindsAStreamThatEndsEarly) {
    for (const std::string line :
         {R"(head -c 1000 "$IMAGE" | "$0" "$@")", R"("$0" "$@" < /dev/null)", R"(: | "$0" "$@")"}) {
        SCOPED_TRACE(line);
        const RunResult run = check(line, {"--json"});
        EXPECT_NE(run.exit_status, kSame);
        parsed(run);
    }
    const Json document = parsed(check(R"(head -c 1000 "$IMAGE" | "$0" "$@")", {"--json"}));
    EXPECT_EQ(document.at("verdict"), "differs");
}

TEST_P(ComparingImages, AllowsAnEmptyRest) {
    const uint64_t size = fs::file_size(m_bench.out("out_image.img"));
    for (const uint8_t fill : {uint8_t{0}, uint8_t{0xFF}}) {
        fs::resize_file(m_bench.out("out_image.img"), size + 100000);
        m_bench.bend("out_image.img", size, Bytes(100000, fill));
        for (const Arguments& more : {Arguments{"--json"}, Arguments{"--json", "--strict"}}) {
            const Json document = parsed(check_image(more));
            EXPECT_EQ(document.at("verdict"), "same");
            EXPECT_EQ(document.at("rest"), (Json{{"offset", size}, {"bytes", 100000}, {"content", "empty"}}));
        }
    }
}

TEST_P(ComparingImages, CountsARestThatIsNotEmptyWhenStrict) {
    const uint64_t size = fs::file_size(m_bench.out("out_image.img"));
    fs::resize_file(m_bench.out("out_image.img"), size + 3000);
    m_bench.bend("out_image.img", size + 2999, {1});
    EXPECT_EQ(parsed(check_image({"--json"})).at("rest").at("content"), "not-empty");
    EXPECT_EQ(check_image().exit_status, kSame);
    const RunResult strict = check_image({"--strict"});
    EXPECT_EQ(strict.exit_status, kDiffers);
    EXPECT_NE(last_line(strict.out).find("rest not empty"), std::string::npos) << strict.out;
    EXPECT_EQ(check_image({"--strict", "--ignore=rest"}).exit_status, kSame);
}

INSTANTIATE_TEST_SUITE_P(Types, ComparingImages, testing::Values(kEmmc, kSpiNor),
                         [](const auto& made) { return made.param.type; });

// ---- --only, --ignore, --max-differences ----

struct Chosen {
    std::string name;
    Conversion conversion;
    std::string damaged;  // file
    uint64_t offset = 0;
    std::string option;
    int status;
};

class ChosenParts : public testing::TestWithParam<Chosen> {};

TEST_P(ChosenParts, AreThoseThatCount) {
    const Chosen& chosen = GetParam();
    const CheckBench bench(chosen.conversion);
    bench.damage(chosen.damaged, chosen.offset);
    const Json document = bench.document({chosen.option, "--no-second-opinion"});
    EXPECT_EQ(document.at("status"), chosen.status) << document.dump(1);
    if (chosen.status == kTrouble)
        return;
    EXPECT_EQ(sum_of(document, "differing_bytes"), 1U) << "ignored parts are counted";
}

constexpr uint64_t kMiscPart = 0x2080 * kSectorSize;

INSTANTIATE_TEST_SUITE_P(
    Options, ChosenParts,
    testing::Values(
        Chosen{"ImageIgnoresThePart", kEmmc, "out_image.img", kMiscPart, "--ignore=misc", kSame},
        Chosen{"ImageIgnoresAnotherPart", kEmmc, "out_image.img", kMiscPart, "--ignore=boot", kDiffers},
        Chosen{"ImageOnlyThePart", kEmmc, "out_image.img", kMiscPart, "--only=misc", kDiffers},
        Chosen{"ImageOnlyAnotherPart", kEmmc, "out_image.img", kMiscPart, "--only=boot,rootfs", kSame},
        Chosen{"ImageIgnoresTheTable", kEmmc, "out_image.img", 600, "--ignore=gpt", kSame},
        Chosen{"ImageIgnoresBootBlocks", kEmmc, "out_image.img", 64 * kSectorSize, "--ignore=idblock", kSame},
        Chosen{"ImageUnknownIgnored", kEmmc, "out_image.img", kMiscPart, "--ignore=mics", kTrouble},
        Chosen{"ImageUnknownOnly", kEmmc, "out_image.img", kMiscPart, "--only=misc,nothing", kTrouble},
        Chosen{"FilesIgnoreTheFile", kSpiNand, "misc.img", 5, "--ignore=misc", kSame},
        Chosen{"FilesOnlyTheFile", kSpiNand, "misc.img", 5, "--only=misc", kDiffers},
        Chosen{"FilesOnlyAnother", kSpiNand, "misc.img", 5, "--only=boot", kSame},
        Chosen{"FilesIgnoreBootBlocks", kSpiNand, "idblock.img", 5, "--ignore=idblock", kSame},
        Chosen{"FilesUnknownIgnored", kSpiNand, "misc.img", 5, "--ignore=misc.img", kTrouble},
        Chosen{"SlcIgnoresTheFile", kSlcNand, "misc.img", 5, "--ignore=misc", kSame}),
    [](const auto& made) { return made.param.name; });

class UnknownName : public testing::TestWithParam<Conversion> {};

TEST_P(UnknownName, IsTroubleBeforeTheTargetIsRead) {
    const CheckBench bench(GetParam(), with_overlaps());
    bench.damage(bench.main_file(), 0);
    for (const std::string option : {"--only=", "--ignore="})
        for (const std::string name : {"bot", "empty", "misc.img"}) {
            const RunResult run = bench.check({option + "misc," + name});
            EXPECT_EQ(run.exit_status, kTrouble);
            EXPECT_EQ(run.out, "trouble: no part has the name '" + name + "'\n");
            const Json document = bench.document({option + name});
            EXPECT_EQ(document.at("error"), "no part has the name '" + name + "'");
            EXPECT_EQ(document.at("parts"), Json::array());
        }
}

TEST_P(UnknownName, GivesWayToWhatIsWrongWithTheFirmware) {
    Firmware firmware = with_gpt();
    const CheckBench bench(GetParam(), firmware);
    firmware.items.clear();
    firmware.write(bench.firmware());
    const Json document = bench.document({"--only=bot"});
    EXPECT_EQ(document.at("error"), bench.document().at("error"));
    EXPECT_EQ(document.at("error"), "not found any of partition items in the firmware");
}

INSTANTIATE_TEST_SUITE_P(Types, UnknownName, testing::ValuesIn(kFourTypes),
                         [](const auto& made) { return made.param.type; });

TEST(ChosenFiles, AMissingOneThatIsIgnoredIsSame) {
    const CheckBench bench(kSpiNand);
    fs::remove(bench.out("misc.img"));
    const Json document = bench.document({"--ignore=misc"});
    EXPECT_EQ(document.at("verdict"), "same") << document.dump(1);
    EXPECT_EQ(document.at("missing"), Json::array());
    EXPECT_EQ(bench.document({"--only=misc"}).at("verdict"), "differs");
}

TEST(ChosenFiles, ParityInAnIgnoredFileIsIgnored) {
    const CheckBench bench(kSlcNand);
    bench.damage("misc.img", 5);
    const RunResult run = bench.check({"--ignore=misc"});
    EXPECT_EQ(run.exit_status, kSame) << run.out;
}

TEST(MaxDifferences, LimitsWhatIsListedAndNotWhatIsCounted) {
    const CheckBench bench(kSpiNand);
    for (const uint64_t place : {100U, 300U, 5000U, 9000U})
        bench.damage("rootfs.img", place, 2);
    for (const auto& [value, listed] :
         std::map<std::string, std::size_t>{{"0", 4}, {"1", 1}, {"3", 3}, {"0x2", 2}, {"1K", 4}}) {
        SCOPED_TRACE(value);
        const Json part = part_of(bench.document({"--max-differences=" + value}), "rootfs");
        EXPECT_EQ(part.at("differences").size(), listed);
        EXPECT_EQ(part.at("differences_found"), 4);
        EXPECT_EQ(part.at("differing_bytes"), 8);
        EXPECT_EQ(part.at("differing_pages"), 3);
        EXPECT_EQ(part.at("first_difference"), 100);
    }
    const RunResult run = bench.check({"--max-differences=1"});
    EXPECT_NE(run.out.find("and 3 more"), std::string::npos) << run.out;
}

TEST(MaxDifferences, ZeroListsEvenTensOfThousands) {
    const CheckBench bench(kSpiNand);
    Bytes bytes = bench.output("rootfs.img");
    for (std::size_t i = 0; i < bytes.size(); i += 2)
        bytes[i] ^= 1U;
    write_file(bench.out("rootfs.img"), bytes);
    const Json part = part_of(bench.document({"--max-differences=0"}), "rootfs");
    EXPECT_EQ(part.at("differences").size(), bytes.size() / 2);
    const RunResult run = bench.check({"--max-differences=0"});
    EXPECT_LT(split(run.out, '\n').size(), 50U) << "only --verbose lists more than fits a screen";
}

TEST(ChosenFiles, WithNothingForTheSecondOpinion) {
    const CheckBench bench(kSpiNand);
    const RunResult run = bench.check({"--only=misc"});
    EXPECT_EQ(run.exit_status, kSame);
    EXPECT_NE(run.out.find("second opinion: nothing was judged\n"), std::string::npos) << run.out;
    EXPECT_TRUE(bench.document({"--only=misc"}).at("second_opinion").at("verdict").is_null());
}

// ---- the text ----

TEST(ReportOfARun, SaysWhereAFlippedBitIs) {
    const CheckBench bench(kSlcNand);
    const uint8_t byte = bench.output("boot.img").at(2112 + 1056 + 10);
    bench.bend("boot.img", 2112 + 1056 + 10, {static_cast<uint8_t>(byte ^ 1U)});
    const RunResult run = bench.check();
    EXPECT_EQ(run.exit_status, kDiffers);
    EXPECT_NE(run.out.find("boot.img: first difference at byte 3178 (0xc6a): is "), std::string::npos)
        << run.out;
    EXPECT_NE(run.out.find(
                  "  block 0, page 1 (page 1 of the file), byte 10 of unit 1: 1 bit differs, correctable\n"),
              std::string::npos)
        << run.out;
    EXPECT_NE(run.out.find("second opinion: 1 of "), std::string::npos) << run.out;
}

// ---- sparse images that fill their partition ----

// The header declares one block, so 64 MiB more than the partition's size is the most that is expanded.
Firmware with_last_item(std::vector<SparseChunk> chunks) {
    Firmware firmware = sample_firmware();
    SparseImage image;
    image.total_blocks = 1;
    image.chunks = std::move(chunks);
    firmware.items.push_back(partition_item("last", 0x20000, 100 * 2048, image.build()));
    return firmware;
}

TEST(FullPartition, OfAFillChunkIsTheSame) {
    const CheckBench bench(kEmmc, with_last_item({SparseChunk::fill(0x11223344, 100 * 256)}));
    EXPECT_EQ(bench.check().exit_status, kSame);
}

TEST(FullPartition, OfARawChunkThatIsTooLongIsTheSame) {
    const CheckBench bench(
        kEmmc, with_last_item({SparseChunk::fill(0, 99 * 256), SparseChunk::raw(patterned(2 * kMib, 3))}));
    EXPECT_EQ(bench.check().exit_status, kSame);
    bench.damage("out_image.img", fs::file_size(bench.out("out_image.img")) - 1);
    EXPECT_EQ(bench.check().exit_status, kDiffers);
}

}  // namespace
