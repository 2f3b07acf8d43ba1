// Whether a firmware wants a GPT, and the GPT as it is written in place of the parameter partition.

#include "partition_fixture.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace storage_test {
namespace {

using namespace std::string_view_literals;
using test_support::Firmware;
using test_support::get64;
using test_support::slice;

using Recorder = Recording<CEmmcStorage>;

// Head, text and checksum, each as given.
Bytes record_of(std::string_view text, std::string_view head = "PARMxxxx", std::string_view tail = "CRCC") {
    return test_support::to_bytes(head) + test_support::to_bytes(text) + test_support::to_bytes(tail);
}

class GptFlag : public StorageTest {
protected:
    bool flag_of_record(const Bytes& record) const {
        const Firmware firmware = firmware_with({{.name = "parameter", .data = record}});
        auto storage = make<Recorder>();
        load(*storage, firmware);
        return flag_of(*storage, item_in(firmware, 0));
    }

    static bool flag_of(Recorder& storage, STRUCT_QZIMAGE_ITEM item) {
        bool flag = false;
        EXPECT_EQ(output_of([&] { flag = storage.get_gpt_flag(item); }), "");
        return flag;
    }

    bool flag_of_text(std::string_view text) const { return flag_of_record(record_of(text)); }
};

TEST_F(GptFlag, IsSetByALineWithBothWords) {
    for (const char* text : {"TYPE: GPT\n", "FIRMWARE_VER: 1.0\nTYPE: GPT\nmtdparts=x:\n", "TYPE:GPT",
                             "GPT TYPE\n", "xGPTxTYPEx", "GPTTYPE", "mtdparts=x:0x1@0x2(type-gpt)"})
        EXPECT_TRUE(flag_of_text(text)) << text;
}

TEST_F(GptFlag, IgnoresCase) {
    EXPECT_TRUE(flag_of_text("type:gpt"));
    EXPECT_TRUE(flag_of_text("tYpE: gPt\n"));
}

TEST_F(GptFlag, LineMayEndInACarriageReturn) {
    EXPECT_TRUE(flag_of_text("TYPE: GPT\r\n"));
    EXPECT_TRUE(flag_of_text("\r\n\nTYPE: GPT\r"));
}

TEST_F(GptFlag, LastLineNeedsNoNewline) {
    EXPECT_TRUE(flag_of_text("FIRMWARE_VER: 1.0\nTYPE: GPT"));
}

TEST_F(GptFlag, CommentsDoNotCount) {
    EXPECT_FALSE(flag_of_text("#TYPE: GPT\n"));
    EXPECT_TRUE(flag_of_text(" #TYPE: GPT\n")) << "only a line that begins with the sign is a comment";
    EXPECT_TRUE(flag_of_text("#TYPE: GPT\nTYPE: GPT # really\n"));
}

TEST_F(GptFlag, BothWordsMustStandOnOneLine) {
    EXPECT_FALSE(flag_of_text("TYPE: MBR\nGPT\n"));
    EXPECT_FALSE(flag_of_text("TYPE: \nGPT"));
    EXPECT_FALSE(flag_of_text("TY\nPE: GPT\n"));
    EXPECT_FALSE(flag_of_text("TYPE"));
    EXPECT_FALSE(flag_of_text("GPT"));
    EXPECT_FALSE(flag_of_text("TYP: GPT, TPYE: GTP"));
}

TEST_F(GptFlag, ScanGoesOnAfterAnotherType) {
    EXPECT_TRUE(flag_of_text("TYPE: MBR\nTYPE: GPT\n"));
}

TEST_F(GptFlag, TextEndsAtItsFirstNul) {
    EXPECT_FALSE(flag_of_text("TYPE: \0GPT\nTYPE: GPT\n"sv));
    EXPECT_TRUE(flag_of_text("TYPE: GPT\0 and more"sv));
}

TEST_F(GptFlag, HeadAndChecksumAreNotText) {
    EXPECT_FALSE(flag_of_record(record_of("", "TYPE GPT", "CRCC")));
    EXPECT_FALSE(flag_of_record(record_of("E: GPT", "PARMxTYP", "CRCC")));
    EXPECT_FALSE(flag_of_record(record_of("TYPE: GP", "PARMxxxx", "TTTT")));
    EXPECT_TRUE(flag_of_record(record_of("TYPEGPT", "        ", "    ")));
}

TEST_F(GptFlag, RecordShorterThanHeadAndChecksumHasNone) {
    const Bytes data = test_support::to_bytes("TYPE GPTTYPE GPTTYPE GPTTYPE GPT");
    Firmware firmware = firmware_with({{.name = "parameter", .data = data}});
    auto storage = make<Recorder>();
    load(*storage, firmware);
    STRUCT_QZIMAGE_ITEM item = item_in(firmware, 0);
    for (item.size = 0; item.size < 8 + 4 + 8; ++item.size)  // from there on "TYPE GPT" is the text
        EXPECT_FALSE(flag_of(*storage, item)) << item.size;
    EXPECT_TRUE(flag_of(*storage, item));
}

TEST_F(GptFlag, OfATextThatCannotBeReadIsNotSet) {
    const Bytes record = record_of("TYPE: GPT\n");
    Firmware firmware = firmware_with({{.name = "parameter", .data = record}});
    auto storage = make<Recorder>();
    load(*storage, firmware);
    STRUCT_QZIMAGE_ITEM item = item_in(firmware, 0);
    EXPECT_TRUE(flag_of(*storage, item));
    item.size += 4;  // only the checksum may lie after the end of the file
    EXPECT_TRUE(flag_of(*storage, item));
    item.size += 1;
    EXPECT_FALSE(flag_of(*storage, item));
    for (const uint32_t size : {0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
        item.size = size;
        EXPECT_FALSE(flag_of(*storage, item)) << size;
    }
}

TEST_F(GptFlag, PositionIsA32BitSumWithoutLargeItemMarks) {
    Firmware firmware = firmware_with({{.name = "parameter", .data = record_of("TYPE: GPT\n")}});
    firmware.boot_offset = 4096;  // room after the head for another record
    auto storage = make<Recorder>();
    load(*storage, firmware);
    STRUCT_QZIMAGE_ITEM item = item_in(firmware, 0);
    const char marks[10] = {'H', 1, 0, 0, 0, 'H', 1, 0, 0, 0};
    std::memcpy(item.file + 50, marks, sizeof(marks));
    EXPECT_TRUE(flag_of(*storage, item));

    Bytes image = firmware.build();
    test_support::put_bytes_at(image, 1000, record_of("TYPE: GPT\n"));
    test_support::write_file(firmware_path(), image);
    auto other = make<Recorder>();
    ASSERT_EQ(other->m_update_image_ptr->ObjectInit(firmware_path().string(), false), 0);
    item.offset = 1000U - static_cast<uint32_t>(firmware.layout().package_offset);  // wraps to byte 1000
    EXPECT_TRUE(flag_of(*other, item));
    item.offset += 1;
    EXPECT_FALSE(flag_of(*other, item)) << "the T is the last byte of the head now";
}

// ---- writing it ----

class GptPartition : public StorageTest {
protected:
    void load_record(const Bytes& record, uint32_t page_kb = 2) {
        const Firmware firmware = firmware_with({{.name = "parameter", .data = record}});
        m_storage = make<Recorder>({.page_kb = page_kb});
        load(*m_storage, firmware);
        m_item = item_in(firmware, 0);
        std::memcpy(m_item.name, "gpt", 4);
        m_storage->m_image_fill_page_num = kUntouched;
        ASSERT_TRUE(m_storage->make_param_buffer(m_item));
    }

    void load_text(std::string_view text, uint32_t page_kb = 2) { load_record(record_of(text), page_kb); }

    // Result and messages of the writing; the pages stay in the recorder.
    std::pair<int, std::string> write() {
        int result = 1;
        std::srand(1);
        std::string output = output_of([&] { result = m_storage->write_gpt(m_item); });
        return {result, std::move(output)};
    }

    void expect_nothing_written() const {
        EXPECT_TRUE(m_storage->pages.empty());
        EXPECT_EQ(m_storage->m_image_fill_page_num, kUntouched);
    }

    // The 34 sectors for these lists, as the table's own tests judge them.
    Bytes table_of(PARAM_ITEM_VECTOR parts, UUID_ITEM_VECTOR uuids = {}) const {
        Bytes table(34 * 512);
        std::srand(1);
        m_storage->create_gpt_buffer(table.data(), parts, uuids, 0xFFFFFFFF);
        return table;
    }

    std::unique_ptr<Recorder> m_storage{};
    STRUCT_QZIMAGE_ITEM m_item{};
};

const std::string kGptOpening = line("writing gpt...");
const std::pair<int, std::string> kGptSuccess{0, kGptOpening + redrawn("writing gpt...OK")};

TEST_F(GptPartition, CoversTheTableWithWholePages) {
    struct Case {
        uint32_t page_kb;
        std::size_t pages;
    };
    for (const Case& c : {Case{1, 17}, Case{2, 9}, Case{3, 6}, Case{4, 5}, Case{8, 3}, Case{16, 2},
                          Case{17, 1}, Case{18, 1}, Case{64, 1}}) {
        load_text("TYPE: GPT\nmtdparts=x:0x10@0x20(a)\n", c.page_kb);
        EXPECT_EQ(write(), kGptSuccess);
        EXPECT_EQ(m_storage->pages.size(), c.pages);
        EXPECT_EQ(m_storage->m_image_fill_page_num, c.pages);
        for (const RecordedPage& page : m_storage->pages)
            EXPECT_EQ(page.length, c.page_kb * 1024);
        EXPECT_TRUE(same_bytes(m_storage->recorded_bytes(),
                               padded(table_of({{"a", 0x20, 0x10}}), std::size_t{c.page_kb} * 1024)));
    }
}

TEST_F(GptPartition, OfSectorPagesHasOnePagePerSector) {
    load_text("mtdparts=x:0x10@0x20(a)\n");
    m_storage->m_page_size = 512;
    m_storage->m_page_size_sector = 1;
    EXPECT_EQ(write(), kGptSuccess);
    EXPECT_EQ(m_storage->pages.size(), 34U);
    EXPECT_TRUE(same_bytes(m_storage->recorded_bytes(), table_of({{"a", 0x20, 0x10}})));
}

TEST_F(GptPartition, PaddingIsZeroWhateverTheFillByte) {
    load_text("mtdparts=x:\n");
    m_storage->m_fill_byte = 0xFF;
    EXPECT_EQ(write(), kGptSuccess);
    EXPECT_TRUE(same_bytes(m_storage->recorded_bytes(), padded(table_of({}), 18432)));
}

TEST_F(GptPartition, TakesPartitionsAndUuidsFromTheText) {
    load_text("TYPE: GPT\r\nCMDLINE: mtdparts=x:0x2000@0x4000(uboot),-@0x10000(userdata:grow)\r\n"
              "uuid:UserData=00112233-4455-6677-8899-aabbccddeeff\r\n");
    EXPECT_EQ(write(), kGptSuccess);
    STRUCT_UUID_ITEM uuid;
    uuid.szUUidName = "userdata";
    m_storage->string_to_uuid("00112233445566778899aabbccddeeff", uuid.szUUid);
    const Bytes table = m_storage->recorded_bytes();
    EXPECT_TRUE(same_bytes(
        table, padded(table_of({{"uboot", 0x4000, 0x2000}, {"userdata:grow", 0x10000, 0xFFFFFFFF}}, {uuid}),
                      18432)));
    EXPECT_EQ(slice(table, 1024 + 128 + 16, 16), (Bytes{0x33, 0x22, 0x11, 0x00, 0x55, 0x44, 0x77, 0x66, 0x88,
                                                        0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF}));
    EXPECT_EQ(get64(table, 512 + 32), 0xFFFFFFFEU);
    EXPECT_EQ(get64(table, 512 + 48), 0xFFFFFFDDU);
    EXPECT_EQ(get64(table, 1024 + 128 + 40), 0xFFFFFFDDU);
}

TEST_F(GptPartition, ChecksumAfterTheTextIsOverwrittenForGood) {
    // With its checksum the text would name one partition more.
    const Bytes record = record_of("mtdparts=x:0x1@0x2(a),0x3@0x4(b", "PARMxxxx", "),\n\n");
    load_record(record);
    EXPECT_EQ(write(), kGptSuccess);
    EXPECT_TRUE(same_bytes(m_storage->recorded_bytes(), padded(table_of({{"a", 2, 1}}), 18432)));

    Bytes expected = record;
    std::fill(expected.end() - 4, expected.end(), uint8_t{0});
    EXPECT_TRUE(
        same_bytes(Bytes(m_storage->m_paramBuffer, m_storage->m_paramBuffer + 2048), padded(expected, 2048)));
}

TEST_F(GptPartition, TextThatFillsItsPagesEndsAtTheChecksum) {
    std::string text = "mtdparts=x:0x1@0x2(a)";
    text.resize(2048 - 12, 'z');
    load_record(record_of(text));
    EXPECT_EQ(write(), kGptSuccess);
    EXPECT_TRUE(same_bytes(m_storage->recorded_bytes(), padded(table_of({{"a", 2, 1}}), 18432)));
}

TEST_F(GptPartition, NeedsAPartitionListInTheText) {
    const std::pair<int, std::string> failure{-2, kGptOpening + line("failed to parse gpt parameter file")};
    for (std::string_view text : {"TYPE: GPT\n"sv, ""sv, "\0mtdparts=x:0x1@0x2(a)"sv}) {
        load_text(text);
        EXPECT_EQ(write(), failure);
        expect_nothing_written();
    }
    load_record(record_of("", "mtdparts", ":xyz"));  // head and checksum are no text
    EXPECT_EQ(write(), failure);
    expect_nothing_written();
    load_record(Bytes(3, 'x'));  // too short to hold any
    EXPECT_EQ(write(), failure);
    expect_nothing_written();
}

TEST_F(GptPartition, ListWithoutPartitionsGivesAnEmptyTable) {
    load_text("mtdparts=none\n");
    EXPECT_EQ(write(), kGptSuccess);
    EXPECT_TRUE(same_bytes(m_storage->recorded_bytes(), padded(table_of({}), 18432)));
}

TEST_F(GptPartition, Refuses129PartitionsBeforeAnythingIsWritten) {
    std::string list = "mtdparts=x:malformed";
    PARAM_ITEM_VECTOR parts;
    for (uint32_t i = 0; i < 128; ++i) {
        list += ",0x1@0x" + std::to_string(i) + "(p)";
        parts.push_back({"p", static_cast<uint32_t>(std::stoul(std::to_string(i), nullptr, 16)), 1});
    }
    load_text(list);
    EXPECT_EQ(write(), kGptSuccess) << "pieces that do not parse are no partitions";
    EXPECT_TRUE(same_bytes(m_storage->recorded_bytes(), padded(table_of(parts), 18432)));

    load_text(list + ",0x1@0x1(p)");
    EXPECT_EQ(write(), std::pair(-3, kGptOpening + line("too many partitions for gpt")));
    expect_nothing_written();
}

TEST_F(GptPartition, PageThatNoMemoryHoldsHasACodeOfItsOwn) {
    if (!kMemoryCanBeLimited)
        GTEST_SKIP() << "needs a build without sanitizers";
    load_text("mtdparts=x:0x1@0x2(a)");
    m_storage->m_page_size = kHugePageKb * 1024;
    m_storage->m_page_size_sector = kHugePageKb * 2;
    const MemoryLimit limit(256 * 1024 * 1024);
    EXPECT_EQ(write(), std::pair(-4, kGptOpening));
    expect_nothing_written();
}

TEST_F(GptPartition, PageThatCannotBeWrittenChangesNothing) {
    load_text("mtdparts=x:0x1@0x2(a)");
    auto storage = make<Refusing<Recorder>>();
    ASSERT_EQ(storage->m_update_image_ptr->ObjectInit(firmware_path().string(), false), 0);
    ASSERT_TRUE(storage->make_param_buffer(m_item));
    EXPECT_EQ(output_of([&] { EXPECT_EQ(storage->write_gpt(m_item), 0); }), kGptSuccess.second);
    EXPECT_EQ(storage->pages.size(), 9U);
    EXPECT_EQ(storage->m_image_fill_page_num, 9U);
}

TEST_F(GptPartition, SequenceOfGuidsGoesOnFromTableToTable) {
    load_text("mtdparts=x:0x1@0x2(a)");
    ASSERT_EQ(write(), kGptSuccess);
    const Bytes first = m_storage->recorded_bytes();
    m_storage->pages.clear();
    EXPECT_EQ(output_of([&] { EXPECT_EQ(m_storage->write_gpt(m_item), 0); }), kGptSuccess.second);
    EXPECT_NE(slice(m_storage->recorded_bytes(), 512 + 56, 16), slice(first, 512 + 56, 16)) << "never seeded";
    m_storage->pages.clear();
    ASSERT_EQ(write(), kGptSuccess);
    EXPECT_TRUE(same_bytes(m_storage->recorded_bytes(), first));
}

}  // namespace
}  // namespace storage_test
