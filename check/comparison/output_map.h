#pragma once

#include "../../src/io/output_receiver.h"

#include <cstdint>
#include <string>
#include <vector>

/// Notes where a conversion writes its parts, and takes none of the bytes.
class OutputMap : public OutputReceiver {
public:
    /// Consecutive bytes of a part. In the file of a NAND partition they have the kind kGap.
    struct Extent {
        OutputPart part;
        std::string file;
        uint64_t offset = 0;  ///< in bytes from the start of the file
        uint64_t bytes = 0;
    };

    int open(const std::string& path, OpenMode mode, uint64_t& size) override;
    int bytes(uint64_t offset, const uint8_t* bytes, uint64_t count) override;
    int zeros(uint64_t offset, uint64_t count) override;
    uint64_t zeros_from() const override { return 0; }
    int end(uint64_t /*size*/) override { return 0; }
    int close() override { return 0; }
    bool takes_parts() const override { return true; }
    void begin_part(const OutputPart& part) override;

    /// In the order in which they were written. A file that was opened again has only what came after that.
    const std::vector<Extent>& extents() const { return m_extents; }

    /// True when bytes [begin, end) of the extent's file were written again after it. The extent is one of
    /// extents().
    bool is_written_again(const Extent& extent, uint64_t begin, uint64_t end) const;

private:
    void note(uint64_t offset, uint64_t count);

    std::string m_file;
    OutputPart m_part;
    bool m_new_part = true;
    std::vector<Extent> m_extents;
};
