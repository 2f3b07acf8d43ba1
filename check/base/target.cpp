#include "target.h"

#include "../../src/io/retry.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace {

// Direct reads of a device start and end at multiples of this, and so does their memory.
constexpr uint64_t kDirectUnit = 4096;
constexpr uint64_t kDirectBlock = 256 * 1024;
constexpr std::size_t kCopyBlock = 256 * 1024;

/// Copies a stream to a file without a name. Its descriptor, or -1 with errno set.
int keep_stream(int stream) {
    std::FILE* file = std::tmpfile();
    if (file == nullptr)
        return -1;
    ByteBuffer block(kCopyBlock);
    int error = block ? 0 : ENOMEM;
    while (error == 0) {
        const ssize_t count = retry_interrupted([&] { return ::read(stream, block.data(), kCopyBlock); });
        if (count == 0)
            break;
        if (count < 0)
            error = errno;
        else if (std::fwrite(block.data(), 1, static_cast<std::size_t>(count), file) !=
                 static_cast<std::size_t>(count))
            error = errno;
    }
    if (error == 0 && std::fflush(file) != 0)
        error = errno;
    const int descriptor = error == 0 ? ::fcntl(::fileno(file), F_DUPFD_CLOEXEC, 3) : -1;
    if (error == 0 && descriptor < 0)
        error = errno;
    std::fclose(file);
    errno = error;
    return descriptor;
}

}  // namespace

Target::~Target() {
    close();
}

void Target::close() {
    if (m_descriptor >= 0)
        ::close(m_descriptor);
    m_descriptor = -1;
}

int Target::open(const std::string& path) {
    close();
    // A pipe would wait for its writer without O_NONBLOCK.
    m_descriptor =
        retry_interrupted([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK); });
    return m_descriptor < 0 ? errno : measure(path);
}

int Target::open_standard_input() {
    close();
    if (::isatty(STDIN_FILENO) != 0)
        return EINVAL;
    struct stat status {};
    if (::fstat(STDIN_FILENO, &status) != 0)
        return errno;
    if (S_ISDIR(status.st_mode))
        return EISDIR;
    m_descriptor = S_ISREG(status.st_mode) || S_ISBLK(status.st_mode)
                       ? ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3)
                       : keep_stream(STDIN_FILENO);
    if (m_descriptor < 0)
        return errno;
    const int error = measure("");
    m_kind = Kind::kStream;
    return error;
}

std::optional<std::string> Target::open_or_reason(const std::string& path) {
    const int error = path == "-" ? open_standard_input() : open(path);
    if (error == 0)
        return std::nullopt;
    if (error == EINVAL)
        return path == "-" ? "standard input is a terminal" : path + " is not a file or a block device";
    return (path == "-" ? "standard input" : path) +
           " failed to open: " + std::generic_category().message(error);
}

int Target::measure(const std::string& path) {
    struct stat status {};
    int error = 0;
    if (::fstat(m_descriptor, &status) != 0)
        error = errno;
    else if (S_ISDIR(status.st_mode))
        error = EISDIR;
    else if (!S_ISREG(status.st_mode) && !S_ISBLK(status.st_mode))
        error = EINVAL;
    if (error != 0) {
        close();
        return error;
    }
    m_identity = FileIdentity(status);
    m_kind = S_ISREG(status.st_mode) ? Kind::kFile : Kind::kDevice;
    m_size = static_cast<uint64_t>(status.st_size);
    m_has_holes = m_kind == Kind::kFile;
    m_hole_from = m_data_from = m_data_until = 0;
    m_direct = m_read_failed = false;
    if (m_kind == Kind::kDevice) {
        const off_t end = ::lseek(m_descriptor, 0, SEEK_END);  // st_size of a device is 0
        m_size = end > 0 ? static_cast<uint64_t>(end) : 0;
        const int direct = path.empty() ? -1 : ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_DIRECT);
        if (direct >= 0) {
            ::close(m_descriptor);
            m_descriptor = direct;
            m_direct = true;
        }
    }
    return 0;
}

std::optional<uint64_t> Target::read_plainly(uint64_t offset, uint64_t count, uint8_t* out) {
    uint64_t total = 0;
    while (total < count) {
        const ssize_t part = retry_interrupted([&] {
            return ::pread(m_descriptor, out + total, count - total, static_cast<off_t>(offset + total));
        });
        if (part < 0) {
            m_read_failed = true;
            return std::nullopt;
        }
        if (part == 0)
            break;
        total += static_cast<uint64_t>(part);
    }
    return total;
}

std::optional<uint64_t> Target::read(uint64_t offset, uint64_t count, uint8_t* out) {
    if (offset >= m_size)
        return 0;
    count = std::min(count, m_size - offset);
    if (!m_direct)
        return read_plainly(offset, count, out);
    if (m_aligned.size() == 0 && !m_aligned.reset(kDirectBlock)) {
        errno = ENOMEM;
        return std::nullopt;
    }
    uint64_t total = 0;
    while (total < count) {
        const uint64_t skipped = (offset + total) % kDirectUnit;
        const uint64_t wanted = std::min(kDirectBlock, skipped + count - total);
        const uint64_t rounded = (wanted + kDirectUnit - 1) / kDirectUnit * kDirectUnit;
        const auto got = read_plainly(offset + total - skipped, rounded, m_aligned.data());
        if (!got)
            return std::nullopt;
        if (*got <= skipped)
            break;
        const uint64_t part = std::min(*got - skipped, count - total);
        std::memcpy(out + total, m_aligned.data() + skipped, part);
        total += part;
    }
    return total;
}

uint64_t Target::hole_at(uint64_t offset, uint64_t count) {
    if (!m_has_holes || offset >= m_size)
        return 0;
    count = std::min(count, m_size - offset);
    const auto in_hole = [&] {
        return offset >= m_hole_from && offset < m_data_from ? std::min(count, m_data_from - offset) : 0;
    };
    if (const uint64_t known = in_hole(); known != 0)
        return known;
    if (offset >= m_data_from && offset < m_data_until)
        return 0;
    const off_t data = ::lseek(m_descriptor, static_cast<off_t>(offset), SEEK_DATA);
    if (data < 0 && errno != ENXIO) {
        m_has_holes = false;
        return 0;
    }
    m_hole_from = offset;
    m_data_from = data < 0 ? m_size : static_cast<uint64_t>(data);
    const off_t hole = data < 0 ? -1 : ::lseek(m_descriptor, data, SEEK_HOLE);
    m_data_until = hole < 0 ? m_data_from : static_cast<uint64_t>(hole);
    return in_hole();
}
