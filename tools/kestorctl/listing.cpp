#include "listing.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <sstream>
#include <string_view>
#include <utility>

namespace {

constexpr std::size_t kIndent = 4;

// Characters of UTF-8, counting each as one cell.
std::size_t cellsOf(std::string_view value) {
    return static_cast<std::size_t>(
        std::ranges::count_if(value, [](char byte) { return (static_cast<uint8_t>(byte) & 0xC0) != 0x80; }));
}

std::string cut(const std::string& value, std::size_t width) {
    if (cellsOf(value) <= width) {
        return value;
    }
    std::size_t end = 0;
    for (std::size_t count = 0; end < value.size(); ++end) {
        if ((static_cast<uint8_t>(value[end]) & 0xC0) != 0x80 && ++count == width) {
            break;
        }
    }
    return value.substr(0, end) + "…";
}

std::size_t lineWidth() {
    constexpr std::size_t kUsual = 80;
    constexpr std::size_t kNarrowest = 40;
    if (isatty(STDOUT_FILENO) != 1) {
        return std::numeric_limits<std::size_t>::max();
    }
    winsize size{};
    const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return known ? std::max<std::size_t>(size.ws_col, kNarrowest) : kUsual;
}

void printIndented(const std::string& line) {
    printf("%*s%s\n", static_cast<int>(kIndent), "", line.c_str());
}

void printBelow(const std::string& value) {
    const std::size_t width = lineWidth() - kIndent;
    std::string line;
    std::istringstream words(value);
    for (std::string word; words >> word;) {
        if (!line.empty() && cellsOf(line) + 1 + cellsOf(word) > width) {
            printIndented(line);
            line.clear();
        }
        line += (line.empty() ? "" : " ") + word;
    }
    if (!line.empty()) {
        printIndented(line);
    }
}

}  // namespace

Listing::Listing(std::vector<std::string> headings) {
    add(std::move(headings));
}

void Listing::add(std::vector<std::string> cells, std::vector<std::string> below) {
    rows_.push_back({std::move(cells), std::move(below)});
}

void Listing::print() const {
    std::vector<std::size_t> widths(rows_.front().cells.size());
    for (const Row& row : rows_) {
        for (std::size_t i = 0; i < row.cells.size(); ++i) {
            widths[i] = std::max(widths[i], std::min(cellsOf(row.cells[i]), kWidest));
        }
    }
    for (const Row& row : rows_) {
        std::string line;
        for (std::size_t i = 0; i < row.cells.size(); ++i) {
            const bool last = i + 1 == row.cells.size();
            const std::string value = last ? row.cells[i] : cut(row.cells[i], kWidest);
            line += value;
            if (!last) {
                line.append(widths[i] - cellsOf(value) + 2, ' ');
            }
        }
        puts(line.c_str());
        std::ranges::for_each(row.below, printBelow);
    }
}
