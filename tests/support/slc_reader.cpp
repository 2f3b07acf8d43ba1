#include "slc_reader.h"

#include "bch_judge.h"

#include <algorithm>

namespace test_support {

namespace {

constexpr std::size_t kUnitDataBytes = 1024;
constexpr unsigned kCorrectableBits = 16;
constexpr std::size_t kUnitStride = kBchMessageBytes + bch_parity_bytes(kCorrectableBits);
constexpr std::size_t kPieceBytes = 2048;

class Reader {
public:
    Reader(const Bytes& file, const SlcGeometry& geometry)
        : m_file(file), m_geometry(geometry), m_units(geometry.page_size / kUnitDataBytes),
          m_physical_page_size(std::size_t{geometry.page_size} + geometry.spare_size) {}

    SlcContents run() {
        if (m_units == 0 || m_units * kUnitStride > m_physical_page_size) {
            fail("the spare area cannot hold the parity");
            return std::move(m_contents);
        }
        if (m_file.size() % m_physical_page_size != 0)
            fail("the file is not whole pages of " + std::to_string(m_physical_page_size) + " bytes");
        m_contents.physical_pages = m_file.size() / m_physical_page_size;
        for (std::size_t page = 0; page < m_contents.physical_pages; ++page)
            take_page(page);
        if (m_contents.physical_pages % pieces_per_page() != 0)
            fail("the last page is only partly there");
        return std::move(m_contents);
    }

private:
    void fail(const std::string& error) { m_contents.errors += error + "\n"; }

    // Physical pages that one page of data takes.
    std::size_t pieces_per_page() const {
        return m_geometry.two_kilobytes_data ? (m_geometry.page_size + kPieceBytes - 1) / kPieceBytes : 1;
    }

    // Data bytes that physical page `page` carries.
    std::size_t data_bytes_of(std::size_t page) const {
        if (!m_geometry.two_kilobytes_data)
            return m_geometry.page_size;
        return std::min(kPieceBytes, m_geometry.page_size - page % pieces_per_page() * kPieceBytes);
    }

    void take_page(std::size_t page) {
        const std::string where = "page " + std::to_string(page);
        const std::size_t start = page * m_physical_page_size;
        Bytes data;
        for (std::size_t unit = 0; unit < m_units; ++unit) {
            const uint8_t* bytes = m_file.data() + start + unit * kUnitStride;
            data.insert(data.end(), bytes, bytes + kUnitDataBytes);
            const auto index = static_cast<uint32_t>(page * m_geometry.list_step);
            const uint32_t found = get32(m_file, start + unit * kUnitStride + kUnitDataBytes);
            if (found != (unit == 0 ? index : 0xFFFFFFFFU))
                fail(where + " unit " + std::to_string(unit) + ": system word is " + std::to_string(found));
            const DecodeResult decoded = bch_decode(bytes, bytes + kBchMessageBytes, kCorrectableBits);
            if (!decoded.clean())
                fail(where + " unit " + std::to_string(unit) + ": " + to_string(decoded));
        }
        const std::size_t units = m_units * kUnitStride;
        if (!all_bytes_are(m_file, 0xFF, start + units, m_physical_page_size - units))
            fail(where + ": spare bytes after the last unit are not erased");
        const std::size_t used = data_bytes_of(page);
        if (!all_bytes_are(data, 0, used, data.size() - used))
            fail(where + ": bytes after the page's data are not 0");
        put_bytes(m_contents.data, slice(data, 0, used));
    }

    const Bytes& m_file;
    const SlcGeometry& m_geometry;
    const std::size_t m_units;
    const std::size_t m_physical_page_size;
    SlcContents m_contents{};
};

}  // namespace

SlcContents read_slc_file(const Bytes& file, const SlcGeometry& geometry) {
    return Reader(file, geometry).run();
}

}  // namespace test_support
