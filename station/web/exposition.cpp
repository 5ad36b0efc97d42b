#include "web/exposition.h"

#include <charconv>
#include <cmath>

#include "common/text.h"

namespace station {

namespace {

void appendEscaped(std::string& text, std::string_view value, bool quoted) {
    for (const char c : value) {
        if (c == '\\') {
            text += "\\\\";
        } else if (c == '\n') {
            text += "\\n";
        } else if (c == '"' && quoted) {
            text += "\\\"";
        } else {
            text += c;
        }
    }
}

void appendNumber(std::string& text, double value) {
    constexpr double kExact = 9007199254740992;  // 2^53
    if (std::isnan(value)) {
        text += "NaN";
    } else if (std::isinf(value)) {
        text += value > 0 ? "+Inf" : "-Inf";
    } else {
        std::array<char, 32> digits{};
        char* const end = digits.data() + digits.size();
        const bool whole = std::abs(value) < kExact && value == std::trunc(value);
        const auto result = whole ? std::to_chars(digits.data(), end, static_cast<int64_t>(value))
                                  : std::to_chars(digits.data(), end, value);
        text.append(digits.data(), result.ptr);
    }
}

}  // namespace

void appendLabel(std::string& labels, std::string_view name, std::string_view value) {
    if (!labels.empty()) {
        labels += ',';
    }
    labels.append(name).append("=\"");
    if (isUtf8(value)) {
        appendEscaped(labels, value, true);
    } else {
        appendEscaped(labels, toUtf8(value), true);
    }
    labels += '"';
}

void Exposition::name() {
    text_.append("# HELP ").append(family_.name).append(" ");
    appendEscaped(text_, family_.help, false);
    text_.append("\n# TYPE ").append(family_.name);
    text_.append(family_.type == MetricType::kCounter ? " counter\n" : " gauge\n");
    named_ = true;
}

void Exposition::sample(std::string_view labels, std::string_view more, double value) {
    if (!named_) {
        name();
    }
    text_ += family_.name;
    if (!labels.empty() || !more.empty()) {
        text_.append("{").append(labels);
        if (!labels.empty() && !more.empty()) {
            text_ += ',';
        }
        text_.append(more).append("}");
    }
    text_ += ' ';
    appendNumber(text_, value);
    text_ += '\n';
    if (flush_ && text_.size() >= flushAt_) {
        flush_(text_);
        flushAt_ = text_.size() + kPiece;
    }
}

}  // namespace station
