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

// ---- the codes of ObjectInit ----

TEST(QZBoot, WithoutBytesHasNoData) {
    for (const uint32_t size : {0U, 200U}) {
        CQZBoot without_memory(nullptr, size);
        EXPECT_EQ(without_memory.ObjectInit(), -1);
        EXPECT_FALSE(without_memory.CrcCheck());
    }
    EXPECT_EQ(init_code({}), -1);
}

TEST(QZBoot, NeedsRoomForHeadAndCrcOnly) {
    for (std::size_t size = 1; size <= 110; ++size) {
        const int too_short = size < sizeof(uint32_t) ? -2 : -3;
        for (const char* tag : {"BOOT", "LDR "}) {
            const Bytes container = short_container(size, tag);
            EXPECT_EQ(init_code(container), size < field::kHeadBytes + 4 ? too_short : 0) << tag << size;
            EXPECT_EQ(boot_object(container)->CrcCheck(), size >= sizeof(uint32_t)) << tag << size;
        }
    }
}

TEST(QZBoot, RejectsAWrongCrc) {
    const Bytes container = sample_container().build();
    EXPECT_EQ(init_code(container), 0);
    for (const std::size_t at : {std::size_t{0}, std::size_t{60}, container.size() - 5, container.size() - 4,
                                 container.size() - 1}) {
        Bytes bent = container;
        put8_at(bent, at, static_cast<uint8_t>(bent[at] ^ 0x80));
        EXPECT_EQ(init_code(bent), -2) << "byte " << at;
        EXPECT_FALSE(boot_object(bent)->CrcCheck());
    }
}

TEST(QZBoot, TakesTheCrcOfEverythingButItsLastFourBytes) {
    Bytes container = sample_container().build();
    const std::size_t length = container.size() - 4;
    put32_at(container, length, test_support::crc32_boot(container.data(), length));
    EXPECT_EQ(init_code(container), 0);
    put32_at(container, length, test_support::crc32_standard(test_support::slice(container, 0, length)));
    EXPECT_EQ(init_code(container), -2) << "the common generator";
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

TEST(QZBoot, BoundsTheMergeVersionOfALoaderContainerAlone) {
    for (const uint32_t version : {0U, 1U, 0xFFFFFFU, 0x1000000U, 0x1000001U, 0x80000000U, 0xFFFFFFFFU}) {
        BootContainer container{.tag = "LDR ", .merge_version = version};
        EXPECT_EQ(init_code(container.build()), version <= 0x1000000 ? 0 : -4) << version;
        container.tag = "BOOT";
        EXPECT_EQ(init_code(container.build()), 0) << version;
    }
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

TEST(QZBoot, TakesASForSignedAndAnyFlagForNoRc4) {
    for (const int flag : {0, 1, 2, 0x80, int{'S'}, int{'s'}, int{'T'}, 0xFF}) {
        const auto value = static_cast<uint8_t>(flag);
        const auto boot = boot_object(BootContainer{.sign_flag = value, .rc4_flag = value}.build());
        ASSERT_EQ(boot->ObjectInit(), 0);
        EXPECT_EQ(boot->GetSignFlag(), flag == 'S') << flag;
        EXPECT_EQ(static_cast<bool>(boot->SignFlag), flag == 'S') << flag;
        EXPECT_EQ(boot->GetRc4DisableFlag(), flag != 0) << flag;
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
    std::string text(7, '#');
    CQZBoot::wchar_To_char(units.data(), text.data(), 0);
    EXPECT_EQ(text, "#######");
    CQZBoot::wchar_To_char(units.data(), text.data(), 5);
    EXPECT_EQ(text, std::string("FF\0\xFF\x80##", 7));
}

}  // namespace
