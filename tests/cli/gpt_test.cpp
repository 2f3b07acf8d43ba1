// The GPT: when the parameter text asks for one, and the 34 sectors that come out, to the byte.

#include "cli/sample_runs.h"
#include "cli/workbench.h"

namespace {

using namespace cli_test;
using namespace test_support;
using namespace std::string_literals;

const Conversion nor{"spinor", "4", "2"};

// A firmware of the parameter item alone, with this text in it.
Firmware with_text(const std::string& text) {
    Firmware firmware = sample_firmware();
    firmware.items.resize(1);
    firmware.items[0].data = parameter_record(text);
    return firmware;
}

std::string partition_list(const std::string& list) {
    return "TYPE: GPT\nCMDLINE: mtdparts=flash0:" + list + "\n";
}

void expect_table(const std::string& text, const std::vector<GptEntry>& entries) {
    SCOPED_TRACE(text);
    const Workbench bench(with_text(text));
    Transcript expected = bench.echo(nor);
    expected.line("writing idblock...")
        .line("start to write partitions...gpt=1")
        .line("preparing gpt at 0x00000000")
        .gpt();
    expect_run(bench.convert(nor), 0, expected.success());
    expect_same_bytes(slice(bench.output("out_image.img"), 0, gpt_bytes), gpt_table(entries), "table");
}

// ---- whether there is one ----

bool asks_for_gpt(const std::string& text) {
    const Workbench bench(with_text(text));
    const auto result = bench.convert(nor);
    EXPECT_EQ(result.err, "");
    const bool with = result.out.find("start to write partitions...gpt=1\n") != std::string::npos;
    const bool without = result.out.find("start to write partitions...gpt=0\n") != std::string::npos;
    EXPECT_NE(with, without) << result.out;
    return with;
}

TEST(GptFlag, IsSetByALineThatHoldsBothWords) {
    for (const std::string& text :
         {"TYPE: GPT\nmtdparts"s, "type:gpt\nmtdparts"s, "mtdparts\nTYPE: GPT"s, "mtdparts\nType: Gpt\r\n"s,
          "mtdparts\nGPT TYPE\n"s, "mtdparts\nmy gpt prototype\n"s, "mtdparts\nTYPE: MBR\nTYPE: GPT\n"s,
          "mtdparts\n\r\n\n TYPE GPT\n"s, "mtdparts\n #TYPE: GPT\n"s, "TYPE:GPT mtdparts"s,
          "#TYPE: GPT\nTYPE: GPT\nmtdparts"s}) {
        EXPECT_TRUE(asks_for_gpt(text)) << text;
    }
}

TEST(GptFlag, IsNotSetOtherwise) {
    for (const std::string& text :
         {""s, "\n"s, "mtdparts"s, "#TYPE: GPT\nmtdparts"s, "TYPE: MBR\nGPT\nmtdparts"s, "TYPE:\nGPT\n"s,
          "TYP: GPT\n"s, "TYPE: GP\n"s, "mtdparts\n\0TYPE: GPT\n"s, "TY\nPE: GPT\n"s}) {
        EXPECT_FALSE(asks_for_gpt(text)) << text;
    }
}

TEST(GptFlag, IsNotLookedForInHeadAndChecksumOfTheRecord) {
    Firmware firmware = with_text("");
    firmware.items[0].data = to_bytes("TYPE GPT....");  // 8 bytes of head, 4 of checksum
    const Workbench bench(firmware);
    EXPECT_NE(bench.convert(nor).out.find("gpt=0"), std::string::npos);

    firmware.items[0].data = to_bytes("........TYPE GPT");  // the last letters are the checksum
    bench.pack(firmware);
    EXPECT_NE(bench.convert(nor).out.find("gpt=0"), std::string::npos);

    firmware.items[0].data = to_bytes("........TYPE GPT....");
    bench.pack(firmware);
    EXPECT_NE(bench.convert(nor).out.find("gpt=1"), std::string::npos);
}

TEST(GptFlag, IsNotSetByARecordThatIsShorterThanHeadAndChecksum) {
    for (std::size_t size = 0; size <= 12; ++size) {
        Firmware firmware = with_text("");
        firmware.items[0].data = slice(to_bytes("TYPE GPT TYPE GPT"), 0, size);
        const Workbench bench(firmware);
        Transcript expected = bench.echo(nor);
        expected.start_of_raw_run();
        expect_run(bench.convert(nor), 0, expected.success());
    }
}

// ---- entries ----

TEST(Gpt, OfNoPartitionsHasEmptyEntries) {
    expect_table(partition_list(""), {});
    expect_table("TYPE: GPT\nmtdparts without a list\n", {});
    expect_table(partition_list("nonsense,0x10(no-at),2000@0x4000(x),0X20@0x40(y),0x1@0x2 z"), {});
}

TEST(Gpt, TakesStartAndSizeOfEachPartition) {
    expect_table(partition_list("0x2000@0x4000(uboot),0x400 @ 0x2000 ( misc ),0x20k@0x100(scanned),"
                                "0x0@0x3000(empty),0xffffffff@0xffffffff(wide)"),
                 {{.name = "uboot", .first = 0x4000, .last = 0x5FFF},
                  {.name = "misc", .first = 0x2000, .last = 0x23FF},
                  {.name = "scanned", .first = 0x100, .last = 0x11F},
                  {.name = "empty", .first = 0x3000, .last = 0x2FFF},
                  {.name = "wide", .first = 0xFFFFFFFF, .last = 0x1FFFFFFFD}});
}

TEST(Gpt, LetsAPartitionGrowOrBootByItsFlag) {
    expect_table(
        partition_list("0x800@0x4000(boot:bootable),0x10@0x9000(a:GROW),0x10@0x8000(B:x-BootAble,grow),"
                       "0x10@0x7000(growfs),0x10@0x6000(bootable),-@0x10000(rootfs:grow)"),
        {{.name = "boot\0bootable"s, .first = 0x4000, .last = 0x47FF, .attributes = 4},
         {.name = "a\0GROW"s, .first = 0x9000, .last = last_usable_sector},
         // The list is split at every comma, so this piece has no closing parenthesis.
         {.name = "growfs", .first = 0x7000, .last = 0x700F},
         {.name = "bootable", .first = 0x6000, .last = 0x600F},
         {.name = "rootfs\0grow"s, .first = 0x10000, .last = last_usable_sector}});
}

TEST(Gpt, LooksForFlagsInTheWholeNameOnceItHasAColon) {
    expect_table(partition_list("0x10@0x7000(growfs:ro),0x10@0x8000(:grow:bootable),0x10@0x9000(a:)"),
                 {{.name = "growfs\0ro"s, .first = 0x7000, .last = last_usable_sector},
                  {.name = "\0grow:bootable"s, .first = 0x8000, .last = last_usable_sector, .attributes = 4},
                  {.name = "a\0"s, .first = 0x9000, .last = 0x900F}});
}

// A size of "-" alone says nothing: without the flag it is the number that stands for it.
TEST(Gpt, EndsAnOpenPartitionWithoutTheFlagFarBehindTheDisk) {
    expect_table(partition_list("-@0x10000(userdata)"),
                 {{.name = "userdata", .first = 0x10000, .last = 0x10000FFFEULL}});
}

TEST(Gpt, GivesAPartitionTheGuidOfItsNameInAnyCase) {
    const Bytes system{0x0D, 0x0C, 0x0B, 0x0A, 0x1F, 0x1E, 0x2B, 0x2A,
                       0x3C, 0x3D, 0x4E, 0x4F, 0x5A, 0x5B, 0x6C, 0x6D};
    const Bytes data{0x33, 0x22, 0x11, 0x00, 0x55, 0x44, 0x77, 0x66,
                     0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
    expect_table(partition_list("0x10@0x1000(boot),0x10@0x2000(SYSTEM),-@0x3000(Data:grow)") +
                     "uuid:system=0a0b0c0d-1e1f-2a2b-3c3d-4e4f5a5b6c6d\r\n"
                     "uuid:system=ffffffff-ffff-ffff-ffff-ffffffffffff\n"
                     "uuid: dATA = 00112233445566778899AABBCCDDEEFF \n"
                     "uuid:boot=0123456789abcdef0123456789abcde\n"
                     "uuid:boot=0123456789abcdef0123456789abcdef0\n"
                     "uuid:nobody=0123456789abcdef0123456789abcdef\n",
                 {{.name = "boot", .first = 0x1000, .last = 0x100F},
                  {.name = "SYSTEM", .first = 0x2000, .last = 0x200F, .guid = system},
                  {.name = "Data\0grow"s, .first = 0x3000, .last = last_usable_sector, .guid = data}});
}

TEST(Gpt, KeepsThe36UnitsOfALongName) {
    const std::string name = "abcdefghijklmnopqrstuvwxyz0123456789";
    ASSERT_EQ(name.size(), 36U);
    expect_table(partition_list("0x10@0x1000(" + name + "),0x10@0x2000(" + name + "0),0x10@0x3000(" + name +
                                name + ":bootable)"),
                 {{.name = name, .first = 0x1000, .last = 0x100F},
                  {.name = name, .first = 0x2000, .last = 0x200F},
                  {.name = name, .first = 0x3000, .last = 0x300F, .attributes = 4}});
}

TEST(Gpt, WidensCharactersOfANameWithTheirSign) {
    const Bytes table = gpt_table({{.name = "a\xC3\x80"}});
    EXPECT_EQ(get16(table, 1024 + 58), 0xFFC3);
    expect_table(partition_list("0x10@0x1000(a\xC3\x80)"),
                 {{.name = "a\xC3\x80", .first = 0x1000, .last = 0x100F}});
}

TEST(Gpt, Holds128Partitions) {
    std::vector<GptEntry> entries;
    std::string list;
    for (uint64_t i = 0; i < 128; ++i) {
        entries.push_back({.name = "p" + std::to_string(i), .first = 0x2000, .last = 0x200F});
        list += (i == 0 ? "" : ",") + "0x10@0x2000(p"s + std::to_string(i) + ")";
    }
    expect_table(partition_list(list), entries);
}

TEST(Gpt, UsesTheFirstListWithAColonAndIgnoresACarriageReturn) {
    expect_table(
        "TYPE: GPT\r\nmtdparts of nothing\r\nxmtdparts=a,b:0x10@0x20(one),\r\nmtdparts=c:0x1@0x2(two)\r\n",
        {{.name = "one", .first = 0x20, .last = 0x2F}});
}

// ---- where it is written ----

TEST(Gpt, IsPaddedWithZerosToWholePages) {
    for (const auto& [page_kb, size] : std::vector<std::pair<std::string, std::size_t>>{
             {"1", 17 * 1024}, {"2", 18432}, {"3", 18432}, {"4", 20480}, {"8", 24576}, {"32", 32768}}) {
        SCOPED_TRACE(page_kb);
        const Workbench bench(sample_firmware({.gpt = true}));
        const Conversion nand{"spinand", "1", page_kb};
        ASSERT_EQ(bench.convert(nand).exit_status, 0);
        Bytes expected = gpt_table(sample_gpt_entries());
        expected.resize(size, 0);
        expect_same_bytes(bench.output("gpt.img"), expected, "gpt.img");
    }
}

TEST(Gpt, IsPlacedAtTheFlashOffsetOfTheParameterItem) {
    Firmware firmware = sample_firmware({.gpt = true});
    firmware.items.resize(1);
    firmware.items[0].flash_offset = 0x3000;
    const Workbench bench(firmware);
    Transcript expected = bench.echo(nor);
    expected.line("writing idblock...")
        .line("start to write partitions...gpt=1")
        .line("preparing gpt at 0x00003000")
        .gpt();
    expect_run(bench.convert(nor), 0, expected.success());
    const Bytes image = bench.output("out_image.img");
    expect_same_bytes(slice(image, 0x3000 * sector_size, gpt_bytes), gpt_table(sample_gpt_entries()),
                      "table");
}

}  // namespace
