// Cells of comma-separated values (RFC 4180), appended to a text.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "web/jsonWriter.h"

namespace station {

// A text in quotes. What a spreadsheet would take for a formula is quoted for it.
void csvCell(std::string& text, std::string_view cell);

// What begins a cell that is not a row's first.
std::string_view csvSeparator(const std::string& text);

// A number or a truth value; nothing for one that is not known.
template <typename Value>
void csvPlain(std::string& text, const std::optional<Value>& value) {
    std::string plain;
    if (value) {
        JsonWriter(plain).value(*value);
    }
    text.append(csvSeparator(text)).append(plain == "null" ? "" : plain);
}

}  // namespace station
