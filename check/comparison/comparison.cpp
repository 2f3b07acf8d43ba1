#include "comparison.h"

#include "../../src/common/byte_run.h"
#include "../options/part_choice.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <iterator>

namespace {

// Bytes of the target that are read at once. They stay in the cache of the processor until they are compared.
constexpr uint64_t kPiece = 128 * 1024;

// Differences are looked for byte by byte only where bytes of this number are not equal.
constexpr uint64_t kStep = 64;

// Bytes of a part that are looked for after the end of the target. A firmware can ask for terabytes.
constexpr uint64_t kMostMissing = 256 * 1024 * 1024;

// What the missing bytes of ignored parts of an image may cost. The conversion has to make them, at some GB a
// second, before it comes to the next part.
constexpr uint64_t kMostPassedOver = 8ULL * 1024 * 1024 * 1024;

// A run of zeros is not made, however long it is. It costs no more than this.
constexpr uint64_t kCostOfZeros = 512 * 1024;

// A range that is expected to be zeros is compared with these.
constexpr uint8_t kZeros[kPiece] = {};

}  // namespace

int Comparison::open(const std::string& path, OpenMode /*mode*/, uint64_t& size) {
    size = 0;
    if (m_piece.size() == 0 && !m_piece.reset(kPiece))
        return ENOMEM;
    m_file = &m_files[path];
    m_file->name = path;
    m_file->covered.clear();
    if (!m_second_pass)
        m_file->rewrites.clear();
    m_file->size = m_file->next = 0;
    ++m_run;
    if (!m_second_pass)
        m_file->first_run = m_run;
    m_file->watched = static_cast<bool>(m_plan.watch);
    m_ended = false;
    if (!m_second_pass)
        m_file->ended = false;
    // An item of the same name replaces the file.
    std::erase_if(m_logs, [&](const Log& log) { return log.result.file == path; });
    m_wrong = 0;
    for (const Log& log : m_logs)
        m_wrong += wrong_bytes_of(log);
    begin_part({});
    if (m_plan.target != nullptr) {
        m_file->there = true;
        return 0;
    }
    const int error = m_own_target.open(m_plan.directory + path);
    m_file->there = error == 0;
    const FileIdentity& identity = m_own_target.identity();
    if (m_file->there && m_plan.firmware.known && identity.device == m_plan.firmware.device &&
        identity.inode == m_plan.firmware.inode)
        return EBUSY;
    log();
    if (m_file->there && m_file->watched)
        m_plan.watch(path, {});
    // Not a file: nothing in it can be compared. A file that may not be read is trouble.
    return error == 0 || error == ENOENT || error == EISDIR || error == EINVAL ? 0 : error;
}

int Comparison::close() {
    if (!m_second_pass)
        m_file->ended = m_ended;
    else if (!m_ended && !m_reached_last_rewrite)
        m_cut_before_last_rewrite = true;
    Log& last = log();
    // What is after the end is known only when the end was reached.
    if (m_plan.target == nullptr && m_file->there && m_ended && m_own_target.size() > m_file->size)
        last.result.surplus = m_own_target.size() - m_file->size;
    m_own_target.close();
    return 0;
}

int Comparison::end(uint64_t size) {
    m_file->size = size;
    m_ended = true;
    m_image_size = size;
    return 0;
}

void Comparison::begin_part(const OutputPart& part) {
    m_part = part;
    m_new_part = true;
    ++m_serial;
}

/// Bytes that count for giving up. A table may follow over the zeros of a gap.
uint64_t Comparison::wrong_bytes_of(const Log& log) {
    return log.part.kind == OutputPart::Kind::kGap ? 0 : log.result.differing + log.result.missing;
}

/// The log of the part that is being written. For files of a directory that is the file, but its parts are
/// kept as well.
Comparison::Log& Comparison::log() {
    if (m_new_part || m_logs.empty()) {
        m_new_part = false;
        Log next;
        next.part = m_part;
        next.serial = m_serial;
        next.run = m_run;
        next.ignored = m_plan.is_ignored && m_plan.is_ignored(m_part);
        next.result.file = m_file->name;
        next.result.offset = m_file->next;
        m_logs.push_back(next);
    }
    return m_logs.back();
}

int Comparison::bytes(uint64_t offset, const uint8_t* bytes, uint64_t count) {
    return count == 0 ? 0 : take(offset, bytes, count);
}

int Comparison::zeros(uint64_t offset, uint64_t count) {
    return count == 0 ? 0 : take(offset, nullptr, count);
}

