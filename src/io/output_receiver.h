#pragma once

#include <cstdint>
#include <string>

/// What bytes of an output are for.
struct OutputPart {
    enum class Kind { kGap, kBootBlock, kGpt, kParameter, kItem };

    Kind kind = Kind::kGap;
    std::string name{};  ///< of the item; else empty
    uint32_t copy = 0;   ///< counted from 1, of what is written several times
};

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

    /// True when begin_part is wanted. Bytes are then handed over at each start of a part.
    virtual bool takes_parts() const { return false; }
    /// The bytes that come now belong to this part.
    virtual void begin_part(const OutputPart& /*part*/) {}

    static constexpr uint64_t kNoZeros = UINT64_MAX;
};
