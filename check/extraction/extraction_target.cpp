#include "extraction_target.h"

#include "../../src/io/retry.h"

#include <algorithm>
#include <cerrno>
#include <sys/stat.h>
#include <system_error>

namespace {

std::string error_text(int error) {
    return std::generic_category().message(error);
}

}  // namespace

std::optional<std::string> ExtractionTarget::open(const std::string& path, const FileIdentity& firmware,
                                                  const Find& find) {
    m_places = {.page = m_geometry.page, .block = m_geometry.block};
    struct stat status {};
    if (path != "-") {
        if (retry_interrupted([&] { return ::stat(path.c_str(), &status); }) != 0)
            return path + " failed to access: " + error_text(errno);
        m_identity = FileIdentity(status);
        if (firmware.is(status))
            return path + " is the firmware itself";
        if (S_ISDIR(status.st_mode)) {
            m_kind = "directory";
            m_directory = path.ends_with("/") ? path : path + "/";
            return std::nullopt;
        }
    }
    if (const auto reason = m_target.open_or_reason(path))
        return reason;
    m_identity = m_target.identity();
    m_kind = m_target.kind() == Target::Kind::kDevice   ? "device"
             : m_target.kind() == Target::Kind::kStream ? "stream"
             : m_geometry.whole_image                   ? "image"
                                                        : "dump";
    if (m_geometry.whole_image)
        return std::nullopt;
    m_places.skip = m_skip;
    m_places.spare = m_geometry.spare_areas ? 0 : m_chip_spare;
    return find ? find(m_target, m_placements.emplace()) : std::nullopt;
}

Target* ExtractionTarget::source_of(const std::string& file, FilePlaces& places,
                                    std::optional<std::string>& trouble) {
    places = m_places;
    if (is_directory()) {
        const int error = m_file.open(m_directory + file);
        // Not a file: it counts as missing.
        if (error != 0 && error != ENOENT && error != EISDIR && error != EINVAL)
            trouble = m_directory + file + " failed to open: " + error_text(error);
        return error == 0 ? &m_file : nullptr;
    }
    if (!m_placements)
        return &m_target;
    const auto placement = std::ranges::find(*m_placements, file, &Placement::file);
    if (placement == m_placements->end() || !placement->placed)
        return nullptr;
    places.blocks = placement->blocks;
    return &m_target;
}

uint64_t ExtractionTarget::dump_bytes() const {
    return m_target.size() - std::min(m_target.size(), m_places.skip);
}
