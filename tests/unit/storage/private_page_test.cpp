// A page is private to its write_page call: whatever an override does with it and around it, what the base is
// given is what is written, and the pages that follow arrive as if nothing had happened.

#include "partition_fixture.h"
#include "support/sparse_builder.h"

#include <map>
#include <ostream>
#include <type_traits>

namespace storage_test {
namespace {

// Bytes that went to a position of an output file: a page that the base was given, or the override's own.
struct Given {
    uint64_t position = 0;
    Bytes bytes{};
    std::optional<uint32_t> page_length{};  // of a page
};

// What an override does with a page, in steps.
enum class Step {
    give,
    give_a_copy,
    give_the_one_before,
    give_two_of_three,
    alter,
    put_7,
    put_16,
    put_64,
    flush,
    read_firmware,
    seek_and_back
};

struct Abuse {
    const char* name;
    std::vector<Step> steps;
    bool keeps_length;  // the output is as long as without it, and so is what pads it
};

std::vector<Abuse> all_abuses() {
    using enum Step;
    return {{"16 bytes after", {give, put_16}, false},
            {"64 bytes after", {give, put_64}, false},
            {"bytes before", {put_7, give}, false},
            {"flushed", {give, flush}, true},
            {"altered before", {alter, give}, true},
            {"altered after", {give, alter}, true},
            {"copied", {give_a_copy}, true},
            {"firmware read", {read_firmware, give, read_firmware}, true},
            {"seek and back", {give, seek_and_back}, true},
            {"skipped", {give_two_of_three}, false},
            {"repeated", {give, give}, false},
            {"the page before", {give_the_one_before}, false},
            {"all together", {put_7, give, flush, read_firmware, alter, give, put_64}, false}};
}

// A storage class whose write_page takes these steps.
template <typename Storage>
class Abused : public Exposed<Storage> {
public:
    using Exposed<Storage>::Exposed;
    using Storage::m_plain_pages;

    bool write_page(uint8_t* page, uint32_t length) override {
        arrived.push_back({copy_of(page), length});
        for (const Step step : steps)
            take(step, page, length);
        return true;
    }

    std::vector<Step> steps{Step::give};
    std::vector<RecordedPage> arrived{};                // whole pages; length as it was given
    std::map<std::string, std::vector<Given>> given{};  // by output file

private:
    void take(Step step, uint8_t* page, uint32_t length) {
        switch (step) {
        case Step::give:
            return give(page, length);
        case Step::give_a_copy: {
            Bytes copy = copy_of(page);
            alter(page);
            return give(copy.data(), length);
        }
        case Step::give_the_one_before:
            if (arrived.size() > 1) {
                RecordedPage before = *(arrived.end() - 2);
                give(before.bytes.data(), before.length);
            }
            return;
        case Step::give_two_of_three:
            if (arrived.size() % 3 != 0)
                give(page, length);
            return;
        case Step::alter:
            return alter(page);
        case Step::put_7:
            return put_own(7);
        case Step::put_16:
            return put_own(16);
        case Step::put_64:
            return put_own(64);
        case Step::flush:
            this->m_fout.flush();
            return;
        case Step::read_firmware:
            return read_firmware();
        case Step::seek_and_back:
            const auto position = this->m_fout.tellp();
            this->m_fout.seekp(0);
            this->m_fout.seekp(position);
        }
    }

    void give(uint8_t* page, uint32_t length) {
        given[this->m_out_file].push_back({this->m_fout.buffer().position(), copy_of(page), length});
        EXPECT_TRUE(Storage::write_page(page, length));
    }

    void put_own(std::size_t size) {
        const Bytes own = patterned(size, static_cast<uint32_t>(arrived.size()));
        given[this->m_out_file].push_back({this->m_fout.buffer().position(), own});
        this->m_fout.write(reinterpret_cast<const char*>(own.data()), static_cast<std::streamsize>(size));
    }

    // Far enough apart that each read loads another block of the firmware.
    void read_firmware() {
        Bytes piece(5000);
        const uint64_t last = this->m_update_image_ptr->GetImageSize() - piece.size();
        EXPECT_TRUE(this->m_update_image_ptr->GetData(m_reads++ % 2 * last, 5000, piece.data()));
    }

    void alter(uint8_t* page) const {
        std::for_each_n(page, this->m_page_size, [](uint8_t& byte) { byte ^= 0x5A; });
    }

    Bytes copy_of(const uint8_t* page) const { return Bytes(page, page + this->m_page_size); }

