// Lines of the results, taken apart.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "recordColumns.h"

namespace records {

// One record whose columns have been checked against their types, numbers already converted. It refers to the
// text that it was parsed from, which must outlive it; a Snapshot keeps its own.
//
// Columns are told by name, as a literal that is looked up when the program is compiled, or by their place in
// columnsOf(kind()). REQUIRES, of all of them: the kind has the column, and it is of the type that is asked
// for; anything else ends the program. A record without a text, as it is made by default, is there to be
// assigned to.
class Record {
  public:
    Kind kind() const {
        return kind_;
    }
    bool has(ColumnName name) const {
        return name.indexIn(kind_).has_value();
    }

    // The column as printed, of whatever type. Takes time that grows with the column's place.
    std::string_view text(std::size_t index) const;
    std::string_view text(ColumnName name) const {
        return text(indexOf(name));
    }

    // Signed or unsigned columns; an unsigned value beyond the signed range keeps its bits.
    int64_t integer(std::size_t index) const;
    int64_t integer(ColumnName name) const {
        require(name.type() == Type::kSigned || name.type() == Type::kUnsigned);
        return static_cast<int64_t>(values_[indexOf(name)]);
    }

    // Fractions; infinite or no number only if a foreign writer said so.
    double fraction(std::size_t index) const;
    double fraction(ColumnName name) const {
        require(name.type() == Type::kFraction);
        return std::bit_cast<double>(values_[indexOf(name)]);
    }

    // A numeric column of whatever type; integers beyond 2^53 are rounded.
    double number(std::size_t index) const;
    double number(ColumnName name) const {
        return number(indexOf(name));
    }

    // Empty for streams.
    std::vector<uint64_t> descriptorTags() const;

  private:
    friend class LineParser;
    static void require(bool kept);
    std::size_t indexOf(ColumnName name) const {
        const auto index = name.indexIn(kind_);
        require(index.has_value());
        return *index;
    }

    Kind kind_ = Kind::kStream;
    std::string_view line_;
    std::string_view tags_;  // the columns behind the last, with the separator in front
    // One entry a column: a number's bits, nothing for text.
    std::array<uint64_t, kMostColumns> values_{};
};

// Takes apart one line without its line end: the record, which refers to it, or what is wrong with the line.
std::variant<Record, std::string> parseRecord(std::string_view line);

// Told the number of a line that is no record, from 1, and what is wrong with it.
using BadLine = std::function<void(std::size_t number, const std::string& problem)>;

// The records of one snapshot in their order, and the text that they refer to. It does not change, so any
// thread may read it. About 400 bytes a record, and the text.
class Snapshot {
  public:
    Snapshot() = default;
    Snapshot(Snapshot&&) = default;
    Snapshot& operator=(Snapshot&&) = default;
    Snapshot(const Snapshot&) = delete;
    Snapshot& operator=(const Snapshot&) = delete;
    ~Snapshot() = default;

    auto begin() const {
        return records_.begin();
    }
    auto end() const {
        return records_.end();
    }
    std::size_t size() const {
        return records_.size();
    }
    bool empty() const {
        return records_.empty();
    }
    const Record& operator[](std::size_t index) const {
        return records_[index];
    }
    // As it was parsed, lines that are no records included.
    std::string_view text() const {
        return text_ ? std::string_view(*text_) : std::string_view();
    }

  private:
    friend Snapshot parseSnapshot(std::string text, const BadLine& badLine);
    std::unique_ptr<const std::string> text_;  // stays in place when the snapshot is moved
    std::vector<Record> records_;
};

// What a snapshot says of one group: its stream record and the records of its PIDs behind it.
struct GroupRecords {
    const Record* stream;
    std::span<const Record> pids;
};

// The groups of a snapshot in their order; they refer to it. A record belongs to the group in its first
// column: PIDs whose stream record was dropped belong to nobody, as do those that stand apart from it.
std::vector<GroupRecords> groupsOf(const Snapshot& snapshot);

// Takes apart the lines of a snapshot; those that are no record are told to `badLine`, during the call, and
// left out. The caller bounds the text.
Snapshot parseSnapshot(std::string text, const BadLine& badLine);

}  // namespace records
