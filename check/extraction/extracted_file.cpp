#include "extracted_file.h"

#include "../../src/common/byte_run.h"
#include "../../src/io/retry.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr std::size_t kLongestName = 255;
constexpr uint64_t kHolePiece = 64 * 1024;  // zeros become a hole where they fill such a piece of the file
constexpr int kMostTemporaryNames = 100;

}  // namespace

std::optional<std::string> refused_name(const std::string& name) {
    if (name.empty())
        return "its name is empty";
    if (name == "." || name == "..")
        return "its name is that of a directory";
    if (name.find('/') != std::string::npos)
        return "its name has a '/'";
    if (name.find('\0') != std::string::npos)
        return "its name has a NUL";
    if (name.size() > kLongestName)
        return "its name has more than 255 bytes";
    return std::nullopt;
}

ExtractionDirectory::~ExtractionDirectory() {
    if (m_descriptor >= 0)
        ::close(m_descriptor);
}

int ExtractionDirectory::open(const std::string& path) {
    if (::mkdir(path.c_str(), 0777) != 0 && errno != EEXIST)
        return errno;
    m_descriptor =
        retry_interrupted([&] { return ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
    return m_descriptor < 0 ? errno : 0;
}

int ExtractionDirectory::find(const std::string& name, std::optional<struct stat>& status) const {
    struct stat found {};
    status.reset();
    if (::fstatat(m_descriptor, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0)
        status = found;
    else if (errno != ENOENT)
        return errno;
    return 0;
}

ExtractedFile::~ExtractedFile() {
    if (m_descriptor >= 0)
        ::close(m_descriptor);
    if (!m_created.empty())
        ::unlinkat(m_directory.descriptor(), m_created.c_str(), 0);
}

int ExtractedFile::open(const std::string& name) {
    m_name = name;
    if (!m_mode.replace) {
        m_created = name;
        return create();
    }
    int error = EEXIST;
    for (int i = 0; error == EEXIST && i < kMostTemporaryNames; ++i) {
        m_created = ".nandsmith-check." + std::to_string(::getpid()) + "." + std::to_string(i);
        error = create();
    }
    return error;
}

int ExtractedFile::create() {
    constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    m_descriptor = retry_interrupted(
        [&] { return ::openat(m_directory.descriptor(), m_created.c_str(), kFlags, 0666); });
    const int error = m_descriptor < 0 ? errno : 0;
    if (error != 0)
        m_created.clear();
    return error;
}

int ExtractedFile::append(const uint8_t* bytes, uint64_t count) {
    while (count != 0) {
        const uint64_t piece = std::min(count, kHolePiece - m_size % kHolePiece);
        if (!m_mode.holes || !holds_only(bytes, piece, 0))
            if (const int error = write(bytes, piece); error != 0)
                return error;
        m_size += piece;
        bytes += piece;
        count -= piece;
    }
    return 0;
}

int ExtractedFile::write(const uint8_t* bytes, uint64_t count) {
    for (uint64_t done = 0; done < count;) {
        const ssize_t part = retry_interrupted([&] {
            return ::pwrite(m_descriptor, bytes + done, count - done, static_cast<off_t>(m_size + done));
        });
        if (part <= 0)
            return part == 0 ? EIO : errno;
        done += static_cast<uint64_t>(part);
    }
    m_written_end = m_size + count;
    return 0;
}

/// Zeros at the end that were left out count to the file's length.
int ExtractedFile::set_size() const {
    if (m_written_end == m_size)
        return 0;
    const auto size = static_cast<off_t>(m_size);
    return retry_interrupted([&] { return ::ftruncate(m_descriptor, size); }) == 0 ? 0 : errno;
}

int ExtractedFile::complete() {
    if (const int error = set_size(); error != 0)
        return error;
    // An interrupted close has closed the descriptor.
    const int error = ::close(m_descriptor) != 0 && errno != EINTR ? errno : 0;
    m_descriptor = -1;
    if (error != 0)
        return error;
    const int directory = m_directory.descriptor();
    if (m_created != m_name && ::renameat(directory, m_created.c_str(), directory, m_name.c_str()) != 0)
        return errno;
    m_created.clear();
    return 0;
}
