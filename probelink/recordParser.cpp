#include "recordParser.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <optional>

namespace records {

namespace {

// The value, when the whole text is one.
template <typename Number>
std::optional<Number> parseNumber(std::string_view text) {
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

bool matches(Type type, std::string_view text) {
    switch (type) {
        case Type::kText:
            return !text.empty();
        case Type::kSigned:
            return parseNumber<int64_t>(text).has_value();
        case Type::kUnsigned:
            return parseNumber<uint64_t>(text).has_value();
        case Type::kFraction:
            return parseNumber<double>(text).has_value();
    }
    return false;
}

std::vector<std::string> split(std::string_view line) {
    std::vector<std::string> fields;
    for (;;) {
        const std::size_t end = line.find(';');
        fields.emplace_back(line.substr(0, end));
        if (end == std::string_view::npos) {
            return fields;
        }
        line.remove_prefix(end + 1);
    }
}

// What is wrong with the columns, or an empty text.
std::string checkColumns(std::span<const Column> columns, bool tagsFollow,
                         const std::vector<std::string>& fields) {
    if (fields.size() < columns.size()) {
        return std::to_string(fields.size()) + " columns instead of " + std::to_string(columns.size());
    }
    for (std::size_t i = 0; i < fields.size(); ++i) {
        const Column& column = i < columns.size() ? columns[i] : kDescriptorTagsColumn;
        if (!matches(column.type, fields[i])) {
            return "column " + std::to_string(i + 1) + " (" + std::string(column.name) + ") is no " +
                   std::string(typeName(column.type)) + " value";
        }
    }
    const uint64_t tags =
        tagsFollow ? parseNumber<uint64_t>(fields[columns.size() - 1]).value_or(0) : uint64_t{0};
    if (fields.size() - columns.size() != tags) {
        return std::to_string(fields.size() - columns.size()) + " columns behind the last instead of " +
               std::to_string(tags);
    }
    return {};
}

}  // namespace

const std::string& Record::text(std::string_view name) const {
    const auto columns = columnsOf(kind_);
    const auto found = std::ranges::find(columns, name, &Column::name);
    if (found == columns.end()) {
        std::abort();
    }
    return fields_[static_cast<std::size_t>(found - columns.begin())];
}

int64_t Record::integer(std::string_view name) const {
    const std::string& value = text(name);
    if (const auto number = parseNumber<int64_t>(value)) {
        return *number;
    }
    return static_cast<int64_t>(parseNumber<uint64_t>(value).value_or(0));
}

double Record::fraction(std::string_view name) const {
    return parseNumber<double>(text(name)).value_or(0.0);
}

std::variant<Record, std::string> parseRecord(std::string_view line) {
    Record record;
    record.fields_ = split(line);
    if (record.fields_.size() <= kLabelColumn) {
        return "no label";
    }
    const auto kind = std::ranges::find(kKinds, record.fields_[kLabelColumn], &KindName::label);
    if (kind == kKinds.end()) {
        return "unknown label";
    }
    record.kind_ = kind->kind;
    if (std::string problem =
            checkColumns(columnsOf(record.kind_), record.kind_ != Kind::kStream, record.fields_);
        !problem.empty()) {
        return problem;
    }
    return record;
}

std::vector<Record> parseSnapshot(std::string_view text, const BadLine& badLine) {
    std::vector<Record> parsed;
    for (std::size_t number = 1; !text.empty(); ++number) {
        const std::size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        auto result = parseRecord(line);
        if (auto* record = std::get_if<Record>(&result)) {
            parsed.push_back(std::move(*record));
        } else {
            badLine(number, std::get<std::string>(result));
        }
    }
    return parsed;
}

}  // namespace records
