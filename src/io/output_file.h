#pragma once

#include "output_buffer.h"
#include "positioned_file.h"

#include <cstdint>
#include <ostream>
#include <string>

/// An output file with the interface of a standard output stream. Its state bits say whether a write has
/// failed. A WriteFailure that several files share says which of them failed first, and why.
class OutputFile : public std::ostream {
public:
    /// record, when given, outlives the file and takes its first error.
    explicit OutputFile(WriteFailure* record = nullptr) : std::ostream(nullptr), m_buffer(m_file, record) {
        rdbuf(&m_buffer);
    }

    /// Opens path in binary mode and creates the file if it does not exist. Truncates it, unless mode has in
    /// or app but not trunc. With app or ate the first write goes to the end. Clears the state, or sets
    /// failbit and errno when it fails.
    void open(const std::string& path, std::ios_base::openmode mode = std::ios_base::out);
    /// True from a successful open to the next close.
    bool is_open() const { return m_buffer.is_open(); }
    /// Writes the gathered bytes and closes. Sets failbit when anything has failed or no file is open.
    void close();

    /// Writes count times size bytes of value. Sets badbit when that fails.
    void write_fill(uint8_t value, uint64_t count, uint64_t size);
    /// Gives the file up, as if a write had failed with this error: sets badbit.
    void give_up(int error);

    /// Position, size, room and failure.
    OutputBuffer& buffer() { return m_buffer; }
    const OutputBuffer& buffer() const { return m_buffer; }
    /// Descriptor, identity, protected files and holes.
    PositionedFile& file() { return m_file; }

private:
    PositionedFile m_file;
    OutputBuffer m_buffer;
};
