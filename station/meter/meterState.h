// What is known of the meter at one moment.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>

#include "common/clock.h"
#include "meter/lossCounts.h"

namespace station {

struct MeterState {
    bool configured = false;   // meter_socket names a socket
    std::string problem;       // a sentence for an operator; empty when all is well or nothing is configured
    bool connected = false;    // a meter that speaks this station's version
    bool silent = false;       // it is connected, and its last second is older than MeterBook::kSilence
    std::string version;       // the program's; of the last one that was connected
    WallTime since;            // when it connected; when the last one went; the epoch before the first
    SteadyTime sinceSteady;    // the same moment
    WallTime lastSecond;       // that it reported; the epoch before the first, likewise below
    uint64_t connections = 0;  // since the station's start
    std::size_t groups = 0;    // that it is told
    std::size_t groupsLeftOut = 0;  // more than a meter takes
    std::size_t reported = 0;       // groups in its last second
    uint64_t seconds = 0;           // reported since the station's start, of each thread
    uint64_t events = 0;            // likewise: changes, cues
    std::size_t toJoin = 0;         // of `groups`, by the meter for their source
    uint64_t reportsDropped = 0;    // for which there was no room here, or larger than one may be
    LossCounts lost;  // by the meter's machine while it was connected, since the station's start

    // By the meter, since it was started.
    std::string interface;
    std::set<uint64_t> sockets;  // inodes of its packet sockets
    std::string captureProblem;  // why nothing is captured; empty: it is
    uint64_t frames = 0;
    uint64_t kernelDrops = 0;
    std::optional<uint64_t> cardDrops;  // of the whole interface
    uint64_t cutFrames = 0;             // that the kernel handed over in part
    uint64_t secondsLost = 0;           // that never came here since they were not taken in time
    uint64_t eventsLost = 0;            // likewise, or since no station was there
    double cpuSeconds = 0;
    uint32_t threads = 0;
    uint32_t joined = 0;  // groups that it joined itself
    uint32_t joinFailures = 0;
    std::string joinProblem;
    std::string sourcesNote;  // that channels are joined without the source that they name; empty: none is
    bool disturbed =
        false;  // frames were dropped in the last second or the two before it, or nothing captured
};

}  // namespace station
