// Lines of text in columns.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace meter {

// printf's formats.
[[gnu::format(printf, 1, 2)]] std::string formatted(const char* format, ...);

// 1234567 as "1,234,567".
std::string grouped(uint64_t number);
std::string grouped(int64_t number);

// How many characters a terminal shows of UTF-8 text, each taken as one column wide.
std::size_t columnsOf(std::string_view text);

// `text` without control characters and, where it is longer than `columns`, cut and ended with "...".
std::string fitted(std::string_view text, std::size_t columns);

// Rows whose columns line up. The last column is never padded; a row may have fewer columns than others.
class Columns {
  public:
    // One letter a column: 'l' for left, 'r' for right.
    Columns(std::string indent, std::string alignment)
        : indent_(std::move(indent)), alignment_(std::move(alignment)) {}

    void row(std::vector<std::string> cells) {
        rows_.push_back(std::move(cells));
    }
    bool empty() const {
        return rows_.empty();
    }
    // The rows, lines cut at `width` columns.
    std::string text(std::size_t width) const;

  private:
    std::string indent_;
    std::string alignment_;
    std::vector<std::vector<std::string>> rows_;
};

}  // namespace meter
