#pragma once

#include "../../src/io/byte_buffer.h"
#include "../base/chip_result.h"
#include "../base/places.h"
#include "../base/target.h"
#include "../chip/unit_corrector.h"
#include "../judge/part_reader.h"

#include <cstdint>
#include <optional>
#include <vector>

/// Where the bytes of a file of the conversion lie in a target. Without blocks they follow each other.
struct FilePlaces {
    uint64_t page = 0;   ///< bytes of a page in the file; not 0
    uint64_t block = 0;  ///< bytes of an erase block in the file; not 0
    uint64_t spare = 0;  ///< bytes that the target has after each page, and the file has not
    uint64_t skip = 0;   ///< bytes of the target before its first block
    std::optional<std::vector<uint64_t>> blocks{};  ///< block i of the file is this block of the target

    /// Where byte offset of the file lies, and how many bytes follow it there. Nothing after the last block.
    std::optional<uint64_t> place(uint64_t offset, uint64_t& together) const;
    /// Block and page of a byte of the target, which lies after its header.
    Place place_in_target(uint64_t target_offset, const Geometry& geometry) const;
};

/// What was found out about a part's data while it was read.
struct DataCounts {
    /// Units that cannot be corrected, with no other between them. All lie in one erase block.
    struct BadUnits {
        uint64_t position = 0;  ///< of the first byte in the data
        uint64_t offset = 0;    ///< in the target
        uint64_t units = 1;
    };

    UnitCounts units;                 ///< of SLC NAND
    std::vector<BadUnits> bad_units;  ///< the first ones; units.beyond counts all
    uint64_t unreadable = 0;          ///< bytes of data that failed to be read: zeros stand for them
    uint64_t erased_pages = 0;        ///< of SLC NAND, with data: nothing was written to them
    uint64_t foreign_pages = 0;       ///< of SLC NAND, with data: they have the list index of another page
};

/// Reads a part's data out of a target: without spare areas, and corrected by the parity of SLC NAND. The
/// expected bytes are not known here, so that nothing but the target can come out.
class PartData {
public:
    /// What lies where. offset: of the part in its file. index_step: by which the list index grows from page
    /// to page of the file; 0: it is not looked at.
    struct Source {
        FilePlaces places;
        PageLayout layout;
        uint64_t offset = 0;
        uint32_t index_step = 0;
        uint64_t most_bad_units = 10;  ///< entries of DataCounts::bad_units
    };

    /// The target outlives this. Throws std::bad_alloc without memory.
    PartData(Target& target, Source source);

    /// Reads up to count bytes from a position of the data on. Returns their number, which is less only where
    /// the target or its last block ends. Each unit is counted when it is read.
    uint64_t read(uint64_t position, uint64_t count, uint8_t* out);

    const DataCounts& counts() const { return m_counts; }
    const Source& source() const { return m_source; }

private:
    struct Unit {
        uint64_t position;  // of its data
        uint64_t in_file;
        uint64_t place;  // in the target
        uint8_t* bytes;
        bool readable;
    };

    uint64_t read_plainly(uint64_t position, uint64_t count, uint8_t* out);
    uint64_t read_bytes(uint64_t place, uint64_t count, uint8_t* out);
    uint64_t read_units(uint64_t position, uint64_t count, uint8_t* out);
    bool find_unit(uint64_t number, Unit& unit) const;
    void gather(uint64_t first, uint64_t wanted);
    void read_each();
    void correct();
    void note(const Unit& unit, const UnitVerdict& verdict);
    void list_bad(const Unit& unit);
    void look_at_index(const Unit& unit);

    Target& m_target;
    const Source m_source;
    std::optional<UnitCorrector> m_corrector;  // of SLC NAND
    DataCounts m_counts;
    uint64_t m_next_bad = UINT64_MAX;  // position of the unit that would go on with the last of the bad ones
    ByteBuffer m_raw;
    std::vector<Unit> m_units;  // that are read together
};
