#include "work_directory.h"

#include <algorithm>
#include <fcntl.h>
#include <stdexcept>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace fs = std::filesystem;

WorkDirectory::WorkDirectory(fs::path path) : m_path(std::move(path)) {
    fs::remove_all(m_path);
    for (const fs::path& directory : {inputs(), output(), copy()})
        fs::create_directories(directory);
}

WorkDirectory::~WorkDirectory() {
    std::error_code ignored;
    fs::remove_all(m_path, ignored);
}

void WorkDirectory::empty(const fs::path& directory) const {
    for (const auto& entry : fs::directory_iterator(directory))
        fs::remove_all(entry);
}

void WorkDirectory::settle() const {
    const int descriptor = open(m_path.c_str(), O_RDONLY | O_DIRECTORY);
    if (descriptor < 0 || syncfs(descriptor) != 0)
        throw std::runtime_error("cannot sync " + m_path.string());
    close(descriptor);
}

std::vector<fs::path> files_in(const fs::path& directory) {
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(directory))
        if (entry.is_regular_file())
            files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

uint64_t bytes_in(const fs::path& directory) {
    uint64_t sum = 0;
    for (const fs::path& file : files_in(directory))
        sum += fs::file_size(file);
    return sum;
}

void read_once(const fs::path& file) {
    const int descriptor = open(file.c_str(), O_RDONLY);
    if (descriptor < 0)
        throw std::runtime_error("cannot open " + file.string());
    std::vector<char> block(std::size_t{256} << 10);
    ssize_t got = 0;
    do {
        got = read(descriptor, block.data(), block.size());
    } while (got > 0);
    close(descriptor);
    if (got < 0)
        throw std::runtime_error("cannot read " + file.string());
}
