// The way of a page: out of the firmware with GetData, into the output file with write_page.

#include "firmware/QZImage.h"
#include "storage/storage_impl.h"
#include "support/bytes.h"
#include "support/firmware_builder.h"

#include <benchmark/benchmark.h>
#include <cstdint>
#include <string>

namespace {

using test_support::Bytes;

constexpr uint32_t kIb = 1024;
constexpr uint64_t kFileLimit = uint64_t{64} << 20;  // the file is then written over from its start

enum class Sink { file, nothing };
enum class Contents { data, fill };

// A storage whose output is opened here and not by a conversion.
template <typename Storage>
class OpenStorage : public Storage {
public:
    using Storage::Storage;

    bool open(const std::string& path) {
        this->m_fout.open(path, std::ios_base::out | std::ios_base::binary | std::ios_base::trunc);
        return this->m_fout.is_open();
    }
    void start_over_at(uint64_t limit) {
        if (this->m_fout.buffer().position() >= limit)
            this->m_fout.seekp(0);
    }
};

// Speed counts the page's data. In a file, pages of nothing but zeros are left out as holes; with a spare
// area they are none.
template <typename Storage>
void write_pages(benchmark::State& state, Storage& storage, uint32_t page_size, Sink sink,
                 Contents contents) {
    const test_support::TemporaryDirectory directory;
    if (!storage.open(sink == Sink::file ? (directory / "out_image.img").string() : "/dev/null")) {
        state.SkipWithError("cannot open the output");
        return;
    }
    Bytes page = contents == Contents::data ? test_support::patterned(page_size, 1) : Bytes(page_size, 0);
    for (auto _ : state) {
        storage.write_page(page.data(), page_size);
        storage.start_over_at(kFileLimit);
    }
    state.SetBytesProcessed(state.iterations() * page_size);
}

void emmc_pages(benchmark::State& state, Sink sink, Contents contents) {
    OpenStorage<CEmmcStorage> storage(512U, 2U, 0U, "", "", false);
    write_pages(state, storage, 2 * kIb, sink, contents);
}

// 2 KB of data per page, in pages of 4 KB.
void spi_pages_of_2k_data(benchmark::State& state, Sink sink, Contents contents) {
    OpenStorage<CSpiStorage> storage(256U, 4U, 0U, "", "", true);
    write_pages(state, storage, 4 * kIb, sink, contents);
}

void slc_pages(benchmark::State& state, Sink sink, Contents contents) {
    const auto page_kib = static_cast<uint32_t>(state.range(0));
    OpenStorage<CSlcStorage> storage(128U, page_kib, 32 * page_kib, "", "", false, false);
    write_pages(state, storage, page_kib * kIb, sink, contents);
}

void get_data_in_pages(benchmark::State& state) {
    const test_support::TemporaryDirectory directory;
    const std::string path = (directory / "firmware.img").string();
    constexpr uint32_t data_size = 32U << 20;
    constexpr uint32_t piece = 2 * kIb;
    test_support::Firmware firmware = test_support::sample_firmware();
    firmware.item("rootfs").data = test_support::patterned(data_size, 1);
    firmware.write(path);
    const uint64_t start = firmware.layout().item_data.back();

    CQZImage image;
    if (image.ObjectInit(path, false) != 0) {
        state.SkipWithError("cannot load the firmware");
        return;
    }
    Bytes page(piece);
    uint64_t position = 0;
    for (auto _ : state) {
        image.GetData(start + position, piece, page.data());
        position = (position + piece) % data_size;
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * piece);
}
BENCHMARK(get_data_in_pages)->Name("GetData/2KB");

BENCHMARK_CAPTURE(emmc_pages, data_to_file, Sink::file, Contents::data);
BENCHMARK_CAPTURE(emmc_pages, fill_to_file, Sink::file, Contents::fill);
BENCHMARK_CAPTURE(emmc_pages, data_to_dev_null, Sink::nothing, Contents::data);
BENCHMARK_CAPTURE(emmc_pages, fill_to_dev_null, Sink::nothing, Contents::fill);
BENCHMARK_CAPTURE(spi_pages_of_2k_data, data_to_file, Sink::file, Contents::data);
BENCHMARK_CAPTURE(spi_pages_of_2k_data, fill_to_file, Sink::file, Contents::fill);
BENCHMARK_CAPTURE(spi_pages_of_2k_data, data_to_dev_null, Sink::nothing, Contents::data);
BENCHMARK_CAPTURE(spi_pages_of_2k_data, fill_to_dev_null, Sink::nothing, Contents::fill);
BENCHMARK_CAPTURE(slc_pages, data_to_file, Sink::file, Contents::data)->ArgName("page_KB")->Arg(2)->Arg(4);
BENCHMARK_CAPTURE(slc_pages, fill_to_file, Sink::file, Contents::fill)->ArgName("page_KB")->Arg(2)->Arg(4);
BENCHMARK_CAPTURE(slc_pages, data_to_dev_null, Sink::nothing, Contents::data)
    ->ArgName("page_KB")
    ->Arg(2)
    ->Arg(4);
BENCHMARK_CAPTURE(slc_pages, fill_to_dev_null, Sink::nothing, Contents::fill)
    ->ArgName("page_KB")
    ->Arg(2)
    ->Arg(4);

}  // namespace
