// A report of the meter, as the station keeps it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "common/clock.h"
#include "measures/lossTally.h"
#include "meter/meterFacts.h"

namespace meter {
struct CueReport;
struct Report;
}  // namespace meter

namespace station {

// A meter reports each second: what an older report says is not of now.
inline constexpr std::chrono::seconds kMeterReportHolds{5};

// What is counted here of a group since the station was started, or the group added.
struct MeterTallies {
    uint64_t cues = 0;
    uint64_t changes = 0;    // of flow and tables
    uint64_t mediaLost = 0;  // packets: the sum of the media loss rate (RFC 4445) of each second
    LossTotals loss{};
};

// A report as it came: messages, which take a tenth of the room of what they say.
struct MeterReport {
    uint64_t number = 0;  // another one with each report
    Now time{};           // when it came
    bool disturbed = false;
    bool capturing = true;  // else what it says is of before
    uint64_t second = 0;    // whole seconds since the begin of the analysis
    uint64_t lossRate = 0;  // packets, of the last whole second (RFC 4445)
    LossFigures loss{};
    MeterTallies tallies{};                          // when it was asked for
    std::shared_ptr<const std::string> levels;       // metering::GroupReport without description
    std::shared_ptr<const std::string> description;  // metering::Description; null: never told
    std::shared_ptr<const MeterFacts> facts{};       // of the description; null with it

    // Some 20 us; whatever the bytes are.
    meter::Report read() const;
    // The cues that it has besides those, oldest first.
    std::vector<meter::CueReport> cuesBut(const std::vector<MeterCue>& known) const;
};

// By group, in host byte order; ascending.
using MeterReports = std::vector<std::pair<uint32_t, MeterReport>>;

}  // namespace station
