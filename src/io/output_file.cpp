#include "output_file.h"

#include "retry.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Less is not worth a call of its own.
[[maybe_unused]] constexpr uint64_t kSmallestReserve = 256 * 1024;

// Large enough that the calls do not count, small enough that what is released is soon needed again.
[[maybe_unused]] constexpr uint64_t kReleaseStep = 16 * 1024 * 1024;

constexpr auto kLargestOffset = static_cast<uint64_t>(std::numeric_limits<off_t>::max());
static_assert(sizeof(off_t) == 8, "images are larger than 4 GiB");

bool is_zero(const uint8_t* bytes, uint64_t count) {
    return bytes[0] == 0 && std::memcmp(bytes, bytes + 1, count - 1) == 0;
}

}  // namespace

void WriteFailure::note(const std::string& failed_path, int failed_error) {
    if (error != 0)
        return;
    path = failed_path;
    error = failed_error;
}

OutputBuffer::~OutputBuffer() {
    close();
}

bool OutputBuffer::is_protected(const struct stat& status) const {
    return std::any_of(m_protected.begin(), m_protected.end(),
                       [&](const FileIdentity& identity) { return identity.is(status); });
}

bool OutputBuffer::open(const std::string& path, bool readable, bool truncate) {
    close();
    m_path = path;
    m_error = 0;
    m_reserves = m_releases = true;
    m_block_offset = m_block_used = m_size = m_written_end = m_sequential = m_released = 0;
    if (!m_block.has(kBlockSize) && !m_block.reset(kBlockSize)) {
        errno = ENOMEM;
        return false;
    }

    struct stat status {};
    if (retry_interrupted([&] { return ::stat(path.c_str(), &status); }) == 0 && is_protected(status)) {
        errno = EBUSY;
        return false;
    }
    const int access = readable ? O_RDWR : O_WRONLY;
    m_descriptor =
        retry_interrupted([&] { return ::open(path.c_str(), access | O_CREAT | O_CLOEXEC, 0666); });
    if (m_descriptor < 0)
        return false;
    int error = 0;
    if (retry_interrupted([&] { return ::fstat(m_descriptor, &status); }) != 0)
        error = errno;
    else
        error = take_over(status, readable, truncate);
    if (error != 0) {
        ::close(m_descriptor);
        m_descriptor = -1;
        errno = error;
    }
    return error == 0;
}

/// Makes the file that was really opened the output; it is truncated only now that it is known. 0 or an
/// errno.
int OutputBuffer::take_over(const struct stat& status, bool readable, bool truncate) {
    if (is_protected(status))
        return EBUSY;
    if (readable && (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode)))
        return ESPIPE;
    m_regular = S_ISREG(status.st_mode);
    m_identity = FileIdentity(status);
    const bool has_content = m_regular && status.st_size != 0;
    if (has_content && !truncate)
        m_size = m_written_end = static_cast<uint64_t>(status.st_size);
    if (has_content && truncate && retry_interrupted([&] { return ::ftruncate(m_descriptor, 0); }) != 0)
        return errno;
    return 0;
}

void OutputBuffer::fail(int error) {
    if (m_error == 0)
        m_error = error;
    if (m_failure != nullptr)
        m_failure->note(m_path, error);
}

uint8_t* OutputBuffer::room(uint64_t& size) {
    size = 0;
    if (m_descriptor < 0 || m_error != 0)
        return nullptr;
    size = block_capacity() - m_block_used;
    return m_block.data() + m_block_used;
}

/// Blocks end at multiples of their size, so that runs of zeros are found at the same places in every run.
uint64_t OutputBuffer::block_capacity() const {
    return kBlockSize - m_block_offset % kBlockSize;
}

