#include "positioned_file.h"

#include "retry.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace {

// For less, reserving costs more than it saves.
constexpr uint64_t kSmallestReserve = 256 * 1024;

// Large enough that the calls cost little, small compared with the files that need this.
constexpr uint64_t kReleaseStep = 16 * 1024 * 1024;

/// Reserves or frees disk space and keeps the length of the file. False when that fails or is not supported.
bool change_space(int descriptor, bool reserve, uint64_t offset, uint64_t count) {
#if defined(__linux__)
    const int mode = FALLOC_FL_KEEP_SIZE | (reserve ? 0 : FALLOC_FL_PUNCH_HOLE);
    return ::fallocate(descriptor, mode, static_cast<off_t>(offset), static_cast<off_t>(count)) == 0;
#else
    static_cast<void>(descriptor), static_cast<void>(reserve), static_cast<void>(offset + count);
    return false;
#endif
}

}  // namespace

PositionedFile::~PositionedFile() {
    if (is_open())
        close();
}

bool PositionedFile::is_protected(const struct stat& status) const {
    return std::any_of(m_protected.begin(), m_protected.end(),
                       [&](const FileIdentity& identity) { return identity.is(status); });
}

int PositionedFile::open(const std::string& path, OpenMode mode, uint64_t& size) {
    m_reserves = m_releases = true;
    m_written_end = m_sequential = m_released = 0;
    struct stat status {};
    if (retry_interrupted([&] { return ::stat(path.c_str(), &status); }) == 0 && is_protected(status))
        return EBUSY;
    const int access = mode.readable ? O_RDWR : O_WRONLY;
    m_descriptor =
        retry_interrupted([&] { return ::open(path.c_str(), access | O_CREAT | O_CLOEXEC, 0666); });
    if (m_descriptor < 0)
        return errno;
    const bool has_status = retry_interrupted([&] { return ::fstat(m_descriptor, &status); }) == 0;
    const int error = has_status ? take_over(status, mode, size) : errno;
    if (error != 0) {
        ::close(m_descriptor);
        m_descriptor = -1;
    }
    return error;
}

/// Checks the file that was opened and makes it the output. It is truncated only after this check: the path
/// may lead to another file than before.
int PositionedFile::take_over(const struct stat& status, OpenMode mode, uint64_t& size) {
    if (is_protected(status))
        return EBUSY;
    if (mode.readable && (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode)))
        return ESPIPE;
    m_regular = S_ISREG(status.st_mode);
    m_identity = FileIdentity(status);
    const bool has_content = m_regular && status.st_size != 0;
    if (has_content && mode.truncate && retry_interrupted([&] { return ::ftruncate(m_descriptor, 0); }) != 0)
        return errno;
    if (has_content && !mode.truncate)
        m_written_end = static_cast<uint64_t>(status.st_size);
    size = m_written_end;
    return 0;
}

/// Reserves the space for bytes that are about to be written: for the file system this costs far less than
/// page after page. A failure shows in the write.
void PositionedFile::reserve(uint64_t offset, uint64_t count) {
    if (m_reserves && m_regular && count >= kSmallestReserve)
        m_reserves = change_space(m_descriptor, true, offset, count);
}

void PositionedFile::release_before(uint64_t offset) {
    const uint64_t end = offset - offset % kReleaseStep;
    if (!m_releases || !m_regular || !is_open() || end <= m_released)
        return;
    m_releases = change_space(m_descriptor, false, m_released, end - m_released);
    m_released = end;
}

int PositionedFile::move_to(uint64_t offset) {
    if (m_regular || offset == m_sequential)
        return 0;
    if (retry_interrupted([&] { return ::lseek(m_descriptor, static_cast<off_t>(offset), SEEK_SET); }) < 0)
        return errno;
    m_sequential = offset;
    return 0;
}

int PositionedFile::bytes(uint64_t offset, const uint8_t* bytes, uint64_t count) {
    if (count == 0)
        return 0;
    reserve(offset, count);
    if (const int error = move_to(offset); error != 0)
        return error;
    while (count != 0) {
        const auto in_memory = static_cast<std::size_t>(count);
        const ssize_t written = retry_interrupted([&] {
            return m_regular ? ::pwrite(m_descriptor, bytes, in_memory, static_cast<off_t>(offset))
                             : ::write(m_descriptor, bytes, in_memory);
        });
        if (written <= 0)
            return written == 0 ? EIO : errno;
        offset += static_cast<uint64_t>(written);
        bytes += written;
        count -= static_cast<uint64_t>(written);
        m_written_end = std::max(m_written_end, offset);
        m_sequential = offset;
    }
    return 0;
}

int PositionedFile::zeros(uint64_t /*offset*/, uint64_t /*count*/) {
    return 0;  // they become a hole when something is written after them
}

uint64_t PositionedFile::zeros_from() const {
    return m_regular && m_holes_allowed ? m_written_end : kNoZeros;
}

int PositionedFile::end(uint64_t size) {
    // A hole at the end of the file: writing its last byte sets the length on every file system.
    const uint8_t zero = 0;
    return !m_regular || size <= m_written_end ? 0 : bytes(size - 1, &zero, 1);
}

int PositionedFile::close() {
    // An interrupted close has closed the descriptor.
    const int error = ::close(m_descriptor) != 0 && errno != EINTR ? errno : 0;
    m_descriptor = -1;
    m_identity = FileIdentity();
    return error;
}
