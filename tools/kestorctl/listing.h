// Lists for people.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

// Rows under headings, each column as wide as its longest text, at most kWidest; the last is not padded.
class Listing {
  public:
    static constexpr std::size_t kWidest = 40;

    explicit Listing(std::vector<std::string> headings);
    // `below` stands under the row, each text on lines of its own: broken between words to the width of the
    // terminal, or as it is where the output is none.
    void add(std::vector<std::string> cells, std::vector<std::string> below = {});
    void print() const;  // on standard output

  private:
    struct Row {
        std::vector<std::string> cells;
        std::vector<std::string> below;
    };
    std::vector<Row> rows_;
};
