#include "second_opinion.h"

#include "../../src/common/rc4_key.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <map>
#include <utility>

namespace {

constexpr std::size_t kFindingsKept = 20;

template <typename Integer>
Integer little_endian(const uint8_t* bytes) {
    uint64_t value = 0;
    for (std::size_t i = 0; i < sizeof(Integer); ++i)
        value |= uint64_t{bytes[i]} << (8 * i);
    return static_cast<Integer>(value);
}

std::string hexadecimal(uint64_t value) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

bool all_zero(std::span<const uint8_t> bytes) {
    return std::ranges::all_of(bytes, [](uint8_t byte) { return byte == 0; });
}

/// A record at a place, whose fields are held against what the format says.
class Record {
public:
    using Add = void (*)(SecondOpinion& opinion, const std::string& sentence);

    Record(std::string place, std::span<const uint8_t> bytes, SecondOpinion& opinion, Add add = add_finding)
        : m_place(std::move(place)), m_bytes(bytes), m_opinion(opinion), m_add(add) {}

    template <typename Integer>
    Integer field(std::size_t offset) const {
        return little_endian<Integer>(m_bytes.subspan(offset, sizeof(Integer)).data());
    }
    std::span<const uint8_t> bytes(std::size_t offset, std::size_t size) const {
        return m_bytes.subspan(offset, size);
    }

    template <typename Integer>
    bool expect(const char* name, std::size_t offset, std::type_identity_t<Integer> expected) const {
        if (field<Integer>(offset) == expected)
            return true;
        complain(name, field<Integer>(offset), "not " + hexadecimal(expected));
        return false;
    }
    void expect_zeros(const char* name, std::size_t offset, std::size_t size) const {
        if (!all_zero(bytes(offset, size)))
            say(std::string(name) + " is not all zeros");
    }

    /// Such as "gpt header: my_lba is 0x2, not 0x1".
    void complain(const char* name, uint64_t value, const std::string& reason) const {
        say(std::string(name) + " is " + hexadecimal(value) + ", " + reason);
    }
    void say(const std::string& what) const { m_add(m_opinion, m_place + ": " + what); }

private:
    std::string m_place;
    std::span<const uint8_t> m_bytes;
    SecondOpinion& m_opinion;
    Add m_add;
};

// ---- checksums and the scrambler ----

/// CRC-32 as a GPT has it: reflected, start and end inverted.
uint32_t gpt_checksum(std::span<const uint8_t> bytes) {
    uint32_t crc = 0xFFFFFFFF;
    for (const uint8_t byte : bytes) {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit)
            crc = crc >> 1 ^ ((crc & 1) != 0 ? 0xEDB88320 : 0);
    }
    return ~crc;
}

using Sector = std::array<uint8_t, kSector>;

/// What RC4 with the key of this build scrambles a sector with.
Sector make_key_stream() {
    std::array<uint8_t, 256> state{};
    for (std::size_t i = 0; i < state.size(); ++i)
        state[i] = static_cast<uint8_t>(i);
    uint8_t j = 0;  // index sums are modulo 256
    for (std::size_t i = 0; i < state.size(); ++i) {
        j = static_cast<uint8_t>(j + state[i] + kBuildKey[i % kBuildKey.size()]);
        std::swap(state[i], state[j]);
    }
    Sector stream{};
    uint8_t i = 0;
    j = 0;
    for (uint8_t& byte : stream) {
        i = static_cast<uint8_t>(i + 1);
        j = static_cast<uint8_t>(j + state[i]);
        std::swap(state[i], state[j]);
        byte = state[static_cast<uint8_t>(state[i] + state[j])];
    }
    return stream;
}

void descramble(std::span<uint8_t> sector, std::span<const uint8_t> key_stream) {
    for (std::size_t i = 0; i < sector.size(); ++i)
        sector[i] ^= key_stream[i];
}

// ---- GPT ----

constexpr std::size_t kGptSectors = 34;
constexpr std::size_t kGptEntries = 128;
constexpr std::size_t kGptEntryBytes = 128;
constexpr std::size_t kGptHeaderBytes = 92;
constexpr uint64_t kGptTableSectors = 33;  // header and entries

struct GptFields {
    uint64_t alternate;
    uint64_t first_usable;
    uint64_t last_usable;
};

