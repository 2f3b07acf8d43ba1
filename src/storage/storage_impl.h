#pragma once

#include "../firmware/QZImage.h"
#include "../firmware/item_table.h"
#include "../io/byte_buffer.h"
#include "../io/output_file.h"
#include "parameter_text.h"
#include "results.h"
#include "storage_units.h"

// The records of the formats belong to the interface of this header.
#include "boot_block_format.h"
#include "gpt_format.h"
#include "sparse_format.h"

#include <cstdint>
#include <fstream>
#include <memory>
#include <optional>
#include <string>

class PageSource;
class Progress;

/// Storage type of the output; one bit each.
enum ENUM_FLASH_TYPE : uint32_t {
    FLASH_NONE = 0,
    FLASH_EMMC = 1,
    FLASH_NOR = 2,
    FLASH_SPI_NAND = 4,
    FLASH_SLC_NAND = 8,
};

/// Kind of a partition image: selects its writer.
enum ENUM_IMAGE_TYPE : uint32_t {
    IMAGE_NONE = 0,
    IMAGE_GPT = 1,
    IMAGE_PARAM = 2,
    IMAGE_SPARSE = 4,
    IMAGE_FILE = 8,
};

/// A writer of programming images: reads the firmware and writes boot block, partition table and partitions.
/// The classes of the storage types change the layout through the virtual operations.
///
/// Construct, call storage_init once, then create_image once. All messages go to standard output. A page that
/// cannot be written does not stop the steps: create_image reports the first such failure at its end instead
/// of success. The operations that return an int return 0 or a code of results.h.
class CStorage {
public:
    /// Sizes of erase block and page in KB, of the spare area in bytes. page_2k: only 2 KB of data per flash
    /// page. Reads and opens nothing.
    CStorage(ENUM_FLASH_TYPE type, uint32_t block_size, uint32_t page_size, uint32_t oob_size,
             std::string in_file, std::string out_dir, bool page_2k);

    // The virtual operations, in slot order.
    /// Sectors of a boot block: its header and stages of these sizes, in whole pages.
    virtual uint32_t compute_idb_total_sector(uint32_t flash_data_sectors, uint32_t flash_boot_sectors);
    /// Sets where copies of the boot block are written, and may enlarge it. False: it cannot be written.
    virtual bool prepare_write_idblock() { return true; }
    /// Ends the boot block. Always true.
    virtual bool post_write_idblock() { return true; }
    /// Brings the output to the start of the partition and prints where that is. False: it cannot be written.
    virtual bool prepare_write_partition(STRUCT_QZIMAGE_ITEM& item);
    /// Ends the partition. Always true.
    virtual bool post_write_partition() { return true; }
    /// Writes one page at the output position: length bytes of data or, with 2 KB per page, every 2 KB of the
    /// m_page_size bytes of data in a page of its own. Always true; the output file keeps its first failure.
    ///
    /// The page is private to the call. An override may change it, and may write, seek, flush or read the
    /// firmware before or after it calls the base, any number of times, with any data outside m_fout's room.
    /// A page of padding always arrives full of fill bytes. An override that does more than pass each page on
    /// once clears m_plain_pages.
    virtual bool write_page(uint8_t* data, uint32_t length);
    /// Loads the firmware and, for eMMC and NOR, creates out_image.img. False after a line that says why.
    virtual bool storage_init();
    virtual ~CStorage() = default;

    /// Before storage_init: the output goes to receiver, which outlives the object. No file is written.
    void send_output_to(OutputReceiver& receiver);
    /// Runs the whole conversion. False after a line that says what failed; what was written stays.
    bool create_image();
    /// Calls the writer of this kind and returns its result, or kUnknownImageType.
    int write_partition(STRUCT_QZIMAGE_ITEM& item, ENUM_IMAGE_TYPE type);
    /// Makes the output reach the byte offset with pages of padding, or moves the write position back to it
    /// when the output is longer. False when there is no memory for a page.
    bool fill_output_file(uint64_t offset);
    /// Adds pages of padding until the output reaches the end of an erase block, or passes it when a block is
    /// not a multiple of a page. False when there is no memory for a page.
    bool align_to_block();

    /// Builds and writes the boot block. A WriteIdblockResult.
    int write_idblock();
    /// Size of a loader entry in bytes, and in sectors rounded up to 2 KB units. False, with sectors
    /// unchanged, when there is no such entry, it cannot be read or its sectors do not fit 16 bits.
    bool get_loader_size_from_name(std::string name, uint16_t& sectors, uint32_t& size);
    /// Fills the 512 bytes of IDB_SEC0 for stages of these sizes.
    void make_idb_sector0(uint8_t* sector, uint16_t flash_data_sectors, uint16_t flash_boot_sectors);
    /// Fills the 512 bytes of IDB_SEC1.
    void make_idb_sector1(uint8_t* sector);
    /// Builds one boot block in buf: zeros, at least the 4 header sectors and those of both stages. The last
    /// two sizes are in bytes. A CreateIdblockResult.
    int create_idblock(uint8_t* buf, uint16_t flash_data_sectors, uint16_t flash_boot_sectors,
                       uint32_t flash_data_size, uint32_t flash_boot_size);

