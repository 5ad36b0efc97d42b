// Recordings measured: one file in, a report for each channel out.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "meter/report.h"

struct MeasureOptions {
    std::vector<uint32_t>
        groups;  // host byte order; of captures those alone, empty: all with transport packets
    std::optional<uint64_t> bitrate;  // bit/s, of bare files
};

struct MeasuredFile {
    std::vector<meter::Report> reports;  // of a capture by group, ascending; of a bare file one
    std::vector<std::string> notes;      // for people: what was left out, and what helps
    std::string failure;  // why not all of the file, or of `groups`, could be measured; empty: all was
};

// Told now and then while a file is read: bytes read, and the file's size or 0.
using Progress = std::function<void(uint64_t read, uint64_t size)>;

// Groups of one capture that are measured; further ones are counted and noted.
inline constexpr std::size_t kGroupsLimit = 2048;

// Never throws for what a file holds or does not hold: see `failure`. What could be read before it is in the
// reports.
MeasuredFile measureFile(const std::string& path, const MeasureOptions& options, const Progress& progress);
