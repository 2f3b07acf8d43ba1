#include "manifest_file_sums.h"

#include <algorithm>
#include <iterator>

namespace {

constexpr uint64_t kMostWaiting = 16 * 1024 * 1024;

}  // namespace

void ManifestFileSums::start_pass() {
    m_next = UINT64_MAX;
    m_begun = 0;
    add_what_waits();  // zeros that nobody writes may come first
}

void ManifestFileSums::take(uint64_t offset, const uint8_t* bytes, uint64_t count) {
    const uint64_t end = offset + count;
    const bool goes_on = offset == m_next;
    m_next = end;
    if (!goes_on)
        ++m_begun;
    if (m_first_pass) {
        if (goes_on)
            m_writes.back().end = end;
        else
            m_writes.push_back({offset, end});
        m_in_order = m_in_order && offset == done();
        if (m_in_order)
            add(bytes, count);
        return;
    }
    auto segment = m_segments.upper_bound(offset);
    if (segment != m_segments.begin())
        --segment;
    for (; segment != m_segments.end() && segment->first < end; ++segment) {
        const uint64_t from = std::max(segment->first, offset);
        const uint64_t to = std::min(segment->second.end, end);
        if (segment->second.write + 1 == m_begun && from < to)
            deliver(from, bytes == nullptr ? nullptr : bytes + (from - offset), to - from);
    }
}

void ManifestFileSums::end_pass(uint64_t size) {
    if (m_first_pass) {
        m_first_pass = false;
        m_size = size;
        for (const Write& write : m_writes)
            m_size = std::max(m_size, write.end);
        if (!m_in_order || done() != m_size) {
            m_sums = ManifestSums();
            find_last_writers();
        }
    }
    m_complete = done() == m_size;
}

/// From the last write to the first one: each gets what no later one has.
void ManifestFileSums::find_last_writers() {
    for (std::size_t i = m_writes.size(); i-- > 0;) {
        const Write& write = m_writes[i];
        for (uint64_t at = write.begin; at < write.end;) {
            const auto next = m_segments.upper_bound(at);
            if (next != m_segments.begin() && std::prev(next)->second.end > at) {
                at = std::prev(next)->second.end;
                continue;
            }
            const uint64_t end = next == m_segments.end() ? write.end : std::min(write.end, next->first);
            m_segments[at] = {end, i};
            at = end;
        }
    }
}

void ManifestFileSums::deliver(uint64_t offset, const uint8_t* bytes, uint64_t count) {
    if (offset < done())
        return;  // an earlier pass had it
    if (offset == done()) {
        add(bytes, count);
        add_what_waits();
        return;
    }
    const uint64_t room = bytes == nullptr ? 0 : count;
    if (m_waiting + room > kMostWaiting || m_early.contains(offset))
        return;
    Early& early = m_early[offset];
    early.count = count;
    if (bytes != nullptr)
        early.bytes.assign(bytes, bytes + count);
    m_waiting += room;
}

void ManifestFileSums::add(const uint8_t* bytes, uint64_t count) {
    if (bytes == nullptr)
        m_sums.add_zeros(count);
    else
        m_sums.add(bytes, count);
}

/// Adds what comes next, as far as it is there. Places that nobody writes are zeros.
void ManifestFileSums::add_what_waits() {
    for (;;) {
        const auto after = m_segments.upper_bound(done());
        const bool written = after != m_segments.begin() && std::prev(after)->second.end > done();
        if (!written && done() < m_size) {
            m_sums.add_zeros((after == m_segments.end() ? m_size : after->first) - done());
            continue;
        }
        const auto early = m_early.find(done());
        if (early == m_early.end())
            return;
        const Early next = std::move(early->second);
        m_early.erase(early);
        m_waiting -= next.bytes.size();
        add(next.bytes.empty() ? nullptr : next.bytes.data(), next.count);
    }
}
