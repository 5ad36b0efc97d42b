#include "recordParser.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>

namespace records {

namespace {

constexpr char kSeparator = ';';

// The line up to its next separator.
std::string_view firstField(std::string_view line) {
    return line.substr(0, line.find(kSeparator));
}

// Where the line's column begins. REQUIRES: the line has it.
const char* fieldAt(std::string_view line, std::size_t index) {
    const char* at = line.data();
    const char* const end = at + line.size();
    for (; index > 0; --index) {
        at = static_cast<const char*>(memchr(at, kSeparator, static_cast<std::size_t>(end - at))) + 1;
    }
    return at;
}

// Reads a number at `at`, which moves behind it. False when there is none or more than it stands in its
// field.
template <typename Number>
bool readNumber(const char*& at, const char* end, uint64_t& value) {
    Number number{};
    const auto [next, error] = std::from_chars(at, end, number);
    at = next;
    value = std::bit_cast<uint64_t>(number);
    return error == std::errc{} && (at == end || *at == kSeparator);
}

// As readNumber, for the column's type; text has no value.
bool readField(Type type, const char*& at, const char* end, uint64_t& value) {
    switch (type) {
        case Type::kText: {
            const char* const first = at;
            const void* const found = memchr(at, kSeparator, static_cast<std::size_t>(end - at));
            at = found == nullptr ? end : static_cast<const char*>(found);
            value = 0;
            return at != first;
        }
        case Type::kSigned:
            return readNumber<int64_t>(at, end, value);
        case Type::kUnsigned:
            return readNumber<uint64_t>(at, end, value);
        case Type::kFraction:
            return readNumber<double>(at, end, value);
    }
    return false;
}

// Whether the column can hold the number; readField() found it to be one of its type.
bool inRange(const Column& column, uint64_t value) {
    if (column.type == Type::kUnsigned) {
        return value <= column.maximum;
    }
    const auto number = static_cast<int64_t>(value);
    return column.type != Type::kSigned ||
           (number >= column.minimum && (number < 0 || value <= column.maximum));
}

std::string outOfRange(const Column& column, std::size_t index) {
    return "column " + std::to_string(index + 1) + " (" + std::string(column.name) +
           ") has a value that it cannot have";
}

std::string wrongValue(const Column& column, std::size_t index) {
    return "column " + std::to_string(index + 1) + " (" + std::string(column.name) + ") is no " +
           std::string(typeName(column.type)) + " value";
}

}  // namespace

// Fills one record from one line; says what is wrong with it, or nothing.
class LineParser {
  public:
    LineParser(std::string_view line, Record& record)
        : line_(line), record_(record), at_(line.data()), end_(line.data() + line.size()) {}

    std::string parse() {
        record_.line_ = line_;
        if (std::string problem = findKind(); !problem.empty()) {
            return problem;
        }
        const auto columns = columnsOf(record_.kind_);
        for (std::size_t i = 0; i < columns.size(); ++i) {
            if (!readField(columns[i].type, at_, end_, record_.values_[i])) {
                return countProblem(columns.size(), wrongValue(columns[i], i));
            }
            if (!inRange(columns[i], record_.values_[i])) {
                return outOfRange(columns[i], i);
            }
            if (i + 1 < columns.size()) {
                if (at_ == end_) {
                    return countProblem(columns.size(), {});
                }
                ++at_;
            }
        }
        return readTags(columns.size());
    }

  private:
    std::string findKind() {
        const char* at = at_;
        for (std::size_t i = 0; i < kLabelColumn; ++i) {
            const void* const found =
                line_.empty() ? nullptr : memchr(at, kSeparator, static_cast<std::size_t>(end_ - at));
            if (found == nullptr) {
                return "no label";
            }
            at = static_cast<const char*>(found) + 1;
        }
        const std::string_view label = firstField({at, end_});
        const auto kind = std::ranges::find(kKinds, label, &KindName::label);
        if (kind == kKinds.end()) {
            return "unknown label";
        }
        record_.kind_ = kind->kind;
        return {};
    }

    // Too few columns, or else `other`.
    std::string countProblem(std::size_t columns, const std::string& other) const {
        const auto count = static_cast<std::size_t>(std::ranges::count(line_, kSeparator)) + 1;
        return count < columns ? std::to_string(count) + " columns instead of " + std::to_string(columns)
                               : other;
    }

