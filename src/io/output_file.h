#pragma once

#include "byte_buffer.h"
#include "file_identity.h"

#include <cstdint>
#include <ios>
#include <ostream>
#include <streambuf>
#include <string>
#include <vector>

/// The first failure of any output file of a run: which file, and the errno of what failed.
struct WriteFailure {
    std::string path;
    int error = 0;  ///< 0: nothing has failed

    /// Keeps path and error when they are the first.
    void note(const std::string& failed_path, int failed_error);
};

/// Bytes from which on it pays to read straight into the room of an output file; less is better off in a
/// reader's block, which reads ahead.
constexpr uint64_t kSmallestRunInPlace = 256 * 1024;

/// Below an OutputFile: gathers bytes into blocks, writes each with one call, keeps the first error and knows
/// position and size itself. Runs of zeros (of 64 KB at multiples of it, or up to the end of a block) behind
/// everything that was written to a regular file before are not written but become holes.
class OutputBuffer : public std::streambuf {
public:
    /// Bytes of a block. Measured: the kernel puts larger writes into larger pages of its cache; twice this
    /// no longer stays in the processor's second-level cache.
    static constexpr uint64_t kBlockSize = 1024 * 1024;

    /// The smallest run of zeros inside a block that is left out: with less, a file of alternating pages
    /// would cost more system calls than bytes saved.
    static constexpr uint64_t kHoleSize = 64 * 1024;

    explicit OutputBuffer(WriteFailure* failure) : m_failure(failure) {}
    ~OutputBuffer() override;
    OutputBuffer(const OutputBuffer&) = delete;
    OutputBuffer& operator=(const OutputBuffer&) = delete;

    /// Never opens this file (EBUSY), nor those named before.
    void protect(const FileIdentity& identity) { m_protected.push_back(identity); }
    /// Writes zero bytes out like all others, from the next open on.
    void keep_zero_bytes() { m_holes_allowed = false; }

    /// Creates or, with truncate, empties the file; readable: for reading back too, which a pipe or a socket
    /// cannot do (ESPIPE). False with errno set when it cannot be had.
    bool open(const std::string& path, bool readable, bool truncate);
    /// True from a successful open to the next close.
    bool is_open() const { return m_descriptor >= 0; }
    /// File descriptor, -1 when no file is open.
    int descriptor() const { return m_descriptor; }
    /// Which file is open; unknown when none is.
    const FileIdentity& identity() const { return m_identity; }
    /// Where the next byte goes, in bytes from the start of the file.
    uint64_t position() const { return m_block_offset + m_block_used; }
    /// Length in bytes with everything that was appended, written or not.
    uint64_t size() const { return m_size; }
    /// True when a write to the file opened last has failed.
    bool has_failed() const { return m_error != 0; }

    /// Where the next bytes are gathered, and how many fit there: bytes that a caller puts there and then
    /// appends from there are not copied. Null when no file is open or it has failed.
    uint8_t* room(uint64_t& size);
    /// Writes count bytes of value at the position, without taking them from memory.
    bool append_fill(uint8_t value, uint64_t count);
    /// Brings everything into the file and the file to its length. False when any write so far has failed.
    bool flush();
    /// flush, then closes. False when any of it failed.
    bool close();
    /// Hands the room of the bytes before offset back to the file system, in large steps and where it can:
    /// what is written next can use it. Those bytes are not to be read again.
    void release_before(uint64_t offset);
    /// Gives the file up with this error.
    void fail(int error);

protected:
    int_type overflow(int_type character) override;
    std::streamsize xsputn(const char* bytes, std::streamsize count) override;
    pos_type seekoff(off_type offset, std::ios_base::seekdir origin, std::ios_base::openmode which) override;
    pos_type seekpos(pos_type position, std::ios_base::openmode which) override;
    int sync() override;

private:
    bool is_protected(const struct stat& status) const;
    int take_over(const struct stat& status, bool readable, bool truncate);
    uint64_t block_capacity() const;
    bool append(const uint8_t* bytes, uint64_t count);
    bool move_to(uint64_t position);
    bool flush_block();
    bool write_with_holes(uint64_t offset, const uint8_t* bytes, uint64_t count);
    void reserve(uint64_t offset, uint64_t count);
    bool write_all(uint64_t offset, const uint8_t* bytes, uint64_t count);
    bool reach_length();

    WriteFailure* m_failure;
    std::vector<FileIdentity> m_protected;
    bool m_holes_allowed = true;

    std::string m_path;
    FileIdentity m_identity;
    int m_descriptor = -1;
    int m_error = 0;         // first failure of this file
    bool m_regular = false;  // a file that can have holes and be written at any position
    bool m_reserves = true;  // its file system can be asked for room ahead of a write
    bool m_releases = true;  // its file system takes room back
    ByteBuffer m_block;      // bytes of [m_block_offset, m_block_offset + m_block_used) not yet written
    uint64_t m_block_offset = 0;
    uint64_t m_block_used = 0;
    uint64_t m_size = 0;         // length with everything that was appended
    uint64_t m_written_end = 0;  // end of what was really written: zeros behind it need no bytes
    uint64_t m_sequential = 0;   // where the next write to a file that is not regular goes by itself
    uint64_t m_released = 0;     // what is before was handed back
};

/// An output file with the interface of a standard output stream. Its state bits say whether a write has
/// failed; the shared WriteFailure says which file failed first and why.
class OutputFile : public std::ostream {
public:
    /// record, when given, outlives the file and takes its first error.
    explicit OutputFile(WriteFailure* record = nullptr) : std::ostream(nullptr), m_buffer(record) {
        rdbuf(&m_buffer);
    }

    /// Opens path, creating it when it is not there; binary always. Truncates unless mode has in or app
    /// without trunc; starts at the end with app or ate. Clears the state; a failure sets failbit and errno.
    void open(const std::string& path, std::ios_base::openmode mode = std::ios_base::out);
    /// True from a successful open to the next close.
    bool is_open() const { return m_buffer.is_open(); }
    /// True when a write to the file opened last has failed; unlike the state bits it knows of nothing else.
    bool has_failed() const { return m_buffer.has_failed(); }
    /// Where the next byte goes, in bytes from the start of the file, whatever the state.
    uint64_t position() const { return m_buffer.position(); }
    /// Which file is open; unknown when none is.
    const FileIdentity& identity() const { return m_buffer.identity(); }
    /// Writes what is gathered and closes; sets failbit when anything failed or no file is open.
    void close();

    /// Never opens this file, nor those named before: open fails with EBUSY.
    void protect(const FileIdentity& identity) { m_buffer.protect(identity); }
    /// Writes zero bytes out like all others, from the next open on.
    void keep_zero_bytes() { m_buffer.keep_zero_bytes(); }
    /// Writes count times size bytes of value without taking them from memory; badbit when that fails.
    void write_fill(uint8_t value, uint64_t count, uint64_t size);
    /// Gives the file up with this error, as if a write had failed with it: sets badbit.
    void give_up(int error);
    /// Where the next bytes are gathered, and how many fit there: bytes that are put there and then written
    /// from there are not copied. Null when no file is open or it has failed.
    uint8_t* room(uint64_t& size) { return m_buffer.room(size); }
    /// Hands the room of the bytes before offset back to the file system, in large steps and where it can.
    /// Those bytes are not to be read again.
    void release_before(uint64_t offset) { m_buffer.release_before(offset); }
    /// File descriptor to read back by what was flushed; -1 when no file is open.
    int descriptor() const { return m_buffer.descriptor(); }

private:
    OutputBuffer m_buffer;
};
