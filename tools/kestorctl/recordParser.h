// Lines of the results, taken apart.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "recordColumns.h"

// One record whose columns have been checked against their types.
class Record {
  public:
    records::Kind kind() const {
        return kind_;
    }
    // One entry a column of columnsOf(kind()), then the descriptor tags.
    const std::vector<std::string>& fields() const {
        return fields_;
    }
    // The column with that name. REQUIRES: the kind has such a column.
    const std::string& text(std::string_view name) const;
    // As text(), for numeric columns; an unsigned value beyond the signed range keeps its bits.
    int64_t integer(std::string_view name) const;
    double fraction(std::string_view name) const;

  private:
    friend std::variant<Record, std::string> parseRecord(std::string_view line);
    records::Kind kind_ = records::Kind::kStream;
    std::vector<std::string> fields_;
};

// Takes apart one line without its line end: the record, or what is wrong with the line.
std::variant<Record, std::string> parseRecord(std::string_view line);
