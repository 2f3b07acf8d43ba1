// Whether a firmware wants a GPT, and the GPT as it is written in place of the parameter partition.

#include "partition_fixture.h"
#include "support/expected/gpt.h"

namespace storage_test {
namespace {

using namespace std::string_view_literals;

using Recorder = Recording<CEmmcStorage>;

// Head, text and checksum, each as given.
Bytes record_of(std::string_view text, std::string_view head = "PARMxxxx", std::string_view tail = "CRCC") {
    return to_bytes(head) + to_bytes(text) + to_bytes(tail);
}

class GptTest : public StorageTest {
protected:
    // A firmware that ends with the record. Its item has the name under which the table is written; all pages
    // are refused, which nobody asks about.
    void load_record(const Bytes& record, uint32_t page_kb = 2) {
        m_firmware = firmware_with({{.name = "gpt", .data = record}});
        m_storage = make<Refusing<Recorder>>({.page_kb = page_kb});
        load(*m_storage, m_firmware);
        m_item = item_in(m_firmware, 0);
    }

    Firmware m_firmware{};
    std::unique_ptr<Recorder> m_storage{};
    STRUCT_QZIMAGE_ITEM m_item{};
};

class GptFlag : public GptTest {
protected:
    bool flag() {
        bool set = false;
        EXPECT_EQ(output_of([&] { set = m_storage->get_gpt_flag(m_item); }), "");
        return set;
    }
};

TEST_F(GptFlag, IsSetByALineWithBothWords) {
    const struct {
        const char* situation;
        std::string_view text;
        bool set;
    } cases[] = {
        {"a line of its own", "TYPE: GPT\n", true},
        {"between other lines", "FIRMWARE_VER: 1.0\nTYPE: GPT\nmtdparts=x:\n", true},
        {"last line without a newline", "FIRMWARE_VER: 1.0\nTYPE: GPT", true},
        {"other order", "GPT TYPE\n", true},
        {"inside other words", "xGPTxTYPEx", true},
        {"without a blank", "GPTTYPE", true},
        {"in a partition list", "mtdparts=x:0x1@0x2(type-gpt)", true},
        {"any case", "tYpE: gPt\n", true},
        {"carriage return", "TYPE: GPT\r\n", true},
        {"carriage return without a newline", "\r\n\nTYPE: GPT\r", true},
        {"comment", "#TYPE: GPT\n", false},
        {"a blank before the sign of a comment", " #TYPE: GPT\n", true},
        {"comment before, and one in the line", "#TYPE: GPT\nTYPE: GPT # really\n", true},
        {"words on two lines", "TYPE: MBR\nGPT\n", false},
        {"second word on the next line", "TYPE: \nGPT", false},
        {"word on two lines", "TY\nPE: GPT\n", false},
        {"first word alone", "TYPE", false},
        {"second word alone", "GPT", false},
        {"letters in other orders", "TYP: GPT, TPYE: GTP", false},
        {"after another type", "TYPE: MBR\nTYPE: GPT\n", true},
        {"after a NUL", "TYPE: \0GPT\nTYPE: GPT\n"sv, false},
        {"before a NUL", "TYPE: GPT\0 and more"sv, true},
    };
    for (const auto& [situation, text, set] : cases) {
        load_record(record_of(text));
        EXPECT_EQ(flag(), set) << situation;
    }
}

TEST_F(GptFlag, HeadAndChecksumAreNotText) {
    for (const auto& [record, set] : {std::pair{record_of("", "TYPE GPT"), false},
                                      {record_of("E: GPT", "PARMxTYP"), false},
                                      {record_of("TYPE: GP", "PARMxxxx", "TTTT"), false},
                                      {record_of("TYPEGPT", "        ", "    "), true}}) {
        load_record(record);
        EXPECT_EQ(flag(), set) << to_text(record);
    }
}

TEST_F(GptFlag, RecordShorterThanHeadAndChecksumHasNone) {
    load_record(to_bytes("TYPE GPTTYPE GPTTYPE GPTTYPE GPT"));
    for (m_item.size = 0; m_item.size < 8 + 4 + 8; ++m_item.size)  // from there on "TYPE GPT" is the text
        EXPECT_FALSE(flag()) << m_item.size;
    EXPECT_TRUE(flag());
}

TEST_F(GptFlag, OfATextThatCannotBeReadIsNotSet) {
    load_record(record_of("TYPE: GPT\n"));
    EXPECT_TRUE(flag());
    m_item.size += 4;  // only the checksum may lie after the end of the file
    EXPECT_TRUE(flag());
    for (const uint32_t size : {m_item.size + 1, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
        m_item.size = size;
        EXPECT_FALSE(flag()) << size;
    }
}

TEST_F(GptFlag, PositionIsA32BitSumWithoutLargeItemMarks) {
    const Bytes record = record_of("TYPE: GPT\n");
    load_record(record);
    m_firmware.boot_offset = 4096;  // room after the head for another record
    Bytes image = m_firmware.build();
    put_bytes_at(image, 1000, record);
    write_file(firmware_path(), image);
    m_storage = make<Recorder>();
    ASSERT_EQ(m_storage->m_update_image_ptr->ObjectInit(firmware_path().string(), false), 0);
    m_item = item_in(m_firmware, 0);
    m_item.file[50] = m_item.file[55] = 'H';
    m_item.file[51] = m_item.file[56] = 1;
    EXPECT_TRUE(flag());
    m_item.offset = 1000U - static_cast<uint32_t>(m_firmware.layout().package_offset);  // wraps to byte 1000
    EXPECT_TRUE(flag());
    m_item.offset += 1;
    EXPECT_FALSE(flag()) << "the T is the last byte of the head now";
}

// ---- writing it ----

using Outcome = std::pair<int, std::string>;

const std::string kGptOpening = line("writing gpt...");
const Outcome kGptSuccess{0, table_lines("gpt")};

class GptPartition : public GptTest {
protected:
    void load_text(std::string_view text, uint32_t page_kb = 2) { load_table(record_of(text), page_kb); }
    void load_table(const Bytes& record, uint32_t page_kb = 2) {
        load_record(record, page_kb);
        m_storage->m_image_fill_page_num = kUntouched;
        ASSERT_TRUE(m_storage->make_param_buffer(m_item));
    }

    Outcome write() {
        int result = 1;
        std::string output = output_of([&] { result = m_storage->write_gpt(m_item); });
        return {result, std::move(output)};
    }

    void expect_refused(const Outcome& outcome) {
        EXPECT_EQ(write(), outcome);
        EXPECT_TRUE(m_storage->pages.empty());
        EXPECT_EQ(m_storage->m_image_fill_page_num, kUntouched);
    }

    // The table in whole pages.
    void expect_table(const std::vector<GptEntry>& entries) {
        std::srand(1);
        EXPECT_EQ(write(), kGptSuccess);
        const Bytes expected = padded(gpt_table(entries), m_storage->m_page_size);
        EXPECT_TRUE(same_bytes(m_storage->recorded_bytes(), expected));
        EXPECT_EQ(m_storage->m_image_fill_page_num, expected.size() / m_storage->m_page_size);
        for (const RecordedPage& page : m_storage->pages)
            EXPECT_EQ(page.length, m_storage->m_page_size);
    }
};

TEST_F(GptPartition, CoversTheTableWithWholePagesOfZeros) {
    const char text[] = "TYPE: GPT\nmtdparts=x:0x10@0x20(a)\n";
    for (const uint32_t page_kb : {1U, 2U, 3U, 4U, 8U, 16U, 17U, 18U, 64U}) {
        load_text(text, page_kb);
        m_storage->m_fill_byte = 0xFF;
        expect_table({{"a", 0x20, 0x2F}});
    }
    load_text(text);
    m_storage->m_page_size = 512;
    m_storage->m_page_size_sector = 1;
    expect_table({{"a", 0x20, 0x2F}});
}

TEST_F(GptPartition, TakesPartitionsAndUuidsFromTheText) {
    load_text("TYPE: GPT\r\nCMDLINE: mtdparts=x:0x2000@0x4000(uboot),-@0x10000(userdata:grow)\r\n"
              "uuid:UserData=00112233-4455-6677-8899-aabbccddeeff\r\n");
    expect_table({{"uboot", 0x4000, 0x5FFF},
                  {std::string("userdata\0grow", 13), 0x10000, kLastUsableSector, 0,
                   Bytes{0x33, 0x22, 0x11, 0x00, 0x55, 0x44, 0x77, 0x66, 0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD,
                         0xEE, 0xFF}}});
}

TEST_F(GptPartition, ChecksumAfterTheTextIsOverwrittenForGood) {
    // With its checksum the text would name one partition more.
    Bytes record = record_of("mtdparts=x:0x1@0x2(a),0x3@0x4(b", "PARMxxxx", "),\n\n");
    load_table(record);
    expect_table({{"a", 2, 2}});
    std::fill(record.end() - 4, record.end(), uint8_t{0});
    EXPECT_EQ(Bytes(m_storage->m_paramBuffer, m_storage->m_paramBuffer + 2048), padded(record, 2048));
}

TEST_F(GptPartition, TextThatFillsItsPagesEndsAtTheChecksum) {
    std::string text = "mtdparts=x:0x1@0x2(a)";
    text.resize(2048 - 12, 'z');
    load_text(text);
    expect_table({{"a", 2, 2}});
}

TEST_F(GptPartition, NeedsAPartitionListInTheText) {
    for (const Bytes& record :
         {record_of("TYPE: GPT\n"), record_of(""), record_of("\0mtdparts=x:0x1@0x2(a)"sv),
          record_of("", "mtdparts", ":xyz"), Bytes(3, 'x')}) {
        load_table(record);
        expect_refused({-2, kGptOpening + line("failed to parse gpt parameter file")});
    }
}

TEST_F(GptPartition, ListWithoutPartitionsGivesAnEmptyTable) {
    load_text("mtdparts=none\n");
    expect_table({});
}

// Of 128 partitions and a piece that does not parse. 129 are refused in conversion/.
TEST_F(GptPartition, MayHave128Partitions) {
    std::string list = "mtdparts=x:malformed";
    for (uint32_t i = 0; i < 128; ++i)
        list += ",0x1@0x2(p)";
    load_text(list);
    expect_table(std::vector<GptEntry>(128, {"p", 2, 2}));
}

TEST_F(GptPartition, PageThatNoMemoryHoldsHasACodeOfItsOwn) {
    if (!kMemoryCanBeLimited)
        GTEST_SKIP() << "needs a build without sanitizers or emulator";
    load_text("mtdparts=x:0x1@0x2(a)");
    m_storage->m_page_size = kHugePageKb * 1024;
    m_storage->m_page_size_sector = kHugePageKb * 2;
    const MemoryLimit limit(256 * 1024 * 1024);
    expect_refused({-4, kGptOpening});
}

TEST_F(GptPartition, SequenceOfGuidsGoesOnFromTableToTable) {
    load_text("mtdparts=x:0x1@0x2(a)");
    expect_table({{"a", 2, 2}});
    const Bytes first = m_storage->recorded_bytes();
    m_storage->pages.clear();
    EXPECT_EQ(write(), kGptSuccess);
    EXPECT_NE(slice(m_storage->recorded_bytes(), 512 + 56, 16), slice(first, 512 + 56, 16)) << "never seeded";
}

}  // namespace
}  // namespace storage_test