/// Notes what was written before, so that a place counts for its last writer alone.
void Comparison::note_place(uint64_t offset, uint64_t count) {
    if (offset != m_file->next) {
        ++m_run;
        m_new_part = true;  // the part goes on at another place
    }
    Log& current = log();
    if (current.result.bytes == 0)
        current.result.offset = offset;
    current.result.bytes += count;
    m_file->next = offset + count;
    cover(offset, count);
}

void Comparison::cover(uint64_t offset, uint64_t count) {
    std::map<uint64_t, uint64_t>& covered = m_file->covered;
    const uint64_t end = offset + count;
    uint64_t begin = offset;
    uint64_t joined = end;
    auto at = covered.upper_bound(offset);
    if (at != covered.begin() && std::prev(at)->second >= offset)
        --at;
    while (at != covered.end() && at->first <= end) {
        const uint64_t again_from = std::max(at->first, offset);
        const uint64_t again_to = std::min(at->second, end);
        if (again_from < again_to && !m_second_pass) {
            std::vector<Rewrite>& rewrites = m_file->rewrites;
            if (!rewrites.empty() && rewrites.back().run == m_run && rewrites.back().end == again_from)
                rewrites.back().end = again_to;
            else
                rewrites.push_back({again_from, again_to, m_run});
        }
        begin = std::min(begin, at->first);
        joined = std::max(joined, at->second);
        at = covered.erase(at);
    }
    covered[begin] = joined;
}

/// True when nothing more of the file is to be compared. The files of a directory do not wait for each other,
/// but the parts of an image do.
bool Comparison::is_too_short(const Log& log) const {
    const bool passed_over = m_plan.geometry.whole_image && log.ignored && m_passed_over < kMostPassedOver;
    return log.result.missing >= kMostMissing && !passed_over;
}

/// Compares what no later run of the conversion writes again. bytes is null for zeros.
int Comparison::take(uint64_t offset, const uint8_t* bytes, uint64_t count) {
    note_place(offset, count);
    m_ended = false;
    if (m_second_pass && m_run >= m_last_rewrite) {
        m_reached_last_rewrite = true;
        return ECANCELED;
    }
    Log& current = log();
    const uint64_t wrong_before = wrong_bytes_of(current);
    const uint64_t missing_before = current.result.missing;
    uint64_t done = 0;
    while (done < count) {
        // The next place that a later run writes again ends this range, or is passed over.
        const uint64_t at = offset + done;
        uint64_t range_end = offset + count;
        uint64_t skip_to = 0;
        if (m_second_pass) {
            for (const Rewrite& again : m_file->rewrites) {
                if (again.run <= m_run || again.end <= at)
                    continue;
                if (again.begin <= at)
                    skip_to = std::max(skip_to, again.end);
                else
                    range_end = std::min(range_end, again.begin);
            }
        }
        if (skip_to > at) {
            const uint64_t skipped_to = std::min(count, skip_to - offset);
            current.result.written_again += skipped_to - done;
            done = skipped_to;
            continue;
        }
        compare_range(at, bytes == nullptr ? nullptr : bytes + done, range_end - at);
        done = range_end - offset;
    }
    if (m_plan.progress)
        m_plan.progress(count);
    if (current.ignored) {
        const uint64_t missing = current.result.missing - missing_before;
        m_passed_over += bytes != nullptr ? missing : std::min(missing, kCostOfZeros);
    }
    m_wrong += wrong_bytes_of(current) - wrong_before;
    if (m_wrong >= m_plan.give_up_at)
        return ECANCELED;
    if (!is_too_short(current))
        return 0;
    if (m_given_up_file.empty())
        m_given_up_file = m_file->name;
    return ENOSPC;
}

void Comparison::compare_range(uint64_t offset, const uint8_t* bytes, uint64_t count) {
    Log& current = log();
    if (!m_file->there || (current.ignored && offset >= target().size())) {
        current.result.missing += count;
        return;
    }
    while (count != 0) {
        if (bytes == nullptr && !m_file->watched) {
            const uint64_t hole = target().hole_at(offset, count);
            current.result.compared += hole;
            offset += hole;
            count -= hole;
            if (hole != 0)
                continue;
        }
        const uint64_t part = std::min(count, kPiece - offset % kPiece);
        compare_piece(offset, bytes != nullptr ? bytes : kZeros, part);
        offset += part;
        count -= part;
        if (bytes != nullptr)
            bytes += part;
    }
}

