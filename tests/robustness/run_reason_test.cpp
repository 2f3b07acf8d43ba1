// What counts as the reason of a failed run: its last lines in the form of its exit status, and nothing else.

#include "fuzz/conversion.h"
#include "run_reason.h"

#include <gtest/gtest.h>

namespace robustness {
namespace {

std::string creation(const std::string& cause, const std::string& verdict) {
    return "writing idblock...\n" + cause + "\n\033[30;41m" + verdict +
           "\033[37;40m\nFailed to create programming image.\n";
}

TEST(RunReason, IsTheLineOfTheStatus) {
    EXPECT_EQ(wrong_reason(kStatusInitFailed, "failed to load firmware,ret=1\n"), "");
    EXPECT_EQ(wrong_reason(kStatusInitFailed, "failed to create out/out_image.img,err=13\n"), "");
    EXPECT_EQ(wrong_reason(kStatusOutOfMemory, "writing idblock...\nout of memory\n"), "");
    EXPECT_EQ(wrong_reason(247, "out failed to access\n"), "");
    EXPECT_EQ(wrong_reason(kStatusCreationFailed,
                           creation("\033[1A\033[2Kwriting boot...OK", "failed to write out/a.img,err=28")),
              "");
    EXPECT_EQ(wrong_reason(kStatusCreationFailed,
                           creation("failed to get sparse chunk", "failed to write rootfs,ret=-4")),
              "");
}

TEST(RunReason, IsNotAnyLineWithAFailure) {
    const std::string any = "failed to get sparse info\n";
    for (const int status : {247, 246, 245, 244, 242, 241, 240, 1, 139})
        EXPECT_NE(wrong_reason(status, any), "") << status;
    EXPECT_NE(wrong_reason(kStatusInitFailed, ""), "");
    EXPECT_NE(wrong_reason(kStatusInitFailed, "failed to load firmware,ret=1"), "");
    EXPECT_NE(wrong_reason(kStatusInitFailed, "failed to load firmware,ret=1\nwriting idblock...\n"), "");
    EXPECT_NE(wrong_reason(kStatusInitFailed, "failed to load firmware,ret=-2\n"), "");
    EXPECT_NE(wrong_reason(kStatusCreationFailed, any + "Failed to create programming image.\n"), "");
}

TEST(RunReason, HasTheCauseOfItsResult) {
    const auto wrong = [](const std::string& cause, const std::string& verdict) {
        return wrong_reason(kStatusCreationFailed, creation(cause, verdict));
    };
    EXPECT_EQ(wrong("failed to get fill chunk data", "failed to write rootfs,ret=-6"), "");
    EXPECT_NE(wrong("failed to get fill chunk data", "failed to write rootfs,ret=-5"), "");
    EXPECT_NE(wrong("writing boot...", "failed to write boot,ret=-1"), "");
    EXPECT_NE(wrong("writing boot...", "failed to write boot,ret=-9"), "");
    EXPECT_NE(wrong("writing boot...", "something is too small"), "");
}

TEST(RunReason, TellsItsErrno) {
    EXPECT_EQ(errno_of_reason(creation("writing boot...", "failed to write out/a.img,err=28")), 28);
    EXPECT_EQ(errno_of_reason(creation("failed to create out/a.img,err=13", "failed to prepare a")), 13);
    EXPECT_EQ(errno_of_reason("failed to create out/out_image.img,err=2\n"), 2);
    EXPECT_EQ(errno_of_reason("failed to load firmware,ret=1\n"), std::nullopt);
}

}  // namespace
}  // namespace robustness
