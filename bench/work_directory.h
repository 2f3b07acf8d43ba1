#pragma once

// The files of the comparison. All of them lie in one directory that is removed at the end.

#include <cstdint>
#include <filesystem>
#include <vector>

class WorkDirectory {
public:
    // Empties the directory, or creates it.
    explicit WorkDirectory(std::filesystem::path path);
    WorkDirectory(const WorkDirectory&) = delete;
    WorkDirectory& operator=(const WorkDirectory&) = delete;
    ~WorkDirectory();

    std::filesystem::path inputs() const { return m_path / "inputs"; }
    std::filesystem::path output() const { return m_path / "output"; }  // what is measured writes here
    std::filesystem::path copy() const { return m_path / "copy"; }      // what it is measured against
    std::filesystem::path scratch(const char* name) const { return m_path / name; }

    // Removes everything in one of the directories above.
    void empty(const std::filesystem::path& directory) const;
    // Waits until nothing that was written before is still on its way to the disk: it would slow down what
    // comes next.
    void settle() const;

private:
    std::filesystem::path m_path;
};

// Files in a directory, sorted by name.
std::vector<std::filesystem::path> files_in(const std::filesystem::path& directory);
// Sum of their lengths, holes included.
uint64_t bytes_in(const std::filesystem::path& directory);
// Reads a file from one end to the other, so that it is in the page cache.
void read_once(const std::filesystem::path& file);
