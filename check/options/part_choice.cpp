#include "part_choice.h"

#include <algorithm>

namespace {

bool contains(const std::vector<std::string>& names, const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

/// True when the name is one of these words for parts, or parts of all firmwares have it.
bool is_name_of_part(const std::string& name, const std::vector<std::string>& words) {
    return contains({"idblock", "gpt", "parameter", "gaps", "rest"}, name) || contains(words, name);
}

}  // namespace

std::string option_word(const OutputPart& part) {
    switch (part.kind) {
    case OutputPart::Kind::kGap:
        return "gaps";
    case OutputPart::Kind::kBootBlock:
        return "idblock";
    case OutputPart::Kind::kGpt:
        return "gpt";
    case OutputPart::Kind::kParameter:
        return "parameter";
    case OutputPart::Kind::kItem:
        break;
    }
    return part.name;
}

std::vector<std::string> option_words(const std::vector<PartResult>& parts) {
    std::vector<std::string> words;
    words.reserve(parts.size());
    for (const PartResult& part : parts)
        words.push_back(part.choice);
    return words;
}

bool PartChoice::is_ignored(const std::string& word) const {
    return contains(m_options.ignore, word) || (!m_options.only.empty() && !contains(m_options.only, word));
}

bool PartChoice::is_asked_for(const std::string& word) const {
    return contains(m_options.only, word);
}

std::optional<std::string> PartChoice::unknown_name(const std::vector<std::string>& words) const {
    for (const auto* names : {&m_options.only, &m_options.ignore})
        for (const std::string& name : *names)
            if (!is_name_of_part(name, words))
                return name;
    return std::nullopt;
}
