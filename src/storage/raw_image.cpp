#include "storage_impl.h"

#include "console.h"

#include <algorithm>
#include <cstring>

int CStorage::write_image(STRUCT_QZIMAGE_ITEM& entry) {
    const std::string announcement = "writing " + item_name(entry) + "...";
    print_line(announcement);

    const uint64_t size = item_data_size(entry);
    const uint32_t data_pages = page_count(size, m_page_size);
    uint32_t pages = 0;
    if (!count_partition_pages(entry, data_pages, pages)) {
        print_line("partition size is too small");
        return -1;
    }
    ByteBuffer page(m_page_size);
    if (!page.has(m_page_size))
        return -3;

    Progress progress(announcement);
    for (uint32_t done = 0; done < data_pages;) {
        if (m_fout.has_failed()) {  // nothing more reaches the file: on to the verdict
            done += static_cast<uint32_t>(
                std::min<uint64_t>(progress.steps_until_change(done, pages), data_pages - done));
        } else {
            const uint64_t position = uint64_t{done} * m_page_size;
            const auto chunk = static_cast<uint32_t>(std::min<uint64_t>(size - position, m_page_size));
            if (chunk < m_page_size)
                std::memset(page.data() + chunk, m_fill_byte, m_page_size - chunk);
            if (!read_item_data(entry, position, chunk, page.data())) {
                print_line("failed to get data from firmware");
                return -2;
            }
            write_page(page.data(), m_page_size);
            ++done;
        }
        progress.show(done, pages);
    }
    write_partition_rest(page.data(), data_pages, pages, progress);

    m_image_fill_page_num = pages;
    redraw_line(announcement + "OK");
    return 0;
}

void CStorage::write_partition_rest(uint8_t* page, uint32_t done, uint32_t pages, Progress& progress) {
    std::memset(page, m_fill_byte, m_page_size);
    while (done < pages) {
        const auto steps =
            static_cast<uint32_t>(std::min<uint64_t>(progress.steps_until_change(done, pages), pages - done));
        write_fill_pages(page, steps, m_page_size);
        done += steps;
        progress.show(done, pages);
    }
}
