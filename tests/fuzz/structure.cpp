#include "structure.h"

#include "support/firmware_builder.h"
#include "support/sparse_builder.h"

#include <algorithm>

namespace robustness {

using namespace test_support;

namespace {

// More of them are not looked at: a bent count must not cost time here.
constexpr std::size_t kMostItems = 64;
constexpr std::size_t kMostChunks = 256;
constexpr std::size_t kCrcBytes = 4;

bool lies_inside(const Bytes& bytes, std::size_t offset, std::size_t size) {
    return offset <= bytes.size() && size <= bytes.size() - offset;
}

// The part of [offset, offset + size) that is there.
Span clipped(const Bytes& bytes, std::size_t offset, std::size_t size) {
    offset = std::min(offset, bytes.size());
    return {offset, std::min(size, bytes.size() - offset)};
}

void find_container(const Bytes& bytes, const Span& span, Structure& structure) {
    if (span.size < boot_field::kHeadBytes + kCrcBytes)
        return;
    structure.container = span;
    const auto count = [&](std::size_t field) { return std::size_t{bytes[span.offset + field]}; };
    const std::size_t records =
        count(boot_field::kCount471) + count(boot_field::kCount472) + count(boot_field::kCountLoader);
    const std::size_t tables_end = boot_field::kHeadBytes + records * boot_entry_field::kRecordBytes;
    structure.container_tables_end = span.offset + std::min(tables_end, span.size - kCrcBytes);
}

void find_chunks(const Bytes& bytes, const Span& image, Structure& structure) {
    const std::size_t end = image.offset + image.size;
    std::size_t at = image.offset + sparse_field::kHeaderBytes;
    while (at <= end && end - at >= sparse_field::kChunkHeaderBytes &&
           structure.chunks.size() < kMostChunks) {
        structure.chunks.push_back(at);
        const uint32_t total = get32(bytes, at + sparse_field::kChunkTotalSize);
        at += std::max<std::size_t>(total, sparse_field::kChunkHeaderBytes);
    }
}

void find_sparse(const Bytes& bytes, const Span& span, Structure& structure) {
    if (structure.sparse || span.size < sparse_field::kHeaderBytes ||
        get32(bytes, span.offset) != kSparseMagic)
        return;
    structure.sparse = span.offset;
    find_chunks(bytes, span, structure);
}

void find_items(const Bytes& bytes, Structure& structure) {
    const std::size_t package = *structure.package;
    const std::size_t count =
        std::min<std::size_t>(get32(bytes, package + package_field::kItemCount), kMostItems);
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t record = package + package_field::kItems + i * item_field::kRecordBytes;
        if (!lies_inside(bytes, record, item_field::kRecordBytes))
            return;
        const Span data = clipped(bytes, package + get32(bytes, record + item_field::kOffset),
                                  get32(bytes, record + item_field::kSize));
        structure.items.push_back(record);
        structure.item_data.push_back(data);
        if (to_text(slice(bytes, record, 10)) == std::string("parameter\0", 10) && data.size >= 8)
            structure.parameter = data;
        find_sparse(bytes, data, structure);
    }
}

void add_container_fields(std::vector<Field>& fields, const Structure& structure) {
    const std::size_t container = structure.container->offset;
    const auto add = [&](const std::string& name, std::size_t position, unsigned width) {
        fields.push_back({"container " + name, position, width});
    };
    add("head_size", container + boot_field::kHeadSize, 2);
    add("count_471", container + boot_field::kCount471, 1);
    add("offset_471", container + boot_field::kOffset471, 4);
    add("size_471", container + boot_field::kSize471, 1);
    add("count_472", container + boot_field::kCount472, 1);
    add("offset_472", container + boot_field::kOffset472, 4);
    add("size_472", container + boot_field::kSize472, 1);
    add("count_loader", container + boot_field::kCountLoader, 1);
    add("offset_loader", container + boot_field::kOffsetLoader, 4);
    add("size_loader", container + boot_field::kSizeLoader, 1);
    for (std::size_t record = container + boot_field::kHeadBytes;
         record + boot_entry_field::kRecordBytes <= structure.container_tables_end;
         record += boot_entry_field::kRecordBytes) {
        const std::string entry = "entry at " + std::to_string(record - container) + " ";
        add(entry + "record_size", record + boot_entry_field::kRecordSize, 1);
        add(entry + "data_offset", record + boot_entry_field::kDataOffset, 4);
        add(entry + "data_size", record + boot_entry_field::kDataSize, 4);
    }
}

void add_head_fields(std::vector<Field>& fields) {
    fields.push_back({"head_size", head_field::kHeadSize, 2});
    fields.push_back({"boot_offset", head_field::kBootOffset, 4});
    fields.push_back({"boot_size", head_field::kBootSize, 4});
    fields.push_back({"package_offset", head_field::kPackageOffset, 4});
    fields.push_back({"package_size", head_field::kPackageSize, 4});
    fields.push_back({"backup_size", head_field::kBackupSize, 2});
    fields.push_back({"package_size_high", head_field::kPackageSizeHigh, 4, head_field::kLargeMark, "HI"});
}

void add_package_fields(std::vector<Field>& fields, std::size_t package) {
    fields.push_back({"package size", package + package_field::kSize, 4});
    fields.push_back({"item_count", package + package_field::kItemCount, 4});
    fields.push_back({"count_extension", package + package_field::kCountExtension, 2,
                      package + package_field::kCountExtensionMark, "Uf"});
}

void append(std::vector<Field>& fields, const std::vector<Field>& more) {
    fields.insert(fields.end(), more.begin(), more.end());
}

}  // namespace

