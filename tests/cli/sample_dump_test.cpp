// make_sample_dump: what it prints is what it writes, and it refuses what does not fit.

#include "support/bytes.h"
#include "support/run_program.h"
#include "support/same_bytes.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace {

using namespace test_support;
using Words = std::vector<std::string>;

// A directory with the files of SPI NAND pages of 1 KB, two to a block: idblock has 1 block, boot 2 and
// rootfs 3.
class SampleDump : public testing::Test {
protected:
    SampleDump() {
        write_file(path("rootfs.img"), m_rootfs);
        write_file(path("boot.img"), m_boot);
        write_file(path("idblock.img"), m_idblock);
        write_file(path("notes.txt"), to_bytes("not a file of the chip"));
    }

    std::filesystem::path path(const std::string& name) const { return m_directory / name; }
    std::filesystem::path dump() const { return m_out / "chip.bin"; }

    RunResult run(const Words& more) const {
        Words words{"--from",
                    m_directory.path().string(),
                    "--spinand",
                    "--page",
                    "1024",
                    "--pages-per-block",
                    "2",
                    "--blocks",
                    "16",
                    "--out",
                    dump().string()};
        words.insert(words.end(), more.begin(), more.end());
        return run_program(MAKE_SAMPLE_DUMP, words);
    }

    void expect_refusal(const Words& more, int status, const std::string& text) const {
        const RunResult result = run(more);
        EXPECT_EQ(result.exit_status, status);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "make_sample_dump: " + text + "\n");
        EXPECT_FALSE(std::filesystem::exists(dump()));
    }

    TemporaryDirectory m_directory{};
    TemporaryDirectory m_out{};
    Bytes m_idblock = patterned(2048, 1);
    Bytes m_boot = patterned(4096, 2);
    Bytes m_rootfs = patterned(5120, 3);
};

TEST_F(SampleDump, PlacesIdblockFirstAndTheOthersByName) {
    const RunResult result = run({"--layout", (m_out / "layout.csv").string()});
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out,
              R"(file           found at   blocks   skipped     flips   worst unit   beyond   window
idblock               0        1         0         0            0        0   0 to 2
boot                  3        2         0         0            0        0   3 to 6
rootfs                7        3         0         0            0        0   7 to 11
flips per unit   0: 11   beyond: 0
1 to 0: 0   0 to 1: 0   bit error rate 0.0e+00
erased units in files: 0   erased blocks of the chip: 10
bad from the factory: -
failed while programmed: -
)");
    EXPECT_EQ(to_text(read_file(m_out / "layout.csv")), "idblock,0,2\nboot,3,6\nrootfs,7,11\n");
    Bytes expected = padded(m_idblock, 3 * 2048, 0xFF) + padded(m_boot, 4 * 2048, 0xFF) + m_rootfs;
    expected.resize(16 * 2048, 0xFF);
    EXPECT_TRUE(same_bytes(read_file(dump()), expected));
}

TEST_F(SampleDump, TellsBadBlocksAndDamage) {
    const RunResult result = run({"--bad", "0,15", "--fail", "6", "--unwritten", "3", "--stale", "5",
                                  "--flips", "2", "--reserve", "1"});
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out,
              R"(file           found at   blocks   skipped     flips   worst unit   beyond   window
idblock               1        1         0         1            1        0   0 to 1
  before it: 0
boot                  2        2         0         0            0        2   2 to 4
rootfs                5        3         1         0            0        2   5 to 8
  skipped: 6 (failed)
flips per unit   0: 6   1: 1   beyond: 4
1 to 0: 0   0 to 1: 1   bit error rate 1.7e-05
erased units in files: 2   erased blocks of the chip: 8
  block 3, page 0, unit 0: erased, 4060 bits differ; 1 more in this block
  block 5, page 0, unit 0: ruined, 4168 bits differ; 1 more in this block
bad from the factory: 0 15
failed while programmed: 6
)");
    const Bytes chip = read_file(dump());
    EXPECT_TRUE(same_bytes(slice(chip, 2 * 2048, 2048), slice(m_boot, 0, 2048)));
    EXPECT_TRUE(same_bytes(slice(chip, 7 * 2048, 3072), slice(m_rootfs, 2048, 3072)));
}

TEST_F(SampleDump, GivesTheSameBytesForTheSameSeed) {
    const Words faults{"--bad", "0.1", "--fail", "0.1", "--ber", "1e-3", "--reserve", "2", "--seed"};
    const auto made = [&](const std::string& seed) {
        Words words = faults;
        words.push_back(seed);
        const RunResult result = run(words);
        EXPECT_EQ(result.err, "");
        return std::pair(result.out, read_file(dump()));
    };
    const auto first = made("7");
    EXPECT_EQ(made("7"), first);
    EXPECT_NE(made("8"), first);
}

TEST_F(SampleDump, RefusesWhatDoesNotFit) {
    const std::string here = m_directory.path().string();
    expect_refusal({"--blocks", "11"}, 1, "rootfs.img needs the blocks 7 to 11, and the chip has 11");
    expect_refusal({"--bad", "0", "--reserve", "0"}, 1,
                   "idblock.img does not fit into blocks 0 to 0: good ones 0, needed 1");
    expect_refusal({"--page", "2048"}, 1, "rootfs.img is not whole pages of 2048 bytes");
    expect_refusal({"--unwritten", "1"}, 1, "block 1 is not used by a file");
    expect_refusal({"--stale", "0"}, 1, "block 0: idblock.img has no other block");
    expect_refusal({"--bad", "16"}, 1, "there is no block 16 in a chip of 16");
    expect_refusal({"--flips", "50000"}, 1, "--flips is more than half of the written bits");
    expect_refusal({"--ruin", "6"}, 1, "--ruin is more than half of the written units");
    expect_refusal({"--from", m_out.path().string()}, 1, "no .img files in " + m_out.path().string());
    expect_refusal({"--layout", here + "/boot.img"}, 1, here + "/boot.img is one of the files in " + here);
    EXPECT_TRUE(same_bytes(read_file(path("boot.img")), m_boot));
}

TEST_F(SampleDump, NamesTheOptionThatIsWrong) {
    expect_refusal({"--nothing"}, 2, "unknown argument --nothing");
    expect_refusal({"--seed"}, 2, "--seed needs a value");
    expect_refusal({"--ber", "2.0"}, 2, "--ber takes a rate from 0 to 1, not '2.0'");
    expect_refusal({"--bad", "1,x"}, 2, "--bad takes a number from 0 to 1073741824, not 'x'");
    expect_refusal({"--data", "2048"}, 2, "--data is more than --page");
    expect_refusal({"--blocks", "0"}, 2, "--blocks is needed; --help shows all options");
}

TEST_F(SampleDump, ShowsItsHelp) {
    const RunResult result = run_program(MAKE_SAMPLE_DUMP, {"--help"});
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.out.substr(0, result.out.find('\n')),
              "Usage: make_sample_dump --from DIR --page BYTES --pages-per-block N --blocks N --out FILE "
              "[OPTION]...");
}

}  // namespace
