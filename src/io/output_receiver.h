#pragma once

#include <cstdint>
#include <string>

/// What the gathered bytes of an output go to: a file, or whatever else wants to see them.
/// The operations return 0 or an errno. Offsets and counts are in bytes from the start of the output.
class OutputReceiver {
public:
    struct OpenMode {
        bool readable = false;  ///< for reading back too
        bool truncate = true;   ///< what is there already goes
    };

    virtual ~OutputReceiver() = default;

    /// Starts the output named path, in place of the one before, and sets size to the bytes that it keeps.
    virtual int open(const std::string& path, OpenMode mode, uint64_t& size) = 0;
    /// Takes count bytes that belong at the offset.
    virtual int bytes(uint64_t offset, const uint8_t* bytes, uint64_t count) = 0;
    /// Takes count zero bytes at an offset of at least zeros_from(), without having them in memory.
    virtual int zeros(uint64_t offset, uint64_t count) = 0;
    /// The offset from which on zeros() may be asked; kNoZeros when nowhere.
    virtual uint64_t zeros_from() const = 0;
    /// The output is size bytes long with all that was handed over so far. More may follow.
    virtual int end(uint64_t size) = 0;
    /// Nothing more follows.
    virtual int close() = 0;

    static constexpr uint64_t kNoZeros = UINT64_MAX;
};
