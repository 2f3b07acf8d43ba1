#include "manifest_output.h"

#include <algorithm>
#include <cerrno>

void ManifestOutput::begin_part(const OutputPart& part) {
    const bool gpt = part.kind == OutputPart::Kind::kGpt;
    m_has_gpt = m_has_gpt || gpt;
    m_has_table = m_has_table || gpt || part.kind == OutputPart::Kind::kParameter;
}

int ManifestNames::open(const std::string& path, OpenMode /*mode*/, uint64_t& size) {
    size = 0;
    m_names.push_back(path);
    return 0;
}

int ManifestNames::bytes(uint64_t /*offset*/, const uint8_t* /*bytes*/, uint64_t count) {
    if (count == 0 || (m_whole_image && !has_table()))
        return 0;
    return refuse();
}

int ManifestNames::zeros(uint64_t offset, uint64_t count) {
    return bytes(offset, nullptr, count);
}

int ManifestConversion::open(const std::string& path, OpenMode /*mode*/, uint64_t& size) {
    size = 0;
    m_size = 0;
    ++m_opened;
    if (m_first_pass)
        m_files.emplace_back(path);
    return m_opened <= m_files.size() ? 0 : EIO;  // the firmware has changed
}

int ManifestConversion::bytes(uint64_t offset, const uint8_t* bytes, uint64_t count) {
    return count == 0 ? 0 : take(offset, bytes, count);
}

int ManifestConversion::zeros(uint64_t offset, uint64_t count) {
    return count == 0 ? 0 : take(offset, nullptr, count);
}

int ManifestConversion::take(uint64_t offset, const uint8_t* bytes, uint64_t count) {
    if (file().complete())
        return refuse();
    const uint64_t before = file().done();
    file().take(offset, bytes, count);
    if (m_progress && file().done() != before)
        m_progress(file().done() - before);
    return 0;
}

int ManifestConversion::end(uint64_t size) {
    m_size = size;
    return 0;
}

int ManifestConversion::close() {
    file().end_pass(m_size);
    return 0;
}

bool ManifestConversion::needs_pass() const {
    return std::any_of(m_files.begin(), m_files.end(),
                       [](const ManifestFileSums& file) { return !file.complete(); });
}

void ManifestConversion::start_pass() {
    m_first_pass = false;
    m_refused = false;
    m_opened = 0;
    for (ManifestFileSums& file : m_files)
        file.start_pass();
}

uint64_t ManifestConversion::done() const {
    uint64_t done = 0;
    for (const ManifestFileSums& file : m_files)
        done += file.done();
    return done;
}
