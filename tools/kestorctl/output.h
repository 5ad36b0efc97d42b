// How what a station says is printed.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

using Json = nlohmann::ordered_json;

void print(const Json& value);  // on a line of its own

// A member as an operator reads it; "-" where there is none, or nothing in it.
std::string text(const Json& object, const char* member);
// "2026-11-21 22:52:44" of an RFC 3339 time in UTC.
std::string timeText(const Json& object, const char* member);
