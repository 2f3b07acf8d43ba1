#pragma once

#include "../base/result.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// How many parts there are of each verdict, and extra files.
struct Tally {
    std::size_t same = 0;
    std::size_t differ = 0;
    std::size_t missing = 0;
    std::size_t ignored = 0;
    std::size_t extra = 0;

    void add(Verdict verdict, std::size_t number = 1);
    /// Parts that the answer is about.
    std::size_t judged() const { return same + differ + missing; }
};

/// Of all parts, and of missing files that no part stands for. The parts of an image stand for its file.
Tally tally_of(const CheckResult& result);

/// File name of a part, or its name when the target is one image.
inline const std::string& name_for_people(const PartResult& part) {
    return part.file.empty() ? part.name : part.file;
}

/// True when the one file of a directory is missing: no part of the image is there.
inline bool image_is_missing(const CheckResult& result) {
    return result.geometry.whole_image && !result.missing.empty();
}

/// Names of missing files that no part stands for.
std::vector<std::string> missing_without_part(const CheckResult& result);

/// What a report counts: "file" or "part".
inline std::string_view noun_of_parts(const CheckResult& result) {
    return result.geometry.whole_image ? "part" : "file";
}

enum class OpinionVerdict {
    kNotAsked,
    kNone,  ///< asked for, but nothing was judged
    kSame,
    kDiffers,
};

OpinionVerdict opinion_verdict(const CheckResult& result);

/// How many findings there are, with those that are not listed.
inline uint64_t number_of_findings(const SecondOpinion& opinion) {
    return opinion.findings_found > opinion.findings.size() ? opinion.findings_found
                                                            : opinion.findings.size();
}
