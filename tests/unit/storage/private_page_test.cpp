// A page is private to its write_page call: whatever an override does with it and around it, what the base is
// given is what is written, and the pages that follow arrive as if nothing had happened.

#include "partition_fixture.h"
#include "support/sparse_builder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <ostream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace storage_test {
namespace {

using test_support::Firmware;
using test_support::patterned;
using test_support::SparseChunk;
using test_support::SparseImage;

// Bytes that went to an output file at a position: a page that the base was given, or bytes of the override's
// own.
struct Given {
    std::string file{};
    uint64_t position = 0;
    Bytes bytes{};
    uint32_t length = 0;
    bool is_page = true;
};

// A storage class whose write_page misuses its pages.
template <typename Storage>
class Abused : public Exposed<Storage> {
public:
    using Way = void (Abused::*)(uint8_t* page, uint32_t length);

    using Exposed<Storage>::Exposed;
    using Storage::m_plain_pages;

    bool write_page(uint8_t* page, uint32_t length) override {
        arrived.push_back({copy_of(page), length});
        (this->*way)(page, length);
        return true;
    }

    // ---- the ways ----

    void plainly(uint8_t* page, uint32_t length) { give(page, length); }
    void with_16_bytes_after(uint8_t* page, uint32_t length) {
        give(page, length);
        put_own(16);
    }
    void with_64_bytes_after(uint8_t* page, uint32_t length) {
        give(page, length);
        put_own(64);
    }
    void with_bytes_before(uint8_t* page, uint32_t length) {
        put_own(7);
        give(page, length);
    }
    void with_a_flush(uint8_t* page, uint32_t length) {
        give(page, length);
        this->m_fout.flush();
    }
    void altered_before(uint8_t* page, uint32_t length) {
        for (uint32_t i = 0; i < this->m_page_size; ++i)
            page[i] ^= 0x5A;
        give(page, length);
    }
    void altered_after(uint8_t* page, uint32_t length) {
        give(page, length);
        std::memset(page, 0xEE, this->m_page_size);
    }
    void as_a_copy(uint8_t* page, uint32_t length) {
        Bytes copy = copy_of(page);
        std::memset(page, 0xEE, this->m_page_size);
        give(copy.data(), length);
    }
    void while_reading_the_firmware(uint8_t* page, uint32_t length) {
        read_firmware();
        give(page, length);
        read_firmware();
    }
    void with_a_seek(uint8_t* page, uint32_t length) {
        give(page, length);
        const auto position = this->m_fout.tellp();
        this->m_fout.seekp(0);
        this->m_fout.seekp(position);
    }
    void with_gaps(uint8_t* page, uint32_t length) {
        if (arrived.size() % 3 != 0)
            give(page, length);
    }
    void twice(uint8_t* page, uint32_t length) {
        give(page, length);
        give(page, length);
    }
    void one_call_late(uint8_t* page, uint32_t length) {
        RecordedPage before{copy_of(page), length};
        std::swap(before, m_held);
        if (!before.bytes.empty())
            give(before.bytes.data(), before.length);
    }
    void in_all_ways_together(uint8_t* page, uint32_t length) {
        with_bytes_before(page, length);
        this->m_fout.flush();
        read_firmware();
        altered_before(page, length);
        put_own(64);
        std::memset(page, 0xEE, this->m_page_size);
    }

    Way way = &Abused::plainly;
    std::vector<RecordedPage> arrived{};  // whole pages; length as it was given
    std::vector<Given> given{};

private:
    Bytes copy_of(const uint8_t* page) const { return Bytes(page, page + this->m_page_size); }

    void give(uint8_t* page, uint32_t length) {
        given.push_back({this->m_out_file, this->m_fout.buffer().position(), copy_of(page), length, true});
        EXPECT_TRUE(Storage::write_page(page, length));
    }

    void put_own(std::size_t size) {
        const Bytes own = patterned(size, static_cast<uint32_t>(arrived.size()));
        given.push_back({this->m_out_file, this->m_fout.buffer().position(), own, 0, false});
        this->m_fout.write(reinterpret_cast<const char*>(own.data()), static_cast<std::streamsize>(size));
    }

