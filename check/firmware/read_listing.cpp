#include "read_listing.h"

#include "../../src/common/byte_reader.h"
#include "../../src/firmware/item_table.h"
#include "../../src/storage/sparse_format.h"
#include "firmware_file.h"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <set>

namespace {

constexpr int kContainerCodes = -1000;  // codes from here on downwards are about the boot container

const std::string kParameterName = "parameter";

std::string quoted(const std::string& text) {
    return "'" + text + "'";
}

/// What a code of CQZImage::ObjectInit says; nothing for success.
std::optional<std::string> loading_error(int code) {
    switch (code) {
    case CQZImage::kLoaded:
        return std::nullopt;
    case CQZImage::kNotOpened:
        return "the firmware cannot be opened";
    case CQZImage::kWrongTag:
        return "this is not a firmware: it does not begin with QZFW";
    case CQZBoot::kNoData * 1000 - 6:
        return "the boot container is empty";
    case CQZBoot::kWrongCrc * 1000 - 6:
        return "the boot container is damaged: its checksum is wrong";
    case CQZBoot::kUnknownTag * 1000 - 6:
        return "the boot container does not begin with BOOT or LDR";
    case CQZBoot::kUnknownVersion * 1000 - 6:
        return "the boot container has an unknown version";
    default:
        return "the firmware cannot be read";
    }
}

std::string version_text(uint32_t version) {
    return std::to_string(version >> 24) + "." + std::to_string(version >> 16 & 0xFF) + "." +
           std::to_string(version & 0xFFFF);
}

std::string date_text(const STRUCT_QZTIME& time) {
    char text[40];
    std::snprintf(text, sizeof(text), "%04d-%02d-%02d %02d:%02d:%02d", time.usYear, time.ucMonth, time.ucDay,
                  time.ucHour, time.ucMinute, time.ucSecond);
    return text;
}

// ---- items ----

/// The item that the conversion takes for the parameter: the last one of that name with a place.
std::optional<std::size_t> parameter_index(const std::vector<STRUCT_QZIMAGE_ITEM>& items) {
    for (std::size_t i = items.size(); i-- > 0;)
        if (items[i].flash_offset != kNotOnStorage && item_name(items[i]) == kParameterName)
            return i;
    return std::nullopt;
}

/// The first bytes of the item's data, as the header of a sparse image.
std::optional<sparse_header_t> first_bytes(CQZImage& image, const STRUCT_QZIMAGE_ITEM& item) {
    sparse_header_t header;
    if (!read_item_data(image, item, 0, sizeof(header), reinterpret_cast<uint8_t*>(&header)))
        return std::nullopt;
    return header;
}

/// The header of a sparse image, if the item's data begins with one.
std::optional<sparse_header_t> sparse_header(CQZImage& image, const STRUCT_QZIMAGE_ITEM& item) {
    const std::optional<sparse_header_t> header = first_bytes(image, item);
    return header && header->magic == kSparseMagic ? header : std::nullopt;
}

/// True when the item's data ends before the file does.
bool lies_in_firmware(CQZImage& image, const STRUCT_QZIMAGE_ITEM& item) {
    const uint64_t package = image.FWOffset;
    const uint64_t size = image.GetImageSize();
    const ByteReader file(nullptr, size > package ? size - package : 0);  // only asked for its bounds
    return file.holds(item_data_offset(item), item_data_size(item));
}

class ItemList {
public:
    ItemList(CQZImage& image, const std::vector<STRUCT_QZIMAGE_ITEM>& items, Listing& listing)
        : m_image(image), m_items(items), m_parameter(parameter_index(items)), m_listing(listing) {}

    void fill() {
        for (std::size_t i = 0; i < m_items.size(); ++i)
            add(i);
        for (std::size_t i = 0; i < m_items.size(); ++i)
            if (m_listing.items[i].kind == ItemKind::kPlain && (m_sparse_bits >> i % 32 & 1) != 0) {
                warn(i, "is written as a sparse image, because an item 32 places away is one");
                if (const std::optional<sparse_header_t> header = first_bytes(m_image, m_items[i]))
                    m_listing.items[i].stored_bytes = expanded_size(*header);
            }
        if (!m_parameter)
            m_listing.warnings.emplace_back("there is no item 'parameter': nandsmith does not convert this");
    }

private:
    void add(std::size_t index) {
        const STRUCT_QZIMAGE_ITEM& item = m_items[index];
        ListedItem listed;
        listed.name = item_name(item);
        listed.bytes = item_data_size(item);
        listed.package_offset = item_data_offset(item);
        listed.first_sector = item.flash_offset;
        listed.partition_sectors = item.part_size;
        const std::optional<sparse_header_t> header = sparse_header(m_image, item);
        listed.kind = kind_of(index, listed, header.has_value());
        listed.stored_bytes = listed.kind == ItemKind::kSparse ? expanded_size(*header)
                              : listed.kind == ItemKind::kParameter
                                  ? item.size  // kept: without the high half
                              : listed.kind == ItemKind::kPlain ? listed.bytes
                                                                : 0;
        if (header && listed.kind != ItemKind::kParameter && listed.kind != ItemKind::kEmpty)
            listed.sparse_chunks = header->total_chunks;
        // As in the conversion, an item without data is asked too, and items share bits.
        if (header && listed.kind != ItemKind::kNotPlaced && listed.name != kParameterName)
            m_sparse_bits |= 1U << index % 32;
        m_listing.items.push_back(listed);

        if (listed.bytes != 0 && !lies_in_firmware(m_image, item))
            warn(index, "reaches beyond the end of the firmware");
        if (listed.kind != ItemKind::kNotPlaced && !m_names.insert(listed.name).second)
            warn(index, "has the name of an item before it");
    }

