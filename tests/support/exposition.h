// What Prometheus reads.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>

namespace station {

using Series = std::map<std::string, std::string>;

// Series and values, as printed. Each family has to stand in one piece behind its HELP and TYPE, each series
// once.
inline Series seriesOf(const std::string& text) {
    Series found;
    std::map<std::string, int> families;
    std::string family;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("# HELP ")) {
            family = line.substr(7, line.find(' ', 7) - 7);
            EXPECT_EQ(++families[family], 1) << line;
            EXPECT_GT(line.size(), family.size() + 10) << "without a text: " << line;
        } else if (line.starts_with("# TYPE ")) {
            EXPECT_TRUE(line == "# TYPE " + family + " gauge" ||
                        (line == "# TYPE " + family + " counter" && family.ends_with("_total")))
                << line;
        } else {
            EXPECT_EQ(line.substr(0, line.find_first_of("{ ")), family);
            const std::size_t space = line.rfind(' ');
            EXPECT_TRUE(found.emplace(line.substr(0, space), line.substr(space + 1)).second) << line;
        }
    }
    return found;
}

}  // namespace station
