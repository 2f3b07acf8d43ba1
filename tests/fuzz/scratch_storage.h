#pragma once

// A storage object with its steps and members in the open, over a firmware in a scratch directory.

#include "scratch_directory.h"
#include "storage/storage_impl.h"

#include <filesystem>
#include <string>

namespace robustness {

class OpenStorage : public CStorage {
public:
    using CStorage::CStorage;

    using CStorage::close_output;
    using CStorage::m_fill_byte;
    using CStorage::m_fout;
    using CStorage::m_paramBuffer;
    using CStorage::m_uiParamFileSize;
    using CStorage::m_update_image_ptr;
    using CStorage::m_write_failure;
    using CStorage::switch_output;
};

// No output file grows beyond this in a fuzzed run: such a write fails, and the run goes on to its verdict.
inline constexpr uint64_t kLargestFuzzedFile = 6 * 1024 * 1024;

struct ScratchFiles {
    ScratchDirectory top{};
    std::filesystem::path firmware = top / "firmware.img";
    std::filesystem::path output = top / "out";

    ScratchFiles() { std::filesystem::create_directory(output); }

    void clear_output() const {
        for (const auto& entry : std::filesystem::directory_iterator(output))
            std::filesystem::remove_all(entry.path());
    }
};

}  // namespace robustness
