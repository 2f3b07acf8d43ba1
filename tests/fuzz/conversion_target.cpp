// The whole conversion, from the firmware file to the images, for every storage type; SLC NAND also on
// other paths of the encoder. The images go to a receiver in memory: writing them to files took nearly all of
// the time.

#include "common/messages.h"
#include "fuzz_target.h"
#include "memory_receiver.h"
#include "scratch_storage.h"
#include "support/bch_paths.h"
#include "support/conversion.h"

#include <exception>
#include <iterator>

namespace robustness {

using namespace test_support;

namespace {

WorkDirectory& scratch() {
    static WorkDirectory directory(memory_directory());
    return directory;
}

constexpr const char* kPagesKb[] = {"2", "4", "1", "8", "3", "64"};
static_assert(std::size(kPagesKb) == kConversionPageSizes);

Conversion conversion_of(const ControlBytes& input) {
    return {.type = kStorageTypes[input[0] % kStorageTypes.size()],
            .block_kb = input.choice(1, {"8", "16", "128", "64", "1", "3"}),
            .page_kb = input.choice(2, kPagesKb),
            .spare_bytes = input.choice(3, {"64", "128", "32", "256", "2048", "33"}),
            .two_kilobytes_data = input.flag(0, 4),
            .page_list = input.flag(0, 5)};
}

// NAND has a file for each of up to hundreds of items, so its files are kept small; an image without a GPT
// begins its partitions at 4 MiB and has to have room after that.
ReceiverManner manner_of(const ControlBytes& input, const Conversion& conversion) {
    return {.directory = scratch().out_dir().string() + '/',
            .like_a_file = input.flag(0, 6),
            .keeps_bytes = conversion.type == "slc",
            .largest_output = conversion.is_whole_device() ? kLargestFuzzedFile : 1024 * 1024,
            .largest_in_all = kLargestFuzzedFile};
}

// Thrown out of a conversion that prints more than the caller waits for.
struct EnoughSaid {};

// Takes the messages while the object lives.
class Messages {
public:
    Messages() {
        send_messages_to([this](const std::string& text) {
            // A stream may swallow it, so each further message throws again. While another exception is
            // under way it would end the process.
            if (++m_count > conversion_patience().messages && std::uncaught_exceptions() == 0)
                throw EnoughSaid();
            m_last = text;
        });
    }
    Messages(const Messages&) = delete;
    Messages& operator=(const Messages&) = delete;
    ~Messages() { send_messages_to({}); }

    bool end_in_success() const { return m_last.find("creating programming image ok.") != std::string::npos; }

private:
    uint64_t m_count = 0;
    std::string m_last{};
};

constexpr int kGivenUp = -1;

int run_once(MemoryReceiver& receiver, const Conversion& conversion, const BchPath* path = nullptr) {
    int status = kGivenUp;
    const Messages messages;
    try {
        status = convert_by_call(conversion, scratch().firmware(), scratch().out_dir(), path, &receiver);
    } catch (const EnoughSaid&) {
        // The storage has closed the output on its way out.
    }
    if (receiver.complaint() != nullptr)
        throw Misbehaviour(receiver.complaint());
    require(!receiver.is_open(), "an output stays open");
    if (status == kGivenUp)
        return status;
    require(messages.end_in_success() == (status == kConverted), "the last line and the status differ");
    require(status != kConverted || !receiver.has_refused(), "success though bytes were refused");
    return status;
}

// The fastest path, as the program, and where the input chooses another one that as well: all give the same.
void run_on_chosen_paths(const ControlBytes& input, const Conversion& conversion) {
    static const std::vector<BchPath> paths = available_bch_paths();
    MemoryReceiver first(manner_of(input, conversion));
    const int status = run_once(first, conversion, &paths.front());
    const std::size_t other = input[2] / kConversionPageSizes % paths.size();
    if (other == 0)
        return;
    MemoryReceiver second(manner_of(input, conversion));
    require(run_once(second, conversion, &paths[other]) == status,
            "the paths of the encoder end differently");
    require(second.took_the_same(first), "the paths of the encoder give different images");
}

}  // namespace

ConversionPatience& conversion_patience() {
    static ConversionPatience patience;
    return patience;
}

void run_conversion(const Bytes& input) {
    const ControlBytes bent(input, kConversionControls);
    const Conversion conversion = conversion_of(bent);
    // A name with ".bin" in it makes the file a bare boot container.
    scratch().name_firmware(bent.flag(0, 7) ? "loader.bin" : "firmware.img");
    scratch().pack(bent.body());
    if (conversion.type == "slc") {
        run_on_chosen_paths(bent, conversion);
    } else {
        MemoryReceiver receiver(manner_of(bent, conversion));
        run_once(receiver, conversion);
    }
    const std::string damage = scratch().damage(bent.body());
    require(damage.empty(), damage.c_str());
    require(scratch().output_names().empty(), "a file was written though a receiver takes the output");
    fs::remove(scratch().firmware());
}

}  // namespace robustness
