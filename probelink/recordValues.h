// The values of a record, each as what it is.
#pragma once

#include <cstdint>

#include "recordParser.h"

namespace records {

// Calls `take(column, value)` for each column in their order; the value is a text, an int64_t, a uint64_t or
// a double, by the column's type. A PID's descriptor tags are no column: Record::descriptorTags().
template <typename Visit>
void forEachValue(const Record& record, Visit visit) {
    const auto columns = columnsOf(record.kind());
    for (std::size_t i = 0; i < columns.size(); ++i) {
        switch (columns[i].type) {
            case Type::kText:
                visit(columns[i], record.text(i));
                break;
            case Type::kSigned:
                visit(columns[i], record.integer(i));
                break;
            case Type::kUnsigned:
                visit(columns[i], static_cast<uint64_t>(record.integer(i)));
                break;
            case Type::kFraction:
                visit(columns[i], record.fraction(i));
                break;
        }
    }
}

}  // namespace records