    // Far enough apart that each read loads another block of the firmware.
    void read_firmware() {
        Bytes piece(5000);
        const uint64_t last = this->m_update_image_ptr->GetImageSize() - piece.size();
        EXPECT_TRUE(this->m_update_image_ptr->GetData(m_reads++ % 2 * last, 5000, piece.data()));
    }

    RecordedPage m_held{};
    uint32_t m_reads = 0;
};

template <typename Storage>
struct Abuse {
    const char* name;
    typename Abused<Storage>::Way way;
    bool keeps_length;  // the output is as long as without it, and so is what pads it
};

template <typename Storage>
std::vector<Abuse<Storage>> all_abuses() {
    using Class = Abused<Storage>;
    return {{"16 bytes after", &Class::with_16_bytes_after, false},
            {"64 bytes after", &Class::with_64_bytes_after, false},
            {"bytes before", &Class::with_bytes_before, false},
            {"flushed", &Class::with_a_flush, true},
            {"altered before", &Class::altered_before, true},
            {"altered after", &Class::altered_after, true},
            {"copied", &Class::as_a_copy, true},
            {"firmware read", &Class::while_reading_the_firmware, true},
            {"seek and back", &Class::with_a_seek, true},
            {"skipped", &Class::with_gaps, false},
            {"repeated", &Class::twice, false},
            {"the page before", &Class::one_call_late, false},
            {"all together", &Class::in_all_ways_together, false}};
}

struct Chip {
    ENUM_FLASH_TYPE type = FLASH_EMMC;
    uint32_t page_kb = 2;
    bool page_2k = false;

