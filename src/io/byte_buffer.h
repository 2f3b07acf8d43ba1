#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

/// Heap memory that starts as zeros. Its size comes from the command line or a checked file field.
/// An allocation that fails throws nothing and leaves the buffer empty.
class ByteBuffer {
public:
    /// data() is a multiple of this. The kernel copies between page cache and memory up to twice as fast when
    /// both have the same position in a page.
    static constexpr std::size_t kAlignment = 4096;

    ByteBuffer() = default;

    /// Allocates size bytes, as reset does. Bytes that are never touched cost no memory.
    explicit ByteBuffer(uint64_t size) { reset(size); }

    /// Replaces the content by size zero bytes. False, with the buffer empty, when there is no memory.
    bool reset(uint64_t size) {
        m_size = 0;
        m_data = nullptr;
        m_memory.reset(size <= SIZE_MAX - kAlignment
                           ? std::calloc(static_cast<std::size_t>(size) + kAlignment, 1)
                           : nullptr);
        if (m_memory == nullptr)
            return false;
        const auto address = reinterpret_cast<std::uintptr_t>(m_memory.get());
        m_data = static_cast<uint8_t*>(m_memory.get()) + (kAlignment - address % kAlignment);
        m_size = size;
        return true;
    }

    /// True when the last allocation succeeded, even of 0 bytes.
    explicit operator bool() const { return m_memory != nullptr; }

    uint8_t* data() { return m_data; }
    const uint8_t* data() const { return m_data; }
    uint64_t size() const { return m_size; }

private:
    struct Free {
        void operator()(void* memory) const { std::free(memory); }
    };
    std::unique_ptr<void, Free> m_memory;
    uint8_t* m_data = nullptr;
    uint64_t m_size = 0;
};
