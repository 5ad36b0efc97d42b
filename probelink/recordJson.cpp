#include "recordJson.h"

#include <charconv>

namespace records {

namespace {

template <typename Number>
Number number(std::string_view text) {
    Number value{};
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
}

nlohmann::ordered_json value(Type type, const std::string& text) {
    switch (type) {
        case Type::kText:
            return text;
        case Type::kSigned:
            return number<int64_t>(text);
        case Type::kUnsigned:
            return number<uint64_t>(text);
        default:
            return number<double>(text);
    }
}

}  // namespace

nlohmann::ordered_json toJson(const Record& record) {
    const auto columns = columnsOf(record.kind());
    nlohmann::ordered_json object;
    for (std::size_t i = 0; i < columns.size(); ++i) {
        object[std::string(columns[i].name)] = value(columns[i].type, record.fields()[i]);
    }
    if (record.kind() != Kind::kStream) {
        auto& tags = object[std::string(kDescriptorTagsColumn.name)];
        tags = nlohmann::ordered_json::array();
        for (std::size_t i = columns.size(); i < record.fields().size(); ++i) {
            tags.push_back(value(kDescriptorTagsColumn.type, record.fields()[i]));
        }
    }
    return object;
}

}  // namespace records