    Geometry geometry() const {
        return {.block_kb = 128, .page_kb = page_kb, .oob_bytes = 32 * page_kb + 8, .page_2k = page_2k};
    }
    uint8_t fill_byte() const { return page_kb % 2 != 0 ? 0xA5 : 0; }
    // Half of the chips get a GPT, the others a parameter partition.
    bool gpt() const { return (page_kb == 2 || page_kb == 4) == page_2k; }
    // With 2 KB of data in a page of 64 KB, the output is 32 times as long as the data.
    bool spreads_widely() const { return page_2k && page_kb == 64; }
    std::string name() const {
        const char* const types[] = {"Emmc", "Nor", "", "SpiNand", "", "", "", "SlcNand"};
        return types[type - 1] + std::to_string(page_kb) + "Kb" + (page_2k ? "With2Kb" : "");
    }
};

void PrintTo(const Chip& chip, std::ostream* out) {
    *out << chip.name();
}

std::vector<Chip> all_chips() {
    std::vector<Chip> chips;
    for (const ENUM_FLASH_TYPE type : {FLASH_EMMC, FLASH_NOR, FLASH_SPI_NAND, FLASH_SLC_NAND})
        for (const uint32_t page_kb : {1U, 2U, 3U, 4U, 64U})
            for (const bool page_2k : {false, true})
                chips.push_back({type, page_kb, page_2k});
    return chips;
}

// Chunks of all kinds, so that one of them crosses a run of pages.
Bytes sparse_image(bool small) {
    return SparseImage{.block_size = 1024,
                       .chunks = {SparseChunk::raw(patterned(3000, 1), 1024),
                                  SparseChunk::fill(0x12345678, 5), SparseChunk::dont_care(70),
                                  SparseChunk::raw(patterned(small ? 70000 : 400000, 2), 1024),
                                  SparseChunk::crc(0), SparseChunk::fill(0, 3)}}
        .build();
}

// Items that cross runs of 128 KiB and blocks of 512 KiB, some with a partition that is larger than their
// data.
Firmware firmware_for(const Chip& chip) {
    Firmware firmware = test_support::sample_firmware({.gpt = chip.gpt()});
    const bool small = chip.spreads_widely();
    firmware.items.resize(1);
    firmware.items[0].part_size = chip.page_kb * 2 * (small ? 4 : 27);
    for (const auto& [name, data] :
         {std::pair{"system", patterned(small ? 270000 : 1300001, 3)},
          std::pair{"sparse", sparse_image(small)}, std::pair{"tail", patterned(5000, 4)}}) {
        const test_support::Item& before = firmware.items.back();
        firmware.items.push_back({.name = name,
                                  .part_size = static_cast<uint32_t>(data.size() / 512) + (small ? 200 : 400),
                                  .flash_offset = before.flash_offset + before.part_size + 37,
                                  .data = data});
    }
    firmware.items.back().part_size = test_support::kGrowsToEnd;
    return firmware;
}

bool is_page_of(const RecordedPage& page, uint8_t value) {
    return test_support::all_bytes_are(page.bytes, value, 0, page.bytes.size());
}

// All pages, or those that are more than padding.
std::vector<RecordedPage> pages_of(const std::vector<RecordedPage>& pages, uint8_t fill_byte, bool all) {
    std::vector<RecordedPage> chosen;
    std::copy_if(pages.begin(), pages.end(), std::back_inserter(chosen),
                 [&](const RecordedPage& page) { return all || !is_page_of(page, fill_byte); });
    return chosen;
}

::testing::AssertionResult same_pages(const std::vector<RecordedPage>& found,
                                      const std::vector<RecordedPage>& expected) {
    for (std::size_t i = 0; i < std::min(found.size(), expected.size()); ++i)
        if (found[i].length != expected[i].length || found[i].bytes != expected[i].bytes)
            return ::testing::AssertionFailure() << "page " << i << " arrived with other bytes";
    if (found.size() != expected.size())
        return ::testing::AssertionFailure() << found.size() << " pages instead of " << expected.size();
    return ::testing::AssertionSuccess();
}

class PrivatePageTest : public StorageTest, public ::testing::WithParamInterface<Chip> {
protected:
    template <typename Storage>
    std::unique_ptr<Storage> make_storage() const {
        std::unique_ptr<Storage> storage;
        if constexpr (std::is_base_of_v<CSlcStorage, Storage>)
            storage = make<Storage>(GetParam().geometry(), false);
        else
            storage = make<Storage>(GetParam().geometry());
        storage->m_fill_byte = GetParam().fill_byte();
        return storage;
    }

    // A whole conversion in this way; its messages.
    template <typename Storage>
    std::string run(Abused<Storage>& storage, typename Abused<Storage>::Way way) const {
        storage.way = way;
        storage.m_plain_pages = false;
        std::filesystem::remove_all(out_dir());
        std::filesystem::create_directory(out_dir());
        std::srand(1);  // the GUIDs of a GPT
        return output_of([&] {
            ASSERT_TRUE(storage.storage_init());
            EXPECT_TRUE(storage.create_image());
        });
    }

    // The files that hold what was given: each page is written by itself and has left before the next comes.
    template <typename Storage>
    std::map<std::string, Bytes> expected_files(const std::vector<Given>& all) const {
        std::map<std::string, Bytes> files;
        const std::filesystem::path path = m_directory / "expected.img";
        for (auto first = all.begin(); first != all.end();) {
            const auto storage = make_storage<Exposed<Storage>>();
            storage->m_fout.open(path.string(), std::ios_base::out | std::ios_base::trunc);
            auto last = first;
            for (; last != all.end() && last->file == first->file; ++last) {
                Bytes bytes = last->bytes;
                storage->m_fout.seekp(static_cast<std::streamoff>(last->position));
                if (last->is_page)
                    EXPECT_TRUE(storage->write_page(bytes.data(), last->length));
                else
                    storage->m_fout.write(reinterpret_cast<const char*>(bytes.data()),
                                          static_cast<std::streamsize>(bytes.size()));
                storage->m_fout.flush();
            }
            storage->close_output();
            files[first->file] = test_support::read_file(path);
            std::filesystem::remove(path);  // a truncated one is slow: it is brought to the disk when closed
            first = last;
        }
        return files;
    }

