#pragma once

#include <cstdint>
#include <string>

/// Takes the bytes of an output block by block: a file, or anything else that implements this.
/// The operations return 0 or an errno. Offsets are in bytes from the start of the output, counts in bytes.
class OutputReceiver {
public:
    struct OpenMode {
        bool readable = false;  ///< the output is also read back
        bool truncate = true;   ///< earlier content is removed
    };

    virtual ~OutputReceiver() = default;

    /// Starts the output named path in place of the one before. Sets size to the length of what it keeps.
    virtual int open(const std::string& path, OpenMode mode, uint64_t& size) = 0;
    /// Takes the count bytes at this offset of the output.
    virtual int bytes(uint64_t offset, const uint8_t* bytes, uint64_t count) = 0;
    /// Takes count zero bytes, which need not be in memory, at an offset of at least zeros_from().
    virtual int zeros(uint64_t offset, uint64_t count) = 0;
    /// The lowest offset that zeros() takes; kNoZeros when it takes none.
    virtual uint64_t zeros_from() const = 0;
    /// Completes the output as far as it was handed over: it is size bytes long. More may follow.
    virtual int end(uint64_t size) = 0;
    /// Ends the output.
    virtual int close() = 0;

    static constexpr uint64_t kNoZeros = UINT64_MAX;
};
