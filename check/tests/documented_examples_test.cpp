// The examples of docs/check.md, run as somebody types them: what the page says is what the programs print.

#include "check_bench.h"
#include "support/require_tool.h"

#include <memory>

namespace {

using namespace check_test;

std::string page(const std::string& name) {
    return to_text(read_file(fs::path(NANDSMITH_SOURCE_DIR) / "docs" / name));
}

/// What stands after the first `begin` and before the next `end`.
std::string between(const std::string& text, const std::string& begin, const std::string& end) {
    const std::size_t found = text.find(begin);
    const std::size_t first = found + begin.size();
    const std::size_t last = found == std::string::npos ? found : text.find(end, first);
    if (last == std::string::npos)
        throw std::runtime_error("the page lacks what begins with: " + begin);
    return text.substr(first, last - first);
}

std::string section(const std::string& name, const std::string& heading) {
    return between(page(name) + "\n## ", "\n## " + heading + "\n", "\n## ");
}

/// The cells of all tables, without the rows of headings.
std::vector<Lines> rows_of(const std::string& text) {
    std::vector<Lines> rows;
    for (const std::string& line : split(text, '\n')) {
        if (line.starts_with("|---"))
            rows.pop_back();
        else if (line.starts_with("|")) {
            Lines cells;
            for (const std::string& cell : split(line.substr(1), '|'))
                cells.push_back(cell == " " ? "" : cell.substr(1, cell.size() - 2));
            rows.push_back(cells);
        }
    }
    return rows;
}

/// How the last line begins, by the exit status.
std::map<int, std::string> closing_lines() {
    std::map<int, std::string> lines;
    for (const Lines& row : rows_of(section("check.md", "Exit status")))
        lines[std::stoi(row.at(0))] = between(row.at(1), "`", "...`");
    return lines;
}

const std::string kSlc = "-i fw.img -t slc -b 128 -p 2 -s 64 ";
const std::string kGpt = "-i fw-gpt.img -t emmc -b 512 -p 2 ";
const std::string kDump = kSlc + "--only=idblock,misc,userdata ";

class DocumentedExamples : public testing::Test {
protected:
    static void SetUpTestSuite() {
        m_files = std::make_unique<TemporaryDirectory>();
        fs::create_directory(*m_files / "programs");
        for (const auto& [name, program] : {std::pair{"nandsmith", NANDSMITH_PROGRAM},
                                            {"nandsmith-check", NANDSMITH_CHECK_PROGRAM},
                                            {"make_sample_firmware", MAKE_SAMPLE_FIRMWARE}})
            fs::create_symlink(program, *m_files / "programs" / name);
        run_commands(between(between(page("check.md") + "\n## ", "The examples of this page use", "\n## "),
                             "```sh\n", "```\n"));
    }
    static void TearDownTestSuite() { m_files.reset(); }

    /// Commands of the shell in the directory of the files.
    static RunResult shell(const std::string& commands) {
        return run_program("/bin/sh", {"-ec", "PATH=$PWD/programs:$PATH:/usr/sbin\n" + commands},
                           {.working_directory = m_files->path(), .timeout_seconds = 120});
    }
    static void run_commands(const std::string& commands) {
        const RunResult run = shell(commands);
        if (!run.succeeded())
            throw std::runtime_error(commands + " fails: " + run.out + run.err);
    }
    /// A check, whose last line is as the page says for its status.
    static RunResult check(const std::string& arguments) {
        const RunResult run = shell("nandsmith-check " + arguments);
        EXPECT_EQ(run.err, "");
        EXPECT_TRUE(last_line(run.out).starts_with(closing_lines().at(run.exit_status))) << run.out;
        return run;
    }

    static void expect_diagnosis(const std::string& code, const std::string& words,
                                 const std::string& arguments) {
        SCOPED_TRACE(arguments);
        RunResult run = check(arguments + " --json=report");
        EXPECT_EQ(run.exit_status, kDiffers);
        EXPECT_NE(("\n" + run.out).find("\nlooks like: " + words), std::string::npos) << run.out;
        EXPECT_NE(run.out.find(" [" + code + "]\n"), std::string::npos) << run.out;
        run.out = to_text(read_file(*m_files / "report"));
        EXPECT_EQ(codes_of(parsed(run)), code);
    }

