// The parameter text: the partition list after "mtdparts" and the "uuid:" lines.

#include "storage/storage_impl.h"
#include "support/bytes.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace {

using test_support::Bytes;
using Texts = std::vector<std::string>;

class ParameterText : public ::testing::Test {
protected:
    // "name@offset+size", both in hexadecimal, for each partition found.
    static Texts printed(const PARAM_ITEM_VECTOR& items) {
        Texts texts;
        for (const STRUCT_PARAM_ITEM& item : items) {
            char numbers[32];
            std::snprintf(numbers, sizeof(numbers), "@%x+%x", static_cast<unsigned>(item.uiItemOffset),
                          static_cast<unsigned>(item.uiItemSize));
            texts.push_back(item.szItemName + numbers);
        }
        return texts;
    }

    Texts partitions_of(const std::string& text) {
        PARAM_ITEM_VECTOR items;
        EXPECT_TRUE(m_storage.parse_parameter(text.c_str(), items));
        return printed(items);
    }

    // What the list "pieces" gives on an ordinary line.
    Texts partitions_in_list(const std::string& pieces) {
        return partitions_of("CMDLINE: mtdparts=flash0:" + pieces + "\n");
    }

    bool has_no_partition_list(const char* text) {
        PARAM_ITEM_VECTOR items;
        const bool found = m_storage.parse_parameter(text, items);
        EXPECT_EQ(printed(items), Texts{});
        return !found;
    }

    CStorage m_storage{FLASH_EMMC, 512, 2, 0, "", "", false};
};

TEST_F(ParameterText, ReadsNameOffsetAndSizeInSectors) {
    EXPECT_EQ(partitions_in_list("0x2000@0x4000(uboot)"), Texts{"uboot@4000+2000"});
}

TEST_F(ParameterText, SizeWrittenAsDashGrowsAndTheNameKeepsItsFlags) {
    EXPECT_EQ(partitions_in_list("-@0x10000(userdata:grow)"), Texts{"userdata:grow@10000+ffffffff"});
    EXPECT_EQ(partitions_in_list("0x10-@0x20(a),no-digits@0x30(b), - @0x40(c)"),
              (Texts{"a@20+ffffffff", "b@30+ffffffff", "c@40+ffffffff"}));
}

TEST_F(ParameterText, IgnoresBlanksAroundEveryPart) {
    EXPECT_EQ(partitions_in_list("0x400 @ 0x2000 ( misc )"), Texts{"misc@2000+400"});
    EXPECT_EQ(partitions_in_list("  0x400   @   0x2000   (  two words  )  "), Texts{"two words@2000+400"});
}

TEST_F(ParameterText, OnlyTheSpaceCountsAsBlank) {
    EXPECT_EQ(partitions_in_list("0x1@0x2(\ttabs\t)"), Texts{"\ttabs\t@2+1"});
    EXPECT_EQ(partitions_in_list("\t0x1@0x2(a),0x3@\t0x4(b),0x5\t@0x6\t(c)"), Texts{"c@6+5"});
}

TEST_F(ParameterText, KeepsTheOrderOfTheList) {
    EXPECT_EQ(partitions_in_list("0x2000@0x4000(uboot),0x8000@0x6000(boot),-@0xe000(rootfs:grow)"),
              (Texts{"uboot@4000+2000", "boot@6000+8000", "rootfs:grow@e000+ffffffff"}));
}

TEST_F(ParameterText, DropsNumbersWithoutTheLowerCasePrefix) {
    EXPECT_EQ(partitions_in_list("2000@0x4000(x),0X2000@0x4000(x),0x1@4000(x),0x1@0X4000(x),0x1@0x2(y)"),
              Texts{"y@2+1"});
}

TEST_F(ParameterText, DropsNumbersWithoutDigits) {
    EXPECT_EQ(partitions_in_list("0x@0x4000(x),@0x4000(x),0x1@0x(x),0x1@(x),0xg@0x1(x),0x1@-(x)"), Texts{});
}

