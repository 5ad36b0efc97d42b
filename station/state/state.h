// What the station knows at one moment: made whole by the owner thread, read by everybody.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "alarms/alarm.h"
#include "channels/channel.h"
#include "configuration/configuration.h"
#include "machine/machine.h"
#include "measures/channelSample.h"
#include "meter/meterFacts.h"
#include "meter/meterState.h"
#include "pictures/pictureState.h"
#include "recordParser.h"
#include "store/delivery.h"
#include "store/event.h"
#include "store/eventStore.h"

namespace station {

// What a source last said of a channel.
struct Measured {
    bool shown = false;  // it is there, and delivers the channel: the sample is of now
    ChannelSample sample{};
    // For the lamps, by the counters' places: when the counter last grew (the epoch for never), and how much
    // it grew in the last minute.
    std::array<WallTime, kCounters> lastError{};
    std::array<uint64_t, kCounters> lastMinute{};
};

struct ChannelState {
    Channel channel;
    ChannelStatus status = ChannelStatus::kWaiting;
    Source judgedBy = Source::kProbe;  // whose figures its alarms go by, where both sources have them
    std::vector<Alarm> alarms{};       // active ones, worst first
    BySource<Measured> measured{};
    // From the last snapshot of the probe that showed it.
    const Record* stream = nullptr;
    std::span<const Record> pids{};
    std::shared_ptr<const void> snapshot{};  // owns what the two point into
    WallTime lastSeen{};                     // last time that packets came; the epoch before the first
    WallTime countsSince{};    // when its counters were first read; errors that were not seen are older
    bool maintenance = false;  // a window holds at this moment
    std::string note{};        // why its group does not reach the probe, or empty
    MeterBrief meter{};        // without facts while the meter does not deliver it
    PictureBrief picture{};
};

struct ProbeState {
    bool connected = false;        // a snapshot came within the last 3 s: what is known is of now
    bool asks = false;             // a request came within the last 2 s: changes reach the probe
    bool secondAsker = false;      // somebody else asks at the port as well
    bool otherController = false;  // another controller holds the port
    WallTime lastRequest;          // the epoch before the first
    WallTime lastSnapshot;
    int32_t sequence = -1;
    uint64_t requests = 0;
    uint64_t snapshots = 0;
    uint64_t restarts = 0;
    uint64_t droppedLines = 0;
    uint64_t droppedSnapshots = 0;   // cut, or handed over by the reader and not taken in time
    uint64_t tooLargeSnapshots = 0;  // dropped for their size
    uint64_t snapshotBytes = 0;      // of the last one
    std::string pipeProblem;         // empty when all is well
    std::string problem;             // what is wrong between probe and station; empty when nothing is
    double longestPipeWaitMs = 0;    // longest time between two reads with the pipe full
};

// What this machine does to the probe.
struct MachineState {
    bool known = false;                         // the kernel tells; else `problem` says why it does not
    std::string problem;                        // empty when nothing is wrong with that
    std::optional<NetworkInterface> interface;  // that the probe captures on; nothing where there is none
    bool captured = false;                      // somebody captures there
    std::optional<Softnet> softnet;             // of the whole machine
    std::string linkProblem;                    // sentences for an operator; empty when all is well
    std::string joinProblem;
    std::string doubled;  // groups that are joined on another interface as well, and why
    // Groups without signal that are not joined on the interface, and groups that are joined where nobody
    // needs them (of which `doubled` tells). Nothing while that is not judged.
    std::optional<uint64_t> notJoined;
    std::optional<uint64_t> joinedElsewhere;
    uint64_t drops = 0;  // packets that this machine dropped since the station was started
    uint64_t dropsLastMinute = 0;
    uint64_t rejoins = 0;         // how often groups were joined again
    uint64_t rejoinedGroups = 0;  // how many in all
    WallTime lastRejoin;          // the epoch before the first

    // What keeps channels away: the link before the joins, which need one.
    const std::string& worst() const {
        return linkProblem.empty() ? joinProblem : linkProblem;
    }
};

// What the station itself costs.
struct StationUse {
    double cpuSeconds = 0;  // of the process
    uint64_t residentBytes = 0;
    double lastSnapshotCpuMs = 0;  // parsing, alarms, history
    uint64_t commandsRefused = 0;  // the owner's queue was full
    uint64_t logDropped = 0;       // lines that standard error did not take
    // Of the InfluxDB: points and requests.
    uint64_t influxWritten = 0, influxDropped = 0, influxFailed = 0;
    std::string influxProblem{};  // empty after a success
};

struct StationState {
    uint64_t number = 0;  // grows with each state
    Now now;
    WallTime started;
    ProbeState probe;
    MachineState machine;
    MeterState meter;
    PictureState pictures;
    std::shared_ptr<const records::Snapshot> snapshot;          // the last one; null before the first
    std::vector<std::shared_ptr<const ChannelState>> channels;  // in the order of groups
    std::vector<Alarm> alarms;                                  // all active ones, newest first
    std::vector<Maintenance> maintenance;
    std::vector<Shelving> shelved;
    std::vector<Incident> incidents;  // newest first, also the newest that are over
    std::vector<PassedAlarm> passed;  // newest first
    std::shared_ptr<const Configuration> configuration;
    std::vector<std::string> notes;  // what was odd in configuration and playlists, first 100
    bool passive = false;
    StationUse use;
    uint64_t channelsVersion = 0;  // grows when a channel is added, removed or changed
    // Grows when an alarm is raised, cleared, acknowledged or shelved, when its incident changes, and when
    // maintenance is set or ends.
    uint64_t alarmsVersion = 0;
    uint64_t passedVersion = 0;  // grows with each change of `passed`

    // Null when there is none.
    const ChannelState* find(const Group& group) const {
        const auto found = std::ranges::lower_bound(channels, group, {},
                                                    [](const auto& state) { return state->channel.group; });
        return found == channels.end() || (*found)->channel.group != group ? nullptr : found->get();
    }
};
using StatePointer = std::shared_ptr<const StationState>;

}  // namespace station
