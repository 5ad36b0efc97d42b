// What the owner keeps of one channel between snapshots.
#pragma once

#include <algorithm>
#include <array>
#include <limits>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "channels/channel.h"
#include "measures/channelSample.h"
#include "measures/history.h"

namespace station {

// Sums of every counter of a source over the last minute. Takes memory with the first sample.
class MinuteSums {
  public:
    static constexpr std::size_t kSeconds = 60;

    void add(const ChannelSample& sample, SteadyTime now) {
        counters_ = countMeasures(MeasureKind::kCounter, sample.source);
        seconds_.resize(kSeconds * counters_);
        advance(now);
        for (std::size_t i = 0; i < counters_; ++i) {
            uint32_t& sum = seconds_[at_ * counters_ + i];
            const auto room = std::numeric_limits<uint32_t>::max() - sum;
            const auto more = static_cast<uint32_t>(std::min<uint64_t>(sample.counts[i].growth, room));
            sum += more;
            sums_[i] += more;
        }
    }
    const std::array<uint64_t, kCounters>& sums(SteadyTime now) {
        advance(now);
        return sums_;
    }

  private:
    void advance(SteadyTime now) {
        const auto second = std::chrono::floor<std::chrono::seconds>(now.time_since_epoch()).count();
        const auto steps = std::min<int64_t>(second - second_, kSeconds);
        for (int64_t step = 0; step < steps; ++step) {
            at_ = (at_ + 1) % kSeconds;
            for (std::size_t i = 0; i < counters_; ++i) {
                sums_[i] -= std::exchange(seconds_[at_ * counters_ + i], 0);
            }
        }
        second_ = std::max<int64_t>(second, second_);
    }

    std::size_t counters_ = 0;
    std::vector<uint32_t> seconds_;  // by second, then counter: one sees fewer packets by far
    std::array<uint64_t, kCounters> sums_{};
    std::size_t at_ = 0;
    int64_t second_ = 0;
};

// What one source said of a channel.
struct Observed {
    std::optional<ChannelSample> sample;  // the last one
    SteadyTime time;
    MinuteSums minute;
    std::array<WallTime, kCounters> lastError{};

    void add(const ChannelSample& next, const Now& now) {
        sample = next;
        time = now.steady;
        minute.add(next, now.steady);
        for (std::size_t i = 0; i < kCounters; ++i) {
            if (next.counts[i].growth > 0) {
                lastError[i] = now.wall;
            }
        }
    }
};

struct WatchedChannel {
    explicit WatchedChannel(Channel watched) : channel(std::move(watched)) {}

    Channel channel;
    BySource<Observed> observed;
    History history;
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
