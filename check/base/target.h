#pragma once

#include "../../src/io/byte_buffer.h"
#include "../../src/io/file_identity.h"

#include <cstdint>
#include <optional>
#include <string>

/// A file, block device or stream that is checked. It is read and never changed.
class Target {
public:
    enum class Kind { kFile, kDevice, kStream };

    Target() = default;
    ~Target();
    Target(const Target&) = delete;
    Target& operator=(const Target&) = delete;

    /// Opens path for reading. A device is read past the page cache where it allows that. Returns 0 or an
    /// errno; EINVAL when it is neither a regular file nor a block device.
    int open(const std::string& path);
    /// Takes the bytes of standard input. Those of a pipe are kept in a file without a name, because the
    /// conversion goes back to earlier places. Returns 0 or an errno; EINVAL for a terminal.
    int open_standard_input();
    /// Opens path, or standard input for "-". The reason, as a line of a report, when that failed.
    std::optional<std::string> open_or_reason(const std::string& path);
    void close();

    bool is_open() const { return m_descriptor >= 0; }
    Kind kind() const { return m_kind; }
    /// In bytes.
    uint64_t size() const { return m_size; }
    const FileIdentity& identity() const { return m_identity; }
    /// True when a device is read from its medium.
    bool past_the_cache() const { return m_direct; }

    /// Reads up to count bytes at the offset and returns their number, which is less only at the end.
    /// Nothing, with errno set, when they cannot be read.
    std::optional<uint64_t> read(uint64_t offset, uint64_t count, uint8_t* out);
    /// True when a read has failed since the file was opened or the mark was cleared.
    bool read_failed() const { return m_read_failed; }
    void clear_read_failed() { m_read_failed = false; }
    /// How many of the count bytes at the offset lie in a hole, from the offset on: they are zeros.
    uint64_t hole_at(uint64_t offset, uint64_t count);

private:
    int measure(const std::string& path);
    std::optional<uint64_t> read_plainly(uint64_t offset, uint64_t count, uint8_t* out);

    int m_descriptor = -1;
    Kind m_kind = Kind::kFile;
    bool m_direct = false;
    bool m_read_failed = false;
    bool m_has_holes = true;  // until the file system says that it knows of none
    uint64_t m_size = 0;
    uint64_t m_data_from = 0;  // a hole ends here at the earliest: [m_hole_from, m_data_from) is one
    uint64_t m_hole_from = 0;
    uint64_t m_data_until = 0;  // [m_data_from, m_data_until) is data
    FileIdentity m_identity;
    ByteBuffer m_aligned;
};
