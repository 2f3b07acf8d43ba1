#include "boot_object.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace {

using namespace firmware_tests;

using test_support::BootContainer;
using test_support::put32_at;
using test_support::put8_at;
namespace field = test_support::boot_field;

// ---- records ----

TEST(QZBootRecords, LieWhereTheFormatSays) {
    EXPECT_EQ(sizeof(STRUCT_QZTIME), 7U);
    EXPECT_EQ(sizeof(STRUCT_QZBOOT_HEAD), 102U);
    EXPECT_EQ(offsetof(STRUCT_QZBOOT_HEAD, dwMergeVersion), 10U);
    EXPECT_EQ(offsetof(STRUCT_QZBOOT_HEAD, emSupportChip), 21U);
    EXPECT_EQ(offsetof(STRUCT_QZBOOT_HEAD, dwLoaderEntryOffset), 38U);
    EXPECT_EQ(offsetof(STRUCT_QZBOOT_HEAD, ucRc4Flag), 44U);
    EXPECT_EQ(sizeof(STRUCT_QZBOOT_ENTRY), 57U);
    EXPECT_EQ(offsetof(STRUCT_QZBOOT_ENTRY, szName), 5U);
    EXPECT_EQ(offsetof(STRUCT_QZBOOT_ENTRY, dwDataOffset), 45U);
    EXPECT_EQ(offsetof(STRUCT_QZBOOT_ENTRY, dwDataDelay), 53U);
    EXPECT_EQ(ENTRY471, 1U);
    EXPECT_EQ(ENTRY472, 2U);
    EXPECT_EQ(ENTRYLOADER, 4U);
}

// ---- the codes of ObjectInit ----

TEST(QZBoot, AcceptsAContainer) {
    EXPECT_EQ(init_code(sample_container().build()), 0);
    EXPECT_EQ(init_code(BootContainer{}.build()), 0);
}

TEST(QZBoot, WithoutBytesHasNoData) {
    CQZBoot without_memory(nullptr, 0);
    EXPECT_EQ(without_memory.ObjectInit(), -1);
    EXPECT_FALSE(without_memory.CrcCheck());
    CQZBoot only_a_size(nullptr, 200);
    EXPECT_EQ(only_a_size.ObjectInit(), -1);
    EXPECT_FALSE(only_a_size.CrcCheck());
    EXPECT_EQ(init_code({}), -1);
}

TEST(QZBoot, TooShortForACrcFailsTheCrcCheck) {
    for (const std::size_t size : {1U, 2U, 3U}) {
        EXPECT_EQ(init_code(Bytes(size, 0)), -2) << size;
        EXPECT_FALSE(boot_object(Bytes(size, 0))->CrcCheck()) << size;
    }
}

TEST(QZBoot, TooShortForItsHeadFailsTheTagCheck) {
    for (std::size_t size = 4; size < field::kHeadBytes + 4; ++size) {
        EXPECT_TRUE(boot_object(short_container(size, "BOOT"))->CrcCheck()) << size;
        EXPECT_EQ(init_code(short_container(size, "BOOT")), -3) << size;
        EXPECT_EQ(init_code(short_container(size, "LDR ")), -3) << size;
    }
}

TEST(QZBoot, NeedsRoomForHeadAndCrcOnly) {
    for (std::size_t size = field::kHeadBytes + 4; size <= 110; ++size)
        EXPECT_EQ(init_code(short_container(size, "BOOT")), 0) << size;
}

TEST(QZBoot, RejectsAWrongCrc) {
    Bytes container = sample_container().build();
    for (const std::size_t at : {std::size_t{0}, std::size_t{60}, container.size() - 5, container.size() - 4,
                                 container.size() - 1}) {
        Bytes bent = container;
        put8_at(bent, at, static_cast<uint8_t>(bent[at] ^ 0x80));
        EXPECT_EQ(init_code(bent), -2) << "byte " << at;
        EXPECT_FALSE(boot_object(bent)->CrcCheck());
    }
    EXPECT_TRUE(boot_object(container)->CrcCheck());
}