/// The legacy addresses in the record are not judged: tools that adapt a table to its disk fill them in.
void judge_protective_mbr(const Record& mbr, const GptFields& header) {
    mbr.expect_zeros("boot code", 0, 446);
    mbr.expect<uint8_t>("boot indicator", 446, 0);
    mbr.expect<uint8_t>("partition type", 450, 0xEE);
    mbr.expect<uint32_t>("first sector", 454, 1);
    const auto sectors = mbr.field<uint32_t>(458);
    if (sectors != 0xFFFFFFFF && sectors != header.alternate)
        mbr.complain("number of sectors", sectors, "not 0xffffffff or the alternate_lba of the header");
    mbr.expect_zeros("space of the other partitions", 462, 48);
    mbr.expect<uint16_t>("signature", 510, 0xAA55);
}

/// The size of the disk is not known: the table may have been adapted to it. The fields that depend on it are
/// held against each other.
void judge_gpt_header(const Record& header, std::span<const uint8_t> entries) {
    header.expect<uint32_t>("revision", 8, 0x00010000);
    header.expect<uint32_t>("header_size", 12, kGptHeaderBytes);
    std::array<uint8_t, kGptHeaderBytes> without_checksum{};
    std::ranges::copy(header.bytes(0, kGptHeaderBytes), without_checksum.begin());
    std::fill_n(without_checksum.begin() + 16, sizeof(uint32_t), uint8_t{0});
    header.expect<uint32_t>("header_crc32", 16, gpt_checksum(without_checksum));
    header.expect<uint32_t>("reserved1", 20, 0);
    header.expect<uint64_t>("my_lba", 24, 1);
    header.expect<uint64_t>("first_usable_lba", 40, kGptSectors);
    const auto last_usable = header.field<uint64_t>(48);
    if (last_usable != header.field<uint64_t>(32) - kGptTableSectors)
        header.complain("last_usable_lba", last_usable,
                        "not 33 before the alternate_lba " + hexadecimal(header.field<uint64_t>(32)));
    if (header.field<uint8_t>(56 + 7) >> 4 != 4 || (header.field<uint8_t>(56 + 8) & 0x80) == 0)
        header.say("disk_guid does not have the form of a random GUID");
    header.expect<uint64_t>("partition_entry_lba", 72, 2);
    header.expect<uint32_t>("num_partition_entries", 80, kGptEntries);
    header.expect<uint32_t>("sizeof_partition_entry", 84, kGptEntryBytes);
    header.expect<uint32_t>("partition_entry_array_crc32", 88, gpt_checksum(entries));
    header.expect_zeros("rest of the sector", kGptHeaderBytes, kSector - kGptHeaderBytes);
}

struct SectorRange {
    uint64_t first;
    uint64_t last;
    std::size_t entry;
};

std::string entry_name(std::size_t entry) {
    return "entry " + std::to_string(entry);
}

/// Each against the one before it that reaches furthest.
void judge_overlaps(std::vector<SectorRange> ranges, SecondOpinion& opinion) {
    std::ranges::sort(ranges, {},
                      [](const SectorRange& range) { return std::pair(range.first, range.entry); });
    for (std::size_t i = 1, furthest = 0; i < ranges.size(); ++i) {
        if (ranges[i].first <= ranges[furthest].last)
            add_remark(opinion, "gpt " + entry_name(ranges[i].entry) + ": overlaps " +
                                    entry_name(ranges[furthest].entry) + " from sector " +
                                    hexadecimal(ranges[i].first) + " on");
        if (ranges[i].last > ranges[furthest].last)
            furthest = i;
    }
}

/// False when the sectors are no range.
bool judge_gpt_entry(const Record& entry, const GptFields& header) {
    if (all_zero(entry.bytes(16, 16)))
        entry.say("unique_partition_guid is not set");
    const auto first = entry.field<uint64_t>(32);
    const auto last = entry.field<uint64_t>(40);
    if (first < header.first_usable)
        entry.complain("starting_lba", first, "before first_usable_lba " + hexadecimal(header.first_usable));
    if (last > header.last_usable)
        entry.complain("ending_lba", last, "after last_usable_lba " + hexadecimal(header.last_usable));
    if (last < first)
        entry.complain("ending_lba", last, "before starting_lba " + hexadecimal(first));
    if ((entry.field<uint64_t>(48) & ~uint64_t{4}) != 0)
        entry.complain("attributes", entry.field<uint64_t>(48), "not 0x0 or 0x4");
    return first <= last;
}

