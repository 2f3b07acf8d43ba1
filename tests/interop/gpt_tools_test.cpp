// The GPT as partitioning tools read it.

#include "interop/sample.h"
#include "support/expected/gpt.h"

#include <array>
#include <cstdio>

namespace {

using namespace interop_test;

// As tools print it: the first three groups are stored little-endian.
std::string guid_text(const Bytes& guid) {
    std::string text;
    for (const int i : {3, 2, 1, 0, -1, 5, 4, -1, 7, 6, -1, 8, 9, -1, 10, 11, 12, 13, 14, 15}) {
        std::array<char, 3> digits{};
        if (i >= 0)
            std::snprintf(digits.data(), digits.size(), "%02X", guid.at(static_cast<std::size_t>(i)));
        text += i < 0 ? "-" : digits.data();
    }
    return text;
}

struct ExpectedPartition {
    std::string name{};
    uint64_t first = 0;
    uint64_t last = 0;
    bool bootable = false;
    std::string type{};
    std::string guid{};
};

// The partitions of the sample's parameter text, with the GUIDs of an unseeded generator.
std::vector<ExpectedPartition> expected_partitions(const Sample& firmware) {
    const GuidSequence guids;
    static_cast<void>(guids.next());  // of the disk
    std::vector<ExpectedPartition> partitions;
    for (const PackedItem& item : firmware.items()) {
        if (item.name == "parameter")
            continue;
        ExpectedPartition partition{.name = item.name, .first = item.flash_offset};
        partition.last =
            item.part_size == kGrowsToEnd ? 0xFFFFFFDD : uint64_t{item.flash_offset} + item.part_size - 1;
        partition.bootable = item.name == "boot";
        partition.type = guid_text(guids.next());
        partition.guid = guid_text(guids.next());
        if (item.name == "rootfs")
            partition.guid = "7A3C19E4-52D0-4F6B-9E81-C0FFEE123456";
        partitions.push_back(partition);
    }
    return partitions;
}

std::string without_blanks(std::string text) {
    std::erase(text, ' ');
    return text;
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// The image at the start of a disk of the size that the table states, most of it a hole.
class GptDisk : public testing::TestWithParam<Conversion> {
protected:
    void SetUp() override {
        REQUIRE_SAMPLE_TOOLS();
        convert(sample(true, true), GetParam(), m_directory / "out");
        fs::rename(m_directory / "out/out_image.img", disk());
        std::error_code error;
        fs::resize_file(disk(), uint64_t{0xFFFFFFFF} * kSectorSize, error);
        if (error)
            GTEST_SKIP() << "no file of 2 TiB here: " << error.message();
        m_table = read_file_at(disk(), 0, kGptBytes);
    }

    fs::path disk() const { return m_directory / "disk.img"; }

    // Tools that only look change nothing.
    void TearDown() override {
        EXPECT_TRUE(m_table.empty() || read_file_at(disk(), 0, kGptBytes) == m_table);
    }

private:
    TemporaryDirectory m_directory{};
    Bytes m_table{};
};

TEST_P(GptDisk, IsListedBySfdiskWhichMissesTheBackupAlone) {
    REQUIRE_TOOL("sfdisk");
    const RunResult result = run_program(find_program("sfdisk"), {"--dump", disk()});
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.err,
              "The backup GPT table is corrupt, but the primary appears OK, so that will be used.\n");

    const std::string dump = without_blanks(result.out);
    const GuidSequence guids;
    EXPECT_TRUE(contains(dump, "label:gpt\nlabel-id:" + guid_text(guids.next()) + "\n")) << dump;
    EXPECT_TRUE(contains(dump, "\nfirst-lba:34\nlast-lba:4294967261\n")) << dump;
    const std::vector<ExpectedPartition> partitions = expected_partitions(sample(true, true));
    ASSERT_EQ(partitions.size(), 4U);
    for (std::size_t i = 0; i < partitions.size(); ++i) {
        const ExpectedPartition& partition = partitions[i];
        const std::string line =
            disk().string() + std::to_string(i + 1) + ":start=" + std::to_string(partition.first) +
            ",size=" + std::to_string(partition.last - partition.first + 1) + ",type=" + partition.type +
            ",uuid=" + partition.guid + ",name=\"" + partition.name + "\"" +
            (partition.bootable ? ",attrs=\"LegacyBIOSBootable\"" : "") + "\n";
        EXPECT_TRUE(contains(dump, line)) << line << dump;
    }
    EXPECT_FALSE(contains(dump, disk().string() + "5:")) << dump;
}

TEST_P(GptDisk, IsVerifiedBySgdiskWhichMissesTheBackupAlone) {
    REQUIRE_TOOL("sgdisk");
    const RunResult result = run_program(find_program("sgdisk"), {"-v", disk()});
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_TRUE(contains(result.err, "Main header: OK\n"
                                     "Backup header: ERROR\n"
                                     "Main partition table: OK\n"
                                     "Backup partition table: ERROR\n"))
        << result.err;
    EXPECT_TRUE(contains(result.out, "The CRC for the backup partition table is invalid.")) << result.out;
    EXPECT_TRUE(contains(result.out, "Identified 1 problems!")) << result.out;
}

TEST_P(GptDisk, IsDescribedBySgdisk) {
    REQUIRE_TOOL("sgdisk");
    const std::vector<ExpectedPartition> partitions = expected_partitions(sample(true, true));
    for (std::size_t i = 0; i < partitions.size(); ++i) {
        const ExpectedPartition& partition = partitions[i];
        SCOPED_TRACE(partition.name);
        const RunResult result = run_program(find_program("sgdisk"), {"-i", std::to_string(i + 1), disk()});
        EXPECT_EQ(result.exit_status, 0);
        for (const std::string& line :
             {"Partition GUID code: " + partition.type, "Partition unique GUID: " + partition.guid + "\n",
              "First sector: " + std::to_string(partition.first) + " ",
              "Last sector: " + std::to_string(partition.last) + " ",
              std::string("Attribute flags: 000000000000000") + (partition.bootable ? "4" : "0") + "\n",
              "Partition name: '" + partition.name + "'\n"})
            EXPECT_TRUE(contains(result.out, line)) << line << result.out;
    }
}

INSTANTIATE_TEST_SUITE_P(Sample, GptDisk,
                         testing::Values(Conversion{"emmc", "512", "2"}, Conversion{"spinor", "64", "2"}),
                         [](const testing::TestParamInfo<Conversion>& tested) { return tested.param.type; });

}  // namespace
