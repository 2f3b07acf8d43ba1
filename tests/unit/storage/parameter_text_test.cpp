// The parameter text: the partition list after "mtdparts" and the "uuid:" lines.

#include "storage/storage_impl.h"
#include "support/bytes.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

using test_support::Bytes;
using Texts = std::vector<std::string>;

struct TextCase {
    std::string situation;
    std::string text;
    Texts found{};
};

// "name@offset+size", both in hexadecimal, for each partition.
Texts printed(const PARAM_ITEM_VECTOR& items) {
    Texts texts;
    for (const STRUCT_PARAM_ITEM& item : items) {
        char numbers[32];
        std::snprintf(numbers, sizeof(numbers), "@%x+%x", item.uiItemOffset, item.uiItemSize);
        texts.push_back(item.szItemName + numbers);
    }
    return texts;
}

std::string hexadecimal(const uint8_t* bytes, std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        char digits[3];
        std::snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned>(bytes[i]));
        text += digits;
    }
    return text;
}

// "name=bytes" for each line.
Texts printed(const UUID_ITEM_VECTOR& items) {
    Texts texts;
    for (const STRUCT_UUID_ITEM& item : items)
        texts.push_back(item.szUUidName + "=" + hexadecimal(item.szUUid, 16));
    return texts;
}

class ParameterText : public ::testing::Test {
protected:
    void expect_partitions(const std::string& text, const Texts& expected) {
        PARAM_ITEM_VECTOR items;
        EXPECT_TRUE(m_storage.parse_parameter(text.c_str(), items));
        EXPECT_EQ(printed(items), expected);
    }

    CStorage m_storage{FLASH_EMMC, 512, 2, 0, "", "", false};
};

TEST_F(ParameterText, ListIsCutIntoPartitions) {
    const std::vector<TextCase> lists{
        {"in its order, a dash for a size that grows, flags in the name",
         "0x2000@0x4000(uboot),0x8000@0x6000(boot),-@0xe000(rootfs:grow)",
         {"uboot@4000+2000", "boot@6000+8000", "rootfs:grow@e000+ffffffff"}},
        {"a dash anywhere in the size",
         "0x10-@0x20(a),no-digits@0x30(b), - @0x40(c)",
         {"a@20+ffffffff", "b@30+ffffffff", "c@40+ffffffff"}},
        {"blanks around every part",
         "0x400 @ 0x2000 ( misc ),  0x400   @   0x2000   (  two words  )  ",
         {"misc@2000+400", "two words@2000+400"}},
        {"a tab is no blank",
         "0x1@0x2(\ttabs\t),\t0x1@0x2(a),0x3@\t0x4(b),0x5\t@0x6\t(c)",
         {"\ttabs\t@2+1", "c@6+5"}},
        {"numbers without the lower-case prefix",
         "2000@0x4000(x),0X2000@0x4000(x),0x1@4000(x),0x1@0X4000(x),0x1@0x2(y)",
         {"y@2+1"}},
        {"numbers without digits", "0x@0x4000(x),@0x4000(x),0x1@0x(x),0x1@(x),0xg@0x1(x),0x1@-(x)"},
        {"text after the digits", "0x20k@0x4000(x),0x30 sectors@0x50h(y)", {"x@4000+20", "y@50+30"}},
        {"digits in both cases up to 32 bits",
         "0xAbCdEf01@0xfFfFfFfE(x),0x0@0x0(y),0x00000001@0x0000000002(z)",
         {"x@fffffffe+abcdef01", "y@0+0", "z@2+1"}},
        {"the size of a growing partition written out", "0xffffffff@0x1(x)", {"x@1+ffffffff"}},
        {"pieces that lack a mark",
         "0x1@0x2(a),0x1 0x2(no at),0x3@0x4(b),0x1@0x2no open),0x5@0x6(c),0x1@0x2(no close,0x7@0x8(d)",
         {"a@2+1", "b@4+3", "c@6+5", "d@8+7"}},
        {"marks in another order",
         "(0x1@0x2),(x)0x1@0x2,)0x1@0x2(x,(x)@0x1,-(x)@0x1,-@0x1)(x,0x1@0x2)(y)",
         {"y@2+1"}},
        {"the first mark of each kind counts",
         "0x1@0x2(a(b)c),0x1@0x2(a)(b),0x1@0x2(a@b),0x1@0x2@0x3(a)",
         {"a(b@2+1", "a@2+1", "a@b@2+1", "a@2+1"}},
        {"empty names, and text after a name",
         "0x1@0x2(),0x3@0x4(  ),0x5@0x6(name)ro,0x7@0x8(last) lk",
         {"@2+1", "@4+3", "name@6+5", "last@8+7"}},
        {"a comma inside a name", "0x1@0x2(a,b),0x3@0x4(c)", {"c@4+3"}},
        {"empty pieces", ",,0x1@0x2(a),,0x3@0x4(b),,", {"a@2+1", "b@4+3"}},
        {"empty pieces alone", ",,,"},
        {"nothing", ""},
        {"malformed pieces alone", "nothing,of,use"},
    };
    for (const TextCase& list : lists) {
        SCOPED_TRACE(list.situation);
        expect_partitions("CMDLINE: mtdparts=flash0:" + list.text + "\n", list.found);
    }
}

