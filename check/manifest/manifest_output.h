#pragma once

#include "../../src/io/output_receiver.h"
#include "manifest_file_sums.h"

#include <cerrno>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/// What a manifest has to know of the files of a conversion besides their sums.
class ManifestOutput : public OutputReceiver {
public:
    uint64_t zeros_from() const override { return 0; }
    bool takes_parts() const override { return true; }
    void begin_part(const OutputPart& part) override;

    /// A GPT was written, and no parameter partition.
    bool has_gpt() const { return m_has_gpt; }
    /// True when bytes were refused with ECANCELED, because the rest of the file is of no interest. The
    /// conversion then ends as after a failed write.
    bool refused() const { return m_refused; }

protected:
    int refuse() {
        m_refused = true;
        return ECANCELED;
    }
    bool has_table() const { return m_has_table; }

    bool m_refused = false;

private:
    bool m_has_gpt = false;
    bool m_has_table = false;
};

/// Takes the names of the files in the order in which they are opened, and no bytes.
class ManifestNames : public ManifestOutput {
public:
    /// whole_image: the bytes before the partition table are let through, because the table tells its kind.
    explicit ManifestNames(bool whole_image) : m_whole_image(whole_image) {}

    int open(const std::string& path, OpenMode mode, uint64_t& size) override;
    int bytes(uint64_t offset, const uint8_t* bytes, uint64_t count) override;
    int zeros(uint64_t offset, uint64_t count) override;
    int end(uint64_t /*size*/) override { return 0; }
    int close() override { return 0; }

    /// With an entry for each opening.
    const std::vector<std::string>& names() const { return m_names; }

private:
    const bool m_whole_image;
    std::vector<std::string> m_names;
};

/// Makes the sums of the files that a conversion would write. The same object takes the conversion again as
/// long as needs_pass says so.
class ManifestConversion : public ManifestOutput {
public:
    /// Is told the bytes that were added to sums. May be empty.
    explicit ManifestConversion(std::function<void(uint64_t bytes)> progress)
        : m_progress(std::move(progress)) {}

    int open(const std::string& path, OpenMode mode, uint64_t& size) override;
    int bytes(uint64_t offset, const uint8_t* bytes, uint64_t count) override;
    int zeros(uint64_t offset, uint64_t count) override;
    int end(uint64_t size) override;
    int close() override;

    bool needs_pass() const;
    void start_pass();
    /// Bytes that were added to the sums of all files.
    uint64_t done() const;

    /// With an entry for each opening. All are complete when no pass is needed.
    std::vector<ManifestFileSums>& files() { return m_files; }

private:
    int take(uint64_t offset, const uint8_t* bytes, uint64_t count);
    /// The file that is being written. In the first pass it is the last one.
    ManifestFileSums& file() { return m_files[m_opened - 1]; }

    std::function<void(uint64_t bytes)> m_progress;
    std::vector<ManifestFileSums> m_files;
    std::size_t m_opened = 0;  // in this pass
    bool m_first_pass = true;
    uint64_t m_size = 0;
};