/// What is odd in an entry comes from the firmware's partition list: these are remarks.
void judge_gpt_entries(std::span<const uint8_t> entries, const GptFields& header, SecondOpinion& opinion) {
    std::vector<SectorRange> ranges;
    std::map<std::string, std::size_t> guids;
    for (std::size_t i = 0; i < kGptEntries; ++i) {
        const Record entry("gpt " + entry_name(i + 1), entries.subspan(i * kGptEntryBytes, kGptEntryBytes),
                           opinion, add_remark);
        if (all_zero(entry.bytes(0, 16))) {  // not in use
            if (!all_zero(entry.bytes(0, kGptEntryBytes)))
                entry.say("partition_type_guid is not set, but other fields are");
            continue;
        }
        if (judge_gpt_entry(entry, header))
            ranges.push_back({entry.field<uint64_t>(32), entry.field<uint64_t>(40), i + 1});
        const auto guid = entry.bytes(16, 16);
        const auto [at, is_new] = guids.try_emplace(std::string(guid.begin(), guid.end()), i + 1);
        if (!is_new)
            entry.say("unique_partition_guid is that of " + entry_name(at->second));
    }
    judge_overlaps(std::move(ranges), opinion);
}

// ---- boot block ----

constexpr std::size_t kBootHeaderSectors = 4;
constexpr uint32_t kBootTag = 0x0FF0AA55;

/// The stages' sizes are in sectors, and their sum has 16 bits: a smaller sum than its part has wrapped.
void judge_stages(const Record& sector0, uint64_t bytes) {
    const uint32_t data = sector0.field<uint16_t>(506);
    const uint32_t code = sector0.field<uint16_t>(508);
    if (data % 4 != 0)
        sector0.complain("usBootDataSize", data, "not whole units of 4 sectors");
    if (code % 4 != 0)
        sector0.complain("usBootCodeSize", code, "not whole units of 4 sectors");
    const uint64_t sectors = kBootHeaderSectors + (code < data ? code + 0x10000 : code);
    if (sectors > bytes / kSector)
        sector0.say("the stages (usBootDataSize " + hexadecimal(data) + ", usBootCodeSize " +
                    hexadecimal(code) + ") need " + std::to_string(sectors) + " sectors, there are " +
                    std::to_string(bytes / kSector));
}

void judge_boot_sector0(const Record& sector0, uint64_t bytes) {
    sector0.expect_zeros("reserved", 4, 4);
    if (sector0.field<uint32_t>(8) > 1)
        sector0.complain("uiRc4Flag", sector0.field<uint32_t>(8), "not 0x0 or 0x1");
    sector0.expect<uint16_t>("usBootCode1Offset", 12, kBootHeaderSectors);
    sector0.expect<uint16_t>("usBootCode2Offset", 14, kBootHeaderSectors);
    sector0.expect_zeros("reserved1", 16, 490);
    judge_stages(sector0, bytes);
    sector0.expect<uint16_t>("usCrc", 510, 0);
}

void judge_boot_sector1(const Record& sector1) {
    sector1.expect<uint16_t>("usSysReservedBlock", 0, 12);
    sector1.expect<uint16_t>("usDisk0Size", 2, 0xFFFF);
    sector1.expect_zeros("reserved0", 4, 6);
    sector1.expect<uint32_t>("uiChipTag", 10, 0x38325A51);  // "QZ28"
    sector1.expect_zeros("reserved", 14, 498);
}

/// Sectors 2 and 3 hold zeros, so they show the key stream that sector 0 was scrambled with.
bool has_other_key(std::span<const uint8_t> stored) {
    const auto sector0 = stored.first(kSector);
    const auto sector2 = stored.subspan(2 * kSector, kSector);
    const auto sector3 = stored.subspan(3 * kSector, kSector);
    return std::ranges::equal(sector2, sector3) &&
           (little_endian<uint32_t>(sector0.data()) ^ little_endian<uint32_t>(sector2.data())) == kBootTag;
}

// ---- copies ----

constexpr uint64_t kReadAtOnce = 64 * 1024;

struct OtherCopy {
    std::size_t copy;
    bool was_read;
    uint64_t offset;  // of the first difference
};

/// The copies that are not equal to the reference. One that cannot be read is not.
std::vector<OtherCopy> other_copies(const std::vector<ReadPart>& copies, std::size_t reference,
                                    uint64_t bytes) {
    std::vector<OtherCopy> others;
    std::vector<uint8_t> wanted(static_cast<std::size_t>(std::min(bytes, kReadAtOnce)));
    std::vector<uint8_t> found(wanted.size());
    for (std::size_t copy = 0; copy < copies.size(); ++copy) {
        for (uint64_t offset = 0; offset < bytes && copy != reference; offset += wanted.size()) {
            const auto count = static_cast<std::size_t>(std::min<uint64_t>(wanted.size(), bytes - offset));
            const auto end = wanted.begin() + static_cast<std::ptrdiff_t>(count);
            const bool was_read =
                copies[reference](offset, count, wanted.data()) && copies[copy](offset, count, found.data());
            const auto place = std::mismatch(wanted.begin(), end, found.begin()).first;
            if (was_read && place == end)
                continue;
            others.push_back({copy, was_read, offset + static_cast<uint64_t>(place - wanted.begin())});
            break;
        }
    }
    return others;
}

}  // namespace