void Comparison::compare_piece(uint64_t offset, const uint8_t* bytes, uint64_t count) {
    const auto got = target().read(offset, count, m_piece.data());
    if (!got) {
        compare_sectors(offset, bytes, count);
        return;
    }
    Log& current = log();
    current.result.missing += count - *got;
    current.result.compared += *got;
    if (m_file->watched && *got != 0)  // a call without bytes starts a file
        m_plan.watch(m_file->name, {m_piece.data(), static_cast<std::size_t>(*got)});
    note_differences(offset, bytes, *got);
}

/// After a read that failed: sector by sector, so that only what cannot be read is left out.
void Comparison::compare_sectors(uint64_t offset, const uint8_t* bytes, uint64_t count) {
    Log& current = log();
    m_file->watched = false;
    while (count != 0) {
        const uint64_t part = std::min(count, kSector - offset % kSector);
        const auto got = target().read(offset, part, m_piece.data());
        if (got) {
            current.result.missing += part - *got;
            current.result.compared += *got;
            note_differences(offset, bytes, *got);
        } else {
            current.result.unreadable += part;
        }
        offset += part;
        bytes += part;
        count -= part;
    }
}

/// Counts and notes the bytes of m_piece that differ from the expected ones.
void Comparison::note_differences(uint64_t offset, const uint8_t* expected, uint64_t count) {
    if (std::memcmp(expected, m_piece.data(), count) == 0)
        return;
    Log& current = log();
    for (uint64_t from = 0; from < count; from += kStep) {
        const uint64_t size = std::min(kStep, count - from);
        if (std::memcmp(expected + from, m_piece.data() + from, size) == 0)
            continue;
        for (uint64_t i = from; i < from + size; ++i)
            if (expected[i] != m_piece.data()[i])
                note_difference(current, offset + i, expected[i], m_piece.data()[i]);
    }
}

void Comparison::note_difference(Log& log, uint64_t offset, uint8_t expected, uint8_t actual) {
    PartResult& result = log.result;
    ++result.differing;
    const uint64_t page = offset / m_plan.geometry.page;
    if (page != log.last_page) {
        log.last_page = page;
        ++result.differing_pages;
    }
    const auto flips = static_cast<uint64_t>(std::popcount(static_cast<uint8_t>(expected ^ actual)));
    const bool goes_on = result.runs_found != 0 && log.last_difference_end == offset;
    log.last_difference_end = offset + 1;
    if (!goes_on)
        ++result.runs_found;
    if (!goes_on && result.runs.size() < m_plan.max_runs)
        result.runs.push_back({offset, 1, flips, expected, actual});
    else if (goes_on && result.runs_found == result.runs.size()) {
        ++result.runs.back().length;
        result.runs.back().flips += flips;
    }
}

namespace {

/// Adds what was found in a later piece of the same part.
void add(PartResult& sum, const PartResult& piece, uint64_t max_runs) {
    sum.offset = sum.bytes == 0 ? piece.offset : std::min(sum.offset, piece.offset);
    sum.bytes += piece.bytes;
    sum.compared += piece.compared;
    sum.missing += piece.missing;
    sum.surplus += piece.surplus;
    sum.unreadable += piece.unreadable;
    sum.written_again += piece.written_again;
    sum.differing += piece.differing;
    sum.differing_pages += piece.differing_pages;
    sum.runs_found += piece.runs_found;
    sum.runs.insert(sum.runs.end(), piece.runs.begin(), piece.runs.end());
    std::sort(sum.runs.begin(), sum.runs.end(),
              [](const DifferenceRun& a, const DifferenceRun& b) { return a.offset < b.offset; });
    if (sum.runs.size() > max_runs)
        sum.runs.resize(max_runs);
}

std::string name_of(const OutputPart& part) {
    const std::string copy = ", copy " + std::to_string(part.copy);
    switch (part.kind) {
    case OutputPart::Kind::kGap:
        return "gaps";
    case OutputPart::Kind::kBootBlock:
        return "boot block" + copy;
    case OutputPart::Kind::kGpt:
        return "gpt";
    case OutputPart::Kind::kParameter:
        return "parameter" + copy;
    case OutputPart::Kind::kItem:
        break;
    }
    return part.name;
}

std::string without_suffix(const std::string& file) {
    return file.ends_with(".img") ? file.substr(0, file.size() - 4) : file;
}

}  // namespace

