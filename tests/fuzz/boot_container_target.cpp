// The boot container by itself: whatever its tables say, no access leaves its bytes, and what is handed out
// is what stands there.

#include "firmware/QZBoot.h"
#include "fuzz_target.h"

#include <cstring>
#include <memory>
#include <strings.h>

namespace robustness {

using namespace test_support;

namespace {

constexpr int kNameBytes = 20;
constexpr int kLargestIndex = 255;

void check_entry(CQZBoot& boot, ENUM_QZBOOTENTRY type, uint8_t index, const Bytes& input) {
    uint32_t size = 0;
    uint32_t delay = 0;
    const auto name = std::make_unique<char[]>(kNameBytes);  // of exactly the size that may be written
    if (!boot.GetEntryProperty(type, index, size, delay, name.get()))
        return;
    require(boot.GetEntryProperty(type, index, size, delay), "an entry is there only once");
    if (size > input.size())
        return;  // a caller's buffer would be bounded by what the firmware holds
    Bytes data(size);
    if (boot.GetEntryData(type, index, data.data()))
        require(size == 0 || ::memmem(input.data(), input.size(), data.data(), size) != nullptr,
                "the data of an entry is not in the container");
}

void check_names(CQZBoot& boot, ENUM_QZBOOTENTRY type) {
    for (const char* wanted :
         {"FlashData", "flashboot", "FlashHead", "", "a name of twenty and more letters"}) {
        const auto index = static_cast<uint8_t>(boot.GetIndexByName(type, wanted));
        if (index == kLargestIndex)
            continue;
        uint32_t size = 0;
        uint32_t delay = 0;
        char name[kNameBytes];
        require(boot.GetEntryProperty(type, index, size, delay, name), "a named entry is not there");
        require(::strncasecmp(name, wanted, kNameBytes) == 0, "an entry of another name was found");
    }
}

void check_saving(CQZBoot& boot, ENUM_QZBOOTENTRY type, const Bytes& input) {
    static const TemporaryDirectory scratch(memory_directory());
    const std::string path = scratch / "entry.bin";
    if (boot.SaveEntryFile(type, 0, path))
        require(std::filesystem::file_size(path) <= input.size(),
                "a saved entry is larger than the container");
}

}  // namespace

void run_boot_container(const Bytes& input) {
    // Bytes of their own, so that a sanitizer sees any access beside them.
    auto bytes = std::make_unique<uint8_t[]>(input.size());
    std::copy(input.begin(), input.end(), bytes.get());
    CQZBoot boot(bytes.release(), static_cast<uint32_t>(input.size()));
    const int code = boot.ObjectInit();
    require(code <= 0 && code >= -4, "unknown result of loading a container");
    if (code != 0)
        return;
    require(uint32_t{boot.MergeVersion} == boot.GetMergeVersion(), "a property is not its getter");
    for (const auto& [type, count] : {std::pair<ENUM_QZBOOTENTRY, int>{ENTRY471, boot.GetEntry471Count()},
                                      {ENTRY472, boot.GetEntry472Count()},
                                      {ENTRYLOADER, boot.GetEntryLoaderCount()}}) {
        for (int index = 0; index <= std::min(count + 1, kLargestIndex); ++index)
            check_entry(boot, type, static_cast<uint8_t>(index), input);
        check_entry(boot, type, kLargestIndex, input);
        check_names(boot, type);
        check_saving(boot, type, input);
    }
    uint32_t size = 0;
    uint32_t delay = 0;
    require(!boot.GetEntryProperty(static_cast<ENUM_QZBOOTENTRY>(8), 0, size, delay), "an entry of no kind");
}

}  // namespace robustness
