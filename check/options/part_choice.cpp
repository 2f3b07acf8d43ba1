#include "part_choice.h"

#include <algorithm>

namespace {

bool contains(const std::vector<std::string>& names, const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

}  // namespace

std::string option_word(const PartResult& part) {
    if (part.name.starts_with("boot block, copy "))
        return "idblock";
    if (part.name.starts_with("parameter, copy "))
        return "parameter";
    return part.name;
}

bool PartChoice::is_ignored(const std::string& word) const {
    return contains(m_options.ignore, word) || (!m_options.only.empty() && !contains(m_options.only, word));
}

std::optional<std::string> PartChoice::unknown_name(const std::vector<PartResult>& parts) const {
    for (const auto* names : {&m_options.only, &m_options.ignore})
        for (const std::string& name : *names)
            if (!is_name_of_part(name, parts))
                return name;
    return std::nullopt;
}

bool is_name_of_part(const std::string& name, const std::vector<PartResult>& parts) {
    return contains({"idblock", "gpt", "parameter", "gaps", "rest"}, name) ||
           std::any_of(parts.begin(), parts.end(),
                       [&](const PartResult& part) { return option_word(part) == name; });
}
