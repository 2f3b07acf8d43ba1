#include "conversion_summary.h"

#include "../../src/common/rc4_key.h"

ConversionSummary summary_of(const ConversionOptions& options) {
    const StorageSettings& s = options.settings;
    return {.type = options.type != nullptr ? options.type->word : "",
            .block_kb = s.block_size,
            .page_kb = s.page_size,
            .spare = s.oob_size,
            .two_kb = s.page_2k,
            .page_list = s.page_list,
            .key = build_key_kind()};
}
