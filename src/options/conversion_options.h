#pragma once

#include "../storage/storage_types.h"

#include <optional>

/// What the command line says of a conversion. nandsmith and nandsmith-check read it alike.
struct ConversionOptions {
    const StorageType* type = nullptr;
    StorageSettings settings;
};