TEST(QZBoot, TakesTheCrcOfEverythingButItsLastFourBytes) {
    Bytes container = sample_container().build();
    const uint32_t crc = test_support::get32(container, container.size() - 4);
    EXPECT_EQ(crc, test_support::crc32_boot(container.data(), container.size() - 4));
    // The common CRC-32 generator does not do.
    put32_at(container, container.size() - 4, test_support::crc32_standard(container));
    EXPECT_EQ(init_code(container), -2);
}

TEST(QZBoot, LooksAtTheCrcBeforeTheTag) {
    BootContainer container = sample_container();
    container.tag = "ABCD";
    EXPECT_EQ(init_code(container.build()), -3);
    container.crc = 0x12345678;
    EXPECT_EQ(init_code(container.build()), -2);
}

TEST(QZBoot, KnowsTwoTags) {
    for (const char* tag : {"BOOT", "LDR "})
        EXPECT_EQ(init_code(BootContainer{.tag = tag}.build()), 0) << tag;
    for (const char* tag : {"boot", "BOOU", "COOT", "LDR", "LDR_", "ldr ", "TOOB", "QZFW", ""})
        EXPECT_EQ(init_code(BootContainer{.tag = tag}.build()), -3) << tag;
}

TEST(QZBoot, BoundsTheMergeVersionOfALoaderContainer) {
    BootContainer container{.tag = "LDR "};
    for (const uint32_t version : {0U, 1U, 0xFFFFFFU, 0x1000000U}) {
        container.merge_version = version;
        EXPECT_EQ(init_code(container.build()), 0) << version;
    }
    for (const uint32_t version : {0x1000001U, 0x80000000U, 0xFFFFFFFFU}) {
        container.merge_version = version;
        EXPECT_EQ(init_code(container.build()), -4) << version;
    }
}

TEST(QZBoot, AcceptsAnyMergeVersionOfABootContainer) {
    for (const uint32_t version : {0x1000000U, 0x1000001U, 0xFFFFFFFFU})
        EXPECT_EQ(init_code(BootContainer{.merge_version = version}.build()), 0) << version;
}

// ---- what the head says ----

TEST(QZBoot, PublishesItsHead) {
    BootContainer container = sample_container();
    container.version = 0x89ABCDEF;
    container.merge_version = 0x00FEDCBA;
    container.chip = 0x80706050;
    container.release_time = {2031, 12, 25, 23, 59, 58};
    container.entries_472.entries.push_back({.name = "Third"});
    container.loader.entries.resize(5);
    const auto boot = boot_object(container.build());
    ASSERT_EQ(boot->ObjectInit(), 0);

    EXPECT_EQ(static_cast<uint32_t>(boot->Version), 0x89ABCDEFU);
    EXPECT_EQ(static_cast<uint32_t>(boot->MergeVersion), 0x00FEDCBAU);
    EXPECT_EQ(static_cast<ENUM_QZDEVICE_TYPE>(boot->SupportDevice), 0x80706050U);
    EXPECT_EQ(to_text(boot->ReleaseTime), "2031 12 25 23 59 58");
    EXPECT_EQ(static_cast<uint8_t>(boot->Entry471Count), 2);
    EXPECT_EQ(static_cast<uint8_t>(boot->Entry472Count), 3);
    EXPECT_EQ(static_cast<uint8_t>(boot->EntryLoaderCount), 5);
    EXPECT_FALSE(boot->SignFlag);
    EXPECT_FALSE(boot->Rc4DisableFlag);
}

