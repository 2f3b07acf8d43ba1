#pragma once

// A directory for runs that are counted in thousands: in memory where the machine offers that, else under the
// system's temporary directory.

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>
#include <unistd.h>

namespace robustness {

class ScratchDirectory {
public:
    ScratchDirectory() {
        std::string pattern = (fast_root() / "nandsmith-scratch-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr)
            throw std::runtime_error("cannot create " + pattern);
        m_path = pattern;
    }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;
    ~ScratchDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }

    const std::filesystem::path& path() const { return m_path; }
    std::filesystem::path operator/(const std::filesystem::path& name) const { return m_path / name; }

private:
    static std::filesystem::path fast_root() {
        const char* const in_memory = "/dev/shm";
        return ::access(in_memory, W_OK | X_OK) == 0 ? in_memory : std::filesystem::temp_directory_path();
    }

    std::filesystem::path m_path;
};

}  // namespace robustness
