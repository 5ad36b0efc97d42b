// The share of a report that the analysis of a stream has to tell.
#include <algorithm>

#include "analyser/streamAnalysis.h"
#include "meter/channelAnalyser.h"

namespace meter {

namespace {

constexpr uint64_t kPacketBits = kPacketSize * 8;

std::optional<std::string> scramblingOf(uint8_t keys) {
    constexpr uint8_t kClear = 1;
    constexpr uint8_t kEven = 1 << 2;
    constexpr uint8_t kOdd = 1 << 3;
    switch (keys) {
        case 0:
            return std::nullopt;
        case kClear:
            return "clear";
        case kEven:
            return "even";
        case kOdd:
            return "odd";
        default:
            return "mixed";
    }
}

std::string_view streamKind(StreamKind kind) {
    constexpr std::array<std::string_view, 6> kNames = {"video",    "audio", "subtitle",
                                                        "teletext", "cue",   "data"};
    return kNames[static_cast<std::size_t>(kind)];
}

}  // namespace

const PidRecord* StreamAnalysis::speakingClock() const {
    const PidRecord* most = nullptr;
    for (const PidRecord* record : clocks_) {
        if (record->clock->runs(time_.now()) &&
            (most == nullptr || record->clock->count() > most->clock->count())) {
            most = record;
        }
    }
    return most;
}

Pace StreamAnalysis::mediaRate() const {
    const PidRecord* speaking = speakingClock();
    if (speaking == nullptr || speaking->clock->rates().empty()) {
        return {};
    }
    // Both sums are of at most 2048 steps of 100 ms; the quotient is what counts.
    uint64_t packets = speaking->clock->rates().packets();
    uint64_t ticks = speaking->clock->rates().ticks();
    while (packets > UINT32_MAX || ticks > UINT32_MAX) {
        packets /= 2;
        ticks /= 2;
    }
    return {static_cast<uint32_t>(ticks), static_cast<uint32_t>(packets)};
}

bool StreamAnalysis::lossByClock() const {
    const PidRecord* speaking = speakingClock();
    if (speaking == nullptr || !speaking->clock->rates().constant()) {
        return false;
    }
    return lostByClock_ && *lostByClock_ >= static_cast<int64_t>(lostByCounter_);
}

LossFound StreamAnalysis::takeLoss() {
    return std::exchange(found_, {});
}

// Nobody may ask for events, as with a recording.
void StreamAnalysis::tell(Event event) {
    if (events_.size() >= 2 * ChannelAnalyser::kEventsLimit) {
        events_.erase(events_.begin(),
                      events_.end() - static_cast<std::ptrdiff_t>(ChannelAnalyser::kEventsLimit));
    }
    events_.push_back(std::move(event));
}

void StreamAnalysis::takeEvents(std::vector<Event>& events) {
    std::ranges::move(events_, std::back_inserter(events));
    events_.clear();
}

void StreamAnalysis::fillLoss(LossReport& report) const {
    report.byCounter = lostByCounter_;
    report.byClock = lostByClock_;
    if (lossByClock()) {
        report.basis = "clock";
        report.packets = report.byClock;
        report.events = clockEvents_;
        report.longest = clockRuns_.ever();
        report.longestLately = clockRuns_.lately();
    } else {
        report.basis = "counter";
        report.packets = static_cast<int64_t>(lostByCounter_);
        report.events = counterEvents_;
        report.longest = counterRuns_.ever();
        report.longestLately = counterRuns_.lately();
    }
    if (const std::optional<Ticks> longest = time_.duration(report.longest)) {
        report.longestMs = static_cast<double>(*longest) / static_cast<double>(kTicksPerMs);
    }
}

void StreamAnalysis::fillPids(Report& report) const {
    for (const PidRecord* const one : pids_.all()) {
        const PidRecord& record = *one;
        if (record.state->packets == 0) {
            continue;
        }
        PidReport& pid = report.pids.emplace_back();
        pid.pid = record.pid;
        const bool table = record.pid <= kLastReservedPid || record.tables;
        pid.kind = record.pid == kNullPid    ? "null"
                   : table                   ? "table"
                   : record.stream           ? std::string(streamKind(record.kind))
                   : !record.referenced      ? "unreferenced"
                   : record.clock != nullptr ? "clock"
                                             : "table";  // of conditional access, or the network's
        pid.packets = record.state->packets;
        if (!record.rates.empty()) {
            pid.bps = record.rates.latest() * kPacketBits;
            pid.lowest = record.rates.lowest() * kPacketBits;
            pid.highest = record.rates.highest() * kPacketBits;
        }
        pid.continuityErrors = record.continuityErrors;
        pid.lost = record.lost;
        pid.repeated = record.repeated;
        pid.scrambling = scramblingOf(record.keysShown);
        pid.keyChanges = record.keyChanges;
        pid.referenced = record.referenced;
        const Ticks silent = std::max<Ticks>(time_.now() - std::max<Ticks>(record.state->lastSeen, 0), 0);
        pid.silentMs = static_cast<double>(silent) / static_cast<double>(kTicksPerMs);
    }
    std::ranges::sort(report.pids, {}, &PidReport::pid);
}

void StreamAnalysis::fillClocks(Report& report) const {
    for (const PidRecord* record : clocks_) {
        ClockReport& clock = report.clocks.emplace_back();
        clock.pid = record->pid;
        for (const ProgramModel& program : services_->model().programs) {
            if (program.pcrPid == record->pid) {
                clock.programs.push_back(program.number);
            }
        }
        record->clock->fill(clock, bare_);
    }
    std::ranges::sort(report.clocks, {}, &ClockReport::pid);
}

void StreamAnalysis::fillServices(Report& report) const {
    constexpr uint8_t kAnyKey = 0x0E;
    services_->fill(report);
    for (ServiceReport& service : report.services) {
        for (const StreamReport& stream : service.streams) {
            const PidRecord* record = pids_.known(stream.pid);
            if (record != nullptr && record->keysShown != 0) {
                const bool scrambled = (record->keysShown & kAnyKey) != 0 && record->rates.latest() > 0;
                service.scrambled = service.scrambled.value_or(false) || scrambled;
            }
        }
    }
    media_->fill(report);
    cues_->fill(report);
}

void StreamAnalysis::fill(Report& report) const {
    report.seconds = static_cast<double>(now()) / static_cast<double>(kNsPerSecond);
    report.packets.received = received();
    report.packets.null = pids_.known(kNullPid) != nullptr ? pids_.known(kNullPid)->state->packets : 0;
    report.packets.scrambled = scrambled_;
    report.packets.repeated = repeated_;
    report.packets.notTracked = notTracked_ + pids_.refusedPackets();
    fillLoss(report.packets.lost);
    if (!rates_.empty()) {
        report.bitrate.bps = rates_.latest() * kPacketBits;
        report.bitrate.lowest = rates_.lowest() * kPacketBits;
        report.bitrate.highest = rates_.highest() * kPacketBits;
    }
    report.bitrate.nullShare = nullShare_;
    book_.fill(report.checks);
    CheckReport& accuracy = report.checks[static_cast<std::size_t>(Check::kPcrAccuracyError)];
    accuracy.applicable = std::ranges::any_of(
        clocks_, [](const PidRecord* record) { return record->clock->rates().constant(); });
    const PidRecord* speaking = speakingClock();
    if (speaking != nullptr && !speaking->clock->rates().empty()) {
        const RecentRates& rates = speaking->clock->rates();
        const Pace median = rates.median();
        report.bitrate.byClock =
            (uint64_t{median.packets} * kPacketBits * static_cast<uint64_t>(kTicksPerSecond) +
             median.ticks / 2) /
            median.ticks;
        if (rates.judged()) {
            report.bitrate.constant = rates.constant();
        }
    }
    fillClocks(report);
    fillServices(report);
    fillPids(report);
    report.changes = changes_;
}

}  // namespace meter
