#pragma once

#include "file_identity.h"
#include "output_receiver.h"

#include <cstdint>
#include <string>
#include <sys/stat.h>
#include <vector>

/// A file that is written at given offsets. Interrupted and short writes are repeated. In a regular file,
/// zeros after the last byte that was written become a hole.
class PositionedFile : public OutputReceiver {
public:
    PositionedFile() = default;
    ~PositionedFile() override;
    PositionedFile(const PositionedFile&) = delete;
    PositionedFile& operator=(const PositionedFile&) = delete;

    /// Adds a file to those that open refuses with EBUSY.
    void protect(const FileIdentity& identity) { m_protected.push_back(identity); }
    /// Leaves no holes from the next open on: zeros_from() is then kNoZeros.
    void keep_zero_bytes() { m_holes_allowed = false; }

    /// Creates the file if it does not exist. Refuses to open a pipe or a socket readable (ESPIPE).
    int open(const std::string& path, OpenMode mode, uint64_t& size) override;
    int bytes(uint64_t offset, const uint8_t* bytes, uint64_t count) override;
    int zeros(uint64_t offset, uint64_t count) override;
    uint64_t zeros_from() const override;
    int end(uint64_t size) override;
    int close() override;

    /// True from a successful open to the next close.
    bool is_open() const { return m_descriptor >= 0; }
    /// For reading back what was written; -1 when no file is open.
    int descriptor() const { return m_descriptor; }
    /// Of the open file; unknown when none is open.
    const FileIdentity& identity() const { return m_identity; }
    /// Frees the disk space of the bytes before offset, in 16 MiB steps, where the file system supports it.
    /// Those bytes must not be read again.
    void release_before(uint64_t offset);

private:
    bool is_protected(const struct stat& status) const;
    int take_over(const struct stat& status, OpenMode mode, uint64_t& size);
    void reserve(uint64_t offset, uint64_t count);
    int move_to(uint64_t offset);

    std::vector<FileIdentity> m_protected;
    FileIdentity m_identity;
    int m_descriptor = -1;
    bool m_holes_allowed = true;
    bool m_regular = false;
    bool m_reserves = true;      // until the file system refuses to reserve space
    bool m_releases = true;      // until the file system refuses to free space
    uint64_t m_written_end = 0;  // end of the last byte that was written
    uint64_t m_sequential = 0;   // where the next write to a file that is not regular goes
    uint64_t m_released = 0;     // the space before this offset was freed
};
