#include "storage_impl.h"

#include "../common/byte_reader.h"
#include "../common/common_define.h"
#include "console.h"
#include "page_source.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <span>

namespace {

constexpr char kFlashData[] = "FlashData";  // first loader stage: sets the memory up
constexpr char kFlashBoot[] = "FlashBoot";  // second loader stage: the boot loader
constexpr uint8_t kAbsent = 0xFF;

uint8_t loader_index(CQZBoot& boot, const char* name) {
    return static_cast<uint8_t>(boot.GetIndexByName(ENTRYLOADER, name));
}

/// A loader entry of size bytes, where it lies in the container. 0, or one of the codes.
int find_stage(CQZBoot& boot, const char* name, uint32_t size, int absent, int unreadable,
               std::span<const uint8_t>& stage) {
    const uint8_t index = loader_index(boot, name);
    if (index == kAbsent)
        return absent;
    const std::optional<std::span<const uint8_t>> bytes = boot.entry_data(ENTRYLOADER, index);
    if (!bytes || bytes->size() != size)
        return unreadable;
    stage = *bytes;
    return kDone;
}

/// Both stages. 0 or a CreateIdblockResult.
int find_stages(CQZBoot* boot, uint32_t data_size, uint32_t boot_size, std::span<const uint8_t>& flash_data,
                std::span<const uint8_t>& flash_boot) {
    if (boot == nullptr)
        return kFlashBootAbsent;
    const int result =
        find_stage(*boot, kFlashBoot, boot_size, kFlashBootAbsent, kFlashBootUnreadable, flash_boot);
    return result != kDone
               ? result
               : find_stage(*boot, kFlashData, data_size, kFlashDataAbsent, kFlashDataUnreadable, flash_data);
}

/// Copies a stage to its position in the boot block, and scrambles it there sector by sector if asked for.
/// The bytes after the stage stay plain, also those in its last sector.
void put_stage(std::span<const uint8_t> stage, uint8_t* out, bool scrambled) {
    std::copy(stage.begin(), stage.end(), out);
    for (uint64_t position = 0; scrambled && position < stage.size(); position += kSectorSize)
        rc4(out + position, static_cast<uint32_t>(std::min<uint64_t>(kSectorSize, stage.size() - position)));
}

}  // namespace

bool CStorage::get_loader_size_from_name(std::string name, uint16_t& sectors, uint32_t& size) {
    CQZBoot* boot = m_update_image_ptr->GetBootObject();
    if (boot == nullptr)
        return false;
    const uint8_t index = loader_index(*boot, name.c_str());
    uint32_t delay = 0;
    if (index == kAbsent || !boot->GetEntryProperty(ENTRYLOADER, index, size, delay))
        return false;

    uint32_t count = 0;
    if (size != 0)
        count = (size - 1) / kSectorSize / kIdbStageUnitSectors * kIdbStageUnitSectors + kIdbStageUnitSectors;
    if (count > UINT16_MAX)
        return false;
    sectors = static_cast<uint16_t>(count);
    return true;
}

void CStorage::make_idb_sector0(uint8_t* sector, uint16_t flash_data_sectors, uint16_t flash_boot_sectors) {
    CQZBoot* boot = m_update_image_ptr->GetBootObject();
    IDB_SEC0 header{};
    header.dwTag = kIdbTag;
    header.uiRc4Flag = boot != nullptr && boot->Rc4DisableFlag ? 1 : 0;
    header.usBootCode1Offset = kIdbHeaderSectors;
    header.usBootCode2Offset = kIdbHeaderSectors;
    header.usBootDataSize = flash_data_sectors;
    header.usBootCodeSize = static_cast<uint16_t>(flash_data_sectors + flash_boot_sectors);  // may wrap
    std::memcpy(sector, &header, sizeof(header));
}

void CStorage::make_idb_sector1(uint8_t* sector) {
    IDB_SEC1 header{};
    header.usSysReservedBlock = 12;
    header.usDisk0Size = 0xFFFF;
    header.uiChipTag = kIdbChipTag;
    std::memcpy(sector, &header, sizeof(header));
}

