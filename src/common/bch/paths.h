#pragma once

#include "tables.h"

#include <span>
#include <string_view>

/// Computes the registers of count codewords (1 to kBchUnitsTogether), without the erased-page correction.
/// Words of a result after the rows_per_register rows are not written.
using BchKernel = void (*)(const BchTables& tables, const uint8_t* const* codewords, uint32_t count,
                           BchRegister* results);

/// One way to encode codewords. All of them give the same bytes.
struct BchPath {
    std::string_view name;  ///< of the kind of instructions, with the bits of its vectors
    bool (*available)();    ///< true when this processor has the instructions
    BchKernel kernel;
};

/// The path that every processor has.
extern const BchPath kBchPortable;

/// All paths of this family of processors, fastest first. kBchPortable is the last one.
std::span<const BchPath> bch_paths();

/// The first of the paths that is available on this processor. One of them must be (asserted).
const BchPath& bch_fastest_path(std::span<const BchPath> paths);

/// Makes path the one that encodes; it must be available (asserted). bch_init selects the fastest one.
void bch_select_path(const BchPath& path);

/// The path that was selected last.
const BchPath& bch_selected_path();
