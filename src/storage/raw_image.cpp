#include "console.h"
#include "page_source.h"
#include "storage_impl.h"

int CStorage::write_image(STRUCT_QZIMAGE_ITEM& entry) {
    const std::string line = "writing " + item_name(entry) + "...";
    print_line(line);

    const uint64_t size = item_data_size(entry);
    const uint32_t data_pages = page_count(size, m_page_size);
    const std::optional<uint32_t> pages = partition_pages(entry, data_pages);
    if (!pages) {
        print_line("partition size is too small");
        return kImageTooLarge;
    }
    const auto read = [&](uint64_t position, uint32_t length, uint8_t* out) {
        return read_item_data(*m_update_image_ptr, entry, position, length, out);
    };
    PageSource source(read, size, m_page_size, m_fill_byte);
    if (!source)
        return kNoImageMemory;

    Progress progress(line);
    if (write_pages(source, data_pages, *pages, &progress) != data_pages) {
        print_line("failed to get data from firmware");
        return kImageUnreadable;
    }
    write_partition_rest(source.page(), data_pages, *pages, progress);

    m_image_fill_page_num = *pages;
    redraw_line(line + "OK");
    return kDone;
}
