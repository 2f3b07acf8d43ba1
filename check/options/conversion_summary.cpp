#include "conversion_summary.h"

namespace {

#ifdef NANDSMITH_RC4_KEY
constexpr const char* kKeyKind = "own";
#else
constexpr const char* kKeyKind = "development";
#endif

}  // namespace

ConversionSummary summary_of(const ConversionOptions& options) {
    const StorageSettings& s = options.settings;
    return {.type = options.type != nullptr ? options.type->word : "",
            .block_kb = s.block_size,
            .page_kb = s.page_size,
            .spare = s.oob_size,
            .two_kb = s.page_2k,
            .page_list = s.page_list,
            .key = kKeyKind};
}
