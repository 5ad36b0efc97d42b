#include "recordJson.h"

#include "recordValues.h"

namespace records {

nlohmann::ordered_json toJson(const Record& record) {
    nlohmann::ordered_json object;
    forEachValue(record,
                 [&](const Column& column, const auto& value) { object[std::string(column.name)] = value; });
    if (record.kind() != Kind::kStream) {
        object[std::string(kDescriptorTagsColumn.name)] = record.descriptorTags();
    }
    return object;
}

}  // namespace records
