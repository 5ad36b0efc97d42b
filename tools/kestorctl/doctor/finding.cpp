#include "finding.h"

#include <algorithm>
#include <array>

namespace doctor {

namespace {

constexpr std::array kShown = {"ok  ", "--  ", "warn", "FAIL"};
constexpr std::array kNames = {"ok", "unseen", "warning", "failure"};
constexpr std::size_t kSubjectWidth = 12;
constexpr std::size_t kIndent = 22;     // of the lines that continue one, below what stands behind "-> "
constexpr std::size_t kTextWidth = 78;  // of a terminal with 100 columns

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

// Lines of at most kTextWidth where that is possible without breaking a command: only behind punctuation.
std::string wrapped(const std::string& text) {
    std::string result;
    std::size_t begin = 0;
    while (text.size() - begin > kTextWidth) {
        std::size_t end = std::string::npos;
        for (std::size_t i = begin;
             i + 1 < text.size() && (i < begin + kTextWidth || end == std::string::npos); ++i) {
            if (text[i + 1] == ' ' && std::string_view(",;:.?").find(text[i]) != std::string_view::npos) {
                end = i + 1;
            }
        }
        if (end == std::string::npos) {
            break;
        }
        result += text.substr(begin, end - begin) + "\n" + std::string(kIndent, ' ');
        begin = end + 1;
    }
    return result + text.substr(begin);
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
                wrapped(finding.text) + "\n";
        if (!finding.advice.empty()) {
            text += "                   -> " + wrapped(finding.advice) + "\n";
        }
    }
    return text;
}

}  // namespace doctor
