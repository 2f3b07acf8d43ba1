#include "slc_reader.h"

#include "bch_judge.h"

#include <algorithm>

namespace test_support {

namespace {

constexpr std::size_t kUnitDataBytes = 1024;
constexpr std::size_t kUnitSystemBytes = 4;
constexpr unsigned kCorrectableBits = 16;
constexpr std::size_t kUnitStride = kUnitDataBytes + kUnitSystemBytes + bch_parity_bytes(kCorrectableBits);
constexpr std::size_t kPieceBytes = 2048;
constexpr std::size_t kErrorsKept = 20;

class Reader {
public:
    Reader(const Bytes& file, const SlcGeometry& geometry)
        : m_file(file), m_geometry(geometry), m_units(geometry.page_size / kUnitDataBytes),
          m_physical_page_size(std::size_t{geometry.page_size} + geometry.spare_size) {}

    SlcContents run() {
        if (m_units == 0 || m_units * kUnitStride > m_physical_page_size) {
            fail("the spare area cannot hold the parity");
            return finished();
        }
        if (m_file.size() % m_physical_page_size != 0)
            fail("the file is not whole pages of " + std::to_string(m_physical_page_size) + " bytes");
        m_contents.physical_pages = m_file.size() / m_physical_page_size;
        m_contents.data.reserve(m_contents.physical_pages * m_geometry.page_size);
        for (std::size_t page = 0; page < m_contents.physical_pages; ++page)
            take_page(page);
        if (m_contents.physical_pages % pieces_per_page() != 0)
            fail("the last page is only partly there");
        return finished();
    }

private:
    void fail(const std::string& error) {
        ++m_error_count;
        if (m_contents.errors.size() < kErrorsKept)
            m_contents.errors.push_back(error);
    }

    SlcContents finished() {
        if (m_error_count > kErrorsKept)
            m_contents.errors.push_back("and " + std::to_string(m_error_count - kErrorsKept) + " more");
        return std::move(m_contents);
    }

    // Physical pages that one page of data takes.
    std::size_t pieces_per_page() const {
        return m_geometry.two_kilobytes_data ? (m_geometry.page_size + kPieceBytes - 1) / kPieceBytes : 1;
    }

    // Data bytes that physical page `page` carries.
    std::size_t data_bytes_of(std::size_t page) const {
        if (!m_geometry.two_kilobytes_data)
            return m_geometry.page_size;
        const std::size_t before = page % pieces_per_page() * kPieceBytes;
        return std::min(kPieceBytes, m_geometry.page_size - before);
    }

    void take_page(std::size_t page) {
        const std::string where = "page " + std::to_string(page);
        Bytes data;
        data.reserve(m_geometry.page_size);
        for (std::size_t unit = 0; unit < m_units; ++unit) {
            const std::size_t offset = slc_unit_offset(m_geometry, page, unit);
            const uint8_t* bytes = m_file.data() + offset;
            data.insert(data.end(), bytes, bytes + kUnitDataBytes);
            const std::string unit_name = where + " unit " + std::to_string(unit);
            check_system_bytes(page, unit, offset + kUnitDataBytes, unit_name);
            const DecodeResult decoded = bch_decode(bytes, bytes + kBchMessageBytes, kCorrectableBits);
            if (!decoded.clean())
                fail(unit_name + ": " + to_string(decoded));
        }
        const std::size_t tail = page * m_physical_page_size + m_units * kUnitStride;
        if (!all_bytes_are(m_file, 0xFF, tail, (page + 1) * m_physical_page_size - tail))
            fail(where + ": spare bytes after the last unit are not erased");
        keep_data(page, data, where);
    }

    void check_system_bytes(std::size_t page, std::size_t unit, std::size_t offset,
                            const std::string& unit_name) {
        const uint32_t expected =
            unit == 0 ? static_cast<uint32_t>(page * m_geometry.list_step) : 0xFFFFFFFFU;
        const uint32_t found = get32(m_file, offset);
        if (found != expected) {
            fail(unit_name + ": system word is " + std::to_string(found) + ", not " +
                 std::to_string(expected));
        }
    }

    void keep_data(std::size_t page, const Bytes& data, const std::string& where) {
        const std::size_t used = data_bytes_of(page);
        if (!all_bytes_are(data, m_geometry.fill_byte, used, data.size() - used))
            fail(where + ": bytes after the page's data are not the fill byte");
        m_contents.data.insert(m_contents.data.end(), data.begin(),
                               data.begin() + static_cast<std::ptrdiff_t>(used));
    }

    const Bytes& m_file;
    const SlcGeometry& m_geometry;
    const std::size_t m_units;
    const std::size_t m_physical_page_size;
    std::size_t m_error_count = 0;
    SlcContents m_contents{};
};

}  // namespace

std::string SlcContents::error_text() const {
    std::string text;
    for (const std::string& error : errors)
        text += error + "\n";
    return text;
}

SlcContents read_slc_file(const Bytes& file, const SlcGeometry& geometry) {
    return Reader(file, geometry).run();
}

std::size_t slc_unit_offset(const SlcGeometry& geometry, std::size_t page, std::size_t unit) {
    return page * (std::size_t{geometry.page_size} + geometry.spare_size) + unit * kUnitStride;
}

}  // namespace test_support
