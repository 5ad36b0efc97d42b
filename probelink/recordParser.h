// Lines of the results, taken apart.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "recordColumns.h"

namespace records {

// One record whose columns have been checked against their types.
class Record {
  public:
    Kind kind() const {
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
    Kind kind_ = Kind::kStream;
    std::vector<std::string> fields_;
};

// Takes apart one line without its line end: the record, or what is wrong with the line.
std::variant<Record, std::string> parseRecord(std::string_view line);

// Told the number of a line that is no record, from 1, and what is wrong with it.
using BadLine = std::function<void(std::size_t number, const std::string& problem)>;

// The records of a snapshot; lines that are none are told to `badLine` and left out.
std::vector<Record> parseSnapshot(std::string_view text, const BadLine& badLine);

}  // namespace records
