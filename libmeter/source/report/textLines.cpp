#include "report/textLines.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace meter {

namespace {

constexpr std::string_view kGap = "  ";
constexpr std::string_view kCut = "...";

bool isContinuation(char byte) {
    return (static_cast<uint8_t>(byte) & 0xC0) == 0x80;
}

// The first `columns` characters.
std::string_view firstColumns(std::string_view text, std::size_t columns) {
    std::size_t end = 0;
    while (end < text.size() && (isContinuation(text[end]) || columns-- > 0)) {
        ++end;
    }
    return text.substr(0, end);
}

}  // namespace

std::string formatted(const char* format, ...) {
    char line[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    return line;
}

std::string grouped(uint64_t number) {
    std::string digits = std::to_string(number);
    for (std::size_t at = digits.size(); at > 3;) {
        at -= 3;
        digits.insert(at, 1, ',');
    }
    return digits;
}

std::string grouped(int64_t number) {
    const uint64_t size = number < 0 ? 0 - static_cast<uint64_t>(number) : static_cast<uint64_t>(number);
    return (number < 0 ? "-" : "") + grouped(size);
}

std::size_t columnsOf(std::string_view text) {
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char byte) { return !isContinuation(byte); }));
}

std::string fitted(std::string_view text, std::size_t columns) {
    std::string clean(text);
    std::replace_if(
        clean.begin(), clean.end(),
        [](char byte) { return static_cast<uint8_t>(byte) < 0x20 || byte == 0x7F; }, ' ');
    // C1 controls, U+0080 to U+009F, which some terminals act on.
    for (std::size_t at = clean.find('\xC2'); at != std::string::npos; at = clean.find('\xC2', at + 1)) {
        if (at + 1 < clean.size() && static_cast<uint8_t>(clean[at + 1]) < 0xA0) {
            clean.replace(at, 2, " ");
        }
    }
    if (columnsOf(clean) <= columns) {
        return clean;
    }
    const std::size_t kept = columns > kCut.size() ? columns - kCut.size() : 0;
    return std::string(firstColumns(clean, kept)).append(kCut);
}

std::string Columns::text(std::size_t width) const {
    std::vector<std::size_t> widths(alignment_.size(), 0);
    for (const auto& cells : rows_) {
        for (std::size_t i = 0; i < cells.size() && i < widths.size(); ++i) {
            // What stands last in its row may be as long as it likes.
            if (i + 1 < cells.size() || alignment_[i] == 'r') {
                widths[i] = std::max(widths[i], columnsOf(cells[i]));
            }
        }
    }
    std::string text;
    for (const auto& cells : rows_) {
        std::string line = indent_;
        for (std::size_t i = 0; i < cells.size() && i < widths.size(); ++i) {
            const std::size_t shown = columnsOf(cells[i]);
            const std::string padding(widths[i] > shown ? widths[i] - shown : 0, ' ');
            line += i > 0 ? kGap : "";
            line += alignment_[i] == 'r' ? padding + cells[i] : cells[i] + padding;
        }
        line = fitted(line, width);
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + "\n";
    }
    return text;
}

}  // namespace meter