bool OutputBuffer::append(const uint8_t* bytes, uint64_t count) {
    if (m_descriptor < 0 || m_error != 0)
        return false;
    if (count > kLargestOffset - position()) {
        fail(EFBIG);
        return false;
    }
    while (count != 0) {
        const uint64_t capacity = block_capacity();
        const uint64_t piece = std::min(count, capacity - m_block_used);
        if (bytes != m_block.data() + m_block_used)  // else they were put into the room
            std::memcpy(m_block.data() + m_block_used, bytes, piece);
        m_block_used += piece;
        bytes += piece;
        count -= piece;
        m_size = std::max(m_size, position());
        if (m_block_used == capacity && !flush_block())
            return false;
    }
    return true;
}

bool OutputBuffer::append_fill(uint8_t value, uint64_t count) {
    if (m_descriptor < 0 || m_error != 0)
        return false;
    if (count > kLargestOffset - position()) {
        fail(EFBIG);
        return false;
    }
    if (value == 0 && m_holes_allowed && m_regular && count >= kHoleSize) {
        if (!flush_block())
            return false;
        if (m_block_offset >= m_written_end) {
            m_block_offset += count;
            m_size = std::max(m_size, m_block_offset);
            return true;
        }
    }
    uint8_t piece_bytes[4096];
    std::memset(piece_bytes, value, sizeof(piece_bytes));
    while (count != 0) {
        const uint64_t piece = std::min<uint64_t>(count, sizeof(piece_bytes));
        if (!append(piece_bytes, piece))
            return false;
        count -= piece;
    }
    return true;
}

bool OutputBuffer::flush_block() {
    if (m_block_used == 0)
        return true;
    const bool holes = m_regular && m_holes_allowed;
    if (!(holes ? write_with_holes(m_block_offset, m_block.data(), m_block_used)
                : write_all(m_block_offset, m_block.data(), m_block_used)))
        return false;
    m_block_offset += m_block_used;
    m_block_used = 0;
    return true;
}

bool OutputBuffer::write_with_holes(uint64_t offset, const uint8_t* bytes, uint64_t count) {
    uint64_t pending = 0;  // bytes before the current piece that are to be written with it
    while (pending != count) {
        const uint64_t position = offset + pending;
        const uint64_t piece = std::min(count - pending, kHoleSize - position % kHoleSize);
        if (position < m_written_end || !is_zero(bytes + pending, piece)) {
            pending += piece;
            continue;
        }
        if (!write_all(offset, bytes, pending))
            return false;
        offset += pending + piece;
        bytes += pending + piece;
        count -= pending + piece;
        pending = 0;
    }
    return write_all(offset, bytes, pending);
}

/// Has the file system find room for bytes that are about to be written, all at once: that costs it far less
/// than page after page. Where it cannot, the write says so.
void OutputBuffer::reserve(uint64_t offset, uint64_t count) {
#if defined(__linux__)
    if (m_reserves && m_regular && count >= kSmallestReserve)
        m_reserves = ::fallocate(m_descriptor, FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset),
                                 static_cast<off_t>(count)) == 0;
#else
    static_cast<void>(offset);
    static_cast<void>(count);
#endif
}

void OutputBuffer::release_before(uint64_t offset) {
#if defined(__linux__)
    const uint64_t end = offset - offset % kReleaseStep;
    if (!m_releases || !m_regular || m_descriptor < 0 || end <= m_released)
        return;
    m_releases = ::fallocate(m_descriptor, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                             static_cast<off_t>(m_released), static_cast<off_t>(end - m_released)) == 0;
    m_released = end;
#else
    static_cast<void>(offset);
#endif
}

bool OutputBuffer::write_all(uint64_t offset, const uint8_t* bytes, uint64_t count) {
    reserve(offset, count);
    if (count != 0 && !m_regular && offset != m_sequential) {
        if (retry_interrupted([&] { return ::lseek(m_descriptor, static_cast<off_t>(offset), SEEK_SET); }) <
            0) {
            fail(errno);
            return false;
        }
        m_sequential = offset;
    }
    while (count != 0) {
        const ssize_t written = retry_interrupted([&] {
            return m_regular ? ::pwrite(m_descriptor, bytes, count, static_cast<off_t>(offset))
                             : ::write(m_descriptor, bytes, count);
        });
        if (written <= 0) {
            fail(written == 0 ? EIO : errno);
            return false;
        }
        offset += static_cast<uint64_t>(written);
        bytes += written;
        count -= static_cast<uint64_t>(written);
        m_written_end = std::max(m_written_end, offset);
        m_sequential = offset;
    }
    return true;
}

