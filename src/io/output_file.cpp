#include "output_file.h"

#include "file_offset.h"

#include <cerrno>

void OutputFile::open(const std::string& path, std::ios_base::openmode mode) {
    const auto has = [mode](std::ios_base::openmode flag) { return (mode & flag) != 0; };
    const bool readable = has(std::ios_base::in);
    const bool truncate = has(std::ios_base::trunc) || !(readable || has(std::ios_base::app));
    if (!m_buffer.open(path, {.readable = readable, .truncate = truncate})) {
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