    /// Copies a plain image. A WriteImageResult.
    int write_image(STRUCT_QZIMAGE_ITEM& entry);
    /// True when the item starts with the magic of a sparse image. An unreadable header prints a line.
    bool is_sparse_image(STRUCT_QZIMAGE_ITEM& entry);
    /// blk_sz * total_blks in bytes, wrapping at 32 bits. UINT64_MAX, after a line, for an unreadable header.
    uint64_t get_sparse_size(STRUCT_QZIMAGE_ITEM& entry);
    /// Expands a sparse image. After a failure its unsparse_tmp.bin stays. A WriteSparseImageResult.
    int write_sparse_image(STRUCT_QZIMAGE_ITEM& entry);

    bool parse_parameter(const char* pParameter, PARAM_ITEM_VECTOR& vecItem) {
        return parse_partition_list(pParameter, vecItem);
    }
    bool parse_partition_info(std::string& strPartInfo, std::string& strName, uint32_t& uiOffset,
                              uint32_t& uiLen) {
        return parse_partition(strPartInfo, strName, uiOffset, uiLen);
    }
    bool get_uuid_from_parameter(const char* pParameter, UUID_ITEM_VECTOR& vecItem) {
        return parse_uuid_lines(pParameter, vecItem);
    }
    bool parse_uuid(std::string& strUuidInfo, std::string& strName, std::string& strUUid) {
        return parse_uuid_line(strUuidInfo, strName, strUUid);
    }
    void string_to_uuid(std::string strUUid, uint8_t* uuid) { uuid_from_digits(strUUid, uuid); }

    /// Loads the parameter record into m_paramBuffer, with zeros up to whole pages. False, with m_paramBuffer
    /// unchanged, when it cannot be read or there is no memory.
    bool make_param_buffer(STRUCT_QZIMAGE_ITEM& entry);
    /// Writes the partition: 8 copies of the record, or 4 when 8 do not fit. A WriteParameterResult.
    int write_parameter(STRUCT_QZIMAGE_ITEM& entry);
    /// True when the parameter text asks for a GPT (declares_gpt). False also when it cannot be read.
    bool get_gpt_flag(STRUCT_QZIMAGE_ITEM& entry);
    /// Fills kGptTableSize bytes: protective MBR, header and entries, for the first 128 of vecParts. In these
    /// a NUL replaces the colon of the name.
    void create_gpt_buffer(uint8_t* gpt, PARAM_ITEM_VECTOR& vecParts, UUID_ITEM_VECTOR& vecUuid,
                           uint64_t diskSectors);
    /// Writes the GPT for the text in m_paramBuffer and clears the checksum there. A WriteGptResult.
    int write_gpt(STRUCT_QZIMAGE_ITEM& entry);
    /// Fills 16 bytes with a version-4 GUID from rand(). This is not seeded: each run gives the same GUIDs.
    void gen_rand_uuid(uint8_t* uuid_bin);
    /// Index of the first GUID with this name, compared up to a NUL and without case; -1 when there is none.
    int32_t find_uuid_item(UUID_ITEM_VECTOR& vecItems, std::string szName);

protected:
    /// The path of the file name in the output directory.
    std::string path_in_output(const std::string& name) const;
    /// Closes the output and creates the file name in the output directory. False after a line that says why.
    /// A name with a "/" fails with EINVAL.
    bool switch_output(const std::string& name);
    /// Closes the output. A failure is reported by create_image.
    void close_output();
    /// Starts idblock.img, with one copy of the boot block at its start. False as switch_output.
    bool open_nand_idblock();
    /// Starts the file of a NAND partition and prints its path. False as switch_output.
    bool open_nand_partition(const STRUCT_QZIMAGE_ITEM& item);
    /// Writes pages of padding. False when there is no memory for a page: the output is then given up.
    bool write_padding(uint64_t pages);
    /// Passes count pages of fill bytes to write_page, length bytes each. page has m_page_size bytes, which
    /// change. After 64 MiB of them in a file, all others go to the file at once if m_plain_pages is set.
    /// After 1,048,576 refused pages in a run, all others are left out.
    void write_fill_pages(uint8_t* page, uint64_t count, uint32_t length);
    /// Passes count pages of the source to write_page, shown as progress out of pages. Returns how many
    /// were passed before one could not be read. After a failure of the output, returns count and reads none.
    uint32_t write_pages(PageSource& source, uint32_t count, uint32_t pages = 0, Progress* shown = nullptr);
    /// Writes pages of padding from page number done up to pages, with progress; page as in write_fill_pages.
    void write_partition_rest(uint8_t* page, uint32_t done, uint32_t pages, Progress& progress);
    /// Pages to write for data_pages pages of data. For NAND and for a growing partition these are
    /// data_pages, else all pages of the partition. Nothing when it is too small.
    std::optional<uint32_t> partition_pages(const STRUCT_QZIMAGE_ITEM& entry, uint32_t data_pages) const;

