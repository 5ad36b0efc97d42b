// A thread that captures and measures its share of the groups.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>
#include <utility>
#include <vector>

#include "capture.h"
#include "framing.h"
#include "outbox.h"
#include "shard.h"

namespace meterd {

// Makes a capture, or throws std::runtime_error with the reason. Tests and files have makers of their own.
using CaptureMaker = std::function<std::unique_ptr<Capture>()>;

// CLOCK_BOOTTIME goes on while the machine is suspended, CLOCK_MONOTONIC stands still: how far they are
// apart.
int64_t suspendedTime();

class Worker {
  public:
    // `outbox` outlives it.
    // `suspended` says how long the machine was asleep, since whenever, in ns; tests have one of their own.
    Worker(Share share, CaptureMaker maker, Outbox& outbox,
           std::function<int64_t()> suspended = suspendedTime);

    // Runs until it is asked to stop, on the thread that calls it.
    void run(const std::stop_token& stop);

    // From any thread; taken up within 100 ms.
    void watch(std::shared_ptr<const WatchList> list);
    // What was last to be watched is, and captured if it can be.
    bool watches() const {
        return !ordersWait_;
    }
    void describeAnew();
    void joined(const std::vector<std::pair<uint32_t, int64_t>>& groups);  // with the time, steady, in ns
    // Of a group that this share takes; handed back within kExcerptTime and 200 ms while the thread goes
    // round.
    void wantExcerpt(ExcerptWanted wanted);
    bool takes(uint32_t group) const {
        return share_.takes(group);
    }
    // What is told of memberships with each second.
    struct Joined {
        std::size_t count = 0;
        std::size_t failures = 0;
        std::string problem;
    };
    void setJoined(Joined joined);
    // What keeps it from capturing, for people; empty: nothing.
    std::string problem();
    // When it last went round, by the steady clock in ns: it does so several times a second.
    int64_t lastTurn() const {
        return lastTurn_;
    }

  private:
    bool takeOrders();
    void capture(int64_t now);
    void openCapture(int64_t now);
    void waitAndRead(int64_t now);
    void pause() const;
    void giveUpCapture(const std::string& why, int64_t now);
    void finishSecond();
    bool wasDisturbed(const CaptureCounts& counts);
    void continueReport();
    void endSecond(bool sent);
    void tick(int64_t now);
    void takeEvents();

    static constexpr int64_t kMs = 1'000'000;
    static constexpr int64_t kSecond = 1000 * kMs;
    static constexpr int64_t kTick = 100 * kMs;
    // How long a frame may stand in the ring before it is seen: time is told to analysers with this delay.
    static constexpr int64_t kLag = 100 * kMs;
    static constexpr int64_t kReopen = kSecond;
    static constexpr int64_t kAsleep = kTick;
    // A loss is found when the next packet comes, which may be a second or two later.
    static constexpr uint64_t kDisturbed = 2;
    // For a picture to come: the longest groups of pictures that are in use take five seconds or so.
    static constexpr int64_t kExcerptTime = 8 * kSecond;
    static constexpr std::size_t kBatch = 512;          // frames
    static constexpr std::size_t kGroupsPerSlice = 16;  // reports between two looks at the ring
    // A part ends with the slice that fills it: its message stays below metering::kMessageLimit.
    static constexpr std::size_t kPartBytes = std::size_t{4} * 1024 * 1024;
    static_assert(kPartBytes + (kGroupsPerSlice + 1) * metering::kReportLimit < metering::kMessageLimit);
    // Whatever streams say, a second of all threads has room while none waits.
    static_assert(Shard::Limits().levels + Shard::Limits().descriptions + Outbox::kBytes / 4 <=
                  Outbox::kBytes);

    const Share share_;
    const CaptureMaker maker_;
    Outbox& outbox_;
    const std::function<int64_t()> suspended_;
    Shard shard_;

    std::unique_ptr<Capture> capture_;
    DatagramSink sink_;
    std::string problem_;
    int64_t nextOpen_ = 0;
    int64_t nextTick_ = 0;
    int64_t secondEnd_ = 0;
    bool caughtUp_ = false;  // the last look left nothing in the ring
    int64_t newest_ = 0;     // arrival
    int64_t ticked_ = 0;     // time that analysers were told
    uint64_t number_ = 0;
    CaptureCounts ended_;          // of captures that failed
    CaptureCounts atSecondEnd_;    // all
    uint64_t disturbedUntil_ = 0;  // number of a second
    bool disturbanceUntold_ = false;
    int64_t asleep_ = 0;       // at the end of the last second
    int64_t suspendedNs_ = 0;  // since the program began
    // The second that is being reported.
    bool reporting_ = false;
    metering::Second part_;
    std::size_t partBytes_ = 0;
    uint32_t partNumber_ = 0;
    std::vector<std::string> parts_;  // their room is reserved in the outbox
    std::size_t partsBytes_ = 0;

    std::atomic<int64_t> lastTurn_;
    std::atomic<bool> ordersWait_ = false;
    std::mutex mutex_;  // guards the orders below
    std::shared_ptr<const WatchList> ordered_;
    bool describe_ = false;
    std::vector<std::pair<uint32_t, int64_t>> joinedGroups_;
    std::vector<ExcerptWanted> excerpts_;
    Joined joined_;
    std::string toldProblem_;
};

}  // namespace meterd
