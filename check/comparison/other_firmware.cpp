#include "other_firmware.h"

#include "../../src/common/byte_run.h"
#include "conversion_run.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace {

constexpr uint64_t kUnitData = 1024;

// Bytes of a file after the end of the target that are waited for. A firmware can ask for terabytes.
constexpr uint64_t kMostAfterEnd = 256 * 1024 * 1024;

/// Takes a conversion and counts, for each item, the pages that hold data and those of them that differ from
/// the target.
class ItemPages : public OutputReceiver {
public:
    /// items: names of files, or of parts of an image.
    ItemPages(const ComparisonPlan& plan, std::set<std::string> items)
        : m_plan(plan), m_items(std::move(items)) {}

    int open(const std::string& path, OpenMode /*mode*/, uint64_t& size) override {
        size = 0;
        end_part();
        m_name = path;
        m_after_end = 0;
        if (m_plan.target == nullptr)
            m_there = m_file.open(m_plan.directory + path) == 0;
        if (!m_plan.geometry.whole_image)
            count(path);
        return 0;
    }
    int bytes(uint64_t offset, const uint8_t* bytes, uint64_t count) override {
        if (is_too_far(offset, count))
            return ENOSPC;
        if (m_counted == nullptr || !m_there)
            return 0;
        if (offset != m_offset + m_page.size())
            start_page(offset);
        while (count != 0) {
            const uint64_t part = std::min(count, m_plan.geometry.page - m_page.size());
            m_page.insert(m_page.end(), bytes, bytes + part);
            bytes += part;
            count -= part;
            if (m_page.size() == m_plan.geometry.page)
                start_page(m_offset + m_page.size());
        }
        return 0;
    }
    int zeros(uint64_t offset, uint64_t count) override { return is_too_far(offset, count) ? ENOSPC : 0; }
    uint64_t zeros_from() const override { return 0; }
    int end(uint64_t /*size*/) override { return 0; }
    int close() override {
        end_part();
        return 0;
    }
    bool takes_parts() const override { return true; }
    void begin_part(const OutputPart& part) override {
        if (!m_plan.geometry.whole_image)
            return;
        end_part();
        if (part.kind == OutputPart::Kind::kItem)
            count(part.name);
    }

    /// The first file whose rest was refused with ENOSPC, far after the end of the target; empty: none.
    const std::string& refused_file() const { return m_refused_file; }

    /// Of the items of which a page with data was there.
    bool most_differ() const {
        std::size_t items = 0;
        std::size_t other = 0;
        for (const auto& [name, pages] : m_pages) {
            items += pages.all != 0 ? 1 : 0;
            other += pages.differ * 2 > pages.all ? 1 : 0;
        }
        return other * 2 > items;
    }

private:
    struct Pages {
        uint64_t all = 0;
        uint64_t differ = 0;
    };

    Target& target() { return m_plan.target != nullptr ? *m_plan.target : m_file; }

    bool is_too_far(uint64_t offset, uint64_t count) {
        if (m_there && offset < target().size())
            return false;
        m_after_end += count;
        if (m_after_end < kMostAfterEnd)
            return false;
        if (m_refused_file.empty())
            m_refused_file = m_name;
        return true;
    }

    void count(const std::string& item) {
        if (m_items.contains(item))
            m_counted = &m_pages[item];
    }

    void end_part() {
        start_page(0);
        m_counted = nullptr;
    }

    void start_page(uint64_t offset) {
        if (m_counted != nullptr && holds_data())
            count_page();
        m_page.clear();
        m_offset = offset;
    }

    void count_page() {
        m_actual.resize(m_page.size());
        if (target().read(m_offset, m_actual.size(), m_actual.data()) != m_actual.size())
            return;
        ++m_counted->all;
        m_counted->differ += m_actual != m_page ? 1 : 0;
    }

    /// The data of a page with a spare area lies in its units.
    bool holds_data() const {
        if (!m_plan.geometry.spare_areas)
            return !is_fill(m_page.data(), m_page.size());
        for (uint64_t at = 0; at + kUnit <= m_page.size(); at += kUnit)
            if (!is_fill(m_page.data() + at, kUnitData))
                return true;
        return false;
    }
    static bool is_fill(const uint8_t* bytes, uint64_t count) {
        return holds_only(bytes, count, 0) || holds_only(bytes, count, 0xFF);
    }

    const ComparisonPlan& m_plan;
    const std::set<std::string> m_items;
    std::map<std::string, Pages> m_pages;
    Pages* m_counted = nullptr;  // of the item that is taken
    Target m_file;               // the open file of the directory
    bool m_there = true;
    std::string m_name;        // of the open file
    uint64_t m_after_end = 0;  // bytes of it
    std::string m_refused_file;
    std::vector<uint8_t> m_page;
    std::vector<uint8_t> m_actual;
    uint64_t m_offset = 0;  // of m_page
};

}  // namespace

bool is_other_firmware(const ConversionOptions& options, const ComparisonPlan& plan,
                       const CheckResult& result) {
    std::set<std::string> items;
    std::size_t there = 0;
    std::size_t differ = 0;
    for (const PartResult& part : result.parts) {
        if (!part.item || part.verdict == Verdict::kIgnored || part.compared == 0)
            continue;
        items.insert(plan.geometry.whole_image ? part.name : part.file);
        ++there;
        differ += part.differing != 0 ? 1 : 0;
    }
    if (differ * 2 <= there)
        return false;
    ItemPages pages(plan, std::move(items));
    const ConversionRun run = run_conversion(options, pages);
    return (run.done || failed_to_write(run, pages.refused_file(), ENOSPC)) && pages.most_differ();
}