TEST_F(ParameterText, IgnoresWhatFollowsTheDigits) {
    EXPECT_EQ(partitions_in_list("0x20k@0x4000(x),0x30 sectors@0x50h(y)"), (Texts{"x@4000+20", "y@50+30"}));
}

TEST_F(ParameterText, ReadsDigitsInBothCasesUpTo32Bits) {
    EXPECT_EQ(partitions_in_list("0xAbCdEf01@0xfFfFfFfE(x),0x0@0x0(y),0x00000001@0x0000000002(z)"),
              (Texts{"x@fffffffe+abcdef01", "y@0+0", "z@2+1"}));
    // Written out, the size of a growing partition is no different from a dash.
    EXPECT_EQ(partitions_in_list("0xffffffff@0x1(x)"), Texts{"x@1+ffffffff"});
}

TEST_F(ParameterText, PieceWithoutItsMarksIsDroppedAndTheOthersStay) {
    EXPECT_EQ(partitions_in_list("0x1@0x2(a),0x1 0x2(no at),0x3@0x4(b),0x1@0x2no open),0x5@0x6(c),"
                                 "0x1@0x2(no close,0x7@0x8(d)"),
              (Texts{"a@2+1", "b@4+3", "c@6+5", "d@8+7"}));
}

TEST_F(ParameterText, MarksMustComeInOrder) {
    EXPECT_EQ(partitions_in_list("(0x1@0x2),(x)0x1@0x2,)0x1@0x2(x,(x)@0x1,-(x)@0x1,-@0x1)(x"), Texts{});
    EXPECT_EQ(partitions_in_list("0x1@0x2)(x)"), Texts{"x@2+1"});
}

TEST_F(ParameterText, FirstMarkOfEachKindCounts) {
    EXPECT_EQ(partitions_in_list("0x1@0x2(a(b)c),0x1@0x2(a)(b),0x1@0x2(a@b),0x1@0x2@0x3(a)"),
              (Texts{"a(b@2+1", "a@2+1", "a@b@2+1", "a@2+1"}));
}

TEST_F(ParameterText, NameMayBeEmptyAndTextAfterItIsIgnored) {
    EXPECT_EQ(partitions_in_list("0x1@0x2(),0x3@0x4(  ),0x5@0x6(name)ro,0x7@0x8(last) lk"),
              (Texts{"@2+1", "@4+3", "name@6+5", "last@8+7"}));
}

TEST_F(ParameterText, CommaSplitsEvenInsideAName) {
    EXPECT_EQ(partitions_in_list("0x1@0x2(a,b),0x3@0x4(c)"), Texts{"c@4+3"});
}

TEST_F(ParameterText, EmptyPiecesAreDropped) {
    EXPECT_EQ(partitions_in_list("0x1@0x2(a),"), Texts{"a@2+1"});
    EXPECT_EQ(partitions_in_list(",,0x1@0x2(a),,0x3@0x4(b),,"), (Texts{"a@2+1", "b@4+3"}));
    EXPECT_EQ(partitions_in_list(""), Texts{});
    EXPECT_EQ(partitions_in_list(",,,"), Texts{});
}

TEST_F(ParameterText, ListOfMalformedPiecesIsStillAList) {
    EXPECT_EQ(partitions_in_list("nothing,of,use"), Texts{});
}

TEST_F(ParameterText, KeywordMayStandAnywhereInTheLine) {
    EXPECT_EQ(partitions_of("console=ttyS0 xmtdparts;flash:0x1@0x2(a)"), Texts{"a@2+1"});
    EXPECT_EQ(partitions_of("mtdparts:0x1@0x2(a)"), Texts{"a@2+1"});
    EXPECT_EQ(partitions_of("#mtdparts=flash:0x1@0x2(a)"), Texts{"a@2+1"});
}