TEST_F(ParameterText, ListIsFoundInItsLine) {
    const std::vector<TextCase> texts{
        {"keyword inside a word", "console=ttyS0 xmtdparts;flash:0x1@0x2(a)", {"a@2+1"}},
        {"keyword before the colon", "mtdparts:0x1@0x2(a)", {"a@2+1"}},
        {"keyword in a comment", "#mtdparts=flash:0x1@0x2(a)", {"a@2+1"}},
        {"first of several colons", "mtdparts=x:flash:0x1@0x2(a),0x3@0x4(b)", {"b@4+3"}},
        {"no colon", "mtdparts=flash 0x1@0x2(a)\n"},
        {"no colon after the keyword", "CMDLINE: mtdparts=flash 0x1@0x2(a)\n"},
        {"first line with keyword and colon alone",
         "mtdparts=none\nmtdparts=flash:0x1@0x2(a)\nmtdparts=flash:0x3@0x4(b)\n",
         {"a@2+1"}},
        {"first such line without a partition", "mtdparts=flash:\nmtdparts=flash:0x3@0x4(b)\n"},
        {"list after the end of the line", "mtdparts=flash:0x1@0x2(a),\n0x3@0x4(b)\n", {"a@2+1"}},
        {"text that ends in a piece", "mtdparts=flash:0x1@0x2(a),0x3@0x4(b", {"a@2+1"}},
        {"carriage returns",
         "\r\n\r\nMACHINE: x\r\nmtdparts=flash:0x1@0x2(a),0x3@0x4(b)\r\n\r\n",
         {"a@2+1", "b@4+3"}},
    };
    for (const TextCase& text : texts) {
        SCOPED_TRACE(text.situation);
        expect_partitions(text.text, text.found);
    }
}

TEST_F(ParameterText, WithoutTheKeywordHasNoList) {
    for (const char* text :
         {"FIRMWARE_VER: 1.0\nCMDLINE: flash:0x1@0x2(a)\n",
          "MTDPARTS=flash:0x1@0x2(a)\nmtdpart=flash:0x1@0x2(b)\n", "mtd\nparts=flash:0x1@0x2(a)\n",
          "FIRMWARE_VER: 1.0\n\0mtdparts=flash:0x1@0x2(a)\n", "", "\n\n",
          static_cast<const char*>(nullptr)}) {
        PARAM_ITEM_VECTOR items;
        EXPECT_FALSE(m_storage.parse_parameter(text, items)) << text;
        EXPECT_TRUE(items.empty());
    }
}

TEST_F(ParameterText, PartitionsAreAppendedToWhatIsThere) {
    PARAM_ITEM_VECTOR items{{"earlier", 1, 2}};
    EXPECT_TRUE(m_storage.parse_parameter("mtdparts=flash:0x3@0x4(later)", items));
    EXPECT_FALSE(m_storage.parse_parameter("no list", items));
    EXPECT_EQ(printed(items), (Texts{"earlier@1+2", "later@4+3"}));
}

TEST_F(ParameterText, SinglePieceHandsOutItsParts) {
    std::string piece = " 0x12 @ 0x34 ( part:bootable ) tail";
    STRUCT_PARAM_ITEM found;
    EXPECT_TRUE(
        m_storage.parse_partition_info(piece, found.szItemName, found.uiItemOffset, found.uiItemSize));
    EXPECT_EQ(printed({found}), Texts{"part:bootable@34+12"});
    for (std::string malformed : {"", "@", "0x1", "0x1@", "0x1@0x2", "0x1@0x2("})
        EXPECT_FALSE(
            m_storage.parse_partition_info(malformed, found.szItemName, found.uiItemOffset, found.uiItemSize))
            << malformed;
}

// ---- UUIDs ----

class ParameterUuid : public ParameterText {};

const std::string kSomeUuid = "00112233-4455-6677-8899-aabbccddeeff";
const std::string kSomeGuid = "33221100554477668899aabbccddeeff";

TEST_F(ParameterUuid, DigitsBecomeSixteenBytes) {
    const struct {
        std::string situation, digits, guid;
    } cases[] = {
        {"first three groups little-endian", "00112233445566778899aabbccddeeff", kSomeGuid},
        {"upper case", "00112233445566778899AABBCCDDEEFF", kSomeGuid},
        {"other characters", "1/2:3@4G5`6g/7:8@9Ga`Fg1zz{-0.!f", "4030201060500807090a0f010000000f"},
        {"none", "", std::string(32, '0')},
        {"too few", "abc", "0000c0ab000000000000000000000000"},
        {"too many", std::string(40, 'f'), std::string(32, 'f')},
    };
    for (const auto& tested : cases) {
        Bytes area(24, 0xEE);
        m_storage.string_to_uuid(tested.digits, area.data());
        EXPECT_EQ(hexadecimal(area.data(), 24), tested.guid + "eeeeeeeeeeeeeeee") << tested.situation;
    }
}