Structure container_structure(const Bytes& bytes) {
    Structure structure;
    find_container(bytes, {0, bytes.size()}, structure);
    return structure;
}

Structure sparse_structure(const Bytes& bytes) {
    Structure structure;
    find_sparse(bytes, {0, bytes.size()}, structure);
    return structure;
}

Structure image_structure(const Bytes& bytes) {
    Structure structure;
    structure.head = lies_inside(bytes, 0, head_field::kHeadBytes);
    if (!structure.head)
        return structure;
    find_container(bytes,
                   clipped(bytes, get32(bytes, head_field::kBootOffset), get32(bytes, head_field::kBootSize)),
                   structure);
    const std::size_t package = get32(bytes, head_field::kPackageOffset);
    if (!lies_inside(bytes, package, package_field::kItems))
        return structure;
    structure.package = package;
    find_items(bytes, structure);
    return structure;
}

void repair_checksum(Bytes& bytes, const Structure& structure) {
    if (!structure.container || !lies_inside(bytes, structure.container->offset, structure.container->size))
        return;
    Bytes container = slice(bytes, structure.container->offset, structure.container->size);
    repair_boot_crc(container);
    put_bytes_at(bytes, structure.container->offset, container);
}

std::vector<Field> sparse_fields(const Structure& structure) {
    std::vector<Field> fields;
    if (!structure.sparse)
        return fields;
    const auto add = [&](const std::string& name, std::size_t position, unsigned width) {
        fields.push_back({"sparse " + name, position, width});
    };
    add("file_header_size", *structure.sparse + sparse_field::kFileHeaderSize, 2);
    add("chunk_header_size", *structure.sparse + sparse_field::kChunkHeaderSize, 2);
    add("block_size", *structure.sparse + sparse_field::kBlockSize, 4);
    add("total_blocks", *structure.sparse + sparse_field::kTotalBlocks, 4);
    add("total_chunks", *structure.sparse + sparse_field::kTotalChunks, 4);
    for (const std::size_t chunk : structure.chunks) {
        add("chunk blocks", chunk + sparse_field::kChunkBlocks, 4);
        add("chunk total_size", chunk + sparse_field::kChunkTotalSize, 4);
    }
    return fields;
}

std::vector<Field> item_fields(const std::string& item, std::size_t record) {
    return {
        {item + " part_size", record + item_field::kPartSize, 4},
        {item + " offset", record + item_field::kOffset, 4},
        {item + " flash_offset", record + item_field::kFlashOffset, 4},
        {item + " use_space", record + item_field::kUseSpace, 4},
        {item + " size", record + item_field::kSize, 4},
        {item + " offset_high", record + item_field::kOffsetHigh, 4, record + item_field::kOffsetMark, "H"},
        {item + " size_high", record + item_field::kSizeHigh, 4, record + item_field::kSizeMark, "H"},
    };
}

std::vector<Field> number_fields(const Structure& structure) {
    std::vector<Field> fields;
    if (structure.container)
        add_container_fields(fields, structure);
    if (structure.head)
        add_head_fields(fields);
    if (structure.package)
        add_package_fields(fields, *structure.package);
    for (std::size_t i = 0; i < structure.items.size(); ++i)
        append(fields, item_fields("item " + std::to_string(i), structure.items[i]));
    if (structure.parameter)
        fields.push_back({"parameter length", structure.parameter->offset + 4, 4});
    append(fields, sparse_fields(structure));
    return fields;
}

uint64_t field_value(const Bytes& bytes, const Field& field) {
    uint64_t value = 0;
    for (unsigned i = 0; i < field.width; ++i)
        value |= uint64_t{bytes.at(field.position + i)} << (8 * i);
    return value;
}

void bend_field(Bytes& bytes, const Field& field, uint64_t value) {
    for (unsigned i = 0; i < field.width; ++i)
        bytes.at(field.position + i) = static_cast<uint8_t>(value >> (8 * i));
    if (field.mark_position != 0)
        put_bytes_at(bytes, field.mark_position, to_bytes(field.mark));
}

}  // namespace robustness