TEST_F(ParameterText, ListStartsAtTheFirstColonAfterTheKeyword) {
    EXPECT_EQ(partitions_of("CMDLINE: mtdparts=flash:0x1@0x2(a)"), Texts{"a@2+1"});
    EXPECT_EQ(partitions_of("mtdparts=x:flash:0x1@0x2(a),0x3@0x4(b)"), Texts{"b@4+3"});
}

TEST_F(ParameterText, KeywordWithoutColonAfterItGivesNoPartitions) {
    EXPECT_EQ(partitions_of("mtdparts=flash 0x1@0x2(a)\n"), Texts{});
    EXPECT_EQ(partitions_of("CMDLINE: mtdparts=flash 0x1@0x2(a)\n"), Texts{});
}

TEST_F(ParameterText, FirstLineWithKeywordAndColonIsTheOnlyOneUsed) {
    EXPECT_EQ(partitions_of("mtdparts=none\nmtdparts=flash:0x1@0x2(a)\nmtdparts=flash:0x3@0x4(b)\n"),
              Texts{"a@2+1"});
    EXPECT_EQ(partitions_of("mtdparts=flash:\nmtdparts=flash:0x3@0x4(b)\n"), Texts{});
}

TEST_F(ParameterText, ListEndsWithItsLine) {
    EXPECT_EQ(partitions_of("mtdparts=flash:0x1@0x2(a),\n0x3@0x4(b)\n"), Texts{"a@2+1"});
    EXPECT_EQ(partitions_of("mtdparts=flash:0x1@0x2(a),0x3@0x4(b"), Texts{"a@2+1"});
}

TEST_F(ParameterText, LinesMayEndInCarriageReturns) {
    EXPECT_EQ(partitions_of("\r\n\r\nMACHINE: x\r\nmtdparts=flash:0x1@0x2(a),0x3@0x4(b)\r\n\r\n"),
              (Texts{"a@2+1", "b@4+3"}));
}

TEST_F(ParameterText, TextWithoutTheKeywordHasNoList) {
    EXPECT_TRUE(has_no_partition_list("FIRMWARE_VER: 1.0\nCMDLINE: flash:0x1@0x2(a)\n"));
    EXPECT_TRUE(has_no_partition_list("MTDPARTS=flash:0x1@0x2(a)\nmtdpart=flash:0x1@0x2(b)\n"));
    EXPECT_TRUE(has_no_partition_list("mtd\nparts=flash:0x1@0x2(a)\n"));
    EXPECT_TRUE(has_no_partition_list(""));
    EXPECT_TRUE(has_no_partition_list("\n\n"));
    EXPECT_TRUE(has_no_partition_list(nullptr));
}

TEST_F(ParameterText, TextEndsAtItsFirstNul) {
    const char text[] = "FIRMWARE_VER: 1.0\n\0mtdparts=flash:0x1@0x2(a)\n";
    EXPECT_TRUE(has_no_partition_list(text));
}

TEST_F(ParameterText, PartitionsAreAppendedToWhatIsThere) {
    PARAM_ITEM_VECTOR items{{"earlier", 1, 2}};
    EXPECT_TRUE(m_storage.parse_parameter("mtdparts=flash:0x3@0x4(later)", items));
    EXPECT_EQ(printed(items), (Texts{"earlier@1+2", "later@4+3"}));
    EXPECT_FALSE(m_storage.parse_parameter("no list", items));
    EXPECT_EQ(printed(items), (Texts{"earlier@1+2", "later@4+3"}));
}

TEST_F(ParameterText, SinglePieceHandsOutItsParts) {
    std::string piece = " 0x12 @ 0x34 ( part:bootable ) tail";
    std::string name;
    uint32_t offset = 0;
    uint32_t size = 0;
    EXPECT_TRUE(m_storage.parse_partition_info(piece, name, offset, size));
    EXPECT_EQ(name, "part:bootable");
    EXPECT_EQ(offset, 0x34U);
    EXPECT_EQ(size, 0x12U);
    for (std::string malformed : {"", "@", "0x1", "0x1@", "0x1@0x2", "0x1@0x2(", "0x1@0x2()("}) {
        EXPECT_EQ(m_storage.parse_partition_info(malformed, name, offset, size), malformed == "0x1@0x2()(")
            << malformed;
    }
}