TEST_F(ParameterUuid, LinesAreFound) {
    const std::vector<TextCase> texts{
        {"name and bytes",
         "uuid:system=0a0b0c0d-1e1f-2a2b-3c3d-4e4f5a5b6c6d\n",
         {"system=0d0c0b0a1f1e2b2a3c3d4e4f5a5b6c6d"}},
        {"blanks around name and UUID", "uuid:  system  =  " + kSomeUuid + "  \n", {"system=" + kSomeGuid}},
        {"a blank too many inside the UUID", "uuid:a=00112233 4455-6677-8899-aabbccddeeff\n"},
        {"a blank in the place of a digit",
         "uuid:a=0011223 44556677-8899-aabbccddeeff\n",
         {"a=30221100554477668899aabbccddeeff"}},
        {"a tab is no blank", "uuid:a=\t" + kSomeUuid + "\n"},
        {"dashes anywhere",
         "uuid:a=00112233445566778899aabbccddeeff\nuuid:b=--0-0-1122334455667788--99aabbccddeeff-\n",
         {"a=" + kSomeGuid, "b=" + kSomeGuid}},
        {"wrong numbers of digits",
         "uuid:short=00112233-4455-6677-8899-aabbccddeef\nuuid:right=" + kSomeUuid +
             "\nuuid:long=00112233-4455-6677-8899-aabbccddeeff0\nuuid:none=\nuuid:dashes=----\n",
         {"right=" + kSomeGuid}},
        {"no digits",
         "uuid:a=zzzzzzzz-zzzz-zzzz-zzzz-zzzzzzzzzzz1\n",
         {"a=00000000000000000000000000000001"}},
        {"keyword in upper case, without a colon, missing; no equals sign",
         "UUID:a=" + kSomeUuid + "\nuuid a=" + kSomeUuid + "\nuuid:" + kSomeUuid +
             "\nuuid:\nname=" + kSomeUuid + "\n"},
        {"keyword anywhere, the first one",
         "# my uuid:a=" + kSomeUuid + "\npartuuid:uuid:b=" + kSomeUuid + "\n",
         {"a=" + kSomeGuid, "uuid:b=" + kSomeGuid}},
        {"empty name, and the first equals sign",
         "uuid:=" + kSomeUuid + "\nuuid:a=b=112233-4455-6677-8899-aabbccddeeff\n",
         {"=" + kSomeGuid, "a=332211b0554477668899aabbccddeeff"}},
        {"all lines in order, a name twice",
         "uuid:b=" + kSomeUuid + "\nmtdparts=flash:0x1@0x2(a)\nuuid:a=" + kSomeUuid +
             "\nuuid:b=ffffffff-0000-0000-0000-000000000001",
         {"b=" + kSomeGuid, "a=" + kSomeGuid, "b=ffffffff000000000000000000000001"}},
        {"one carriage return at the end",
         "\r\nuuid:a=" + kSomeUuid + "\r\nuuid:b=" + kSomeUuid + "\r\r\nuuid:c=" + kSomeUuid + "\r",
         {"a=" + kSomeGuid, "c=" + kSomeGuid}},
    };
    for (const TextCase& text : texts) {
        SCOPED_TRACE(text.situation);
        UUID_ITEM_VECTOR items;
        EXPECT_EQ(m_storage.get_uuid_from_parameter(text.text.c_str(), items), !text.found.empty());
        EXPECT_EQ(printed(items), text.found);
    }
}

TEST_F(ParameterUuid, EarlierListIsReplaced) {
    UUID_ITEM_VECTOR items(2);
    EXPECT_TRUE(m_storage.get_uuid_from_parameter(("uuid:a=" + kSomeUuid).c_str(), items));
    EXPECT_EQ(printed(items), Texts{"a=" + kSomeGuid});
    for (const char* text : {"nothing here\n", static_cast<const char*>(nullptr)}) {
        items.resize(1);
        EXPECT_FALSE(m_storage.get_uuid_from_parameter(text, items));
        EXPECT_TRUE(items.empty());
    }
}

TEST_F(ParameterUuid, SingleLineHandsOutNameAndBareDigits) {
    std::string line = " system = " + kSomeUuid + " ";
    std::string name;
    std::string uuid;
    EXPECT_TRUE(m_storage.parse_uuid(line, name, uuid));
    EXPECT_EQ(name, "system");
    EXPECT_EQ(uuid, "00112233445566778899aabbccddeeff");
    for (std::string malformed : {"", "=", "system", "system=", "system=0011"})
        EXPECT_FALSE(m_storage.parse_uuid(malformed, name, uuid)) << malformed;
}

}  // namespace
