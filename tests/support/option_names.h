#pragma once

// The options of a program, as its tables, its manual page and its completions have them.

#include "bytes.h"
#include "require_tool.h"
#include "storage/storage_types.h"

#include <algorithm>
#include <filesystem>
#include <getopt.h>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace test_support {

namespace fs = std::filesystem;

using OptionNames = std::set<std::string>;  // as a user types them: "-i", "--in"

// Of the tables for getopt_long. A row whose name begins that of an earlier row with the same code is an
// abbreviation of it.
inline OptionNames options_of_tables(const std::string& letters, const std::vector<option>& table) {
    OptionNames names;
    for (const char letter : letters)
        if (letter != ':')
            names.insert({'-', letter});
    for (auto row = table.begin(); row->name != nullptr; ++row) {
        const bool abbreviation = std::any_of(table.begin(), row, [&](const option& earlier) {
            return earlier.val == row->val && std::string_view(earlier.name).starts_with(row->name);
        });
        if (!abbreviation)
            names.insert("--" + std::string(row->name));
    }
    return names;
}

// Those that have an entry in a page of mdoc, as in ".It Fl i Ar firmware , Fl Fl in Ns = Ns Ar firmware".
inline OptionNames options_of_page(const fs::path& page) {
    OptionNames names;
    std::istringstream text(to_text(read_file(page)));
    for (std::string line; std::getline(text, line);) {
        if (!line.starts_with(".It Fl "))
            continue;
        std::erase(line, '\\');
        std::istringstream words(line);
        std::string dashes;
        for (std::string word; words >> word;)
            if (word == "Fl")
                dashes += '-';
            else if (!dashes.empty())
                names.insert(std::exchange(dashes, "") + word);
    }
    return names;
}

// The shells that have completions.
inline const std::vector<std::string> kShells{"bash", "zsh", "fish"};

// The file that a shell's completion needs besides the shell; empty: none.
inline fs::path completion_library(const std::string& shell) {
    return shell == "bash" ? "/usr/share/bash-completion/bash_completion" : "";
}

// What a shell offers at the end of each line, without the '=' or '/' that it puts after it.
inline std::vector<std::set<std::string>>
offers(const std::string& shell, const std::vector<std::string>& lines, const fs::path& directory) {
    const fs::path source = NANDSMITH_SOURCE_DIR;
    std::vector<std::string> arguments{source / "completions"};
    arguments.insert(arguments.end(), lines.begin(), lines.end());
    const RunResult run = run_program(source / "tests/completion" / ("in-" + shell), arguments,
                                      {.working_directory = directory, .timeout_seconds = 60});
    EXPECT_TRUE(run.succeeded()) << run.out;
    EXPECT_EQ(run.err, "");
    std::vector<std::set<std::string>> offered(1);
    std::istringstream text(run.out);
    for (std::string word; std::getline(text, word);) {
        if (word.empty()) {
            offered.emplace_back();
            continue;
        }
        if (word.ends_with('=') || word.ends_with('/'))
            word.pop_back();
        offered.back().insert(word);
    }
    offered.pop_back();
    return offered;
}

// The completions of one program, tested in each shell. The current directory holds a file and a directory.
class CompletionTest : public testing::TestWithParam<std::string> {
protected:
    void SetUp() override {
        REQUIRE_TOOL(GetParam());
        const fs::path library = completion_library(GetParam());
        if (!library.empty() && !fs::exists(library))
            GTEST_SKIP() << "missing tool: " << library.filename().string();
        write_file(m_directory / "fw.img", {});
        fs::create_directory(m_directory / "out");
    }

    void expect_offered(const std::vector<std::string>& lines, const std::set<std::string>& expected) const {
        const auto offered = offers(GetParam(), lines, m_directory.path());
        ASSERT_EQ(offered.size(), lines.size());
        for (std::size_t i = 0; i < lines.size(); ++i)
            EXPECT_EQ(offered[i], expected) << lines[i];
    }

    static std::set<std::string> types() {
        std::set<std::string> words;
        for (const StorageType& type : storage_types())
            words.insert(type.word);
        return words;
    }

    static const inline std::set<std::string> kNothing{};
    static const inline std::set<std::string> kFiles{"fw.img", "out"};
    static const inline std::set<std::string> kDirectories{"out"};

private:
    TemporaryDirectory m_directory;
};

}  // namespace test_support