std::vector<PartResult> Comparison::results() const {
    std::vector<PartResult> parts;
    std::map<std::string, std::size_t> place;  // of a part in parts
    const bool whole = m_plan.geometry.whole_image;
    for (const Log& log : m_logs) {
        if (whole && log.result.bytes == 0 && log.result.surplus == 0)
            continue;
        const bool gap = log.part.kind == OutputPart::Kind::kGap;
        const std::string key = !whole ? log.result.file : gap ? "" : std::to_string(log.serial);
        const auto [at, fresh] = place.try_emplace(key, parts.size());
        if (fresh) {
            parts.emplace_back();
            parts.back().file = m_plan.target == nullptr ? log.result.file : "";
            parts.back().name = whole ? name_of(log.part) : without_suffix(log.result.file);
            parts.back().choice = whole ? option_word(log.part) : parts.back().name;
        }
        // All of a file is the item's, unless one of its parts is something else.
        const bool item = log.part.kind == OutputPart::Kind::kItem || (!whole && gap);
        parts[at->second].item = item && (fresh || parts[at->second].item);
        add(parts[at->second], log.result, m_plan.max_runs);
        // In an image a part begins when the one before it has ended.
        parts[at->second].ended = m_files.at(log.result.file).ended || (whole && &log != &m_logs.back());
    }
    for (PartResult& part : parts) {
        const auto file = m_files.find(part.file);
        const bool there = m_plan.target != nullptr || (file != m_files.end() && file->second.there);
        // Bytes that a later part writes again are neither compared nor missing.
        const bool nothing_there = part.missing != 0 && part.compared + part.unreadable == 0;
        if (!there || nothing_there)
            part.verdict = Verdict::kMissing;
        else if (part.differing != 0 || part.missing != 0 || part.surplus != 0)
            part.verdict = Verdict::kDiffers;
        else if (part.unreadable != 0)
            part.verdict = Verdict::kTrouble;
    }
    if (m_plan.geometry.whole_image)
        std::stable_sort(parts.begin(), parts.end(),
                         [](const PartResult& a, const PartResult& b) { return a.offset < b.offset; });
    return parts;
}

std::vector<std::string> Comparison::missing_files() const {
    std::vector<std::string> missing;
    for (const auto& [name, file] : m_files)
        if (!file.there)
            missing.push_back(name);
    return missing;
}

std::vector<Comparison::Extent> Comparison::extents() const {
    std::vector<Extent> extents;
    for (const Log& log : m_logs) {
        if (log.result.bytes == 0)
            continue;
        const uint64_t end = log.result.offset + log.result.bytes;
        const std::vector<Rewrite>& rewrites = m_files.at(log.result.file).rewrites;
        const bool again = std::any_of(rewrites.begin(), rewrites.end(), [&](const Rewrite& rewrite) {
            return rewrite.run > log.run && rewrite.begin < end && log.result.offset < rewrite.end;
        });
        extents.push_back({.part = log.part,
                           .file = log.result.file,
                           .offset = log.result.offset,
                           .bytes = log.result.bytes,
                           .written_again = again,
                           .same = log.result.compared == log.result.bytes && log.result.differing == 0});
    }
    return extents;
}

bool Comparison::needs_second_pass() {
    m_last_rewrite = 0;
    for (const auto& [name, file] : m_files)
        if (!file.rewrites.empty())
            m_last_rewrite = std::max(m_last_rewrite, file.rewrites.back().run);
    return std::any_of(m_logs.begin(), m_logs.end(), [&](const Log& log) {
        const PartResult& result = log.result;
        return log.run < m_last_rewrite &&
               (result.differing != 0 || result.missing != 0 || result.unreadable != 0);
    });
}

void Comparison::start_second_pass() {
    m_second_pass = true;
    m_kept = std::move(m_logs);
    std::erase_if(m_kept, [&](const Log& log) { return log.run < m_last_rewrite; });
    m_logs.clear();
    m_plan.watch = {};
    m_plan.progress = {};
    m_run = m_serial = m_wrong = m_passed_over = 0;
    m_file = nullptr;
    for (auto& [name, file] : m_files) {
        file.covered.clear();
        file.next = UINT64_MAX;
    }
}

bool Comparison::finish_second_pass() {
    const bool complete = m_reached_last_rewrite && !m_cut_before_last_rewrite;
    std::erase_if(m_logs, [&](const Log& log) {
        return log.run >= m_last_rewrite || log.run < m_files.at(log.result.file).first_run;
    });
    m_logs.insert(m_logs.end(), m_kept.begin(), m_kept.end());
    return complete;
}
