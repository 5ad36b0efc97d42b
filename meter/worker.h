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

class Worker {
  public:
    // `outbox` outlives it.
    Worker(Share share, CaptureMaker maker, Outbox& outbox);

    // Runs until it is asked to stop, on the thread that calls it.
    void run(const std::stop_token& stop);

    // From any thread; taken up within 100 ms.
    void watch(std::shared_ptr<const WatchList> list);
    void describeAnew();
    void joined(const std::vector<uint32_t>& groups, int64_t now);
    // What is told of memberships with each second.
    struct Joined {
        std::size_t count = 0;
        std::size_t failures = 0;
        std::string problem;
    };
    void setJoined(Joined joined);
    // When it last went round, by the steady clock in ns: it does so several times a second.
    int64_t lastTurn() const {
        return lastTurn_;
    }

  private:
    void takeOrders();
    void capture(int64_t now);
    void openCapture(int64_t now);
    void waitAndRead(int64_t now);
    void giveUpCapture(const std::string& why, int64_t now);
    void finishSecond();
    void continueReport();
    void tick(int64_t now);
    void takeEvents();

    static constexpr int64_t kMs = 1'000'000;
    static constexpr int64_t kSecond = 1000 * kMs;
    static constexpr int64_t kTick = 100 * kMs;
    // How long a frame may stand in the ring before it is seen: time is told to analysers with this delay.
    static constexpr int64_t kLag = 100 * kMs;
    static constexpr int64_t kReopen = kSecond;
    // A loss is found when the next packet comes, which may be a second or two later.
    static constexpr uint64_t kDisturbed = 2;
    static constexpr std::size_t kBatch = 512;          // frames
    static constexpr std::size_t kGroupsPerSlice = 16;  // reports between two looks at the ring
    // A part ends with the slice that fills it: its message stays below metering::kMessageLimit.
    static constexpr std::size_t kPartBytes = std::size_t{4} * 1024 * 1024;
    static_assert(kPartBytes + (kGroupsPerSlice + 1) * metering::kReportLimit < metering::kMessageLimit);

    const Share share_;
    const CaptureMaker maker_;
    Outbox& outbox_;
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
    // The second that is being reported.
    bool reporting_ = false;
    metering::Second part_;
    std::size_t partBytes_ = 0;
    uint32_t partNumber_ = 0;
    std::vector<std::string> parts_;

    std::atomic<int64_t> lastTurn_;
    std::mutex mutex_;  // guards the orders below
    std::shared_ptr<const WatchList> ordered_;
    bool describe_ = false;
    std::vector<std::pair<uint32_t, int64_t>> joinedGroups_;
    Joined joined_;
};

}  // namespace meterd