int CStorage::create_idblock(uint8_t* buf, uint16_t flash_data_sectors, uint16_t flash_boot_sectors,
                             uint32_t flash_data_size, uint32_t flash_boot_size) {
    std::span<const uint8_t> flash_data;
    std::span<const uint8_t> flash_boot;
    const int result = find_stages(m_update_image_ptr->GetBootObject(), flash_data_size, flash_boot_size,
                                   flash_data, flash_boot);
    if (result != kDone)
        return result;

    make_idb_sector0(buf, flash_data_sectors, flash_boot_sectors);
    make_idb_sector1(buf + kSectorSize);
    std::memset(buf + 2 * kSectorSize, 0, sizeof(IDB_SEC2) + sizeof(IDB_SEC3));

    const bool scrambled = little_endian_at<IDB_SEC0>(buf).uiRc4Flag != 0;
    const uint64_t flash_boot_sector = uint64_t{kIdbHeaderSectors} + flash_data_sectors;
    put_stage(flash_data, buf + kIdbHeaderSectors * kSectorSize, scrambled);
    put_stage(flash_boot, buf + flash_boot_sector * kSectorSize, scrambled);

    rc4(buf, kSectorSize);  // sector 1 stays plain
    rc4(buf + 2 * kSectorSize, kSectorSize);
    rc4(buf + 3 * kSectorSize, kSectorSize);
    return kDone;
}

uint32_t CStorage::compute_idb_total_sector(uint32_t flash_data_sectors, uint32_t flash_boot_sectors) {
    return ((kIdbHeaderSectors + flash_data_sectors + flash_boot_sectors - 1) / m_page_size_sector + 1) *
           m_page_size_sector;
}

int CStorage::write_idblock() {
    print_line("writing idblock...");
    uint16_t boot_sectors = 0;
    uint32_t boot_size = 0;
    if (!get_loader_size_from_name(kFlashBoot, boot_sectors, boot_size))
        return kFlashBootSizeUnknown;
    uint16_t data_sectors = 0;
    uint32_t data_size = 0;
    if (!get_loader_size_from_name(kFlashData, data_sectors, data_size))
        return kFlashDataSizeUnknown;

    m_idb_total_sector = compute_idb_total_sector(data_sectors, boot_sectors);
    if (!prepare_write_idblock())
        return kIdblockNotPrepared;

    // Whole pages are written. Where they end after the boot block, zeros follow it.
    const uint32_t pages = page_count(m_idb_total_sector, m_page_size_sector);
    const uint64_t needed_sectors = uint64_t{kIdbHeaderSectors} + data_sectors + boot_sectors;
    const uint64_t size = std::max({uint64_t{m_idb_total_sector} * kSectorSize, uint64_t{pages} * m_page_size,
                                    needed_sectors * kSectorSize});
    // No memory is taken for stages that the container does not hold.
    std::span<const uint8_t> stage;
    int result = find_stages(m_update_image_ptr->GetBootObject(), data_size, boot_size, stage, stage);
    ByteBuffer block;
    if (result == kDone) {
        if (!block.reset(size))
            return kNoIdblockMemory;
        result = create_idblock(block.data(), data_sectors, boot_sectors, data_size, boot_size);
    }
    if (result != kDone) {
        print_line("Failed to create idblock" + result_suffix(result));
        return kIdblockNotCreated;
    }
    return write_idblock_copies(block, pages);
}

/// Writes each copy in that many pages.
int CStorage::write_idblock_copies(const ByteBuffer& block, uint32_t pages) {
    const uint32_t starts[] = {m_idb_start_sector, m_idb_second_start_sector};
    const uint32_t copies = m_idb_copy > 1 ? 2 : 1;
    for (uint32_t copy = 0; copy < copies; ++copy) {
        if (!fill_output_file(uint64_t{starts[copy]} * kSectorSize))
            return kNoIdblockMemory;
        PageSource source(block, m_page_size, m_fill_byte);
        if (!source)
            return kNoIdblockMemory;
        m_fout.buffer().begin_part({.kind = OutputPart::Kind::kBootBlock, .copy = copy + 1});
        write_pages(source, pages);
    }
    post_write_idblock();
    return kDone;
}
