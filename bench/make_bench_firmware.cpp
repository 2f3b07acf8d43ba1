// Writes the large firmware images that bench/compare converts. Their data is made piece by piece, so that an
// image of any size takes the memory of one piece. Two runs with the same options give the same bytes.

#include "support/firmware_builder.h"
#include "support/sparse_builder.h"

#include <charconv>
#include <cstring>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace fs = std::filesystem;
using namespace test_support;

namespace {

constexpr uint64_t kMib = uint64_t{1} << 20;
constexpr std::size_t kPieceBytes = kMib;
constexpr uint32_t kSparseBlock = 4096;

// Behind both boot block copies and the GPT.
constexpr uint32_t kFirstPartition = 0x4000;  // sectors

struct Arguments {
    fs::path out{};
    fs::path payload{};  // the large item's data as a file of its own; empty: none
    std::string kind{};
    uint64_t size_mib = 0;
};

struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

Arguments parse_arguments(const std::vector<std::string>& words) {
    Arguments arguments;
    for (std::size_t i = 0; i + 1 < words.size(); i += 2) {
        const std::string& value = words[i + 1];
        if (words[i] == "--out")
            arguments.out = value;
        else if (words[i] == "--payload")
            arguments.payload = value;
        else if (words[i] == "--kind")
            arguments.kind = value;
        else if (words[i] == "--mib")
            std::from_chars(value.data(), value.data() + value.size(), arguments.size_mib);
    }
    const bool known = arguments.kind == "dense" || arguments.kind == "gaps" || arguments.kind == "sparse";
    // A multiple of 8 for the eighths below; a partition's sectors have 32 bits.
    const bool fits = arguments.size_mib >= 8 && arguments.size_mib <= 1024 * 1024;
    if (arguments.out.empty() || !known || !fits || arguments.size_mib % 8 != 0 || words.size() % 2 != 0) {
        throw UsageError("usage: make_bench_firmware --kind dense|gaps|sparse --mib N --out FILE "
                         "[--payload FILE]\nN: a multiple of 8, up to 1048576");
    }
    return arguments;
}

// Bytes without a zero word, fast enough for gigabytes (xorshift64*).
class DenseBytes {
public:
    const Bytes& next_piece() {
        for (std::size_t i = 0; i < m_piece.size(); i += sizeof(uint64_t)) {
            m_state ^= m_state >> 12;
            m_state ^= m_state << 25;
            m_state ^= m_state >> 27;
            const uint64_t word = m_state * 0x2545F4914F6CDD1DU;
            std::memcpy(m_piece.data() + i, &word, sizeof(word));
        }
        return m_piece;
    }

private:
    uint64_t m_state = 0x9E3779B97F4A7C15U;
    Bytes m_piece = Bytes(kPieceBytes);
};

// What fills one item, written at the place that the builder has left for it.
class Payload {
public:
    virtual ~Payload() = default;
    virtual uint64_t size() const = 0;
    virtual void write(std::ostream& out) const = 0;
};

void put(std::ostream& out, const Bytes& bytes) {
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

enum class Zeros { none, every_second_piece };

// Pieces of data, or of data and zeros in turn. The zeros are in the firmware as bytes.
class PlainPayload : public Payload {
public:
    PlainPayload(uint64_t pieces, Zeros zeros) : m_pieces(pieces), m_zeros(zeros) {}
    uint64_t size() const override { return m_pieces * kPieceBytes; }
    void write(std::ostream& out) const override {
        DenseBytes dense;
        const Bytes zeros(kPieceBytes, 0);
        for (uint64_t i = 0; i < m_pieces; ++i)
            put(out, m_zeros == Zeros::every_second_piece && i % 2 == 1 ? zeros : dense.next_piece());
    }

private:
    uint64_t m_pieces;
    Zeros m_zeros;
};

// A sparse image that expands to the given pieces: raw and don't-care chunks of one piece in turn.
class SparsePayload : public Payload {
public:
    explicit SparsePayload(uint64_t pieces) : m_pieces(pieces) {}
    uint64_t size() const override {
        return sparse_field::kHeaderBytes + m_pieces * sparse_field::kChunkHeaderBytes +
               m_pieces / 2 * kPieceBytes;
    }
    void write(std::ostream& out) const override {
        constexpr uint32_t blocks = kPieceBytes / kSparseBlock;
        SparseImage header;
        header.block_size = kSparseBlock;
        header.total_blocks = static_cast<uint32_t>(m_pieces * blocks);
        header.total_chunks = static_cast<uint32_t>(m_pieces);
        put(out, header.build());
        DenseBytes dense;
        for (uint64_t i = 0; i < m_pieces; ++i) {
            put(out, chunk(i % 2 == 0 ? SparseChunk::raw(dense.next_piece(), kSparseBlock)
                                      : SparseChunk::dont_care(blocks)));
        }
    }

private:
    // The chunk alone, header and data, out of an image that holds nothing else.
    static Bytes chunk(SparseChunk chunk) {
        SparseImage image;
        image.chunks.push_back(std::move(chunk));
        const Bytes bytes = image.build();
        return slice(bytes, sparse_field::kHeaderBytes, bytes.size() - sparse_field::kHeaderBytes);
    }

    uint64_t m_pieces;
};

struct Placed {
    std::string name{};
    uint32_t offset = 0;  // sectors
    uint64_t part_bytes = 0;
    const Payload* payload = nullptr;
};

uint32_t in_sectors(uint64_t bytes) {
    return static_cast<uint32_t>(bytes / kSectorSize);
}

void write_firmware(const fs::path& path, const std::vector<Placed>& parts) {
    Firmware firmware = sample_firmware({.gpt = true});
    std::vector<Partition> partitions;
    for (const Placed& part : parts)
        partitions.push_back({part.name, part.offset, in_sectors(part.part_bytes)});
    firmware.items = {{.name = "parameter",
                       .file = "parameter.txt",
                       .part_size = kFirstPartition,
                       .data = parameter_record(parameter_text(partitions, true))}};
    for (const Placed& part : parts) {
        firmware.items.push_back({.name = part.name,
                                  .file = part.name + ".img",
                                  .part_size = in_sectors(part.part_bytes),
                                  .flash_offset = part.offset,
                                  .size = part.payload->size(),
                                  .reserve_size = true});
    }
    firmware.write(path);

    const FirmwareLayout where = firmware.layout();
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    for (std::size_t i = 0; i < parts.size(); ++i) {
        file.seekp(static_cast<std::streamoff>(where.item_data[i + 1]));  // after the parameter item
        parts[i].payload->write(file);
    }
    file.close();
    if (!file)
        throw std::runtime_error("cannot write " + path.string());
}

void write_payload(const fs::path& path, const Payload& payload) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    payload.write(file);
    file.close();
    if (!file)
        throw std::runtime_error("cannot write " + path.string());
}

void make_with_one_partition(const Arguments& arguments, const Payload& payload) {
    write_firmware(arguments.out, {{"rootfs", kFirstPartition, arguments.size_mib * kMib, &payload}});
    if (!arguments.payload.empty())
        write_payload(arguments.payload, payload);
}

// Quarters of the image: data and zeros in turn; nobody's; data and zeros in turn; the empty end of that
// partition. So one quarter of all is data, one quarter zero pages, and one half gaps.
void make_with_gaps(const Arguments& arguments) {
    const uint64_t quarter = arguments.size_mib / 4;
    const PlainPayload payload(quarter, Zeros::every_second_piece);
    const uint32_t second = kFirstPartition + in_sectors(2 * quarter * kMib);
    write_firmware(arguments.out, {{"system", kFirstPartition, quarter * kMib, &payload},
                                   {"data", second, 2 * quarter * kMib, &payload}});
}

void make(const Arguments& arguments) {
    if (arguments.kind == "gaps")
        make_with_gaps(arguments);
    else if (arguments.kind == "dense")
        make_with_one_partition(arguments, PlainPayload(arguments.size_mib, Zeros::none));
    else
        make_with_one_partition(arguments, SparsePayload(arguments.size_mib));
}

}  // namespace

int main(int argc, char** argv) {
    try {
        make(parse_arguments(std::vector<std::string>(argv + 1, argv + argc)));
    } catch (const UsageError& error) {
        std::cerr << error.what() << '\n';
        return 2;
    } catch (const std::exception& error) {
        std::cerr << "make_bench_firmware: " << error.what() << '\n';
        return 1;
    }
    return 0;
}
