// Records as JSON.
#pragma once

#include <nlohmann/json.hpp>

#include "recordParser.h"

namespace records {

// An object with the record's columns in their order, named as in recordColumns.h; a PID's descriptor tags
// are the array "descriptorTags" at its end. A fraction that is no number stays one, which JSON prints as
// null. Text that is not UTF-8 can only come from a foreign writer, and dump() needs a handler for it.
nlohmann::ordered_json toJson(const Record& record);

}  // namespace records
