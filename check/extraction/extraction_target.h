#pragma once

#include "../base/chip_result.h"
#include "../base/result.h"
#include "../base/target.h"
#include "part_data.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

/// What data is extracted from: the directory of a conversion, one image, or the dump of a chip.
class ExtractionTarget {
public:
    /// Finds where the files of the conversion lie in a dump. Returns why that is not known, or nothing.
    using Find = std::function<std::optional<std::string>(Target& dump, std::vector<Placement>& placements)>;

    /// chip_spare and skip: bytes that a dump has after each page and before its first block.
    ExtractionTarget(const Geometry& geometry, uint64_t chip_spare, uint64_t skip)
        : m_geometry(geometry), m_chip_spare(chip_spare), m_skip(skip) {}

    /// Returns why the target cannot be used, or nothing. In a dump the files are looked for, unless find is
    /// empty: then the whole dump stands for each of them.
    std::optional<std::string> open(const std::string& path, const FileIdentity& firmware, const Find& find);

    /// What holds the bytes of a file of the conversion, and where. Null when nothing does; trouble then says
    /// why, if the file is there and may not be read. Valid until the next call.
    Target* source_of(const std::string& file, FilePlaces& places, std::optional<std::string>& trouble);

    bool is_directory() const { return !m_directory.empty(); }
    const FileIdentity& identity() const { return m_identity; }
    /// As in ExtractionResult.
    const std::string& kind() const { return m_kind; }
    bool past_the_cache() const { return m_target.past_the_cache(); }
    /// Bytes of pages in a dump, whole pages or not: without its header.
    uint64_t dump_bytes() const;
    /// Bytes of a page in a dump.
    uint64_t dump_page() const { return m_geometry.page + m_places.spare; }

private:
    const Geometry m_geometry;
    const uint64_t m_chip_spare;
    const uint64_t m_skip;
    std::string m_directory;  // with a slash at its end; empty: m_target holds everything
    FileIdentity m_identity;
    std::string m_kind;
    Target m_target;
    Target m_file;  // of m_directory
    FilePlaces m_places;
    std::optional<std::vector<Placement>> m_placements;
};
