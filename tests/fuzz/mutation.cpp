#include "mutation.h"

#include "support/firmware_builder.h"

#include <algorithm>
#include <string>
#include <vector>

namespace robustness {

using namespace test_support;

namespace {

// The words of a parameter text, and numbers whose sums and products wrap.
const std::vector<std::string> kWords =
    split("mtdparts|:|uuid:|=|,|@|(|)|-|0x|TYPE|GPT|\n|\r\n|#| |:grow|:bootable|0xFFFFFFFF|0x80000000|0x|"
          "7a3c19e4-52d0-4f6b-9e81-c0ffee123456|TYPE: GPT\n|CMDLINE: mtdparts=flash0:|0x10@0x20(a)|"
          "-@0x30(b:grow)",
          '|');

// Parts of the input whose bytes belong together.
std::vector<Span> regions(const Structure& structure) {
    std::vector<Span> spans;
    if (structure.container)
        spans.push_back(*structure.container);
    if (structure.container_tables_end != 0)
        spans.push_back(
            {structure.container->offset, structure.container_tables_end - structure.container->offset});
    if (structure.head)
        spans.push_back({0, head_field::kHeadBytes});
    if (structure.package)
        spans.push_back({*structure.package, package_field::kItems});
    for (const std::size_t item : structure.items)
        spans.push_back({item, item_field::kRecordBytes});
    spans.insert(spans.end(), structure.item_data.begin(), structure.item_data.end());
    std::erase_if(spans, [](const Span& span) { return span.size == 0; });
    return spans;
}

}  // namespace

void Mutation::apply(Bytes& input, std::size_t largest) {
    const Structure structure = m_target.structure(input);
    const std::size_t way = below(8);
    if (way < 3)
        bend_numbers(input, structure);
    else if (way < 5)
        change_region(input, structure);
    else if (way == 5)
        insert_word(input);
    else
        m_blind(input, largest);
    if (input.size() > largest)
        input.resize(largest);
    if (!one_in(16))
        repair_checksum(input, m_target.structure(input));
}

void Mutation::bend_numbers(Bytes& input, const Structure& structure) {
    const std::vector<Field> fields = number_fields(structure);
    if (fields.empty())
        return insert_word(input);
    for (std::size_t count = 1 + below(3); count > 0; --count) {
        const Field& field = fields[below(fields.size())];
        bend_field(input, field, number_for(input, field, fields));
    }
}

uint64_t Mutation::number_for(const Bytes& input, const Field& field, const std::vector<Field>& all) {
    const uint64_t nudge = below(5) - 2;
    switch (below(8)) {
    case 0:
        return below(64);
    case 1:
        return field.largest() - below(4);
    case 2:
        return field.largest() / 2 + nudge;
    case 3:
        return uint64_t{1} << below(8 * field.width);
    case 4:
        return input.size() + nudge;
    case 5:
        return field_value(input, all[below(all.size())]) + nudge;
    case 6:
        return input.size() - field_value(input, all[below(all.size())]);
    default:
        return field_value(input, field) + nudge;
    }
}

// A region keeps its place: what the mutation leaves of it is filled up with zeros.
void Mutation::change_region(Bytes& input, const Structure& structure) {
    const std::vector<Span> spans = regions(structure);
    if (spans.empty())
        return m_blind(input, input.size());
    const Span span = spans[below(spans.size())];
    Bytes region = slice(input, span.offset, span.size);
    m_blind(region, span.size);
    region.resize(span.size);
    put_bytes_at(input, span.offset, region);
}

// Into the parameter text where there is one, over what follows; else anywhere, moving it.
void Mutation::insert_word(Bytes& input) {
    const Bytes word = to_bytes(kWords[below(kWords.size())]);
    const Structure structure = m_target.structure(input);
    if (structure.parameter && structure.parameter->size > 8 + word.size()) {
        const std::size_t room = structure.parameter->size - 8 - word.size();
        put_bytes_at(input, structure.parameter->offset + 8 + below(room), word);
        return;
    }
    const auto at = static_cast<std::ptrdiff_t>(below(input.size() + 1));
    input.insert(input.begin() + at, word.begin(), word.end());
}

}  // namespace robustness
