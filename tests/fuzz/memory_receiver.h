#pragma once

// Takes the output of a conversion in place of files, and watches how it is handed over.

#include "io/output_receiver.h"
#include "support/bytes.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

namespace robustness {

struct ReceiverManner {
    std::string directory{};  // that all outputs lie in, with a "/" at its end
    // Like a file: wants no parts, and takes zeros only after the last byte that was written. Else like a
    // comparison: wants parts and takes zeros everywhere.
    bool like_a_file = false;
    bool keeps_bytes = false;     // else it keeps no output, and two runs cannot be compared
    uint64_t largest_output = 0;  // bytes; what goes beyond fails with EFBIG
    uint64_t largest_in_all = 0;  // bytes, zeros not counted; more fail with ENOSPC
};

// Never throws: a stream would swallow it. What is wrong is in complaint().
class MemoryReceiver : public OutputReceiver {
public:
    explicit MemoryReceiver(ReceiverManner manner) : m_manner(manner) {}

    int open(const std::string& path, OpenMode mode, uint64_t& size) override;
    int bytes(uint64_t offset, const uint8_t* bytes, uint64_t count) override;
    int zeros(uint64_t offset, uint64_t count) override;
    uint64_t zeros_from() const override { return m_manner.like_a_file ? m_written_end : 0; }
    int end(uint64_t size) override;
    int close() override;
    bool takes_parts() const override { return !m_manner.like_a_file; }
    void begin_part(const OutputPart& part) override;

    // The first thing that was wrong; null when nothing was.
    const char* complaint() const { return m_complaint; }
    bool is_open() const { return m_open; }
    // True when something was refused, so that the conversion cannot have succeeded.
    bool has_refused() const { return m_has_refused; }

    // The same calls with the same bytes, which gives the same images.
    bool took_the_same(const MemoryReceiver& other) const {
        return m_calls == other.m_calls && m_bytes == other.m_bytes;
    }

private:
    struct Call {
        std::string path{};  // of an output that starts here; else empty
        uint64_t offset = 0;
        uint64_t count = 0;
        bool zeros = false;
        bool operator==(const Call&) const = default;
    };

    void expect(bool condition, const char* what) {
        if (!condition && m_complaint == nullptr)
            m_complaint = what;
    }
    int refuse(int error);
    int take(uint64_t offset, const uint8_t* bytes, uint64_t count);

    ReceiverManner m_manner;
    const char* m_complaint = nullptr;
    bool m_open = false;
    bool m_refused = false;  // something of the output that is open
    bool m_has_refused = false;
    uint64_t m_end = 0;          // of what was handed over
    uint64_t m_written_end = 0;  // of what was handed over as bytes
    uint64_t m_in_all = 0;       // bytes of all outputs
    std::vector<Call> m_calls{};
    test_support::Bytes m_bytes{};
};

}  // namespace robustness