void add_finding(SecondOpinion& opinion, const std::string& sentence) {
    ++opinion.findings_found;
    if (opinion.findings.size() < kFindingsKept)
        opinion.findings.push_back(sentence);
}

void add_remark(SecondOpinion& opinion, const std::string& sentence) {
    if (opinion.remarks.size() < kFindingsKept)
        opinion.remarks.push_back(sentence);
}

void add_opinion(SecondOpinion& sum, const SecondOpinion& file) {
    sum.units += file.units;
    sum.wrong_units += file.wrong_units;
    sum.wrong_indexes += file.wrong_indexes;
    for (const std::string& finding : file.findings)
        add_finding(sum, finding);
    sum.findings_found += file.findings_found - file.findings.size();
    for (const std::string& remark : file.remarks)
        add_remark(sum, remark);
}

void judge_gpt(const ReadPart& read, SecondOpinion& opinion) {
    std::vector<uint8_t> table(kGptSectors * kSector);
    if (!read(0, table.size(), table.data())) {
        add_finding(opinion, "gpt: its 34 sectors cannot be read");
        return;
    }
    const std::span<const uint8_t> bytes(table);
    const Record header("gpt header", bytes.subspan(kSector, kSector), opinion);
    const GptFields fields{header.field<uint64_t>(32), header.field<uint64_t>(40),
                           header.field<uint64_t>(48)};
    judge_protective_mbr(Record("protective MBR", bytes.first(kSector), opinion), fields);
    if (std::memcmp(header.bytes(0, 8).data(), "EFI PART", 8) != 0) {
        header.say("signature is not \"EFI PART\"");
        return;
    }
    const auto entries = bytes.subspan(2 * kSector);
    judge_gpt_header(header, entries);
    judge_gpt_entries(entries, fields, opinion);
}

void judge_boot_block(const std::string& name, const ReadPart& read, uint64_t bytes, SecondOpinion& opinion) {
    static const Sector key_stream = make_key_stream();
    std::array<uint8_t, kBootHeaderSectors * kSector> header{};
    if (bytes < header.size() || !read(0, header.size(), header.data())) {
        add_finding(opinion, name + ": its 4 header sectors cannot be read");
        return;
    }
    const bool other_key = has_other_key(header);
    const std::span<uint8_t> sectors(header);
    for (const std::size_t scrambled : {0U, 2U, 3U})
        descramble(sectors.subspan(scrambled * kSector, kSector), key_stream);

    const auto record = [&](std::size_t number) {
        return Record(name + ": header sector " + std::to_string(number),
                      sectors.subspan(number * kSector, kSector), opinion);
    };
    const Record sector0 = record(0);
    if (sector0.field<uint32_t>(0) != kBootTag) {
        if (other_key)
            sector0.say("is scrambled with another key than that of this program");
        else
            sector0.expect<uint32_t>("dwTag", 0, kBootTag);
        return;
    }
    judge_boot_sector0(sector0, bytes);
    judge_boot_sector1(record(1));
    for (const std::size_t empty : {2U, 3U})
        record(empty).expect_zeros("the sector", 0, kSector);
}

void judge_copies(const std::string& name, const std::vector<ReadPart>& copies, uint64_t bytes,
                  SecondOpinion& opinion) {
    if (copies.empty())
        return;
    std::size_t reference = 0;
    std::vector<OtherCopy> others = other_copies(copies, reference, bytes);
    // When most copies differ from the first one, that is the bad one.
    if (2 * others.size() > copies.size()) {
        const std::size_t candidate = others.front().copy;
        std::vector<OtherCopy> fewer = other_copies(copies, candidate, bytes);
        if (fewer.size() < others.size()) {
            reference = candidate;
            others = std::move(fewer);
        }
    }
    for (const OtherCopy& other : others) {
        const std::string pair = std::to_string(other.copy + 1) + " and " + std::to_string(reference + 1);
        if (other.was_read)
            add_finding(opinion, name + ": copy " + std::to_string(other.copy + 1) + " differs from copy " +
                                     std::to_string(reference + 1) + " at its byte " +
                                     std::to_string(other.offset));
        else
            add_finding(opinion, name + ": copies " + pair + " cannot be read and compared");
    }
}
