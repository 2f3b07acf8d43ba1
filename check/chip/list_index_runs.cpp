#include "list_index_runs.h"

#include <algorithm>

bool ListIndexRuns::follows(uint32_t index, uint32_t step) const {
    const uint32_t distance = index - m_last;  // an index has 32 bits and wraps
    return distance != 0 && distance % step == 0 && distance / step <= m_unreadable + 1;
}

void ListIndexRuns::take(uint32_t index) {
    ++m_counts.pages;
    if (index == 0) {
        ++m_counts.runs;
    } else {
        const bool by_four = m_has_last && follows(index, 4);
        const bool by_one = m_has_last && follows(index, 1);
        if (!by_four && !by_one)
            ++m_counts.out_of_order;
        else if (by_four != by_one)
            ++(by_four ? m_by_four : m_by_one);
    }
    m_has_last = true;
    m_last = index;
    m_unreadable = 0;
}

// All files of a chip have one step. Indexes that follow by the other step are out of order.
ListIndexes ListIndexRuns::result() const {
    ListIndexes result = m_counts;
    if (m_by_four != 0 || m_by_one != 0)
        result.step = m_by_four >= m_by_one ? 4 : 1;
    result.out_of_order += std::min(m_by_four, m_by_one);
    return result;
}
