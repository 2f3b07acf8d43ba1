#pragma once

#include "../../src/io/output_receiver.h"
#include "../base/result.h"
#include "options.h"

#include <optional>
#include <string>
#include <vector>

/// The word in --only and --ignore for a part of an image that the conversion begins.
std::string option_word(const OutputPart& part);

std::vector<std::string> option_words(const std::vector<PartResult>& parts);

/// Which parts matter, by --only and --ignore. The options outlive it.
class PartChoice {
public:
    explicit PartChoice(const CheckOptions& options) : m_options(options) {}

    bool is_ignored(const std::string& word) const;
    /// True for a word in --only.
    bool is_asked_for(const std::string& word) const;
    /// False without --only and --ignore.
    bool has_names() const { return !m_options.only.empty() || !m_options.ignore.empty(); }
    /// A name in --only or --ignore that no part has, given the words for the parts; nothing when all are
    /// known.
    std::optional<std::string> unknown_name(const std::vector<std::string>& words) const;

private:
    const CheckOptions& m_options;
};
