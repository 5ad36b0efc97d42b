#include "finding.h"

#include <algorithm>
#include <array>

namespace doctor {

namespace {

constexpr std::array kShown = {"ok  ", "--  ", "warn", "FAIL"};
constexpr std::array kNames = {"ok", "unseen", "warning", "failure"};
constexpr std::size_t kSubjectWidth = 12;

std::string subjectsOf(const Findings& findings, Verdict verdict) {
    std::string subjects;
    std::string last;
    for (const Finding& finding : findings) {
        if (finding.verdict == verdict && finding.subject != last) {
            last = finding.subject;
            subjects += (subjects.empty() ? "" : ", ") + last;
        }
    }
    return subjects;
}

}  // namespace

const char* verdictName(Verdict verdict) {
    return kNames[static_cast<std::size_t>(verdict)];
}

int exitStatus(const Findings& findings) {
    const auto has = [&](Verdict verdict) {
        return std::ranges::find(findings, verdict, &Finding::verdict) != findings.end();
    };
    return has(Verdict::kFailure) ? 2 : has(Verdict::kWarning) ? 1 : 0;
}

std::string report(const Findings& findings) {
    const std::string failed = subjectsOf(findings, Verdict::kFailure);
    const std::string warned = subjectsOf(findings, Verdict::kWarning);
    std::string text = failed.empty() ? "" : "FAIL: " + failed;
    text += warned.empty() ? "" : (text.empty() ? "warn: " : "; warn: ") + warned;
    text = (text.empty() ? "all is well" : text) + "\n\n";
    for (const Finding& finding : findings) {
        std::string subject = finding.subject;
        subject.resize(std::max<std::size_t>(subject.size(), kSubjectWidth), ' ');
        text += std::string(kShown[static_cast<std::size_t>(finding.verdict)]) + "  " + subject + " " +
                finding.text + "\n";
        if (!finding.advice.empty()) {
            text += "                   -> " + finding.advice + "\n";
        }
    }
    return text;
}

}  // namespace doctor
