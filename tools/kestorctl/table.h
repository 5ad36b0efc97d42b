// A snapshot as a table for people, at most 120 columns wide.
#pragma once

#include <string>

#include "recordParser.h"

std::string renderTable(const records::Snapshot& snapshot);
