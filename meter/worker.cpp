#include "worker.h"

#include <poll.h>
#include <ctime>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <thread>

namespace meterd {

namespace {

int64_t now() {
    return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
}
int64_t wallNow() {
    return std::chrono::system_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
}

uint64_t processorMicroseconds() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<uint64_t>(time.tv_sec) * 1'000'000 + static_cast<uint64_t>(time.tv_nsec) / 1000;
}

CaptureCounts operator+(const CaptureCounts& a, const CaptureCounts& b) {
    return {a.frames + b.frames, a.kernelDrops + b.kernelDrops, a.cardDrops + b.cardDrops};
}

}  // namespace

Worker::Worker(Share share, CaptureMaker maker, Outbox& outbox)
    : share_(share),
      maker_(std::move(maker)),
      outbox_(outbox),
      shard_(share),
      sink_([this](const meter::Datagram& datagram) {
          newest_ = std::max(newest_, datagram.arrival);
          shard_.feed(datagram);
      }),
      lastTurn_(now()) {}

void Worker::watch(std::shared_ptr<const WatchList> list) {
    const std::lock_guard lock(mutex_);
    ordered_ = std::move(list);
}

void Worker::describeAnew() {
    const std::lock_guard lock(mutex_);
    describe_ = true;
}

void Worker::joined(const std::vector<uint32_t>& groups, int64_t when) {
    const std::lock_guard lock(mutex_);
    for (const uint32_t group : groups) {
        joinedGroups_.emplace_back(group, when);
    }
}

void Worker::setJoined(Joined joined) {
    const std::lock_guard lock(mutex_);
    joined_ = std::move(joined);
}

void Worker::takeOrders() {
    std::shared_ptr<const WatchList> list;
    std::vector<std::pair<uint32_t, int64_t>> groups;
    {
        const std::lock_guard lock(mutex_);
        list = std::exchange(ordered_, nullptr);
        groups = std::exchange(joinedGroups_, {});
        if (std::exchange(describe_, false)) {
            shard_.describeAnew();
        }
    }
    if (list) {
        shard_.watch(*list);
    }
    for (const auto& [group, when] : groups) {
        shard_.joined(group, when);
    }
}

void Worker::run(const std::stop_token& stop) {
    secondEnd_ = now() - kLag + kSecond;
    while (!stop.stop_requested()) {
        takeOrders();
        const int64_t begin = now();
        lastTurn_ = begin;
        capture(begin);
        if (begin >= nextTick_) {
            nextTick_ = begin + kTick;
            tick(begin - kLag);
            takeEvents();
        }
        if (reporting_) {
            continueReport();
        } else if (begin - kLag >= secondEnd_) {
            finishSecond();
        }
    }
}

// While frames wait in the ring the time of arrivals is theirs: those that were read came in their order.
void Worker::tick(int64_t told) {
    const int64_t until = caughtUp_ ? told : std::min(told, newest_);
    if (until > ticked_) {
        ticked_ = until;
        shard_.tick(until);
    }
}

void Worker::takeEvents() {
    if (!outbox_.isOpen()) {
        return;
    }
    for (metering::Happened& happened : shard_.takeEvents()) {
        metering::FromMeter message;
        *message.mutable_happened() = std::move(happened);
        outbox_.pushEvent(metering::framed(message));
    }
}

void Worker::capture(int64_t when) {
    if (shard_.groups() == 0) {  // nothing is captured for nobody
        giveUpCapture({}, when);
        nextOpen_ = when;
    } else if (!capture_ && when >= nextOpen_) {
        openCapture(when);
    }
    if (!capture_) {
        caughtUp_ = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        return;
    }
    try {
        waitAndRead(when);
    } catch (const std::runtime_error& error) {
        giveUpCapture(error.what(), when);
    }
}

void Worker::giveUpCapture(const std::string& why, int64_t when) {
    problem_ = why;
    if (capture_) {
        ended_ = ended_ + capture_->counts();
        capture_.reset();
    }
    nextOpen_ = when + kReopen;
}

void Worker::openCapture(int64_t when) {
    try {
        capture_ = maker_();
        problem_.clear();
    } catch (const std::runtime_error& error) {
        problem_ = error.what();
        nextOpen_ = when + kReopen;
    }
}

void Worker::waitAndRead(int64_t when) {
    if (capture_->ended()) {
        caughtUp_ = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        return;
    }
    const int descriptor = capture_->descriptor();
    if (descriptor >= 0 && !reporting_) {
        const int64_t wait = std::max<int64_t>(0, std::min(nextTick_ - when, kTick));
        pollfd poll{descriptor, POLLIN, 0};
        ::poll(&poll, 1, static_cast<int>(wait / kMs) + 1);
    }
    const std::size_t frames = capture_->read(kBatch, sink_);
    caughtUp_ = frames < kBatch;
    if (descriptor < 0 && frames == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));  // until the next is due
    }
}

void Worker::finishSecond() {
    const int64_t late = now() - kLag - secondEnd_;
    const auto missed = late / kSecond;  // of a process that was stopped
    secondEnd_ += (1 + missed) * kSecond;
    number_ += static_cast<uint64_t>(1 + missed);
    if (capture_) {
        try {
            problem_ = capture_->trouble();
        } catch (const std::runtime_error& error) {
            giveUpCapture(error.what(), now());
        }
    }
    const CaptureCounts counts = ended_ + (capture_ ? capture_->counts() : CaptureCounts{});
    if (counts.kernelDrops > atSecondEnd_.kernelDrops || counts.cardDrops > atSecondEnd_.cardDrops ||
        !problem_.empty()) {
        disturbedUntil_ = number_ + kDisturbed;
    }
    atSecondEnd_ = counts;
    if (!outbox_.isOpen()) {
        return;
    }
    part_.Clear();
    part_.set_thread(share_.index);
    part_.set_threads(share_.of);
    part_.set_number(number_);
    part_.set_wall_ns(wallNow());
    part_.set_seconds_lost(outbox_.secondsLost());
    metering::Capture& capture = *part_.mutable_capture();
    capture.set_interface(capture_ ? capture_->interface() : "");
    capture.set_problem(problem_);
    capture.set_socket(capture_ ? capture_->socket() : 0);
    capture.set_frames(counts.frames);
    capture.set_kernel_drops(counts.kernelDrops);
    capture.set_card_drops(counts.cardDrops);
    capture.set_processor_us(processorMicroseconds());
    capture.set_disturbed(number_ <= disturbedUntil_);
    {
        const std::lock_guard lock(mutex_);
        capture.set_joined(static_cast<uint32_t>(joined_.count));
        capture.set_join_failures(static_cast<uint32_t>(joined_.failures));
        capture.set_join_problem(joined_.problem);
    }
    partNumber_ = 0;
    partBytes_ = 0;
    parts_.clear();
    reporting_ = true;
    continueReport();
}

void Worker::continueReport() {
    partBytes_ += shard_.report(kGroupsPerSlice, part_);
    if (!part_.last() && partBytes_ < kPartBytes) {
        return;
    }
    part_.set_part(partNumber_++);
    partBytes_ = 0;
    metering::FromMeter message;
    message.mutable_second()->Swap(&part_);
    parts_.push_back(metering::framed(message));
    const bool last = message.second().last();
    if (!last) {
        // The next part has the same head.
        part_ = message.second();
        part_.clear_report();
        return;
    }
    reporting_ = false;
    if (!outbox_.pushSecond(std::move(parts_))) {
        // What was new in it has to be told again.
        shard_.describeAnew();
    }
    parts_.clear();
}

}  // namespace meterd