TEST(QZBoot, BindsEveryPropertyToItsGetter) {
    BootContainer container = sample_container();
    container.loader.entries.resize(5);
    container.sign_flag = 'S';
    const auto boot = boot_object(container.build());
    ASSERT_EQ(boot->ObjectInit(), 0);
    EXPECT_EQ(boot->GetVersion(), static_cast<uint32_t>(boot->Version));
    EXPECT_EQ(boot->GetMergeVersion(), static_cast<uint32_t>(boot->MergeVersion));
    EXPECT_EQ(boot->GetSupportDevice(), static_cast<ENUM_QZDEVICE_TYPE>(boot->SupportDevice));
    EXPECT_EQ(to_text(boot->GetReleaseTime()), to_text(boot->ReleaseTime));
    EXPECT_EQ(boot->GetEntry471Count(), 2);
    EXPECT_EQ(boot->GetEntry472Count(), 2);
    EXPECT_EQ(boot->GetEntryLoaderCount(), 5);
    EXPECT_TRUE(boot->GetSignFlag());
    EXPECT_FALSE(boot->GetRc4DisableFlag());
}

TEST(QZBoot, IsSignedWithACapitalSAlone) {
    for (const int flag : {0, 1, int{'s'}, int{'T'}, 0xFF}) {
        const auto boot = boot_object(BootContainer{.sign_flag = static_cast<uint8_t>(flag)}.build());
        ASSERT_EQ(boot->ObjectInit(), 0);
        EXPECT_FALSE(boot->SignFlag) << flag;
    }
    const auto boot = boot_object(BootContainer{.sign_flag = 'S'}.build());
    ASSERT_EQ(boot->ObjectInit(), 0);
    EXPECT_TRUE(boot->SignFlag);
}

TEST(QZBoot, DisablesRc4WithAnyFlagButZero) {
    for (const int flag : {0, 1, 2, 0x80, 0xFF}) {
        const auto boot = boot_object(BootContainer{.rc4_flag = static_cast<uint8_t>(flag)}.build());
        ASSERT_EQ(boot->ObjectInit(), 0);
        EXPECT_EQ(static_cast<bool>(boot->Rc4DisableFlag), flag != 0) << flag;
    }
}

TEST(QZBoot, ShowsNothingHalfFilledAfterAFailure) {
    BootContainer container = sample_container();
    container.tag = "LDR ";
    container.merge_version = 0x1000001;
    container.sign_flag = 'S';
    container.rc4_flag = 1;
    const auto boot = boot_object(container.build());
    ASSERT_EQ(boot->ObjectInit(), -4);
    EXPECT_EQ(static_cast<uint32_t>(boot->Version), 0U);
    EXPECT_EQ(static_cast<uint32_t>(boot->MergeVersion), 0U);
    EXPECT_EQ(static_cast<ENUM_QZDEVICE_TYPE>(boot->SupportDevice), QZNONE_DEVICE);
    EXPECT_EQ(to_text(boot->ReleaseTime), "0 0 0 0 0 0");
    EXPECT_EQ(static_cast<uint8_t>(boot->EntryLoaderCount), 0);
    EXPECT_FALSE(boot->SignFlag);
    EXPECT_FALSE(boot->Rc4DisableFlag);
    uint32_t size = 1;
    uint32_t delay = 2;
    EXPECT_FALSE(boot->GetEntryProperty(ENTRYLOADER, 0, size, delay));
}

TEST(QZBoot, DoesNotInterpretItsHeadSizeOrReservedBytes) {
    for (const int size : {0, 1, 101, 103, 0xFFFF}) {
        BootContainer container = sample_container();
        container.head_size = static_cast<uint16_t>(size);
        container.reserved = Bytes(field::kReservedBytes, 0xFF);
        EXPECT_EQ(init_code(container.build()), 0) << size;
    }
}

// ---- names ----

TEST(WcharToChar, TakesTheLowByteOfEachUnit) {
    const std::array<uint16_t, 5> units = {0x0046, 0x4E46, 0x0000, 0xFFFF, 0x0180};
    std::array<char, 7> text{};
    text.fill('#');
    CQZBoot::wchar_To_char(units.data(), text.data(), 5);
    EXPECT_EQ(std::string(text.data(), text.size()), std::string("FF\0\xFF\x80##", 7));
}

TEST(WcharToChar, OfLengthZeroWritesNothing) {
    const uint16_t unit = 0x41;
    char text = '#';
    CQZBoot::wchar_To_char(&unit, &text, 0);
    EXPECT_EQ(text, '#');
}

}  // namespace
