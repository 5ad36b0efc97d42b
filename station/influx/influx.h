// Numbers for those who keep them in an InfluxDB: line protocol by HTTP.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "configuration/configuration.h"
#include "state/state.h"

namespace station {

// Writes a point for every channel of every snapshot: measurement `kestor_stream`, tags `probe`, `group`,
// `channel` and the channel's labels, fields named as the stream record's columns, time in nanoseconds; and
// for every report of the meter, with the time when it came: measurement `kestor_meter`, the same tags,
// fields named as its measures. Building and sending happen on a thread of its own (libcurl); no call waits.
// While the server is down or slow the newest points are kept, kKeptBytes of them, and the older are dropped.
class InfluxWriter {
  public:
    static constexpr std::size_t kKeptBytes = 8 * 1024 * 1024;
    static constexpr std::size_t kPostBytes = 1024 * 1024;  // of one request, more for one snapshot alone

    // `instance` is the tag `probe`.
    InfluxWriter(const Configuration::Influx& options, const std::string& instance);
    ~InfluxWriter();  // at most a second; what is not sent is dropped
    InfluxWriter(const InfluxWriter&) = delete;

    // From here on; an empty URL stops writing.
    void configure(const Configuration::Influx& options);
    // A state with a snapshot or reports that were not written yet; others are passed over. One that comes
    // before the last one was taken up replaces it.
    void write(StatePointer state);

    struct Statistics {
        uint64_t written = 0;  // points that the server took
        uint64_t dropped = 0;
        uint64_t failed = 0;      // requests
        std::string lastProblem;  // empty after a success
    };
    Statistics statistics() const;  // any thread

  private:
    struct Implementation;
    std::unique_ptr<Implementation> implementation_;
};

// What was written: the last snapshot's number, and when each group's last report came.
struct InfluxWritten {
    uint64_t snapshots = 0;
    std::unordered_map<uint32_t, WallTime> reports{};  // of channels that there are
};
// The points of a state that were not written before, a line each; the number of them goes to `points`.
std::string influxLines(const StationState& state, const std::string& instance, std::size_t& points,
                        InfluxWritten& written);

}  // namespace station