    template <typename Storage>
    void expect_private_pages() const {
        const uint8_t fill_byte = GetParam().fill_byte();
        write_firmware(firmware_for(GetParam()));
        const auto undisturbed = make_storage<Abused<Storage>>();
        const std::string messages = run(*undisturbed, &Abused<Storage>::plainly);
        for (const Abuse<Storage>& abuse : all_abuses<Storage>()) {
            SCOPED_TRACE(abuse.name);
            const auto storage = make_storage<Abused<Storage>>();
            EXPECT_EQ(run(*storage, abuse.way), messages);
            EXPECT_TRUE(same_pages(pages_of(storage->arrived, fill_byte, abuse.keeps_length),
                                   pages_of(undisturbed->arrived, fill_byte, abuse.keeps_length)));
            auto expected = expected_files<Storage>(storage->given);
            for (const std::string& name : names_in(out_dir())) {
                const std::string path = out_path(name).string();
                EXPECT_TRUE(same_bytes(test_support::read_file(path), expected[path])) << name;
            }
        }
    }
};

TEST_P(PrivatePageTest, HoldsWhateverAnOverrideDoes) {
    switch (GetParam().type) {
    case FLASH_EMMC:
        return expect_private_pages<CEmmcStorage>();
    case FLASH_NOR:
        return expect_private_pages<CNorStorage>();
    case FLASH_SPI_NAND:
        return expect_private_pages<CSpiStorage>();
    default:
        return expect_private_pages<CSlcStorage>();
    }
}

// Padding of more than 64 MiB may go past write_page where a page is nothing but its data.
class CountedPages : public Exposed<CEmmcStorage> {
public:
    using Exposed<CEmmcStorage>::Exposed;
    using CEmmcStorage::m_plain_pages;

    bool write_page(uint8_t* page, uint32_t length) override {
        EXPECT_TRUE(test_support::all_bytes_are(Bytes(page, page + length), m_fill_byte, 0, length));
        ++pages;
        Exposed<CEmmcStorage>::write_page(page, length);
        std::memset(page, 0xEE, length);
        if (!m_plain_pages)
            m_fout.write("spare", 5);
        return true;
    }
    std::size_t pages = 0;
};

class LongPaddingTest : public StorageTest {
protected:
    // Pages of 64 KB that reach write_page for padding of that many pages; what the file holds then.
    std::pair<std::size_t, uint64_t> padded_with(std::size_t pages, bool plain) const {
        const auto storage = make<CountedPages>({.page_kb = 64});
        storage->m_plain_pages = plain;
        storage->m_fout.open(out_path("padding.img").string());
        EXPECT_TRUE(storage->fill_output_file(pages * 65536));
        storage->close_output();
        return {storage->pages, std::filesystem::file_size(out_path("padding.img"))};
    }
};

TEST_F(LongPaddingTest, EveryPageArrivesUnlessPagesArePlain) {
    EXPECT_EQ(padded_with(1100, false), std::pair(std::size_t{1100}, uint64_t{1100 * 65541}));
    EXPECT_EQ(padded_with(1100, true), std::pair(std::size_t{1024}, uint64_t{1100 * 65536}));
}

TEST_F(LongPaddingTest, EveryFileStartsPageByPage) {
    const auto storage = make<CountedPages>({.page_kb = 64});
    for (const char* name : {"first.img", "second.img"}) {
        storage->pages = 0;
        ASSERT_TRUE(storage->switch_output(name));
        EXPECT_TRUE(storage->fill_output_file(1100 * 65536));
        storage->close_output();
        EXPECT_EQ(storage->pages, 1024U) << name;
        EXPECT_EQ(std::filesystem::file_size(out_path(name)), 1100U * 65536) << name;
    }
}

INSTANTIATE_TEST_SUITE_P(Chips, PrivatePageTest, ::testing::ValuesIn(all_chips()),
                         [](const auto& chip) { return chip.param.name(); });

}  // namespace
}  // namespace storage_test