    static void make_changed_targets();

    inline static std::unique_ptr<TemporaryDirectory> m_files;
};

TEST_F(DocumentedExamples, OfVerdicts) {
    run_commands(R"(
        cp -r slc d
        printf '\001' | dd of=d/rootfs.img bs=1 seek=1182731 conv=notrunc
        truncate -s -100 d/misc.img
        rm d/userdata.img
        : > d/old.img)");
    const std::string text = page("check.md");
    std::size_t examples = 0;
    const std::string announced = "prints, with status ";
    for (std::size_t at = text.find(announced); at != std::string::npos; at = text.find(announced, at + 1)) {
        const std::size_t begin = text.rfind('`', at - 3) + 1;
        const std::string command = text.substr(begin, at - 2 - begin);
        ASSERT_TRUE(command.starts_with("nandsmith-check "));
        const RunResult run = check(command.substr(command.find(' ')));
        EXPECT_EQ(std::to_string(run.exit_status), between(text.substr(at), announced, ":\n\n```\n"));
        EXPECT_EQ(run.out, between(text.substr(at), "```\n", "```\n"));
        ++examples;
    }
    EXPECT_GE(examples, 2U);
}

TEST_F(DocumentedExamples, OfTrouble) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"/dev/null is not a file or a block device", kSlc + "/dev/null"},
        {"size of oob is not enough", "-i fw.img -t slc -b 128 -p 2 -s 2 slc"},
        {"missing.img failed to access: No such file or directory",
         "-i missing.img -t emmc -b 512 -p 2 emmc"},
        {"no part has the name 'bot'", kSlc + "--only=bot slc"},
        {"nothing is left to compare", kSlc + "--only=gpt slc"},
        {"unknown option '--ignroe'", kGpt + "--ignroe=gpt emmc"}};
    std::string listed;
    for (const auto& [reason, arguments] : cases) {
        const RunResult run = check(arguments);
        EXPECT_EQ(run.exit_status, kTrouble);
        EXPECT_EQ(last_line(run.out), "trouble: " + reason);
        listed += "trouble: " + reason + "\n";
    }
    EXPECT_EQ(between(section("check.md", "Exit status"), "```\n", "```\n"), listed);
    EXPECT_EQ(closing_lines(), (std::map<int, std::string>{
                                   {kSame, "same: "}, {kDiffers, "differs: "}, {kTrouble, "trouble: "}}));
}

/// The targets of the rows below.
void DocumentedExamples::make_changed_targets() {
    run_commands(R"(
        cat slc/idblock.img slc/misc.img slc/userdata.img > chip.bin
        dd conv=swab if=chip.bin of=swapped.bin
        head -c 77 fw.img | cat - chip.bin > header.bin
        mkdir two_kb random
        nandsmith -i fw.img -o two_kb -t spinand -b 128 -p 4 -2
        for f in two_kb/*; do head -c $(stat -c %s $f) /dev/urandom > random/${f#*/}; done
        truncate -s 92274688 image.img
        cp -r emmc copy
        printf '\001' | dd of=copy/out_image.img bs=1 seek=560000 conv=notrunc
        cp -r emmc guids)");
    constexpr std::size_t page_bytes = 2112;
    constexpr std::size_t block_bytes = 64 * page_bytes;
    const Bytes chip = read_file(*m_files / "chip.bin");
    Bytes main, corrected;
    for (std::size_t at = 0; at < chip.size(); at += page_bytes) {
        put_bytes(main, slice(chip, at, 2048));
        put_bytes(corrected, slice(chip, at, 1024) + slice(chip, at + 1056, 1024));
    }
    Bytes written_over = chip;
    for (std::size_t at = 5 * block_bytes; at < 6 * block_bytes; ++at)
        written_over[at] &= chip[at - block_bytes];
    write_file(*m_files / "main.bin", main);
    write_file(*m_files / "corrected.bin", corrected);
    write_file(*m_files / "written_over.bin", written_over);
    write_file(*m_files / "random.bin", patterned(chip.size(), 1));
    Bytes image = read_file(*m_files / "guids/out_image.img");
    for (const std::size_t guid : {kSectorSize + 56, 2 * kSectorSize + 16})
        put_bytes_at(image, guid, patterned(16, 2));
    repair_gpt_checksums(image);
    write_file(*m_files / "guids/out_image.img", image);
}

