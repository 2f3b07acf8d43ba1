#include "right_target.h"

#include "common/messages.h"
#include "scratch_storage.h"

#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>

namespace robustness {

void convert_to_files(const ConversionOptions& options) {
    send_messages_to([](const std::string&) {});
    std::srand(1);  // like a process of its own
    const auto storage = options.type->make(options.settings);
    const bool done = storage->storage_init() && storage->create_image();
    send_messages_to({});
    require(done, "a right firmware does not convert");
}

MemoryFile::MemoryFile() : m_descriptor(::memfd_create("target", MFD_CLOEXEC)) {
    require(m_descriptor >= 0, "no file in memory");
}

MemoryFile::~MemoryFile() {
    ::close(m_descriptor);
}

void MemoryFile::fill(const test_support::Bytes& bytes) const {
    require(::ftruncate(m_descriptor, 0) == 0 &&
                ::pwrite(m_descriptor, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()),
            "the file in memory does not take the target");
}

}  // namespace robustness