    ItemKind kind_of(std::size_t index, const ListedItem& listed, bool sparse) const {
        if (listed.first_sector == kNotOnStorage)
            return ItemKind::kNotPlaced;
        if (index == m_parameter)
            return ItemKind::kParameter;
        if (listed.bytes == 0)
            return ItemKind::kEmpty;
        return sparse && listed.name != kParameterName ? ItemKind::kSparse : ItemKind::kPlain;
    }

    void warn(std::size_t index, const std::string& what) {
        m_listing.warnings.push_back("item " + std::to_string(index + 1) + ", " +
                                     quoted(m_listing.items[index].name) + ", " + what);
    }

    CQZImage& m_image;
    const std::vector<STRUCT_QZIMAGE_ITEM>& m_items;
    const std::optional<std::size_t> m_parameter;
    Listing& m_listing;
    std::set<std::string> m_names;
    uint32_t m_sparse_bits = 0;
};

std::optional<std::string> list_items(CQZImage& image, Listing& listing) {
    std::vector<STRUCT_QZIMAGE_ITEM> items;
    switch (read_item_table(image, items)) {
    case ItemTableResult::kNoHeader:
        return "the package header of the firmware cannot be read";
    case ItemTableResult::kNoTable:
        return "the item table of the firmware cannot be read";
    case ItemTableResult::kNoItems:
        return "the firmware has no items";
    case ItemTableResult::kRead:
        break;
    }
    ItemList(image, items, listing).fill();
    return std::nullopt;
}

// ---- boot container ----

void list_entries(CQZBoot& boot, ENUM_QZBOOTENTRY table, const std::string& type, int count,
                  Listing& listing) {
    for (int i = 0; i < count; ++i) {
        const auto index = static_cast<uint8_t>(i);
        const std::string place = "entry " + std::to_string(i + 1) + " of table " + type;
        char name[21] = {};  // 20 characters without a NUL, and one
        uint32_t size = 0;
        uint32_t delay = 0;
        if (!boot.GetEntryProperty(table, index, size, delay, name)) {
            listing.warnings.push_back(place + " and those after it do not lie in the boot container");
            return;
        }
        listing.loader_entries.push_back({name, size, type});
        if (!boot.entry_data(table, index))
            listing.warnings.push_back("the data of " + place + " does not lie in the boot container");
    }
}

void list_container(CQZBoot& boot, Listing& listing) {
    list_entries(boot, ENTRY471, "471", boot.Entry471Count, listing);
    list_entries(boot, ENTRY472, "472", boot.Entry472Count, listing);
    list_entries(boot, ENTRYLOADER, "loader", boot.EntryLoaderCount, listing);
}

std::optional<std::string> list_firmware(Listing& listing) {
    struct stat status {};
    if (std::optional<std::string> reason = refused_firmware(listing.firmware_path, status))
        return reason;
    CQZImage image;
    const int code = image.ObjectInit(listing.firmware_path, false);
    const std::optional<std::string> error = loading_error(code);
    listing.firmware_bytes = image.GetImageSize();
    if (error && code > kContainerCodes)
        return error;

    listing.chip = image.SupportDevice;
    if (code == CQZImage::kLoaded)
        list_container(*image.GetBootObject(), listing);
    if (image.SingleFlag) {
        if (error)
            return error;
        listing.version = version_text(image.GetBootObject()->Version);
        listing.date = date_text(image.GetBootObject()->ReleaseTime);
        listing.warnings.emplace_back("a boot container alone, by '.bin' in the path; there are no items");
        return std::nullopt;
    }
    listing.version = version_text(image.Version);
    listing.date = date_text(image.ReleaseTime);
    const std::optional<std::string> item_error = list_items(image, listing);
    return error ? error : item_error;
}

}  // namespace

std::optional<std::string> read_listing(const std::string& firmware_path, Listing& listing) {
    listing = {};
    listing.firmware_path = firmware_path;
    const std::optional<std::string> reason = list_firmware(listing);
    listing.error = reason.value_or("");
    return reason;
}

std::optional<std::vector<std::string>> names_of_written_items(const std::string& firmware_path) {
    Listing listing;
    if (read_listing(firmware_path, listing))
        return std::nullopt;
    std::vector<std::string> names;
    for (const ListedItem& item : listing.items)
        if (item.kind != ItemKind::kEmpty && item.kind != ItemKind::kNotPlaced)
            names.push_back(item.name);
    return names;
}