    std::string readTags(std::size_t columns) {
        record_.tags_ = {at_, end_};
        uint64_t count = 0;
        for (uint64_t tag = 0; at_ != end_; ++count) {
            ++at_;
            if (!readField(kDescriptorTagsColumn.type, at_, end_, tag)) {
                return wrongValue(kDescriptorTagsColumn, columns + static_cast<std::size_t>(count));
            }
            if (!inRange(kDescriptorTagsColumn, tag)) {
                return outOfRange(kDescriptorTagsColumn, columns + static_cast<std::size_t>(count));
            }
        }
        // The last column of a PID is descriptorCount.
        const uint64_t announced = record_.kind_ == Kind::kStream ? 0 : record_.values_[columns - 1];
        if (count != announced) {
            return std::to_string(count) + " columns behind the last instead of " + std::to_string(announced);
        }
        return {};
    }

    const std::string_view line_;
    Record& record_;
    const char* at_;
    const char* const end_;
};

void Record::require(bool kept) {
    if (!kept) {
        std::abort();
    }
}

std::string_view Record::text(std::size_t index) const {
    require(index < columnsOf(kind_).size() && !line_.empty());
    return firstField({fieldAt(line_, index), line_.data() + line_.size()});
}

int64_t Record::integer(std::size_t index) const {
    const auto columns = columnsOf(kind_);
    require(index < columns.size() &&
            (columns[index].type == Type::kSigned || columns[index].type == Type::kUnsigned));
    return static_cast<int64_t>(values_[index]);
}

double Record::fraction(std::size_t index) const {
    const auto columns = columnsOf(kind_);
    require(index < columns.size() && columns[index].type == Type::kFraction);
    return std::bit_cast<double>(values_[index]);
}

double Record::number(std::size_t index) const {
    const auto columns = columnsOf(kind_);
    require(index < columns.size() && columns[index].type != Type::kText);
    switch (columns[index].type) {
        case Type::kSigned:
            return static_cast<double>(static_cast<int64_t>(values_[index]));
        case Type::kUnsigned:
            return static_cast<double>(values_[index]);
        default:
            return std::bit_cast<double>(values_[index]);
    }
}

std::vector<uint64_t> Record::descriptorTags() const {
    std::vector<uint64_t> tags;
    const char* at = tags_.data();
    for (const char* const end = at + tags_.size(); at != end;) {
        ++at;
        readNumber<uint64_t>(at, end, tags.emplace_back());
    }
    return tags;
}

std::variant<Record, std::string> parseRecord(std::string_view line) {
    std::variant<Record, std::string> result;
    if (std::string problem = LineParser(line, std::get<Record>(result)).parse(); !problem.empty()) {
        result = std::move(problem);
    }
    return result;
}

std::vector<GroupRecords> groupsOf(const Snapshot& snapshot) {
    std::vector<GroupRecords> groups;
    const std::size_t size = snapshot.size();
    for (std::size_t first = 0; first < size;) {
        const Record& stream = snapshot[first++];
        if (stream.kind() != Kind::kStream) {
            continue;
        }
        const std::size_t firstPid = first;
        const std::string_view group = stream.text("group");
        while (first < size && snapshot[first].kind() != Kind::kStream &&
               snapshot[first].text("group") == group) {
            ++first;
        }
        groups.push_back({&stream, {&stream + 1, first - firstPid}});
    }
    return groups;
}

Snapshot parseSnapshot(std::string text, const BadLine& badLine) {
    Snapshot snapshot;
    snapshot.text_ = std::make_unique<const std::string>(std::move(text));
    auto& parsed = snapshot.records_;
    std::string_view left = *snapshot.text_;
    for (std::size_t number = 1; !left.empty(); ++number) {
        const std::size_t end = left.find('\n');
        const std::string_view line = left.substr(0, end);
        left.remove_prefix(end == std::string_view::npos ? left.size() : end + 1);
        if (const std::string problem = LineParser(line, parsed.emplace_back()).parse(); !problem.empty()) {
            parsed.pop_back();
            badLine(number, problem);
        }
    }
    return snapshot;
}

}  // namespace records
