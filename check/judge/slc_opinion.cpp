#include "second_opinion.h"

#include "../../src/common/byte_reader.h"
#include "unit_parity.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

constexpr uint32_t kNoIndex = 0xFFFFFFFF;  // system bytes of all units of a page but the first

const UnitParity& unit_parity() {
    static const UnitParity parity;
    return parity;
}

std::string hexadecimal(uint32_t value) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", static_cast<unsigned>(value));
    return text;
}

}  // namespace

/// Units are judged in batches. A unit of a batch lies in the bytes that are just taken, or in kept.
struct SlcOpinion::State {
    std::string file;
    uint64_t page_bytes;
    uint64_t units_of_page;
    uint32_t index_step;
    SecondOpinion& opinion;
    bool is_judged;  // false: units of this geometry do not exist

    uint64_t page = 0;        // the number of the page that is taken
    uint64_t in_page = 0;     // bytes of it that were taken
    bool tail_right = true;   // of this page, after its units
    uint64_t first_unit = 0;  // the number in the file of the first unit of the batch
    std::size_t waiting = 0;  // units of the batch
    UnitParity::Batch batch{};
    std::vector<uint8_t> kept = std::vector<uint8_t>(UnitParity::kBatch * kUnit);

    uint8_t* place_to_keep(std::size_t unit) { return kept.data() + unit * kUnit; }
    std::string at_page(uint64_t number) const { return file + ": page " + std::to_string(number); }
    std::string at_unit(uint64_t number) const {
        return at_page(number / units_of_page) + ", unit " + std::to_string(number % units_of_page);
    }

    std::size_t take_of_page(std::span<const uint8_t> bytes);
    std::size_t take_of_unit(std::span<const uint8_t> bytes);
    std::size_t take_of_tail(std::span<const uint8_t> bytes);
    void add_unit(const uint8_t* unit);
    void judge_system_bytes(const uint8_t* unit, uint64_t unit_of_page);
    void judge_batch();
    void keep_batch();
};

std::size_t SlcOpinion::State::take_of_page(std::span<const uint8_t> bytes) {
    const std::size_t taken = in_page < units_of_page * kUnit ? take_of_unit(bytes) : take_of_tail(bytes);
    in_page += taken;
    if (in_page == page_bytes) {
        if (!tail_right)
            add_finding(opinion, at_page(page) + ": bytes after the last unit are not 0xFF");
        tail_right = true;
        in_page = 0;
        ++page;
    }
    return taken;
}

std::size_t SlcOpinion::State::take_of_unit(std::span<const uint8_t> bytes) {
    const std::size_t in_unit = in_page % kUnit;
    if (in_unit == 0 && bytes.size() >= kUnit) {
        add_unit(bytes.data());
        return kUnit;
    }
    const std::size_t taken = std::min<std::size_t>(kUnit - in_unit, bytes.size());
    uint8_t* const unit = place_to_keep(waiting);
    std::memcpy(unit + in_unit, bytes.data(), taken);
    if (in_unit + taken == kUnit)
        add_unit(unit);
    return taken;
}

std::size_t SlcOpinion::State::take_of_tail(std::span<const uint8_t> bytes) {
    const std::size_t taken = std::min<uint64_t>(page_bytes - in_page, bytes.size());
    const auto tail = bytes.first(taken);
    tail_right = tail_right && std::ranges::all_of(tail, [](uint8_t byte) { return byte == 0xFF; });
    return taken;
}

void SlcOpinion::State::add_unit(const uint8_t* unit) {
    judge_system_bytes(unit, in_page / kUnit);
    batch[waiting++] = unit;
    if (waiting == batch.size())
        judge_batch();
}

void SlcOpinion::State::judge_system_bytes(const uint8_t* unit, uint64_t unit_of_page) {
    const uint32_t found = little_endian_at<uint32_t>(unit + kUnitData);
    if (unit_of_page != 0) {
        if (found != kNoIndex)
            add_finding(opinion, at_unit(page * units_of_page + unit_of_page) + ": system bytes are " +
                                     hexadecimal(found) + " and not " + hexadecimal(kNoIndex));
        return;
    }
    const auto expected = static_cast<uint32_t>(page * index_step);  // has 32 bits on the page too
    if (found == expected)
        return;
    ++opinion.wrong_indexes;
    add_finding(opinion, at_page(page) + ": list index is " + std::to_string(found) + " and not " +
                             std::to_string(expected));
}

// Only a batch with a wrong unit is judged unit by unit. What a batch is short of is erased units.
void SlcOpinion::State::judge_batch() {
    std::fill(batch.begin() + static_cast<std::ptrdiff_t>(waiting), batch.end(), UnitParity::erased_unit());
    if (!unit_parity().are_right(batch)) {
        for (std::size_t i = 0; i < waiting; ++i) {
            if (unit_parity().is_right(batch[i]))
                continue;
            ++opinion.wrong_units;
            add_finding(opinion, at_unit(first_unit + i) + ": parity does not belong to the data");
        }
    }
    opinion.units += waiting;
    first_unit += waiting;
    waiting = 0;
}

// The bytes that were taken are about to go.
void SlcOpinion::State::keep_batch() {
    for (std::size_t i = 0; i < waiting; ++i) {
        if (batch[i] == place_to_keep(i))
            continue;
        std::memcpy(place_to_keep(i), batch[i], kUnit);
        batch[i] = place_to_keep(i);
    }
}

SlcOpinion::SlcOpinion(std::string file, uint64_t page, uint64_t data, uint32_t index_step,
                       SecondOpinion& opinion)
    : m_state(new State{.file = std::move(file),
                        .page_bytes = page,
                        .units_of_page = data / kUnitData,
                        .index_step = index_step,
                        .opinion = opinion,
                        .is_judged = false}) {
    const std::string not_judged = m_state->file + ": parity is not judged: ";
    if (data == 0 || data % kUnitData != 0)
        add_finding(opinion,
                    not_judged + std::to_string(data) + " bytes of data are not whole units of 1024");
    else if (m_state->units_of_page > page / kUnit)
        add_finding(opinion, not_judged + std::to_string(page) + " bytes of a page are too few for " +
                                 std::to_string(m_state->units_of_page) + " units of 1056");
    else
        m_state->is_judged = true;
}

SlcOpinion::~SlcOpinion() = default;

void SlcOpinion::take(std::span<const uint8_t> bytes) {
    if (!m_state->is_judged)
        return;
    while (!bytes.empty())
        bytes = bytes.subspan(m_state->take_of_page(bytes));
    m_state->keep_batch();
}

void SlcOpinion::pass_over(uint64_t pages) {
    if (!m_state->is_judged)
        return;
    m_state->judge_batch();
    m_state->page += pages;
    m_state->first_unit += pages * m_state->units_of_page;
}

void SlcOpinion::finish() {
    if (!m_state->is_judged)
        return;
    if (m_state->waiting != 0)
        m_state->judge_batch();
    if (m_state->in_page != 0)
        add_finding(m_state->opinion, m_state->at_page(m_state->page) + ": the file ends inside this page");
}
