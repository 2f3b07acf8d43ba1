#include "firmware_builder.h"

#include <array>
#include <cstdio>
#include <fstream>
#include <stdexcept>

namespace test_support {

namespace {

constexpr uint64_t kPackageAlignment = 2048;  // the item table is read in units of 2048 bytes

void put_utf16_name(Bytes& bytes, const std::string& name) {
    if (name.size() > boot_entry_field::kNameUnits)
        throw std::invalid_argument("entry name is longer than 20 units: " + name);
    for (std::size_t i = 0; i < boot_entry_field::kNameUnits; ++i)
        put16(bytes, i < name.size() ? static_cast<uint16_t>(static_cast<uint8_t>(name[i])) : uint16_t{0});
}

uint32_t low_half(uint64_t value) {
    return static_cast<uint32_t>(value);
}

uint32_t high_half(uint64_t value) {
    return static_cast<uint32_t>(value >> 32);
}

void put_list_head(Bytes& bytes, const BootEntryList& list, const BootListLayout& where) {
    put8(bytes, list.count.value_or(static_cast<uint8_t>(list.entries.size())));
    put32(bytes, list.table_offset.value_or(static_cast<uint32_t>(where.table)));
    put8(bytes, list.record_size);
}

Bytes entry_record(const BootEntry& entry, uint32_t kind, uint8_t record_size, std::size_t data_offset) {
    Bytes record;
    put8(record, record_size);
    put32(record, entry.type.value_or(kind));
    put_utf16_name(record, entry.name);
    put32(record, entry.data_offset.value_or(static_cast<uint32_t>(data_offset)));
    put32(record, entry.data_size.value_or(static_cast<uint32_t>(entry.data.size())));
    put32(record, entry.delay);
    return record;
}

void put_list(Bytes& bytes, const BootEntryList& list, const BootListLayout& where, uint32_t kind) {
    for (std::size_t i = 0; i < list.entries.size(); ++i) {
        const BootEntry& entry = list.entries[i];
        put_bytes_at(bytes, where.records[i], entry_record(entry, kind, list.record_size, where.data[i]));
        put_bytes_at(bytes, where.data[i], entry.data);
    }
}

std::string hexadecimal(uint32_t value) {
    std::array<char, 16> digits{};
    std::snprintf(digits.data(), digits.size(), "0x%08x", value);
    return digits.data();
}

Bytes item_record(const Item& item, uint64_t offset) {
    const uint64_t size = item.recorded_size();
    Bytes record;
    put_text(record, item.name, item_field::kNameBytes);
    put_text(record, item.file, item_field::kFileBytes);
    put32(record, item.part_size);
    put32(record, low_half(offset));
    put32(record, item.flash_offset);
    put32(record, item.use_space);
    put32(record, low_half(size));
    if (item.force_large_marks || high_half(offset) != 0) {
        put8_at(record, item_field::kOffsetMark, 'H');
        put32_at(record, item_field::kOffsetHigh, high_half(offset));
    }
    if (item.force_large_marks || high_half(size) != 0) {
        put8_at(record, item_field::kSizeMark, 'H');
        put32_at(record, item_field::kSizeHigh, high_half(size));
    }
    return record;
}

// Bytes of the file that the item takes, from the start of its data.
uint64_t item_extent(const Item& item) {
    uint64_t extent = item.data.size();
    if (item.reserve_size)
        extent = std::max(extent, item.recorded_size());
    for (const Island& island : item.islands)
        extent = std::max<uint64_t>(extent, island.at + island.bytes.size());
    return extent;
}

}  // namespace

void ReleaseTime::append_to(Bytes& bytes) const {
    put16(bytes, year);
    put_bytes(bytes, {month, day, hour, minute, second});
}

BootLayout BootContainer::layout() const {
    BootLayout where;
    const std::pair<const BootEntryList*, BootListLayout*> lists[] = {
        {&entries_471, &where.entries_471}, {&entries_472, &where.entries_472}, {&loader, &where.loader}};
    std::size_t cursor = boot_field::kHeadBytes;
    for (const auto& [list, table] : lists) {
        table->table = cursor;
        for (std::size_t i = 0; i < list->entries.size(); ++i)
            table->records.push_back(cursor + i * list->record_size);
        if (!list->entries.empty())
            cursor = std::max(cursor + list->entries.size() * list->record_size,
                              table->records.back() + boot_entry_field::kRecordBytes);
    }
    for (const auto& [list, table] : lists) {
        for (const BootEntry& entry : list->entries) {
            table->data.push_back(cursor);
            cursor += entry.data.size();
        }
    }
    where.crc = cursor;
    where.size = cursor + sizeof(uint32_t);
    return where;
}

Bytes BootContainer::build() const {
    const BootLayout where = layout();
    Bytes bytes;
    put_text(bytes, tag, 4);
    put16(bytes, head_size);
    put32(bytes, version);
    put32(bytes, merge_version);
    release_time.append_to(bytes);
    put32(bytes, chip);
    put_list_head(bytes, entries_471, where.entries_471);
    put_list_head(bytes, entries_472, where.entries_472);
    put_list_head(bytes, loader, where.loader);
    put8(bytes, sign_flag);
    put8(bytes, rc4_flag);
    put_bytes(bytes, zero_padded(reserved, boot_field::kReservedBytes));
    bytes.resize(where.size, 0);

    put_list(bytes, entries_471, where.entries_471, 1);
    put_list(bytes, entries_472, where.entries_472, 2);
    put_list(bytes, loader, where.loader, 4);
    repair_boot_crc(bytes);
    if (crc)
        put32_at(bytes, where.crc, *crc);
    return bytes;
}

void repair_boot_crc(Bytes& container) {
    const std::size_t covered = container.size() - sizeof(uint32_t);
    put32_at(container, covered, crc32_boot(container.data(), covered));
}

Item& Firmware::item(const std::string& name) {
    for (Item& candidate : items)
        if (candidate.name == name)
            return candidate;
    throw std::out_of_range("no item named " + name);
}

FirmwareLayout Firmware::layout() const {
    FirmwareLayout where;
    where.boot_offset = boot_offset.value_or(head_field::kHeadBytes);
    where.boot_size = boot_bytes ? boot_bytes->size() : boot.layout().size;
    where.package_offset =
        package_offset.value_or(round_up(where.boot_offset + where.boot_size, kPackageAlignment));

    const uint64_t table_end = package_field::kItems + items.size() * item_field::kRecordBytes;
    uint64_t cursor = round_up(std::max<uint64_t>(table_end, package_field::kHeaderBytes), kPackageAlignment);
    uint64_t package_end = cursor;
    for (std::size_t i = 0; i < items.size(); ++i) {
        where.item_records.push_back(where.package_offset + package_field::kItems +
                                     i * item_field::kRecordBytes);
        const uint64_t offset = items[i].offset.value_or(cursor);
        where.item_data.push_back(where.package_offset + offset);
        cursor = round_up(offset + item_extent(items[i]), item_alignment);
        package_end = std::max(package_end, cursor);
    }
    where.package_size = package_end;
    where.trailer_offset = where.package_offset + package_end;
    where.file_size = where.trailer_offset + md5.size() + signature.size();
    return where;
}

Bytes Firmware::head_bytes(const FirmwareLayout& where) const {
    const uint64_t recorded_package_size = package_size.value_or(where.package_size);
    Bytes bytes;
    put_text(bytes, tag, 4);
    put16(bytes, head_size);
    put32(bytes, version);
    put32(bytes, merge_version);
    release_time.append_to(bytes);
    put32(bytes, chip);
    put32(bytes, static_cast<uint32_t>(where.boot_offset));
    put32(bytes, boot_size.value_or(static_cast<uint32_t>(where.boot_size)));
    put32(bytes, static_cast<uint32_t>(where.package_offset));
    put32(bytes, low_half(recorded_package_size));
    put_bytes(bytes, zero_padded(reserved, head_field::kReservedBytes));
    put32_at(bytes, head_field::kOsType, os_type);
    put16_at(bytes, head_field::kBackupSize, backup_size);
    if (force_large_package_mark || high_half(recorded_package_size) != 0) {
        put_text_at(bytes, head_field::kLargeMark, "HI", 2);
        put32_at(bytes, head_field::kPackageSizeHigh, high_half(recorded_package_size));
    }
    return bytes;
}

Bytes Firmware::package_header_bytes(const FirmwareLayout& where) const {
    const int32_t real_count = static_cast<int32_t>(items.size());
    const int32_t fixed_count = real_count - static_cast<int32_t>(item_count_extension.value_or(0));
    Bytes bytes;
    put_text(bytes, package_tag, 4);
    put32(bytes, low_half(where.package_size));
    put_text(bytes, machine_model, 34);
    put_text(bytes, machine_info, 30);
    put_text(bytes, manufacturer, 60);
    put32(bytes, package_version);
    put32(bytes, static_cast<uint32_t>(item_count.value_or(fixed_count)));
    if (item_count_extension) {
        put_text_at(bytes, package_field::kCountExtensionMark, "Uf", 2);
        put16_at(bytes, package_field::kCountExtension, *item_count_extension);
    }
    for (std::size_t i = 0; i < items.size(); ++i)
        put_bytes(bytes, item_record(items[i], where.item_data[i] - where.package_offset));
    bytes.resize(std::max(bytes.size(), package_field::kHeaderBytes), 0);
    return bytes;
}

void Firmware::for_each_piece(const FirmwareLayout& where, const PieceSink& sink) const {
    sink(where.boot_offset, boot_container_bytes());
    sink(where.package_offset, package_header_bytes(where));
    for (std::size_t i = 0; i < items.size(); ++i) {
        sink(where.item_data[i], items[i].data);
        for (const Island& island : items[i].islands)
            sink(where.item_data[i] + island.at, island.bytes);
    }
    sink(where.trailer_offset, md5);
    sink(where.trailer_offset + md5.size(), signature);
    sink(0, head_bytes(where));
}

Bytes Firmware::build() const {
    const FirmwareLayout where = layout();
    Bytes image(where.file_size, 0);
    for_each_piece(where, [&](uint64_t offset, const Bytes& bytes) { put_bytes_at(image, offset, bytes); });
    return image;
}

void Firmware::write(const std::filesystem::path& path) const {
    const FirmwareLayout where = layout();
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    for_each_piece(where, [&file](uint64_t offset, const Bytes& bytes) {
        file.seekp(static_cast<std::streamoff>(offset));
        file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    });
    file.close();
    if (!file)
        throw std::runtime_error("cannot write " + path.string());
    std::filesystem::resize_file(path, where.file_size);
}

std::string parameter_text(const std::vector<Partition>& partitions, bool gpt,
                           const std::vector<PartitionUuid>& uuids) {
    std::string text = "FIRMWARE_VER: 1.0\n";
    if (gpt)
        text += "TYPE: GPT\n";
    text += "CMDLINE: mtdparts=flash0:";
    for (std::size_t i = 0; i < partitions.size(); ++i) {
        const Partition& partition = partitions[i];
        text += i == 0 ? "" : ",";
        text += partition.size ? hexadecimal(*partition.size) : "-";
        text += "@" + hexadecimal(partition.offset) + "(" + partition.name + ")";
    }
    text += "\n";
    for (const PartitionUuid& uuid : uuids)
        text += "uuid:" + uuid.name + "=" + uuid.uuid + "\n";
    return text;
}

Bytes parameter_record(const std::string& text) {
    Bytes record = to_bytes("PARM");
    put32(record, static_cast<uint32_t>(text.size()));
    put_bytes(record, to_bytes(text));
    put32(record, crc32_boot(to_bytes(text)));
    return record;
}

Item parameter_item(const std::string& text, uint32_t part_size) {
    return {
        .name = "parameter", .file = "parameter.txt", .part_size = part_size, .data = parameter_record(text)};
}

Item partition_item(const std::string& name, uint32_t flash_offset, uint32_t part_size, Bytes data) {
    return {.name = name,
            .file = name + ".img",
            .part_size = part_size,
            .flash_offset = flash_offset,
            .data = std::move(data)};
}

Firmware sample_firmware(const SampleOptions& options) {
    Firmware firmware;
    firmware.boot.rc4_flag = options.scramble_stages ? 1 : 0;
    firmware.boot.entries_471.entries = {{.name = "MemoryInit", .data = patterned(700, 471), .delay = 1}};
    firmware.boot.entries_472.entries = {{.name = "UsbLoader", .data = patterned(900, 472), .delay = 2}};
    firmware.boot.loader.entries = {{.name = "FlashData", .data = patterned(3000, 1)},
                                    {.name = "FlashBoot", .data = patterned(2048, 2)}};

    // Without a GPT the offsets count from 4 MiB into the device and the parameter partition comes first;
    // with one they are absolute, and the partitions stay clear of the boot block copies.
    const uint32_t first = options.gpt ? 0x2000 : 0x100;
    const std::string text = parameter_text(
        {{"boot", first, 0x80}, {"misc", first + 0x80, 0x40}, {"rootfs:grow", first + 0xC0, std::nullopt}},
        options.gpt, {{"rootfs", kSampleUuid}});
    firmware.items = {parameter_item(text, 0x100), partition_item("boot", first, 0x80, patterned(5000, 3)),
                      partition_item("misc", first + 0x80, 0x40, patterned(1024, 4)),
                      partition_item("rootfs", first + 0xC0, kGrowsToEnd, patterned(20001, 5))};
    return firmware;
}

}  // namespace test_support
