#pragma once

#include "../base/result.h"
#include "options.h"

#include <optional>
#include <string>
#include <vector>

/// The word for a part in --only and --ignore.
std::string option_word(const PartResult& part);

/// Which parts matter, by --only and --ignore. The options outlive it.
class PartChoice {
public:
    explicit PartChoice(const CheckOptions& options) : m_options(options) {}

    bool is_ignored(const std::string& word) const;
    /// A name in --only or --ignore that no part has; nothing when all are known.
    std::optional<std::string> unknown_name(const std::vector<PartResult>& parts) const;

private:
    const CheckOptions& m_options;
};

/// True when a part has this name, or parts of all firmwares do.
bool is_name_of_part(const std::string& name, const std::vector<PartResult>& parts);