    uint32_t m_reads = 0;
};

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
    Firmware firmware = sample_firmware({.gpt = chip.gpt()});
    const bool small = chip.spreads_widely();
    firmware.items.resize(1);
    firmware.items[0].part_size = chip.page_kb * 2 * (small ? 4 : 27);
    for (const auto& [name, data] :
         {std::pair{"system", patterned(small ? 270000 : 1300001, 3)},
          std::pair{"sparse", sparse_image(small)}, std::pair{"tail", patterned(5000, 4)}}) {
        const Item& before = firmware.items.back();
        firmware.items.push_back({.name = name,
                                  .part_size = static_cast<uint32_t>(data.size() / 512) + (small ? 200 : 400),
                                  .flash_offset = before.flash_offset + before.part_size + 37,
                                  .data = data});
    }
    firmware.items.back().part_size = kGrowsToEnd;
    return firmware;
}

// All pages, or those that are more than padding.
std::vector<RecordedPage> pages_of(std::vector<RecordedPage> pages, uint8_t fill_byte, bool all) {
    std::erase_if(pages, [&](const RecordedPage& page) {
        return !all && all_bytes_are(page.bytes, fill_byte, 0, page.bytes.size());
    });
    return pages;
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

    // A whole conversion; its messages.
    template <typename Storage>
    std::string run(Abused<Storage>& storage) const {
        storage.m_plain_pages = false;
        std::filesystem::remove_all(out_dir());
        std::filesystem::create_directory(out_dir());
        std::srand(1);  // the GUIDs of a GPT
        return output_of([&] {
            ASSERT_TRUE(storage.storage_init());
            EXPECT_TRUE(storage.create_image());
        });
    }

    // The file that holds what was given: each page is written by itself and has left before the next comes.
    template <typename Storage>
    Bytes expected_file(const std::vector<Given>& all) const {
        const std::filesystem::path path = m_directory / "expected.img";
        const auto storage = make_storage<Exposed<Storage>>();
        storage->m_fout.open(path.string());
        for (Given given : all) {
            storage->m_fout.seekp(static_cast<std::streamoff>(given.position));
            if (given.page_length)
                EXPECT_TRUE(storage->write_page(given.bytes.data(), *given.page_length));
            else
                storage->m_fout.write(reinterpret_cast<const char*>(given.bytes.data()),
                                      static_cast<std::streamsize>(given.bytes.size()));
            storage->m_fout.flush();
        }
        storage->close_output();
        const Bytes bytes = read_file(path);
        std::filesystem::remove(path);  // a truncated one is slow: it is brought to the disk when closed
        return bytes;
    }

    template <typename Storage>
    void expect_private_pages() const {
        const uint8_t fill = GetParam().fill_byte();
        write_firmware(firmware_for(GetParam()));
        const auto undisturbed = make_storage<Abused<Storage>>();
        const std::string messages = run(*undisturbed);
        for (const auto& [name, steps, keeps_length] : all_abuses()) {
            SCOPED_TRACE(name);
            const auto storage = make_storage<Abused<Storage>>();
            storage->steps = steps;
            EXPECT_EQ(run(*storage), messages);
            const bool same = pages_of(storage->arrived, fill, keeps_length) ==
                              pages_of(undisturbed->arrived, fill, keeps_length);
            EXPECT_TRUE(same) << "pages arrived with other bytes";
            for (const std::string& file : names_in(out_dir())) {
                const std::string path = out_path(file).string();
                EXPECT_TRUE(same_bytes(read_file(path), expected_file<Storage>(storage->given[path])))
                    << file;
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

INSTANTIATE_TEST_SUITE_P(Chips, PrivatePageTest, ::testing::ValuesIn(all_chips()),
                         [](const auto& chip) { return chip.param.name(); });

// Padding of more than 64 MiB may go past write_page where a page is nothing but its data.
class CountedPages : public Exposed<CEmmcStorage> {
public:
    using Exposed<CEmmcStorage>::Exposed;
    using CEmmcStorage::m_plain_pages;

    bool write_page(uint8_t* page, uint32_t length) override {
        EXPECT_TRUE(all_bytes_are(Bytes(page, page + length), m_fill_byte, 0, length));
        ++pages;
        Exposed<CEmmcStorage>::write_page(page, length);
        std::memset(page, 0xEE, length);
        if (!m_plain_pages)
            m_fout.write("spare", 5);
        return true;
    }
    std::size_t pages = 0;
};

using LongPaddingTest = StorageTest;

TEST_F(LongPaddingTest, EveryPageOfAFileArrivesUnlessPagesArePlain) {
    for (const bool plain : {false, true}) {
        const auto storage = make<CountedPages>({.page_kb = 64});
        storage->m_plain_pages = plain;
        for (const char* name : {"first.img", "second.img"}) {
            storage->pages = 0;
            ASSERT_TRUE(storage->switch_output(name));
            EXPECT_TRUE(storage->fill_output_file(1100 * 65536));
            storage->close_output();
            EXPECT_EQ(storage->pages, plain ? 1024U : 1100U) << name;
            EXPECT_EQ(std::filesystem::file_size(out_path(name)), 1100U * (plain ? 65536 : 65541)) << name;
        }
    }
}

}  // namespace
}  // namespace storage_test
