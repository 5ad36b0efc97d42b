// What the owner keeps of one channel between snapshots.
#pragma once

#include <algorithm>
#include <array>
#include <limits>
#include <memory>
#include <optional>

#include "alarms/channelSample.h"
#include "alarms/history.h"
#include "channels/channel.h"

namespace station {

// Sums of every counter over the last minute.
class MinuteSums {
  public:
    static constexpr std::size_t kSeconds = 60;

    void add(const ChannelSample& sample, SteadyTime now) {
        advance(now);
        for (std::size_t i = 0; i < kSampleCounters; ++i) {
            const auto room = std::numeric_limits<uint32_t>::max() - seconds_[at_][i];
            const auto more = static_cast<uint32_t>(std::min<uint64_t>(sample.increments[i], room));
            seconds_[at_][i] += more;
            sums_[i] += more;
        }
    }
    const std::array<uint64_t, kSampleCounters>& sums(SteadyTime now) {
        advance(now);
        return sums_;
    }

  private:
    void advance(SteadyTime now) {
        const auto second = std::chrono::floor<std::chrono::seconds>(now.time_since_epoch()).count();
        const auto steps = std::min<int64_t>(second - second_, kSeconds);
        for (int64_t step = 0; step < steps; ++step) {
            at_ = (at_ + 1) % kSeconds;
            for (std::size_t i = 0; i < kSampleCounters; ++i) {
                sums_[i] -= seconds_[at_][i];
                seconds_[at_][i] = 0;
            }
        }
        second_ = std::max<int64_t>(second, second_);
    }

    // Of one second, which sees fewer packets by far.
    std::array<std::array<uint32_t, kSampleCounters>, kSeconds> seconds_{};
    std::array<uint64_t, kSampleCounters> sums_{};
    std::size_t at_ = 0;
    int64_t second_ = 0;
};

struct WatchedChannel {
    explicit WatchedChannel(Channel told) : channel(std::move(told)) {}

    Channel channel;
    std::optional<ChannelSample> sample;  // of the last snapshot that showed it
    SteadyTime sampleTime;
    History history;
    MinuteSums minute;
    std::array<WallTime, kSampleCounters> lastError{};
    WallTime lastSeen;
    WallTime countsSince;  // the first sample since the station was started or the channel added
    // The last snapshot's records; `snapshot` owns them.
    const Record* stream = nullptr;
    std::span<const Record> pids;
    std::shared_ptr<const void> snapshot;

    // A channel that is shown no more must not keep a whole snapshot.
    void forgetRecords() {
        stream = nullptr;
        pids = {};
        snapshot.reset();
    }
};

}  // namespace station
