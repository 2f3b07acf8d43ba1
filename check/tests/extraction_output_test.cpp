// What the extraction writes, and what it never touches.

#include "check/extraction/extracted_file.h"
#include "extraction_bench.h"

#include <sys/stat.h>

namespace {

using namespace check_test;

uint64_t disk_bytes(const fs::path& file) {
    struct stat status {};
    if (stat(file.c_str(), &status) != 0)
        throw std::runtime_error("no " + file.string());
    return static_cast<uint64_t>(status.st_blocks) * 512;
}

/// The run fails with this reason, and nothing is in the directory but what was there before.
void expect_refused(const ExtractionBench& bench, const std::string& reason) {
    const std::map<std::string, FileState> before = states_below(bench.directory());
    const ExtractionResult result = bench.extract();
    EXPECT_EQ(result.verdict, Verdict::kTrouble);
    EXPECT_EQ(result.error.value_or(""), reason);
    EXPECT_EQ(states_below(bench.directory()) == before, true);
}

// ---- names ----

TEST(RefusedName, IsOneThatCannotBeAFile) {
    EXPECT_EQ(refused_name("").value_or(""), "its name is empty");
    EXPECT_EQ(refused_name(".").value_or(""), "its name is that of a directory");
    EXPECT_EQ(refused_name("..").value_or(""), "its name is that of a directory");
    EXPECT_EQ(refused_name("a/b").value_or(""), "its name has a '/'");
    EXPECT_EQ(refused_name("/").value_or(""), "its name has a '/'");
    EXPECT_EQ(refused_name(std::string("a\0b", 3)).value_or(""), "its name has a NUL");
    EXPECT_EQ(refused_name(std::string(256, 'a')).value_or(""), "its name has more than 255 bytes");
    EXPECT_EQ(refused_name(std::string(255, 'a')), std::nullopt);
    EXPECT_EQ(refused_name("..."), std::nullopt);
    EXPECT_EQ(refused_name("-rf"), std::nullopt);
}

TEST(ExtractionNames, CannotLeaveTheDirectory) {
    for (const std::string name : {"../evil", "/tmp/evil", "..", ".", "", "sub/evil", "../../out/boot"}) {
        SCOPED_TRACE(name);
        Firmware firmware = sample_firmware();
        firmware.item("misc").name = name;
        const ExtractionBench bench(kEmmc, firmware);
        const Names outside = names_in(bench.directory());
        const ExtractionResult result = bench.extract();
        EXPECT_EQ(result.verdict, Verdict::kDiffers);
        EXPECT_EQ(part_of(result, name).verdict, Verdict::kMissing);
        EXPECT_EQ(part_of(result, name).note, *refused_name(name));
        Names expected = outside;
        expected.insert("data");
        EXPECT_EQ(names_in(bench.directory()), expected);
        EXPECT_EQ(names_in(bench.into()),
                  (Names{"FlashBoot", "FlashData", "boot.img", "parameter.img", "rootfs.img"}));
    }
}

TEST(ExtractionNames, OfAnyOtherBytesAreKept) {
    Firmware firmware = sample_firmware();
    firmware.item("misc").name = "\033[31m\xFF\n -x";
    const ExtractionBench bench(kEmmc, firmware);
    EXPECT_EQ(bench.extract().verdict, Verdict::kSame);
    EXPECT_EQ(read_file(bench.extracted("\033[31m\xFF\n -x.img")), patterned(1024, 4));
}

TEST(ExtractionNames, OfTwoPartsGiveTheFirstOne) {
    Firmware firmware = sample_firmware();
    firmware.item("misc").name = "boot";
    const ExtractionBench bench(kEmmc, firmware);
    const ExtractionResult result = bench.extract();
    EXPECT_EQ(result.verdict, Verdict::kDiffers);
    ASSERT_EQ(result.parts.size(), 6U);
    EXPECT_EQ(result.parts[4].verdict, Verdict::kMissing);
    EXPECT_EQ(result.parts[4].note, "a part before it has the same name");
    EXPECT_EQ(read_file(bench.extracted("boot.img")), patterned(5000, 3));
}

TEST(ExtractionNames, OfTwoNandFilesGiveTheLaterOne) {
    Firmware firmware = sample_firmware();
    firmware.item("misc").name = "boot";
    const ExtractionBench bench(kSpiNand, firmware);
    EXPECT_EQ(bench.extract().verdict, Verdict::kSame);
    EXPECT_EQ(read_file(bench.extracted("boot.img")), patterned(1024, 4));
}

TEST(Extraction, OfNothingIsTrouble) {
    ExtractionBench bench(kSpiNand);
    bench.empty_output();
    const ExtractionResult result = bench.extract();
    EXPECT_EQ(result.verdict, Verdict::kTrouble);
    EXPECT_EQ(result.error.value_or(""), "nothing was extracted");
    EXPECT_EQ(names_in(bench.into()), Names{});
}

// ---- choices ----

TEST(ExtractionChoice, TakesOnlyWhatIsNamed) {
    ExtractionBench bench(kSlcNand);
    bench.options.only = {"boot", "idblock"};
    EXPECT_EQ(bench.extract().verdict, Verdict::kSame);
    EXPECT_EQ(names_in(bench.into()), (Names{"FlashBoot", "FlashData", "boot.img"}));
}

TEST(ExtractionChoice, LeavesOutWhatIsIgnored) {
    ExtractionBench bench(kEmmc);
    bench.options.ignore = {"parameter", "idblock", "rootfs"};
    const ExtractionResult result = bench.extract();
    EXPECT_EQ(result.verdict, Verdict::kSame);
    EXPECT_EQ(part_of(result, "rootfs").verdict, Verdict::kIgnored);
    EXPECT_EQ(names_in(bench.into()), (Names{"boot.img", "misc.img"}));
}

TEST(ExtractionChoice, KnowsItsNames) {
    ExtractionBench bench(kEmmc);
    bench.options.only = {"bot"};
    expect_refused(bench, "no part has the name 'bot'");
}

// ---- what is there already ----

TEST(ExtractionDirectory, GetsNothingWhenAFileIsThere) {
    ExtractionBench bench(kSlcNand);
    fs::create_directory(bench.into());
    write_file(bench.extracted("rootfs.img"), to_bytes("mine"));
    expect_refused(bench, bench.extracted("rootfs.img").string() + " exists; --force replaces it");
}

TEST(ExtractionDirectory, GetsNewFilesByForce) {
    ExtractionBench bench(kSlcNand);
    fs::create_directory(bench.into());
    write_file(bench.extracted("rootfs.img"), to_bytes("mine"));
    fs::create_hard_link(bench.extracted("rootfs.img"), bench.directory() / "other");
    bench.options.chip.force = true;
    EXPECT_EQ(bench.extract().verdict, Verdict::kSame);
    expect_data(bench.into(), plain_data(sample_firmware()));
    EXPECT_EQ(read_file(bench.directory() / "other"), to_bytes("mine"));
}

TEST(ExtractionDirectory, HasLinksThatAreNotFollowed) {
    for (const char* const leads_to : {"mine", "not there"}) {
        ExtractionBench bench(kSlcNand);
        fs::create_directory(bench.into());
        const fs::path mine = bench.directory() / "mine";
        write_file(mine, to_bytes("mine"));
        fs::create_symlink(bench.directory() / leads_to, bench.extracted("rootfs.img"));
        expect_refused(bench, bench.extracted("rootfs.img").string() + " exists; --force replaces it");

        bench.options.chip.force = true;
        EXPECT_EQ(bench.extract().verdict, Verdict::kSame);
        expect_data(bench.into(), plain_data(sample_firmware()));
        EXPECT_FALSE(fs::is_symlink(bench.extracted("rootfs.img")));
        EXPECT_EQ(read_file(mine), to_bytes("mine"));
        EXPECT_FALSE(fs::exists(bench.directory() / "not there"));
    }
}

TEST(ExtractionDirectory, KeepsADirectoryInAFilesPlace) {
    ExtractionBench bench(kSlcNand);
    fs::create_directories(bench.extracted("boot.img") / "mine");
    bench.options.chip.force = true;
    const ExtractionResult result = bench.extract();
    EXPECT_EQ(result.verdict, Verdict::kTrouble);
    EXPECT_EQ(result.error.value_or(""),
              bench.extracted("boot.img").string() + " failed to be written: Is a directory");
    EXPECT_EQ(names_in(bench.into()), (Names{"FlashBoot", "FlashData", "boot.img", "parameter.img"}));
    EXPECT_TRUE(fs::exists(bench.extracted("boot.img") / "mine"));
}

TEST(ExtractionDirectory, NeverReplacesTheFirmware) {
    ExtractionBench bench(kSlcNand);
    fs::create_directory(bench.into());
    fs::create_hard_link(bench.firmware(), bench.extracted("rootfs.img"));
    bench.options.chip.force = true;
    expect_refused(bench, bench.extracted("rootfs.img").string() + " is the firmware");
}

TEST(ExtractionDirectory, NeverReplacesTheTarget) {
    ExtractionBench bench(kEmmc);
    fs::create_directory(bench.into());
    fs::create_hard_link(bench.out("out_image.img"), bench.extracted("rootfs.img"));
    bench.options.chip.force = true;
    expect_refused(bench, bench.extracted("rootfs.img").string() + " is the target");
}

TEST(ExtractionDirectory, HasNotTheTargetInIt) {
    ExtractionBench bench(kEmmc);
    bench.options.chip.extract_directory = bench.out_dir();
    expect_refused(bench,
                   bench.options.target + " lies in " + bench.out_dir().string() + ", which is written to");
    bench.options.chip.extract_directory = bench.directory();
    expect_refused(bench,
                   bench.options.target + " lies in " + bench.directory().string() + ", which is written to");
}

TEST(ExtractionDirectory, IsNotInTheTarget) {
    ExtractionBench bench(kSlcNand);
    bench.options.chip.extract_directory = bench.out_dir() / "data/";
    expect_refused(bench, bench.options.chip.extract_directory + " lies in " + bench.out_dir().string() +
                              ", which is not written to");
    fs::create_directory(bench.out_dir() / "there");
    fs::create_symlink(bench.out_dir() / "there", bench.directory() / "link");
    bench.options.chip.extract_directory = bench.directory() / "link";
    expect_refused(bench, bench.options.chip.extract_directory + " lies in " + bench.out_dir().string() +
                              ", which is not written to");
}

TEST(ExtractionDirectory, IsNotCreatedWithItsParents) {
    ExtractionBench bench(kSlcNand);
    bench.options.chip.extract_directory = bench.directory() / "a/b";
    expect_refused(bench,
                   bench.options.chip.extract_directory + " failed to open: No such file or directory");
}

TEST(ExtractionDirectory, IsNotAFile) {
    ExtractionBench bench(kSlcNand);
    write_file(bench.into(), {});
    expect_refused(bench, bench.into().string() + " failed to open: Not a directory");
}

// ---- targets that are not touched ----

TEST(Extraction, LeavesFirmwareAndTargetAsTheyAre) {
    for (const Conversion& conversion : kFourTypes) {
        const ExtractionBench bench(conversion);
        const std::map<std::string, FileState> before = states_below(bench.out_dir());
        const FileState firmware = states_below(bench.directory()).at(bench.firmware());
        EXPECT_EQ(bench.extract().verdict, Verdict::kSame);
        EXPECT_EQ(states_below(bench.out_dir()) == before, true);
        EXPECT_EQ(states_below(bench.directory()).at(bench.firmware()) == firmware, true);
    }
}

TEST(Extraction, RefusesTheFirmwareAsTarget) {
    ExtractionBench bench(kEmmc);
    bench.options.target = bench.firmware();
    expect_refused(bench, bench.firmware().string() + " is the firmware itself");
}

TEST(Extraction, RefusesASpareAreaThatIsTooSmall) {
    ExtractionBench bench(kSlcNand);
    bench.options.conversion.settings.oob_size = 63;
    expect_refused(bench, "size of oob is not enough");
    bench.options.conversion.settings.in_firmware.clear();
    bench.options.target = bench.out("boot.img");
    expect_refused(bench, "size of oob is not enough");
}

TEST(Extraction, RefusesAFirmwareThatCannotBeConverted) {
    ExtractionBench bench(kEmmc);
    Firmware firmware = sample_firmware();
    firmware.item("boot").part_size = 1;
    bench.pack(firmware);
    expect_refused(bench, "partition size is too small; failed to write boot,ret=-1");
}

TEST(Extraction, NeedsAFirmwareForAnImage) {
    ExtractionBench bench(kEmmc);
    bench.options.conversion.settings.in_firmware.clear();
    expect_refused(bench, "firmware is none; give it with -i");
}

TEST(Extraction, NeedsAFirmwareForADirectory) {
    ExtractionBench bench(kSlcNand);
    bench.options.conversion.settings.in_firmware.clear();
    expect_refused(bench,
                   bench.options.target + " is a directory: without a firmware the target is one file");
}

// ---- holes and failures ----

Firmware with_zeros() {
    Firmware firmware = sample_firmware();
    firmware.item("rootfs").data = patterned(5000, 1) + Bytes(kMib, 0) + patterned(10, 2) + Bytes(kMib, 0);
    return firmware;
}

TEST(ExtractedZeros, BecomeHoles) {
    ExtractionBench bench(kSlcNand, with_zeros());
    EXPECT_EQ(bench.extract().verdict, Verdict::kSame);
    expect_data(bench.into(), plain_data(with_zeros()));
    EXPECT_LT(disk_bytes(bench.extracted("rootfs.img")), kMib / 2);
}

TEST(ExtractedZeros, AreWrittenWhenNoHolesAreWanted) {
    ExtractionBench bench(kSlcNand, with_zeros());
    bench.options.chip.holes = When::kNever;
    EXPECT_EQ(bench.extract().verdict, Verdict::kSame);
    expect_data(bench.into(), plain_data(with_zeros()));
    EXPECT_GE(disk_bytes(bench.extracted("rootfs.img")), 2 * kMib);
}

TEST(ExtractedFile, IsRemovedWhenItFailedToBeWritten) {
    for (const bool force : {false, true}) {
        ExtractionBench bench(kSlcNand);
        bench.options.chip.force = force;
        ExtractionResult result;
        {
            const FileSizeLimit limit(4500);  // FlashData, FlashBoot and the parameter are shorter
            result = bench.extract();
        }
        EXPECT_EQ(result.verdict, Verdict::kTrouble);
        EXPECT_EQ(result.error.value_or(""),
                  bench.extracted("boot.img").string() + " failed to be written: File too large");
        EXPECT_EQ(names_in(bench.into()), (Names{"FlashBoot", "FlashData", "parameter.img"}));
        EXPECT_EQ(result.parts.size(), 4U);
    }
}

TEST(ExtractedFile, IsNotThereUntilItIsComplete) {
    const TemporaryDirectory parent;
    ::ExtractionDirectory directory;
    ASSERT_EQ(directory.open((parent / "d").string()), 0);
    const Bytes bytes = patterned(1000, 1);
    for (const bool replace : {false, true}) {
        {
            ::ExtractedFile file(directory, {.replace = replace});
            ASSERT_EQ(file.open("a"), 0);
            ASSERT_EQ(file.append(bytes.data(), bytes.size()), 0);
        }
        EXPECT_EQ(names_in(parent / "d"), Names{});
    }
    ::ExtractedFile file(directory, {.replace = true});
    ASSERT_EQ(file.open("a"), 0);
    ASSERT_EQ(file.append(bytes.data(), bytes.size()), 0);
    EXPECT_FALSE(fs::exists(parent / "d/a"));
    ASSERT_EQ(file.complete(), 0);
    expect_data(parent / "d", {{"a", bytes}});
}

TEST(ExtractedFile, RefusesANameThatIsTaken) {
    const TemporaryDirectory parent;
    write_file(parent / "a", to_bytes("mine"));
    fs::create_symlink("nowhere", parent / "b");
    ::ExtractionDirectory directory;
    ASSERT_EQ(directory.open(parent.path().string()), 0);
    for (const char* const name : {"a", "b"}) {
        ::ExtractedFile file(directory, {});
        EXPECT_EQ(file.open(name), EEXIST);
    }
    EXPECT_EQ(read_file(parent / "a"), to_bytes("mine"));
    EXPECT_TRUE(fs::is_symlink(parent / "b"));
}

TEST(ExtractedFile, KeepsAllBytesAroundHoles) {
    const TemporaryDirectory parent;
    ::ExtractionDirectory directory;
    ASSERT_EQ(directory.open(parent.path().string()), 0);
    const Bytes bytes = patterned(100, 1) + Bytes(200000, 0) + patterned(70000, 2) + Bytes(1, 0);
    for (const std::size_t step : {std::size_t{1000}, std::size_t{65536}, bytes.size()}) {
        ::ExtractedFile file(directory, {.replace = true});
        ASSERT_EQ(file.open("a"), 0);
        for (std::size_t at = 0; at < bytes.size(); at += step)
            ASSERT_EQ(file.append(bytes.data() + at, std::min(step, bytes.size() - at)), 0);
        EXPECT_EQ(file.size(), bytes.size());
        ASSERT_EQ(file.complete(), 0);
        expect_data(parent.path(), {{"a", bytes}});
    }
}

}  // namespace
