#pragma once

// The rows of the comparison: what runs, on which input, and what it may cost.

#include "compare_inputs.h"
#include "measured_process.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

// Programs that do a part of the same work, for a sense of proportion.
enum class OtherTool { cat, simg2img, genimage };

struct Row {
    std::string name{};
    InputKind input = InputKind::dense;
    double limit = 0;  // of the ratio to cp, or to cmp or openssl for a check; 0: none
    // "@firmware", "@output", "@copy" and "@dump" stand for the input, the two directories and the file of a
    // chip's dump in the output directory.
    std::vector<std::string> words{};
    std::vector<OtherTool> others{};
    bool at_largest_size = false;  // also runs alone with a firmware that is too large for pairs
    // Not empty: the row checks what these words have written, beside cmp of the output and its copy.
    std::vector<std::string> preparation{};
    double least_rate = 0;     // of a dump, in GB for a second of processor time; 0: any
    bool is_manifest = false;  // the row runs beside openssl, which makes the SHA-256 of the output, not cmp

    bool is_check() const { return !preparation.empty(); }
};

// The rows that this processor can run. programs: the directory of the conversion programs by name.
struct Programs {
    std::filesystem::path nandsmith{};
    std::filesystem::path nandsmith_check{};
    std::filesystem::path convert_with_path{};
    std::filesystem::path check_with_path{};
    std::filesystem::path make_sample_dump{};
};
std::vector<Row> comparison_rows(const Programs& programs);

Command command_of(const Row& row, const Input& input, const WorkDirectory& work);
Command preparation_of(const Row& row, const Input& input, const WorkDirectory& work);

// The copy of everything in the output directory that the row is measured against.
Command copy_command(const WorkDirectory& work);
// cmp of each file in the output directory with its copy.
Command compare_command(const WorkDirectory& work);
// openssl with the SHA-256 of each file in the output directory.
Command digest_command(const WorkDirectory& work);

std::string name_of(OtherTool tool);
// Writes to the copy directory, which is empty, what the tool makes of the same contents. mib: size of the
// root file system.
Command other_command(OtherTool tool, const Input& input, uint64_t mib, const WorkDirectory& work);
