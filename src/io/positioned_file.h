#pragma once

#include "file_identity.h"
#include "output_receiver.h"

#include <cstdint>
#include <string>
#include <vector>

/// A file that is written at given offsets. Interrupted and short writes are repeated. Zeros after everything
/// that was written to a regular file cost nothing: they become holes.
class PositionedFile : public OutputReceiver {
public:
    PositionedFile() = default;
    ~PositionedFile() override;
    PositionedFile(const PositionedFile&) = delete;
    PositionedFile& operator=(const PositionedFile&) = delete;

    /// Never opens this file, nor those named before: open fails with EBUSY.
    void protect(const FileIdentity& identity) { m_protected.push_back(identity); }
    /// Leaves no holes from the next open on: zeros() is then never to be asked.
    void keep_zero_bytes() { m_holes_allowed = false; }

    /// Creates the file if it is not there. A pipe or a socket is not readable (ESPIPE).
    int open(const std::string& path, OpenMode mode, uint64_t& size) override;
    int bytes(uint64_t offset, const uint8_t* bytes, uint64_t count) override;
    int zeros(uint64_t offset, uint64_t count) override;
    uint64_t zeros_from() const override;
    int end(uint64_t size) override;
    int close() override;

    /// True from a successful open to the next close.
    bool is_open() const { return m_descriptor >= 0; }
    /// File descriptor to read back by what was written; -1 when no file is open.
    int descriptor() const { return m_descriptor; }
    /// Which file is open; unknown when none is.
    const FileIdentity& identity() const { return m_identity; }
    /// Frees the disk space of the bytes before offset, in 16 MiB steps, where the file system supports it.
    /// Those bytes are not to be read again.
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
    bool m_releases = true;      // until the file system refuses to take space back
    uint64_t m_written_end = 0;  // end of what was really written: zeros after it need no bytes
    uint64_t m_sequential = 0;   // where the next write to a file that is not regular goes by itself
    uint64_t m_released = 0;     // the space before this offset was freed
};
