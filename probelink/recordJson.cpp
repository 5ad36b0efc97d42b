#include "recordJson.h"

namespace records {

namespace {

nlohmann::ordered_json value(const Record& record, std::size_t index) {
    switch (columnsOf(record.kind())[index].type) {
        case Type::kText:
            return record.text(index);
        case Type::kSigned:
            return record.integer(index);
        case Type::kUnsigned:
            return static_cast<uint64_t>(record.integer(index));
        default:
            return record.fraction(index);
    }
}

}  // namespace

nlohmann::ordered_json toJson(const Record& record) {
    const auto columns = columnsOf(record.kind());
    nlohmann::ordered_json object;
    for (std::size_t i = 0; i < columns.size(); ++i) {
        object[std::string(columns[i].name)] = value(record, i);
    }
    if (record.kind() != Kind::kStream) {
        object[std::string(kDescriptorTagsColumn.name)] = record.descriptorTags();
    }
    return object;
}

}  // namespace records
