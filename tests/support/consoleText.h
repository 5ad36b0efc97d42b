// What has to be printed to the letter.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "support/process.h"

namespace test {

// What the function prints on standard output.
template <typename Function>
std::string printedBy(Function function) {
    testing::internal::CaptureStdout();
    function();
    return testing::internal::GetCapturedStdout();
}

// The part of tests/unit/consoleTexts.txt behind the line "=== NAME".
inline std::string consoleText(const std::string& name) {
    std::ifstream file(sourceDir() + "/tests/unit/consoleTexts.txt");
    std::string text;
    bool inside = false;
    for (std::string line; std::getline(file, line);)
        if (line.starts_with("=== "))
            inside = line == "=== " + name;
        else if (inside)
            text += line + "\n";
    return text;
}

}  // namespace test
