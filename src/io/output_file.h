#pragma once

#include "output_buffer.h"
#include "positioned_file.h"

#include <cstdint>
#include <ostream>
#include <string>

/// An output file with the interface of a standard output stream. Its state bits say whether a write has
/// failed; the shared WriteFailure says which file failed first and why.
class OutputFile : public std::ostream {
public:
    /// record, when given, outlives the file and takes its first error.
    explicit OutputFile(WriteFailure* record = nullptr) : std::ostream(nullptr), m_buffer(m_file, record) {
        rdbuf(&m_buffer);
    }

    /// Opens path, creating it when it is not there; binary always. Truncates unless mode has in or app
    /// without trunc; starts at the end with app or ate. Clears the state; a failure sets failbit and errno.
    void open(const std::string& path, std::ios_base::openmode mode = std::ios_base::out);
    /// True from a successful open to the next close.
    bool is_open() const { return m_buffer.is_open(); }
    /// Writes what is gathered and closes; sets failbit when anything failed or no file is open.
    void close();

    /// Writes count times size bytes of value without taking them from memory; badbit when that fails.
    void write_fill(uint8_t value, uint64_t count, uint64_t size);
    /// Gives the file up with this error, as if a write had failed with it: sets badbit.
    void give_up(int error);

    /// The bytes on their way: position, size, room, failure.
    OutputBuffer& buffer() { return m_buffer; }
    const OutputBuffer& buffer() const { return m_buffer; }
    /// The file that they go to: descriptor, identity, protected files, holes.
    PositionedFile& file() { return m_file; }

private:
    PositionedFile m_file;
    OutputBuffer m_buffer;
};
