// A snapshot as a table for people.
#pragma once

#include <string>

#include "recordParser.h"

inline constexpr int kTableWidth = 123;  // with all its columns

// Lines of at most `width` columns: what matters least is left out and texts are cut where not all fits, so
// that 80 will do. Below 71 lines stay as long as that.
std::string renderTable(const records::Snapshot& snapshot, int width = kTableWidth);