/// A row of the tables of diagnoses.
struct Diagnosed {
    std::string code;
    std::string example;
    Arguments checks{};      ///< what gives the diagnosis; empty: the options that are the example
    std::string shown_in{};  ///< not empty: the test that shows it in place of this one
};

const std::vector<Diagnosed> kDiagnosed{
    {"page-list", "`-t slc -b 128 -p 2 -s 64 --page_list slc`"},
    {"block-size", "`-t slc -b 256 -p 2 -s 64 slc`"},
    {"page-or-spare-size", "`-t slc -b 128 -p 2 -s 128 slc`"},
    {"2k-data",
     "converted with `-t spinand -b 128 -p 4 -2`, checked without `-2`",
     {"-i fw.img -t spinand -b 128 -p 4 two_kb"}},
    {"rc4-key", "converted by a `nandsmith` that has another key", {}, "diagnosing_run_test.cpp"},
    {"blank", "`truncate -s 92274688 image.img`", {kGpt + "image.img"}},
    {"copy-good", "byte 560000 of `out_image.img` changed, in the second boot block copy", {kGpt + "copy"}},
    {"gpt-adapted",
     "the [commands](formats/gpt.md#general-tools) that write the table to a device",
     {},
     "DocumentedExamples.TableOnADevice"},
    {"gpt-guids", "GUIDs changed, checksums repaired", {kGpt + "guids"}},
    {"other-firmware", "files of random bytes", {"-i fw.img -t spinand -b 128 -p 4 -2 random"}},
    {"no-spare",
     "pages of 2,048 bytes, as they lie or corrected",
     {kDump + "main.bin", kDump + "corrected.bin"}},
    {"spare-not-read", "", {}, "dump_diagnosis_test.cpp"},
    {"byte-swapped", "`dd conv=swab`", {kDump + "swapped.bin"}},
    {"offset", "the boot block lies in the first 64 KB", {kDump + "header.bin"}},
    {"only-cleared", "a block with the AND of old and new data", {kDump + "written_over.bin"}},
    {"only-set", "", {}, "dump_diagnosis_test.cpp"},
    {"other-firmware", "random bytes", {kDump + "random.bin"}},
};

TEST_F(DocumentedExamples, OfDiagnoses) {
    make_changed_targets();
    const std::vector<Lines> rows = rows_of(section("check.md", "Diagnoses"));
    ASSERT_EQ(rows.size(), kDiagnosed.size());
    for (std::size_t number = 0; number < rows.size(); ++number) {
        const Lines& row = rows[number];
        const Diagnosed& diagnosed = kDiagnosed[number];
        EXPECT_EQ(row, (Lines{"`" + diagnosed.code + "`", row.at(1), diagnosed.example}));
        if (!diagnosed.shown_in.empty())
            continue;
        Arguments checks = diagnosed.checks;
        if (checks.empty())
            checks = {"-i fw.img " + between(diagnosed.example, "`", "`")};
        for (const std::string& arguments : checks)
            expect_diagnosis(diagnosed.code, row.at(1), arguments);
    }
}

TEST_F(DocumentedExamples, TableOnADevice) {
    REQUIRE_TOOL("sfdisk");
    if (!shell("truncate -s 2T holes").succeeded())
        GTEST_SKIP() << "no file of 2 TiB here";
    const std::string tools = section("formats/gpt.md", "General tools");
    run_commands("mkdir demo && ln -s ../emmc demo/emmc-gpt\n" + between(tools, "```sh\n", "```\n"));
    run_commands("cp emmc/out_image.img DEVICE && truncate -s 8G DEVICE\nsed " +
                 between(tools, "```sh\nsed ", "```\n"));
    for (const Lines& row : rows_of(section("check.md", "Diagnoses")))
        if (row.at(0) == "`gpt-adapted`")
            expect_diagnosis("gpt-adapted", row.at(1), kGpt + "DEVICE");
}

}  // namespace
