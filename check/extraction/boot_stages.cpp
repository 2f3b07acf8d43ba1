#include "boot_stages.h"

#include "../../src/common/common_define.h"
#include "../../src/storage/boot_block_format.h"

#include <algorithm>
#include <strings.h>

namespace {

/// The entry that the stage is made from; nothing when there is none.
std::optional<uint64_t> bytes_by_firmware(const std::vector<ListedLoaderEntry>& entries,
                                          const std::string& name) {
    const auto entry = std::find_if(entries.begin(), entries.end(), [&](const ListedLoaderEntry& candidate) {
        return candidate.type == "loader" && ::strcasecmp(candidate.name.c_str(), name.c_str()) == 0;
    });
    return entry == entries.end() ? std::nullopt : std::optional<uint64_t>(entry->bytes);
}

BootStage stage_of(const std::string& name, uint32_t first_sector, uint32_t sectors, bool scrambled,
                   const std::vector<ListedLoaderEntry>& entries) {
    BootStage stage{.name = name,
                    .position = uint64_t{first_sector} * kSectorSize,
                    .bytes = uint64_t{sectors} * kSectorSize,
                    .scrambled = scrambled};
    constexpr uint64_t kUnitBytes = uint64_t{kIdbStageUnitSectors} * kSectorSize;
    const std::optional<uint64_t> bytes = bytes_by_firmware(entries, name);
    if (bytes && (*bytes + kUnitBytes - 1) / kUnitBytes * kUnitBytes == stage.bytes)
        stage.bytes = *bytes;
    else
        stage.note = "whole sectors: its length is not that of the firmware";
    return stage;
}

}  // namespace

std::optional<std::vector<BootStage>> find_boot_stages(const ReadPart& read,
                                                       const std::vector<ListedLoaderEntry>& entries) {
    IDB_SEC0 header;
    auto* const bytes = reinterpret_cast<uint8_t*>(&header);
    if (!read(0, sizeof(header), bytes))
        return std::nullopt;
    rc4(bytes, sizeof(header));
    if (header.dwTag != kIdbTag)
        return std::nullopt;
    const uint32_t data_sectors = header.usBootDataSize;
    const uint32_t boot_sectors = static_cast<uint16_t>(header.usBootCodeSize - data_sectors);
    const bool scrambled = header.uiRc4Flag != 0;
    return std::vector<BootStage>{
        stage_of("FlashData", kIdbHeaderSectors, data_sectors, scrambled, entries),
        stage_of("FlashBoot", kIdbHeaderSectors + data_sectors, boot_sectors, scrambled, entries)};
}

void descramble_stage(uint8_t* bytes, uint64_t count) {
    for (uint64_t at = 0; at < count; at += kSectorSize)
        rc4(bytes + at, static_cast<uint32_t>(std::min<uint64_t>(kSectorSize, count - at)));
}
