#include "extraction_plan.h"

#include "../../src/storage/gpt_format.h"
#include "extracted_file.h"

#include <algorithm>
#include <set>

namespace {

using Extent = OutputMap::Extent;

/// Items are written in the order of their table, so each is looked for after the one before it.
class ItemPlan {
public:
    ItemPlan(const Listing& listing, const OutputMap& map, const PageLayout& layout, bool whole_image)
        : m_listing(listing), m_map(map), m_layout(layout), m_whole_image(whole_image) {}

    std::vector<PlannedPart> parts() {
        for (const ListedItem& item : m_listing.items)
            if (item.kind == ItemKind::kPlain || item.kind == ItemKind::kSparse)
                add_item(item);
            else if (item.kind == ItemKind::kParameter)
                add_table(item);
        return std::move(m_parts);
    }

private:
    void add_item(const ListedItem& item) {
        const std::string file = item.name + ".img";
        const Extent* extent = m_whole_image ? next_item(item.name) : start_of(file);
        add(item.name, item.name, file, extent, item.stored_bytes);
    }

    void add_table(const ListedItem& item) {
        if (const Extent* gpt = first_of(OutputPart::Kind::kGpt); gpt != nullptr)
            add("gpt", "gpt", "gpt.img", gpt, kGptTableSize);
        else if (const Extent* record = first_of(OutputPart::Kind::kParameter); record != nullptr)
            add("parameter", "parameter", "parameter.img", record, item.stored_bytes);
    }

    void add(const std::string& name, const std::string& choice, const std::string& output,
             const Extent* extent, uint64_t bytes) {
        PlannedPart part{.name = name, .choice = choice, .output = output, .file = output};
        if (extent != nullptr) {
            part.file = extent->file;
            part.offset = extent->offset;
            part.bytes = std::min(bytes, data_bytes(m_layout, extent->bytes));
            part.overwritten = is_overwritten(m_map, *extent, m_layout, 0, part.bytes);
        }
        // In the directory of a NAND conversion a later item of a name replaces the file.
        if (!m_whole_image)
            std::erase_if(m_parts, [&](const PlannedPart& other) { return other.file == part.file; });
        m_parts.push_back(part);
    }

    const Extent* next_item(const std::string& name) {
        for (std::size_t i = m_next; i < m_map.extents().size(); ++i) {
            const Extent& extent = m_map.extents()[i];
            if (extent.part.kind != OutputPart::Kind::kItem || extent.part.name != name)
                continue;
            m_next = i + 1;
            return &extent;
        }
        return nullptr;
    }

    const Extent* start_of(const std::string& file) const {
        return find([&](const Extent& extent) {
            return extent.file == file && extent.offset == 0 && extent.part.kind == OutputPart::Kind::kGap;
        });
    }

    const Extent* first_of(OutputPart::Kind kind) const {
        return find([&](const Extent& extent) { return extent.part.kind == kind && extent.part.copy <= 1; });
    }

    template <typename Is>
    const Extent* find(Is is) const {
        const auto at = std::find_if(m_map.extents().begin(), m_map.extents().end(), is);
        return at == m_map.extents().end() ? nullptr : &*at;
    }

    const Listing& m_listing;
    const OutputMap& m_map;
    const PageLayout m_layout;
    const bool m_whole_image;
    std::size_t m_next = 0;  // extent after the one of the item before
    std::vector<PlannedPart> m_parts;
};

}  // namespace

std::vector<PlannedPart> plan_items(const Listing& listing, const OutputMap& map, const PageLayout& layout,
                                    bool whole_image) {
    return ItemPlan(listing, map, layout, whole_image).parts();
}

bool is_overwritten(const OutputMap& map, const OutputMap::Extent& extent, const PageLayout& layout,
                    uint64_t position, uint64_t bytes) {
    uint64_t together = 0;
    return bytes != 0 &&
           map.is_written_again(extent, extent.offset + place_of_data(layout, position, together),
                                extent.offset + place_of_data(layout, position + bytes - 1, together) + 1);
}

void refuse_names(std::vector<PlannedPart>& parts) {
    std::set<std::string> outputs;
    for (PlannedPart& part : parts) {
        if (!part.refusal.empty())
            continue;
        std::optional<std::string> refusal = refused_name(part.name);
        if (!refusal)
            refusal = refused_name(part.output);
        if (!refusal && !outputs.insert(part.output).second)
            refusal = "a part before it has the same name";
        part.refusal = refusal.value_or("");
    }
}
