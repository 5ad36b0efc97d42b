// Records as the probe prints them.
#pragma once

#include <map>
#include <string>

#include "recordColumns.h"

namespace station {

// A record's line with these values, and for its other columns what `other` says of them. Without tags.
template <typename Other>
std::string recordLine(records::Kind kind, std::map<std::string_view, std::string> values, Other other) {
    values.try_emplace("group", "239.1.1.1");
    values.try_emplace("label", records::kKinds[static_cast<std::size_t>(kind)].label);
    std::string line;
    for (const records::Column& column : records::columnsOf(kind)) {
        const auto value = values.find(column.name);
        line += (line.empty() ? "" : ";") + (value != values.end() ? value->second : other(column));
    }
    return line;
}

// As text, with six decimals where the column has them.
inline std::string columnText(const records::Column& column, double value) {
    return column.type == records::Type::kFraction ? std::to_string(value)
                                                   : std::to_string(static_cast<int64_t>(value));
}

}  // namespace station
