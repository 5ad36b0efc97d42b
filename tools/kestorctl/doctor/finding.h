// What a check of this machine came to.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace doctor {

enum class Verdict : uint8_t {
    kOk,
    kUnseen,  // could not be looked at: it counts for nothing
    kWarning,
    kFailure,
};

struct Finding {
    Verdict verdict = Verdict::kOk;
    std::string subject{};  // "interface", "route", ...
    std::string text{};     // what is so
    std::string advice{};   // what to do about it; empty when nothing is
};
using Findings = std::vector<Finding>;

const char* verdictName(Verdict verdict);  // "ok", "unseen", "warning", "failure"
// That of a monitoring plugin: 0 all is well, 1 warnings, 2 failures. What could not be seen counts for
// nothing.
int exitStatus(const Findings& findings);
// What is wrong on the first line, then a line for each finding, with its advice below it.
std::string report(const Findings& findings);

inline Finding ok(std::string subject, std::string text) {
    return {Verdict::kOk, std::move(subject), std::move(text)};
}
inline Finding unseen(std::string subject, std::string text) {
    return {Verdict::kUnseen, std::move(subject), std::move(text)};
}
inline Finding warning(std::string subject, std::string text, std::string advice) {
    return {Verdict::kWarning, std::move(subject), std::move(text), std::move(advice)};
}
inline Finding failure(std::string subject, std::string text, std::string advice) {
    return {Verdict::kFailure, std::move(subject), std::move(text), std::move(advice)};
}

}  // namespace doctor
