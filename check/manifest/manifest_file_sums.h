#pragma once

#include "manifest_sums.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

/// The sums of one output of a conversion. They need the bytes in their order, and each place as its last
/// writer leaves it, but the conversion goes back to earlier places. Bytes that come in order are added at
/// once. When they do not, the first pass notes what was written where, and the same conversion is taken
/// again: what a later write covers is then passed over, and bytes that are too early wait.
///
/// 16 MiB wait at most. What does not fit comes in one more pass.
class ManifestFileSums {
public:
    explicit ManifestFileSums(std::string file) : m_file(std::move(file)) {}

    const std::string& file() const { return m_file; }

    /// Takes bytes of this pass; null stands for zeros. count is not 0.
    void take(uint64_t offset, const uint8_t* bytes, uint64_t count);
    /// The pass is complete as far as this file goes, and the file is at least size bytes long.
    void end_pass(uint64_t size);
    /// The same writes come again.
    void start_pass();
    /// True when all bytes were added.
    bool complete() const { return m_complete; }
    /// Bytes that were added so far.
    uint64_t done() const { return m_sums.length(); }
    /// The sums of the file when it is complete.
    ManifestSums& sums() { return m_sums; }

private:
    /// Consecutive bytes that were handed over one after the other.
    struct Write {
        uint64_t begin = 0;
        uint64_t end = 0;
    };
    /// Bytes up to this end come from this write.
    struct Segment {
        uint64_t end = 0;
        std::size_t write = 0;
    };
    /// Bytes that wait for those before them. Zeros have no bytes.
    struct Early {
        uint64_t count = 0;
        std::vector<uint8_t> bytes;
    };

    void find_last_writers();
    void deliver(uint64_t offset, const uint8_t* bytes, uint64_t count);
    void add(const uint8_t* bytes, uint64_t count);
    void add_what_waits();

    std::string m_file;
    ManifestSums m_sums;
    bool m_first_pass = true;
    bool m_in_order = true;
    bool m_complete = false;
    uint64_t m_size = 0;
    uint64_t m_next = UINT64_MAX;  // where a consecutive write goes
    std::size_t m_begun = 0;       // writes of this pass; the last one goes on
    std::vector<Write> m_writes;
    std::map<uint64_t, Segment> m_segments;  // by their first bytes; no place is in two of them
    std::map<uint64_t, Early> m_early;
    uint64_t m_waiting = 0;  // bytes in m_early
};
