#pragma once

#include <cstdint>

/// What the list indexes of written pages say, in the order of the dump.
struct ListIndexes {
    uint64_t pages = 0;         ///< written pages whose index was read
    uint64_t runs = 0;          ///< indexes of 0: a file begins
    uint32_t step = 0;          ///< from page to page of a file, 4 or 1; 0: no index follows another one
    uint64_t out_of_order = 0;  ///< indexes that are not 0 and do not follow the page before them
};

/// Follows the list indexes of a dump. Without the firmware nobody knows where a file begins, so an index of
/// 0 begins a run anywhere. After an index that is out of order, the next one may follow it.
class ListIndexRuns {
public:
    /// The index of the next written page. Erased pages are left out.
    void take(uint32_t index);
    /// The next page was written, and its index is not readable. It may belong to the run or not: a block
    /// that was passed over lies between two pages of a file.
    void pass_unreadable() { ++m_unreadable; }
    ListIndexes result() const;

private:
    bool follows(uint32_t index, uint32_t step) const;

    ListIndexes m_counts;
    bool m_has_last = false;
    uint32_t m_last = 0;
    uint64_t m_unreadable = 0;  // pages since the last index
    uint64_t m_by_four = 0;     // indexes that follow by this step alone
    uint64_t m_by_one = 0;
};
