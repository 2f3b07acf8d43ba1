#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

/// Zero-filled heap memory whose size comes from the command line or a checked file field.
/// Memory that cannot be had leaves the buffer empty instead of throwing: the operation that needed it fails.
class ByteBuffer {
public:
    ByteBuffer() = default;

    /// size bytes of zeros; large ones cost no memory before they are touched. Check with has().
    explicit ByteBuffer(uint64_t size) { reset(size); }

    /// size bytes that all hold value.
    ByteBuffer(uint64_t size, uint8_t value) : ByteBuffer(size) {
        if (value != 0 && has(size))
            std::memset(data(), value, static_cast<std::size_t>(size));
    }

    /// Drops the content and holds size zero bytes instead; false when the memory cannot be had.
    bool reset(uint64_t size) {
        m_size = 0;
        m_bytes.reset(size <= SIZE_MAX ? static_cast<uint8_t*>(
                                             std::calloc(size != 0 ? static_cast<std::size_t>(size) : 1, 1))
                                       : nullptr);
        if (m_bytes != nullptr)
            m_size = size;
        return m_bytes != nullptr;
    }

    /// True when memory was had and it holds at least size bytes.
    bool has(uint64_t size) const { return m_bytes != nullptr && m_size >= size; }

    uint8_t* data() { return m_bytes.get(); }
    const uint8_t* data() const { return m_bytes.get(); }
    uint64_t size() const { return m_size; }

private:
    struct Free {
        void operator()(uint8_t* bytes) const { std::free(bytes); }
    };
    std::unique_ptr<uint8_t[], Free> m_bytes;
    uint64_t m_size = 0;
};
