#include "compare_inputs.h"

#include "measured_process.h"

namespace fs = std::filesystem;

namespace {

std::string name_of(InputKind kind) {
    switch (kind) {
    case InputKind::dense:
        return "dense";
    case InputKind::gaps:
        return "gaps";
    case InputKind::sparse:
        break;
    }
    return "sparse";
}

}  // namespace

Input prepare_input(const WorkDirectory& work, const fs::path& maker, InputKind kind, uint64_t mib,
                    bool with_payload) {
    const std::string stem = name_of(kind) + "-" + std::to_string(mib);
    Input input{.firmware = work.inputs() / (stem + ".img"), .payload = {}};
    if (with_payload)
        input.payload = work.inputs() / (stem + ".rootfs");
    if (!fs::exists(input.firmware) || (with_payload && !fs::exists(input.payload))) {
        Command make{{maker.string(), "--kind", name_of(kind), "--mib", std::to_string(mib), "--out",
                      input.firmware.string()},
                     {}};
        if (with_payload)
            make.words.insert(make.words.end(), {"--payload", input.payload.string()});
        run_measured(make);
    }
    read_once(input.firmware);
    if (with_payload)
        read_once(input.payload);
    return input;
}
