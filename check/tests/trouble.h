#pragma once

// Runs of nandsmith-check that end in trouble.

#include "check_bench.h"

#include <string>

namespace check_test {

/// Text, document and silence of one trouble.
inline void expect_trouble(const Arguments& arguments, const std::string& reason,
                           const std::string& shell_line = {}, const RunOptions& options = {}) {
    const auto run = [&](const std::string& option) {
        Arguments all = arguments;
        if (!option.empty())
            all.push_back(option);
        return shell_line.empty() ? run_check_program(all, options)
                                  : run_check_in_shell(shell_line, all, options);
    };
    const RunResult text = run("");
    EXPECT_FALSE(text.timed_out);
    EXPECT_EQ(text.exit_status, kTrouble) << text.out;
    EXPECT_EQ(last_line(text.out).substr(0, 9), "trouble: ") << text.out;
    EXPECT_NE(last_line(text.out).find(reason), std::string::npos) << text.out;
    const Json document = parsed(run("--json"));
    EXPECT_EQ(document.at("verdict"), "trouble");
    EXPECT_NE(document.at("error").get<std::string>().find(reason), std::string::npos) << document.dump(1);
    const RunResult quiet = run("-q");
    EXPECT_EQ(quiet.exit_status, kTrouble);
    EXPECT_EQ(quiet.out, "");
    EXPECT_EQ(quiet.err, "");
}

}  // namespace check_test