    bool m_init_ok;                      ///< storage_init has succeeded
    uint32_t m_block_size;               ///< in bytes; all sizes wrap at 32 bits
    std::string m_in_firmware;           ///< path of the firmware
    CQZImage* m_update_image_ptr;        ///< owned through m_update_image
    std::ifstream m_fin;                 ///< not opened by the creation sequence
    uint8_t* m_paramBuffer = nullptr;    ///< parameter record in whole pages; owned through m_param_bytes
    uint32_t m_uiParamFileSize = 0;      ///< in bytes, of the record that was asked for last
    bool m_gpt_flag = false;             ///< the parameter text asks for a GPT; set by create_image
    bool m_page_2k;                      ///< only 2 KB of data in a flash page
    uint32_t m_idb_fill_page_num = 0;    ///< SLC NAND: fill pages after the boot block
    uint32_t m_image_fill_page_num = 0;  ///< pages of the image just written
    uint8_t m_fill_byte;                 ///< value of all bytes of padding
    std::string m_out_dir;               ///< output directory; empty: the current one
    std::string m_out_file;              ///< path of the output file; empty until one is opened
    WriteFailure m_write_failure;        ///< first failure of any output file; ends the run in failure
    OutputFile m_fout{&m_write_failure};
    ENUM_FLASH_TYPE m_type;                  ///< storage type
    uint32_t m_page_size;                    ///< in bytes
    uint32_t m_oob_size;                     ///< in bytes
    uint32_t m_block_size_sector;            ///< erase block in sectors
    uint32_t m_page_size_sector;             ///< page in sectors
    uint8_t m_idb_copy = 0;                  ///< copies of the boot block; two are written at most
    uint32_t m_idb_upper_limit = 0;          ///< end of the boot block area in sectors; not used
    uint32_t m_idb_start_sector = 0;         ///< sector of the first copy
    uint32_t m_idb_second_start_sector = 0;  ///< sector of the second copy
    uint32_t m_idb_total_sector = 0;         ///< sectors of one copy
    bool m_plain_pages = true;               ///< write_page writes data and fill bytes alone

private:
    /// Bytes at m_paramBuffer that hold the record asked for last; a derived class may have moved it.
    uint64_t param_buffer_bytes() const;
    bool run_creation();
    int pass_sparse_pages(STRUCT_QZIMAGE_ITEM& entry, const sparse_header_t& header, uint32_t pages);
    int write_idblock_copies(const ByteBuffer& block, uint32_t pages);
    bool write_partitions();
    bool finish_output();

    std::unique_ptr<CQZImage> m_update_image;
    ByteBuffer m_param_bytes;
    uint32_t m_loaded_param_size = 0;  // bytes of the record in m_param_bytes
    uint64_t m_padding_by_pages = 0;   // bytes of padding that write_page wrote in this output file
    uint64_t m_refused_padding = 0;    // pages of padding that write_page refused in this run
    bool m_writes_files = true;        // false: another receiver takes the output
};

/// eMMC: one image of the whole device. The second copy of the boot block starts 512 KB after the first one.
class CEmmcStorage : public CStorage {
public:
    CEmmcStorage(uint32_t block_size, uint32_t page_size, uint32_t oob_size, std::string in_file,
                 std::string out_dir, bool page_2k)
        : CStorage(FLASH_EMMC, block_size, page_size, oob_size, in_file, out_dir, page_2k) {}
    bool prepare_write_idblock() override;
};

/// SPI NOR: one image of the whole device. The second copy of the boot block starts at a 64 KB boundary after
/// the first one.
class CNorStorage : public CStorage {
public:
    CNorStorage(uint32_t block_size, uint32_t page_size, uint32_t oob_size, std::string in_file,
                std::string out_dir, bool page_2k)
        : CStorage(FLASH_NOR, block_size, page_size, oob_size, in_file, out_dir, page_2k) {}
    bool prepare_write_idblock() override;
};

/// SPI NAND: idblock.img and a file for each partition, padded to whole erase blocks. No spare areas.
class CSpiStorage : public CStorage {
public:
    CSpiStorage(uint32_t block_size, uint32_t page_size, uint32_t oob_size, std::string in_file,
                std::string out_dir, bool page_2k)
        : CStorage(FLASH_SPI_NAND, block_size, page_size, oob_size, in_file, out_dir, page_2k) {}
    bool prepare_write_idblock() override;
    bool post_write_idblock() override;
    bool prepare_write_partition(STRUCT_QZIMAGE_ITEM& item) override;
    bool post_write_partition() override;
};

#include "slc_nand_layout.h"  // CSlcStorage; it derives from CStorage above