bool OutputBuffer::reach_length() {
    // A file that ends in a hole gets its length from its last byte: that works on every file system.
    const uint8_t zero = 0;
    return !m_regular || m_size <= m_written_end || write_all(m_size - 1, &zero, 1);
}

bool OutputBuffer::flush() {
    return m_descriptor >= 0 && m_error == 0 && flush_block() && reach_length();
}

bool OutputBuffer::close() {
    if (m_descriptor < 0)
        return false;
    flush();
    // An interrupted close has closed the descriptor.
    if (::close(m_descriptor) != 0 && errno != EINTR)
        fail(errno);
    m_descriptor = -1;
    m_identity = FileIdentity();
    return m_error == 0;
}

bool OutputBuffer::move_to(uint64_t position) {
    if (m_descriptor < 0 || position > kLargestOffset)
        return false;
    if (position == this->position())
        return true;
    if (m_error != 0 || !flush_block())
        return false;
    m_block_offset = position;
    return true;
}

OutputBuffer::int_type OutputBuffer::overflow(int_type character) {
    if (traits_type::eq_int_type(character, traits_type::eof()))
        return traits_type::not_eof(character);
    const auto byte = static_cast<uint8_t>(traits_type::to_char_type(character));
    return append(&byte, 1) ? character : traits_type::eof();
}

std::streamsize OutputBuffer::xsputn(const char* bytes, std::streamsize count) {
    const bool written = append(reinterpret_cast<const uint8_t*>(bytes), static_cast<uint64_t>(count));
    return written ? count : 0;
}

OutputBuffer::pos_type OutputBuffer::seekoff(off_type offset, std::ios_base::seekdir origin,
                                             std::ios_base::openmode /*which*/) {
    uint64_t base = 0;
    if (origin == std::ios_base::cur)
        base = position();
    else if (origin == std::ios_base::end)
        base = m_size;
    const uint64_t target =
        base + static_cast<uint64_t>(offset);  // a negative offset wraps to the one before base
    return move_to(target) ? pos_type(static_cast<off_type>(target)) : pos_type(off_type(-1));
}

OutputBuffer::pos_type OutputBuffer::seekpos(pos_type position, std::ios_base::openmode which) {
    return seekoff(off_type(position), std::ios_base::beg, which);
}

int OutputBuffer::sync() {
    return flush() ? 0 : -1;
}

void OutputFile::open(const std::string& path, std::ios_base::openmode mode) {
    const auto has = [mode](std::ios_base::openmode flag) { return (mode & flag) != 0; };
    const bool keeps_content = has(std::ios_base::in) || has(std::ios_base::app);
    if (!m_buffer.open(path, has(std::ios_base::in), has(std::ios_base::trunc) || !keeps_content)) {
        setstate(std::ios_base::failbit);
        return;
    }
    clear();
    if (has(std::ios_base::app) || has(std::ios_base::ate))
        seekp(0, std::ios_base::end);
}

void OutputFile::close() {
    if (!m_buffer.close())
        setstate(std::ios_base::failbit);
}

void OutputFile::write_fill(uint8_t value, uint64_t count, uint64_t size) {
    if (!good())
        return;
    if (size != 0 && count > kLargestOffset / size)
        give_up(EFBIG);
    else if (!m_buffer.append_fill(value, count * size))
        setstate(std::ios_base::badbit);
}

void OutputFile::give_up(int error) {
    m_buffer.fail(error);
    setstate(std::ios_base::badbit);
}
