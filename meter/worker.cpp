#include "worker.h"

#include <poll.h>
#include <ctime>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <thread>

#include "clocks.h"

namespace meterd {

namespace {

int64_t now() {
    return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
}
uint64_t processorMicroseconds() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<uint64_t>(time.tv_sec) * 1'000'000 + static_cast<uint64_t>(time.tv_nsec) / 1000;
}

CaptureCounts operator+(const CaptureCounts& a, const CaptureCounts& b) {
    std::optional<uint64_t> card = a.cardDrops;
    if (b.cardDrops) {
        card = card.value_or(0) + *b.cardDrops;
    }
    return {a.frames + b.frames, a.kernelDrops + b.kernelDrops, card, a.cut + b.cut};
}

}  // namespace

int64_t suspendedTime() {
    timespec monotonic{};
    timespec boot{};
    clock_gettime(CLOCK_MONOTONIC, &monotonic);
    clock_gettime(CLOCK_BOOTTIME, &boot);
    return (int64_t{boot.tv_sec} - monotonic.tv_sec) * 1'000'000'000 + boot.tv_nsec - monotonic.tv_nsec;
}

Worker::Worker(Share share, CaptureMaker maker, Outbox& outbox, std::function<int64_t()> suspended)
    : share_(share),
      maker_(std::move(maker)),
      outbox_(outbox),
      suspended_(std::move(suspended)),
      shard_(share),
      sink_([this](const meter::Datagram& datagram) {
          newest_ = std::max(newest_, datagram.arrival);
          shard_.feed(datagram);
      }),
      lastTurn_(now()) {}

void Worker::watch(std::shared_ptr<const WatchList> list) {
    const std::lock_guard lock(mutex_);
    ordered_ = std::move(list);
    ordersWait_ = true;
}

void Worker::describeAnew() {
    const std::lock_guard lock(mutex_);
    describe_ = true;
}

void Worker::joined(const std::vector<std::pair<uint32_t, int64_t>>& groups) {
    const std::lock_guard lock(mutex_);
    joinedGroups_.insert(joinedGroups_.end(), groups.begin(), groups.end());
}

void Worker::wantExcerpt(ExcerptWanted wanted) {
    const std::lock_guard lock(mutex_);
    excerpts_.push_back(std::move(wanted));
}

void Worker::setJoined(Joined joined) {
    const std::lock_guard lock(mutex_);
    joined_ = std::move(joined);
}

std::string Worker::problem() {
    const std::lock_guard lock(mutex_);
    return toldProblem_;
}

// True when there is another list.
bool Worker::takeOrders() {
    std::shared_ptr<const WatchList> list;
    std::vector<std::pair<uint32_t, int64_t>> groups;
    std::vector<ExcerptWanted> excerpts;
    {
        const std::lock_guard lock(mutex_);
        list = std::exchange(ordered_, nullptr);
        groups = std::exchange(joinedGroups_, {});
        excerpts = std::exchange(excerpts_, {});
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
    for (ExcerptWanted& wanted : excerpts) {
        shard_.beginExcerpt(std::move(wanted), now() + kExcerptTime);
    }
    return list != nullptr;
}

void Worker::run(const std::stop_token& stop) {
    secondEnd_ = now() - kLag + kSecond;
    asleep_ = suspended_();
    while (!stop.stop_requested()) {
        const bool listed = takeOrders();
        const int64_t begin = now();
        lastTurn_ = begin;
        capture(begin);
        if (listed) {
            const std::lock_guard lock(mutex_);
            ordersWait_ = ordered_ != nullptr;
        }
        if (begin >= nextTick_) {
            nextTick_ = begin + kTick;
            tick(begin - kLag);
            takeEvents();
            shard_.takeExcerpts(begin);
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
    // Also while no station is there: they would come as new to the next one, hours late.
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
        pause();
        return;
    }
    try {
        waitAndRead(when);
    } catch (const std::runtime_error& error) {
        giveUpCapture(error.what(), when);
    }
}

// Where there is nothing to wait on; not between the slices of a report.
void Worker::pause() const {
    if (!reporting_) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
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
        pause();
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

bool Worker::wasDisturbed(const CaptureCounts& counts) {
    const int64_t before = std::exchange(asleep_, suspended_());
    const int64_t asleep = asleep_ - before;
    if (asleep > kAsleep && share_.index == 0) {
        fprintf(stderr, "the machine was suspended for %.1f s: what arrived meanwhile is lost to it alone\n",
                static_cast<double>(asleep) / kSecond);
    }
    suspendedNs_ += asleep > kAsleep ? asleep : 0;
    const CaptureCounts last = std::exchange(atSecondEnd_, counts);
    return asleep > kAsleep || counts.kernelDrops > last.kernelDrops ||
           counts.cardDrops.value_or(0) > last.cardDrops.value_or(0) || counts.cut > last.cut ||
           !problem_.empty();
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
    {
        const std::lock_guard lock(mutex_);
        toldProblem_ = problem_;
    }
    if (wasDisturbed(counts)) {
        disturbedUntil_ = number_ + kDisturbed;
        disturbanceUntold_ = true;
        shard_.disturbed(static_cast<uint64_t>(1 + missed));
    }
    if (!outbox_.isOpen()) {
        return;
    }
    part_.Clear();
    part_.set_thread(share_.index);
    part_.set_threads(share_.of);
    part_.set_number(number_);
    part_.set_wall_ns(wallNow());
    part_.set_seconds_lost(outbox_.secondsLost());
    part_.set_events_lost(outbox_.eventsLost());
    metering::Capture& capture = *part_.mutable_capture();
    capture.set_interface(capture_ ? capture_->interface() : "");
    capture.set_problem(problem_);
    capture.set_socket(capture_ ? capture_->socket() : 0);
    capture.set_frames(counts.frames);
    capture.set_kernel_drops(counts.kernelDrops);
    if (counts.cardDrops) {
        capture.set_card_drops(*counts.cardDrops);
    }
    capture.set_cut_frames(counts.cut);
    capture.set_suspended_ms(static_cast<uint64_t>(suspendedNs_ / kMs));
    capture.set_processor_us(processorMicroseconds());
    capture.set_disturbed(number_ <= disturbedUntil_ || disturbanceUntold_);
    {
        const std::lock_guard lock(mutex_);
        capture.set_joined(static_cast<uint32_t>(joined_.count));
        capture.set_join_failures(static_cast<uint32_t>(joined_.failures));
        capture.set_join_problem(joined_.problem);
    }
    partNumber_ = 0;
    partBytes_ = 0;
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
    std::string bytes = metering::framed(message);
    if (!outbox_.reserve(bytes.size())) {
        outbox_.loseSecond(partsBytes_);
        endSecond(false);
        return;
    }
    partsBytes_ += bytes.size();
    parts_.push_back(std::move(bytes));
    const bool last = message.second().last();
    if (!last) {
        // The next part has the same head.
        message.mutable_second()->clear_report();
        part_.Swap(message.mutable_second());
        return;
    }
    endSecond(outbox_.pushSecond(std::move(parts_)));
}

void Worker::endSecond(bool sent) {
    reporting_ = false;
    parts_.clear();
    partsBytes_ = 0;
    if (sent) {
        disturbanceUntold_ = false;
    } else {
        // What was new in it has to be told again.
        shard_.reportAnew();
        shard_.describeAnew();
    }
}

}  // namespace meterd
