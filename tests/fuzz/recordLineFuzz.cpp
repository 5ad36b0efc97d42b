// Snapshots as a foreign writer might send them: what is taken for a record says what its line says.
#include <charconv>
#include <string>
#include <vector>

#include "fuzz/fuzzing.h"
#include "recordJson.h"
#include "recordParser.h"

namespace {

using records::Record;
using records::Type;

void require(bool kept) {
    if (!kept)
        __builtin_trap();
}

template <typename Number>
void requireSame(std::string_view text, Number value) {
    Number expected{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), expected);
    require(error == std::errc{} && end == text.data() + text.size());
    require(value == expected || (value != value && expected != expected));
}

// Checks each column, and returns the line made of them.
std::string lineOf(const Record& record) {
    std::string line;
    const auto columns = records::columnsOf(record.kind());
    for (std::size_t i = 0; i < columns.size(); ++i) {
        const std::string_view text = record.text(i);
        if (columns[i].type == Type::kFraction)
            requireSame(text, record.fraction(i));
        else if (columns[i].type == Type::kUnsigned)
            requireSame(text, static_cast<uint64_t>(record.integer(i)));
        else if (columns[i].type == Type::kSigned)
            requireSame(text, record.integer(i));
        line.append(i == 0 ? "" : ";").append(text);
    }
    require(record.kind() == records::Kind::kStream ||
            record.descriptorTags().size() == static_cast<uint64_t>(record.integer("descriptorCount")));
    return line;
}

}  // namespace

// The input: the text of a snapshot.
int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<std::size_t> bad;
    const records::Snapshot snapshot =
        records::parseSnapshot(text, [&bad](std::size_t number, const std::string& problem) {
            require(!problem.empty());
            bad.push_back(number);
        });
    std::string_view left = text;
    std::size_t record = 0;
    std::size_t skipped = 0;
    for (std::size_t number = 1; !left.empty(); ++number) {
        const std::string_view line = left.substr(0, left.find('\n'));
        left.remove_prefix(std::min(left.size(), line.size() + 1));
        if (skipped < bad.size() && bad[skipped] == number) {
            ++skipped;
            continue;
        }
        require(record < snapshot.size() && line.starts_with(lineOf(snapshot[record])));
        toJson(snapshot[record]).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
        ++record;
    }
    require(record == snapshot.size() && skipped == bad.size());
    return 0;
}
