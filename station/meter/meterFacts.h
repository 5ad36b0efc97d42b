// What the newest report of a group says of what the channel is, and its cues, for those who see all channels
// at once.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/clock.h"

namespace metering {
class Cue;
class Description;
}  // namespace metering
namespace meter {
struct CueReport;
}

namespace station {

// Texts are printable UTF-8 of at most kNameLimit bytes, empty while not known.
struct MeterFacts {
    std::string serviceName;  // of the service with the lowest number that has a name
    std::string resolution;   // of the first video stream: "1920x1080i", "1280x720p", "720x576"
    std::string codec;        // of that, else of the first audio stream: "H.264"

    bool operator==(const MeterFacts&) const = default;
};
MeterFacts factsOf(const metering::Description& description);

// A cue as it was told.
struct MeterCue {
    WallTime time{};  // when it came; the epoch for one that came before that was heard of
    std::shared_ptr<const std::string> bytes;  // metering::Cue

    meter::CueReport read() const;  // whatever the bytes are
};

// What is told of a group at one moment.
struct MeterBrief {
    std::shared_ptr<const MeterFacts> facts{};  // null before its first report
    WallTime lastCue{};                         // the epoch for none
    std::optional<bool> cueOut{};  // whether the newest splice_insert leads out of the network, or back
};
using MeterBriefs = std::vector<std::pair<uint32_t, MeterBrief>>;  // by group, in host byte order; ascending

}  // namespace station
