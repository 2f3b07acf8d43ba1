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

// Adds the fields, whose positions count from the base.
void add(std::vector<Field>& fields, const std::string& what, std::size_t base,
         const std::vector<Field>& relative) {
    for (Field field : relative) {
        field.name = what + " " + field.name;
        field.position += base;
        if (field.mark_position)
            *field.mark_position += base;
        fields.push_back(field);
    }
}

void add_container_fields(std::vector<Field>& fields, const Structure& structure) {
    const std::size_t container = structure.container->offset;
    add(fields, "container", container,
        {{"head_size", boot_field::kHeadSize, 2},
         {"count_471", boot_field::kCount471, 1},
         {"offset_471", boot_field::kOffset471, 4},
         {"size_471", boot_field::kSize471, 1},
         {"count_472", boot_field::kCount472, 1},
         {"offset_472", boot_field::kOffset472, 4},
         {"size_472", boot_field::kSize472, 1},
         {"count_loader", boot_field::kCountLoader, 1},
         {"offset_loader", boot_field::kOffsetLoader, 4},
         {"size_loader", boot_field::kSizeLoader, 1}});
    for (std::size_t record = container + boot_field::kHeadBytes;
         record + boot_entry_field::kRecordBytes <= structure.container_tables_end;
         record += boot_entry_field::kRecordBytes)
        add(fields, "container entry at " + std::to_string(record - container), record,
            {{"record_size", boot_entry_field::kRecordSize, 1},
             {"data_offset", boot_entry_field::kDataOffset, 4},
             {"data_size", boot_entry_field::kDataSize, 4}});
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
    add(fields, "sparse", *structure.sparse,
        {{"file_header_size", sparse_field::kFileHeaderSize, 2},
         {"chunk_header_size", sparse_field::kChunkHeaderSize, 2},
         {"block_size", sparse_field::kBlockSize, 4},
         {"total_blocks", sparse_field::kTotalBlocks, 4},
         {"total_chunks", sparse_field::kTotalChunks, 4}});
    for (const std::size_t chunk : structure.chunks)
        add(fields, "sparse chunk", chunk,
            {{"blocks", sparse_field::kChunkBlocks, 4}, {"total_size", sparse_field::kChunkTotalSize, 4}});
    return fields;
}

std::vector<Field> item_fields(const std::string& item, std::size_t record) {
    std::vector<Field> fields;
    add(fields, item, record,
        {{"part_size", item_field::kPartSize, 4},
         {"offset", item_field::kOffset, 4},
         {"flash_offset", item_field::kFlashOffset, 4},
         {"use_space", item_field::kUseSpace, 4},
         {"size", item_field::kSize, 4},
         {"offset_high", item_field::kOffsetHigh, 4, item_field::kOffsetMark, "H"},
         {"size_high", item_field::kSizeHigh, 4, item_field::kSizeMark, "H"}});
    return fields;
}

std::vector<Field> number_fields(const Structure& structure) {
    std::vector<Field> fields;
    const auto append = [&fields](const std::vector<Field>& more) {
        fields.insert(fields.end(), more.begin(), more.end());
    };
    if (structure.container)
        add_container_fields(fields, structure);
    if (structure.head)
        add(fields, "head", 0,
            {{"head_size", head_field::kHeadSize, 2},
             {"boot_offset", head_field::kBootOffset, 4},
             {"boot_size", head_field::kBootSize, 4},
             {"package_offset", head_field::kPackageOffset, 4},
             {"package_size", head_field::kPackageSize, 4},
             {"backup_size", head_field::kBackupSize, 2},
             {"package_size_high", head_field::kPackageSizeHigh, 4, head_field::kLargeMark, "HI"}});
    if (structure.package)
        add(fields, "package", *structure.package,
            {{"size", package_field::kSize, 4},
             {"item_count", package_field::kItemCount, 4},
             {"count_extension", package_field::kCountExtension, 2, package_field::kCountExtensionMark,
              "Uf"}});
    for (std::size_t i = 0; i < structure.items.size(); ++i)
        append(item_fields("item " + std::to_string(i), structure.items[i]));
    if (structure.parameter)
        fields.push_back({"parameter length", structure.parameter->offset + 4, 4});
    append(sparse_fields(structure));
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
    if (field.mark_position)
        put_bytes_at(bytes, *field.mark_position, to_bytes(field.mark));
}

}  // namespace robustness
