#include "slc_reader.h"

#include "bch_judge.h"

#include <algorithm>

namespace test_support {

namespace {

constexpr std::size_t unit_data_bytes = 1024;
constexpr std::size_t unit_system_bytes = 4;
constexpr unsigned correctable_bits = 16;
constexpr std::size_t unit_stride = unit_data_bytes + unit_system_bytes + bch_parity_bytes(correctable_bits);
constexpr std::size_t piece_bytes = 2048;
constexpr std::size_t errors_kept = 20;

class Reader {
public:
    Reader(const Bytes& file, const SlcGeometry& geometry)
        : file_(file), geometry_(geometry), units_(geometry.page_size / unit_data_bytes),
          physical_page_size_(std::size_t{geometry.page_size} + geometry.spare_size) {}

    SlcContents run() {
        if (units_ == 0 || units_ * unit_stride > physical_page_size_) {
            fail("the spare area cannot hold the parity");
            return finished();
        }
        if (file_.size() % physical_page_size_ != 0)
            fail("the file is not whole pages of " + std::to_string(physical_page_size_) + " bytes");
        contents_.physical_pages = file_.size() / physical_page_size_;
        contents_.data.reserve(contents_.physical_pages * geometry_.page_size);
        for (std::size_t page = 0; page < contents_.physical_pages; ++page)
            take_page(page);
        if (contents_.physical_pages % pieces_per_page() != 0)
            fail("the last page is only partly there");
        return finished();
    }

private:
    void fail(const std::string& error) {
        ++error_count_;
        if (contents_.errors.size() < errors_kept)
            contents_.errors.push_back(error);
    }

    SlcContents finished() {
        if (error_count_ > errors_kept)
            contents_.errors.push_back("and " + std::to_string(error_count_ - errors_kept) + " more");
        return std::move(contents_);
    }

    // Physical pages that one page of data takes.
    std::size_t pieces_per_page() const {
        return geometry_.two_kilobytes_data ? (geometry_.page_size + piece_bytes - 1) / piece_bytes : 1;
    }

    // Data bytes that physical page `page` carries.
    std::size_t data_bytes_of(std::size_t page) const {
        if (!geometry_.two_kilobytes_data)
            return geometry_.page_size;
        const std::size_t before = page % pieces_per_page() * piece_bytes;
        return std::min(piece_bytes, geometry_.page_size - before);
    }

    void take_page(std::size_t page) {
        const std::string where = "page " + std::to_string(page);
        Bytes data;
        data.reserve(geometry_.page_size);
        for (std::size_t unit = 0; unit < units_; ++unit) {
            const std::size_t offset = slc_unit_offset(geometry_, page, unit);
            const uint8_t* bytes = file_.data() + offset;
            data.insert(data.end(), bytes, bytes + unit_data_bytes);
            const std::string unit_name = where + " unit " + std::to_string(unit);
            check_system_bytes(page, unit, offset + unit_data_bytes, unit_name);
            const DecodeResult decoded = bch_decode(bytes, bytes + bch_message_bytes, correctable_bits);
            if (!decoded.clean())
                fail(unit_name + ": " + to_string(decoded));
        }
        const std::size_t tail = page * physical_page_size_ + units_ * unit_stride;
        if (!all_bytes_are(file_, 0xFF, tail, (page + 1) * physical_page_size_ - tail))
            fail(where + ": spare bytes behind the last unit are not erased");
        keep_data(page, data, where);
    }

    void check_system_bytes(std::size_t page, std::size_t unit, std::size_t offset,
                            const std::string& unit_name) {
        const uint32_t expected = unit == 0 ? static_cast<uint32_t>(page * geometry_.list_step) : 0xFFFFFFFFU;
        const uint32_t found = get32(file_, offset);
        if (found != expected) {
            fail(unit_name + ": system word is " + std::to_string(found) + ", not " +
                 std::to_string(expected));
        }
    }

    void keep_data(std::size_t page, const Bytes& data, const std::string& where) {
        const std::size_t used = data_bytes_of(page);
        if (!all_bytes_are(data, geometry_.fill_byte, used, data.size() - used))
            fail(where + ": bytes behind the page's data are not the fill byte");
        contents_.data.insert(contents_.data.end(), data.begin(),
                              data.begin() + static_cast<std::ptrdiff_t>(used));
    }

    const Bytes& file_;
    const SlcGeometry& geometry_;
    const std::size_t units_;
    const std::size_t physical_page_size_;
    std::size_t error_count_ = 0;
    SlcContents contents_{};
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
    return page * (std::size_t{geometry.page_size} + geometry.spare_size) + unit * unit_stride;
}

}  // namespace test_support
