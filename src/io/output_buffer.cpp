#include "output_buffer.h"

#include "../common/byte_run.h"
#include "file_offset.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

void WriteFailure::note(const std::string& failed_path, int failed_error) {
    if (error != 0)
        return;
    path = failed_path;
    error = failed_error;
}

bool OutputBuffer::open(const std::string& path, OutputReceiver::OpenMode mode) {
    close();
    m_path = path;
    m_error = 0;
    m_block_offset = m_block_used = m_size = 0;
    if (m_block.size() < kBlockSize && !m_block.reset(kBlockSize)) {
        errno = ENOMEM;
        return false;
    }
    if (const int error = m_receiver->open(path, mode, m_size); error != 0) {
        errno = error;
        return false;
    }
    m_open = true;
    return true;
}

bool OutputBuffer::close() {
    if (!m_open)
        return false;
    complete_block();  // also after a failure: nothing may wait for bytes that the next output replaces
    flush();
    m_open = false;
    return succeeds(m_receiver->close()) && m_error == 0;
}

void OutputBuffer::send_to(OutputReceiver& receiver) {
    close();
    m_receiver = &receiver;
}

void OutputBuffer::begin_part(const OutputPart& part) {
    if (m_open && m_error == 0 && m_receiver->takes_parts() && flush_block())
        m_receiver->begin_part(part);
}

void OutputBuffer::fail(int error) {
    if (m_error == 0)
        m_error = error;
    if (m_failure != nullptr)
        m_failure->note(m_path, error);
}

bool OutputBuffer::succeeds(int error) {
    if (error != 0)
        fail(error);
    return error == 0;
}

/// True when count more bytes can be appended.
bool OutputBuffer::takes(uint64_t count) {
    if (!m_open || m_error != 0)
        return false;
    return succeeds(count > kLargestOffset - position() ? EFBIG : 0);
}

/// Bytes from the start of the block to the next multiple of its size, where it ends.
uint64_t OutputBuffer::block_capacity() const {
    return kBlockSize - m_block_offset % kBlockSize;
}

std::span<uint8_t> OutputBuffer::room() {
    if (!m_open || m_error != 0)
        return {};
    return {m_block.data() + m_block_used, static_cast<std::size_t>(block_capacity() - m_block_used)};
}

bool OutputBuffer::append(const uint8_t* bytes, uint64_t count) {
    if (!takes(count))
        return false;
    while (count != 0) {
        const uint64_t capacity = block_capacity();
        const uint64_t part = std::min(count, capacity - m_block_used);
        if (bytes != m_block.data() + m_block_used)  // else they were put into the room
            std::memcpy(m_block.data() + m_block_used, bytes, static_cast<std::size_t>(part));
        m_block_used += part;
        bytes += part;
        count -= part;
        m_size = std::max(m_size, position());
        if (m_block_used == capacity && !flush_block())
            return false;
    }
    return true;
}

bool OutputBuffer::append_fill(uint8_t value, uint64_t count) {
    if (!takes(count))
        return false;
    if (value == 0 && count >= kHoleSize && position() >= m_receiver->zeros_from()) {
        if (!flush_block() || !succeeds(m_receiver->zeros(m_block_offset, count)))
            return false;
        m_block_offset += count;
        m_size = std::max(m_size, m_block_offset);
        return true;
    }
    while (count != 0) {
        const std::span<uint8_t> free = room();
        const uint64_t part = std::min<uint64_t>(count, free.size());
        std::memset(free.data(), value, static_cast<std::size_t>(part));
        if (!append(free.data(), part))
            return false;
        count -= part;
    }
    return true;
}

void OutputBuffer::complete_block() {
    if (m_complete)
        m_complete();
}

bool OutputBuffer::flush_block() {
    complete_block();
    if (!hand_over(m_block_offset, m_block.data(), m_block_used))
        return false;
    m_block_offset += m_block_used;
    m_block_used = 0;
    return true;
}

bool OutputBuffer::hand_over(uint64_t offset, const uint8_t* bytes, uint64_t count) {
    uint64_t pending = 0;  // bytes without a run of zeros, to be handed over together
    while (pending != count) {
        const uint64_t position = offset + pending;
        const uint64_t part = std::min(count - pending, kHoleSize - position % kHoleSize);
        if (position < m_receiver->zeros_from() || !holds_only(bytes + pending, part, 0)) {
            pending += part;
            continue;
        }
        if (!succeeds(m_receiver->bytes(offset, bytes, pending)) ||
            !succeeds(m_receiver->zeros(position, part)))
            return false;
        offset += pending + part;
        bytes += pending + part;
        count -= pending + part;
        pending = 0;
    }
    return succeeds(m_receiver->bytes(offset, bytes, pending));
}

bool OutputBuffer::flush() {
    return m_open && m_error == 0 && flush_block() && succeeds(m_receiver->end(m_size));
}

bool OutputBuffer::move_to(uint64_t position) {
    if (!m_open || position > kLargestOffset)
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
    // The sum wraps: a negative offset gives a position before base.
    const uint64_t target = base + static_cast<uint64_t>(offset);
    return move_to(target) ? pos_type(static_cast<off_type>(target)) : pos_type(off_type(-1));
}

OutputBuffer::pos_type OutputBuffer::seekpos(pos_type position, std::ios_base::openmode which) {
    return seekoff(off_type(position), std::ios_base::beg, which);
}

int OutputBuffer::sync() {
    return flush() ? 0 : -1;
}
