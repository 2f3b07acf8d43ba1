#include "fuzz_target.h"

#include <algorithm>

namespace robustness {

using test_support::Bytes;

namespace {

Structure nothing_to_bend(const Bytes&) {
    return {};
}

Structure conversion_structure(const Bytes& input) {
    const ControlBytes bent(input, kConversionControls);
    return bent.flag(0, 7) ? container_structure(bent.body()) : image_structure(bent.body());
}

Structure expansion_structure(const Bytes& input) {
    return sparse_structure(ControlBytes(input, kSparseControls).body());
}

}  // namespace

const std::vector<FuzzTarget>& fuzz_targets() {
    static const std::vector<FuzzTarget> targets = {
        {"boot_container", run_boot_container, container_structure, boot_container_seeds},
        {"update_image", run_update_image, image_structure, update_image_seeds},
        {"parameter_text", run_parameter_text, nothing_to_bend, parameter_text_seeds},
        {"sparse_expansion", run_sparse_expansion, expansion_structure, sparse_expansion_seeds},
        {"conversion", run_conversion, conversion_structure, conversion_seeds},
#ifdef NANDSMITH_CHECK
        {"check", run_check, nothing_to_bend, check_seeds},
        {"dump", run_dump, nothing_to_bend, dump_seeds},
#endif
    };
    return targets;
}

const FuzzTarget& fuzz_target(std::string_view name) {
    const auto found = std::ranges::find(fuzz_targets(), name, &FuzzTarget::name);
    if (found == fuzz_targets().end())
        throw std::out_of_range("no such target");
    return *found;
}

}  // namespace robustness
