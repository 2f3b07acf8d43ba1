#pragma once

// The command line of nandsmith-check, from words.

#include "check/options/options.h"

#include <string>
#include <vector>

namespace check_test {

using Words = std::vector<std::string>;

/// The options that these words give after the name of the program.
inline CheckOptions parse(Words words) {
    words.insert(words.begin(), "nandsmith-check");
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    return parse_check_options(static_cast<int>(words.size()), argv.data());
}

/// A complete command line, and more words after it.
inline CheckOptions parse_with(const Words& more) {
    Words words{"-i", "fw", "-t", "slc", "-b", "128", "-p", "2", "-s", "64"};
    words.insert(words.end(), more.begin(), more.end());
    return parse(words);
}

}  // namespace check_test
