#include "console.h"
#include "page_source.h"
#include "storage_impl.h"

#include <cstring>
#include <utility>

bool CStorage::make_param_buffer(STRUCT_QZIMAGE_ITEM& entry) {
    m_uiParamFileSize = entry.size;
    if (m_uiParamFileSize > m_update_image_ptr->GetImageSize())
        return false;

    const uint64_t pages = page_count(m_uiParamFileSize, m_page_size);
    ByteBuffer record(pages * m_page_size);
    if (!record)
        return false;
    // Kept: a 32-bit sum that ignores the large-item marks.
    const uint32_t position = m_update_image_ptr->FWOffset + entry.offset;
    if (!m_update_image_ptr->GetData(position, m_uiParamFileSize, record.data()))
        return false;

    m_param_bytes = std::move(record);
    m_paramBuffer = m_param_bytes.data();
    m_loaded_param_size = m_uiParamFileSize;
    return true;
}

uint64_t CStorage::param_buffer_bytes() const {
    if (m_paramBuffer == m_param_bytes.data())
        return m_uiParamFileSize == m_loaded_param_size ? m_param_bytes.size() : 0;
    return uint64_t{page_count(m_uiParamFileSize, m_page_size)} * m_page_size;
}

int CStorage::write_parameter(STRUCT_QZIMAGE_ITEM& entry) {
    const uint32_t pages = page_count(entry.part_size, m_page_size_sector);
    const uint32_t record_pages = page_count(m_uiParamFileSize, m_page_size);
    print_line("writing parameter...");

    if (m_paramBuffer == nullptr || uint64_t{record_pages} * m_page_size > param_buffer_bytes()) {
        print_line("parameter is not loaded");
        return kParameterTooLarge;
    }

    // The copies start at each eighth of the partition, or at each quarter.
    uint32_t copies = 8;
    if (record_pages > pages / copies)
        copies = 4;
    const uint32_t slot_pages = pages / copies;
    if (record_pages > slot_pages) {
        print_line("partition size is too small");
        return kParameterTooLarge;
    }
    const auto read = [&](uint64_t position, uint32_t size, uint8_t* out) {
        if (position + size > param_buffer_bytes())
            return false;  // write_page has loaded another record
        std::memcpy(out, m_paramBuffer + position, size);
        return true;
    };
    PageSource record(read, uint64_t{record_pages} * m_page_size, m_page_size, m_fill_byte);
    if (!record)
        return kNoParameterMemory;

    for (uint32_t copy = 0; copy < copies; ++copy) {
        m_fout.buffer().begin_part({.kind = OutputPart::Kind::kParameter, .copy = copy + 1});
        write_pages(record, record_pages);
        write_fill_pages(record.page(), slot_pages - record_pages, m_page_size);
    }
    write_fill_pages(record.page(), pages - copies * slot_pages, m_page_size);

    m_image_fill_page_num = pages;
    redraw_line("writing parameter...OK");
    return kDone;
}
