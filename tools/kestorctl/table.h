// A snapshot as a table for people, at most 120 columns wide.
#pragma once

#include <string>
#include <vector>

#include "recordParser.h"

std::string renderTable(const std::vector<records::Record>& snapshot);
