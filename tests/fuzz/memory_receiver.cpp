#include "memory_receiver.h"

namespace robustness {

int MemoryReceiver::open(const std::string& path, OpenMode mode, uint64_t& size) {
    expect(!m_open, "an output is opened before the one before it was closed");
    const std::string& directory = m_manner.directory;
    expect(path.starts_with(directory) && path.find('/', directory.size()) == std::string::npos,
           "an output outside its directory");
    expect(mode.truncate && !mode.readable, "an output is to be read or continued");
    m_open = true;
    m_refused = false;
    m_end = m_written_end = size = 0;
    m_calls.push_back({.path = path});
    return 0;
}

int MemoryReceiver::refuse(int error) {
    m_refused = m_has_refused = true;
    return error;
}

// bytes is null for zeros.
int MemoryReceiver::take(uint64_t offset, const uint8_t* bytes, uint64_t count) {
    expect(m_open, "bytes without an output");
    expect(!m_refused, "bytes after some were refused");
    expect(offset <= m_end, "a place in the output is left out");
    if (count > m_manner.largest_output || offset > m_manner.largest_output - count)
        return refuse(EFBIG);
    if (bytes != nullptr) {
        m_in_all += count;
        if (m_in_all > m_manner.largest_in_all)
            return refuse(ENOSPC);
        m_written_end = std::max(m_written_end, offset + count);
        if (m_manner.keeps_bytes)
            m_bytes.insert(m_bytes.end(), bytes, bytes + count);
    }
    m_end = std::max(m_end, offset + count);
    m_calls.push_back({.offset = offset, .count = count, .zeros = bytes == nullptr});
    return 0;
}

int MemoryReceiver::bytes(uint64_t offset, const uint8_t* bytes, uint64_t count) {
    return count == 0 ? 0 : take(offset, bytes, count);
}

int MemoryReceiver::zeros(uint64_t offset, uint64_t count) {
    expect(offset >= zeros_from(), "zeros where the output takes none");
    return count == 0 ? 0 : take(offset, nullptr, count);
}

int MemoryReceiver::end(uint64_t size) {
    expect(m_open, "an output ends that is not open");
    expect(!m_refused, "an output ends after bytes were refused");
    expect(size == m_end, "an output ends elsewhere than its last byte");
    return 0;
}

int MemoryReceiver::close() {
    expect(m_open, "an output is closed that is not open");
    m_open = false;
    return 0;
}

void MemoryReceiver::begin_part(const OutputPart& part) {
    expect(m_open && !m_refused, "a part of nothing");
    expect(takes_parts(), "a part that was not wanted");
    expect(part.name.empty() || part.kind == OutputPart::Kind::kItem, "a name of what is not an item");
}

}  // namespace robustness
