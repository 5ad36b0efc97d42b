// Checks of arguments that several commands take, as CLI11 calls them: what is wrong, or nothing.
#pragma once

#include <string>

#include "groupText.h"

inline std::string checkGroup(const std::string& text) {
    return probelink::isGroup(text) ? "" : text + " " + probelink::groupProblem(text);
}
