// Configurations: a text without mistakes has an effective form that reads back equal.
#include <string>

#include "configuration/configuration.h"
#include "fuzz/fuzzing.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const auto result = station::parseConfiguration(text, "/nonexistent/station.toml");
    for (const station::Mistake& mistake : result.mistakes)
        if (mistake.line == 0 || mistake.text.empty())
            __builtin_trap();
    if (!result.mistakes.empty())
        return 0;
    auto again = station::parseConfiguration(station::effectiveConfiguration(result.configuration),
                                             "/nonexistent/again.toml");
    // The effective form names the meter's socket, as it does everything.
    again.configuration.meterExpected = result.configuration.meterExpected;
    again.configuration.pictures.expected = result.configuration.pictures.expected;
    if (!again.mistakes.empty() || again.configuration != result.configuration)
        __builtin_trap();
    return 0;
}
