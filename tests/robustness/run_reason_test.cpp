// What counts as the reason of a failed run: its last lines in the form of its exit status, and nothing else.

#include "program_run.h"

#include <gtest/gtest.h>

namespace robustness {
namespace {

using namespace test_support;

std::string creation(const std::string& cause, const std::string& verdict) {
    return "writing idblock...\n" + cause + "\n\033[30;41m" + verdict +
           "\033[37;40m\nFailed to create programming image.\n";
}

TEST(RunReason, IsTheLineOfTheStatus) {
    for (const auto& [status, out] : std::vector<std::pair<int, std::string>>{
             {kInitFailed, "failed to load firmware,ret=1\n"},
             {kInitFailed, "failed to create out/out_image.img,err=13\n"},
             {kOutOfMemory, "writing idblock...\nout of memory\n"},
             {247, "out failed to access\n"},
             {kCreationFailed,
              creation("\033[1A\033[2Kwriting boot...OK", "failed to write out/a.img,err=28")},
             {kCreationFailed, creation("failed to get sparse chunk", "failed to write rootfs,ret=-4")},
             {kCreationFailed, creation("failed to get fill chunk data", "failed to write rootfs,ret=-6")}})
        EXPECT_EQ(wrong_reason(status, out), "");
}

TEST(RunReason, IsNotAnyLineWithAFailure) {
    const std::string any = "failed to get sparse info\n";
    for (const int status : {247, 246, 245, 244, 242, 241, 240, 1, 139})
        EXPECT_NE(wrong_reason(status, any), "") << status;
    for (const std::string out :
         {"", "failed to load firmware,ret=1", "failed to load firmware,ret=1\nwriting idblock...\n",
          "failed to load firmware,ret=-2\n"})
        EXPECT_NE(wrong_reason(kInitFailed, out), "") << out;
}

TEST(RunReason, HasTheCauseOfItsResult) {
    const std::string any = "failed to get sparse info\n";
    for (const std::string& out : {any + "Failed to create programming image.\n",
                                   creation("failed to get fill chunk data", "failed to write rootfs,ret=-5"),
                                   creation("writing boot...", "failed to write boot,ret=-1"),
                                   creation("writing boot...", "failed to write boot,ret=-9"),
                                   creation("writing boot...", "something is too small")})
        EXPECT_NE(wrong_reason(kCreationFailed, out), "") << out;
}

TEST(RunReason, TellsItsErrno) {
    EXPECT_EQ(errno_of_reason(creation("writing boot...", "failed to write out/a.img,err=28")), 28);
    EXPECT_EQ(errno_of_reason(creation("failed to create out/a.img,err=13", "failed to prepare a")), 13);
    EXPECT_EQ(errno_of_reason("failed to create out/out_image.img,err=2\n"), 2);
    EXPECT_EQ(errno_of_reason("failed to load firmware,ret=1\n"), std::nullopt);
}

}  // namespace
}  // namespace robustness
