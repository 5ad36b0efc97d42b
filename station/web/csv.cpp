#include "web/csv.h"

namespace station {

std::string_view csvSeparator(const std::string& text) {
    return text.empty() || text.back() == '\n' ? "" : ",";
}

void csvCell(std::string& text, std::string_view cell) {
    constexpr std::string_view kFormulaStarts = "=+-@\t\r";
    const bool formula = !cell.empty() && kFormulaStarts.find(cell.front()) != std::string_view::npos;
    text.append(csvSeparator(text)).append("\"").append(formula ? "'" : "");
    for (const char character : cell) {
        text.append(character == '"' ? 2 : 1, character);
    }
    text += '"';
}

}  // namespace station
