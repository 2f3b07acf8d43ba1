#include "storage_impl.h"

#include "console.h"

#include <algorithm>
#include <cstring>
#include <span>

int CStorage::write_image(STRUCT_QZIMAGE_ITEM& entry) {
    const std::string announcement = "writing " + item_name(entry) + "...";
    print_line(announcement);

    const uint64_t size = item_data_size(entry);
    const uint32_t data_pages = page_count(size, m_page_size);
    uint32_t pages = 0;
    if (!count_partition_pages(entry, data_pages, pages)) {
        print_line("partition size is too small");
        return kImageTooLarge;
    }
    ByteBuffer page(m_page_size);
    if (!page)
        return kNoImageMemory;

    Progress progress(announcement);
    for (uint32_t done = 0; done < data_pages;) {
        if (m_fout.buffer().has_failed()) {  // nothing more reaches the file: on to the verdict
            progress.show_steps(done, data_pages, 1, pages);
            break;
        }
        uint8_t* first = nullptr;
        const uint32_t run = read_pages(entry, done, data_pages, page.data(), first);
        if (run == 0) {
            print_line("failed to get data from firmware");
            return kImageUnreadable;
        }
        write_pages(first, run, done, pages, progress);
    }
    write_partition_rest(page.data(), data_pages, pages, progress);

    m_image_fill_page_num = pages;
    redraw_line(announcement + "OK");
    return kDone;
}

uint32_t CStorage::read_pages(const STRUCT_QZIMAGE_ITEM& entry, uint32_t done, uint32_t data_pages,
                              uint8_t* page, uint8_t*& first) {
    const uint64_t position = uint64_t{done} * m_page_size;
    // The count of pages has 32 bits and may have wrapped, the size has not.
    const auto whole = static_cast<uint32_t>(
        std::min<uint64_t>((item_data_size(entry) - position) / m_page_size, data_pages - done));
    if (const uint32_t run = read_pages_in_place(entry, position, whole, first); run != 0)
        return run;
    if (const uint32_t run = view_pages(entry, position, whole, first); run != 0)
        return run;
    first = page;
    return read_page(entry, position, page) ? 1 : 0;
}

uint32_t CStorage::room_for_pages(uint8_t*& first) {
    if (m_page_2k || m_type == FLASH_SLC_NAND)
        return 0;  // their pages are longer in the output than in the firmware
    const std::span<uint8_t> room = m_fout.buffer().room();
    first = room.data();
    return static_cast<uint32_t>(room.size() / m_page_size);
}

uint32_t CStorage::read_pages_in_place(const STRUCT_QZIMAGE_ITEM& entry, uint64_t position, uint32_t most,
                                       uint8_t*& first) {
    const uint32_t run = std::min(room_for_pages(first), most);
    const uint64_t size = uint64_t{run} * m_page_size;
    if (size < BlockReader::kBlockSize ||
        !read_item_data(*m_update_image_ptr, entry, position, static_cast<uint32_t>(size), first))
        return 0;
    return run;
}

uint32_t CStorage::view_pages(const STRUCT_QZIMAGE_ITEM& entry, uint64_t position, uint32_t most,
                              uint8_t*& first) {
    if (most == 0)
        return 0;
    const uint64_t source = uint64_t{m_update_image_ptr->FWOffset} + item_data_offset(entry) + position;
    uint64_t held = 0;
    first = m_update_image_ptr->ViewData(source, m_page_size, held);
    return static_cast<uint32_t>(std::min<uint64_t>(held / m_page_size, most));
}

bool CStorage::read_page(const STRUCT_QZIMAGE_ITEM& entry, uint64_t position, uint8_t* page) {
    const auto chunk =
        static_cast<uint32_t>(std::min<uint64_t>(item_data_size(entry) - position, m_page_size));
    std::memset(page + chunk, m_fill_byte, m_page_size - chunk);
    return read_item_data(*m_update_image_ptr, entry, position, chunk, page);
}

void CStorage::write_pages(uint8_t* first, uint32_t count, uint32_t& done, uint32_t pages,
                           Progress& progress) {
    for (uint32_t i = 0; i < count; ++i) {
        write_page(first + uint64_t{i} * m_page_size, m_page_size);
        progress.show(++done, pages);
    }
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