// ---- UUIDs ----

class ParameterUuid : public ParameterText {
protected:
    Bytes guid_of(const std::string& digits) {
        Bytes guid(16, 0xEE);
        m_storage.string_to_uuid(digits, guid.data());
        return guid;
    }

    static Texts printed_uuids(const UUID_ITEM_VECTOR& items) {
        Texts texts;
        for (const STRUCT_UUID_ITEM& item : items) {
            std::string text = item.szUUidName + "=";
            for (const uint8_t byte : item.szUUid) {
                char digits[3];
                std::snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned>(byte));
                text += digits;
            }
            texts.push_back(text);
        }
        return texts;
    }

    Texts uuids_of(const std::string& text) {
        UUID_ITEM_VECTOR items;
        const bool found = m_storage.get_uuid_from_parameter(text.c_str(), items);
        EXPECT_EQ(found, !items.empty());
        return printed_uuids(items);
    }
};

const std::string kSomeUuid = "00112233-4455-6677-8899-aabbccddeeff";
const std::string kSomeGuid = "33221100554477668899aabbccddeeff";

TEST_F(ParameterUuid, FirstThreeGroupsAreStoredLittleEndian) {
    const Bytes expected{0x33, 0x22, 0x11, 0x00, 0x55, 0x44, 0x77, 0x66,
                         0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
    EXPECT_EQ(guid_of("00112233445566778899aabbccddeeff"), expected);
    EXPECT_EQ(guid_of("00112233445566778899AABBCCDDEEFF"), expected);
}

TEST_F(ParameterUuid, CharacterOtherThanDigitsCountsAsZero) {
    EXPECT_EQ(guid_of("1/2:3@4G5`6g/7:8@9Ga`Fg1zz{-0.!f"),
              (Bytes{0x40, 0x30, 0x20, 0x10, 0x60, 0x50, 0x08, 0x07, 0x09, 0x0A, 0x0F, 0x01, 0x00, 0x00, 0x00,
                     0x0F}));
}

TEST_F(ParameterUuid, ShortTextLeavesTheOtherBytesZero) {
    EXPECT_EQ(guid_of(""), Bytes(16, 0));
    EXPECT_EQ(guid_of("abc"), (Bytes{0, 0, 0xC0, 0xAB, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(ParameterUuid, LongTextStaysInsideTheSixteenBytes) {
    Bytes area(24, 0x5A);
    m_storage.string_to_uuid(std::string(40, 'f'), area.data());
    EXPECT_EQ(test_support::slice(area, 0, 16), Bytes(16, 0xFF));
    EXPECT_EQ(test_support::slice(area, 16, 8), Bytes(8, 0x5A));
}

TEST_F(ParameterUuid, ReadsNameAndBytesOfALine) {
    EXPECT_EQ(uuids_of("uuid:system=0a0b0c0d-1e1f-2a2b-3c3d-4e4f5a5b6c6d\n"),
              Texts{"system=0d0c0b0a1f1e2b2a3c3d4e4f5a5b6c6d"});
}

TEST_F(ParameterUuid, IgnoresBlanksAroundNameAndUuid) {
    EXPECT_EQ(uuids_of("uuid:  system  =  " + kSomeUuid + "  \n"), Texts{"system=" + kSomeGuid});
}

TEST_F(ParameterUuid, BlanksInsideTheUuidCountAsCharacters) {
    EXPECT_EQ(uuids_of("uuid:a=00112233 4455-6677-8899-aabbccddeeff\n"), Texts{});
    EXPECT_EQ(uuids_of("uuid:a=0011223 44556677-8899-aabbccddeeff\n"),
              Texts{"a=30221100554477668899aabbccddeeff"});
    EXPECT_EQ(uuids_of("uuid:a=\t" + kSomeUuid + "\n"), Texts{});
}

TEST_F(ParameterUuid, DashesMayStandAnywhere) {
    EXPECT_EQ(uuids_of("uuid:a=00112233445566778899aabbccddeeff\n"
                       "uuid:b=--0-0-1122334455667788--99aabbccddeeff-\n"),
              (Texts{"a=" + kSomeGuid, "b=" + kSomeGuid}));
}

TEST_F(ParameterUuid, WrongNumberOfDigitsIsIgnored) {
    EXPECT_EQ(uuids_of("uuid:short=00112233-4455-6677-8899-aabbccddeef\n"
                       "uuid:right=" +
                       kSomeUuid +
                       "\n"
                       "uuid:long=00112233-4455-6677-8899-aabbccddeeff0\n"
                       "uuid:none=\nuuid:dashes=----\n"),
              Texts{"right=" + kSomeGuid});
}

TEST_F(ParameterUuid, DigitsAreNotChecked) {
    EXPECT_EQ(uuids_of("uuid:a=zzzzzzzz-zzzz-zzzz-zzzz-zzzzzzzzzzz1\n"),
              Texts{"a=00000000000000000000000000000001"});
}

TEST_F(ParameterUuid, LineNeedsTheLowerCaseKeywordAndAnEqualsSign) {
    EXPECT_EQ(uuids_of("UUID:a=" + kSomeUuid + "\nuuid a=" + kSomeUuid + "\nuuid:" + kSomeUuid +
                       "\nuuid:\nname=" + kSomeUuid + "\n"),
              Texts{});
}

TEST_F(ParameterUuid, KeywordMayStandAnywhereAndTheFirstOneCounts) {
    EXPECT_EQ(uuids_of("# my uuid:a=" + kSomeUuid + "\npartuuid:uuid:b=" + kSomeUuid + "\n"),
              (Texts{"a=" + kSomeGuid, "uuid:b=" + kSomeGuid}));
}

TEST_F(ParameterUuid, NameEndsAtTheFirstEqualsSignAndMayBeEmpty) {
    EXPECT_EQ(uuids_of("uuid:=" + kSomeUuid + "\nuuid:a=b=112233-4455-6677-8899-aabbccddeeff\n"),
              (Texts{"=" + kSomeGuid, "a=332211b0554477668899aabbccddeeff"}));
}

TEST_F(ParameterUuid, AllLinesAreCollectedInOrderDuplicatesToo) {
    const std::string other = "ffffffff-0000-0000-0000-000000000001";
    EXPECT_EQ(uuids_of("uuid:b=" + kSomeUuid + "\nmtdparts=flash:0x1@0x2(a)\nuuid:a=" + kSomeUuid +
                       "\nuuid:b=" + other),
              (Texts{"b=" + kSomeGuid, "a=" + kSomeGuid, "b=ffffffff000000000000000000000001"}));
}

TEST_F(ParameterUuid, OneCarriageReturnIsTakenOffTheLine) {
    EXPECT_EQ(
        uuids_of("\r\nuuid:a=" + kSomeUuid + "\r\nuuid:b=" + kSomeUuid + "\r\r\nuuid:c=" + kSomeUuid + "\r"),
        (Texts{"a=" + kSomeGuid, "c=" + kSomeGuid}));
}

TEST_F(ParameterUuid, EarlierListIsReplaced) {
    UUID_ITEM_VECTOR items(2);
    EXPECT_TRUE(m_storage.get_uuid_from_parameter(("uuid:a=" + kSomeUuid).c_str(), items));
    EXPECT_EQ(printed_uuids(items), Texts{"a=" + kSomeGuid});
    EXPECT_FALSE(m_storage.get_uuid_from_parameter("nothing here\n", items));
    EXPECT_TRUE(items.empty());

    items.resize(1);
    EXPECT_FALSE(m_storage.get_uuid_from_parameter(nullptr, items));
    EXPECT_TRUE(items.empty());
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
