#include "analyser/channel.h"

#include <algorithm>

#include "basics/address.h"
#include "fields/wallClock.h"

namespace meter {

namespace {

// A time of day with which any other of a stream can be reckoned: a file may claim the year 2262.
inline Nanoseconds knownWall(const Datagram& datagram) {
    constexpr Nanoseconds kLatest = INT64_MAX / 2;
    return datagram.wall > 0 && datagram.wall < kLatest ? datagram.wall : 0;
}

std::string nameOf(uint32_t source, uint16_t sourcePort, uint16_t port) {
    return basics::dotted(source) + ":" + std::to_string(sourcePort) + " to port " + std::to_string(port);
}

}  // namespace

bool ChannelAnalyser::Channel::fits(const Datagram& datagram) const {
    return settings_.source.value_or(datagram.source) == datagram.source &&
           settings_.port.value_or(datagram.destinationPort) == datagram.destinationPort;
}

bool ChannelAnalyser::Channel::isFlow(const Datagram& datagram) const {
    return flow_ && flow_->source == datagram.source && flow_->sourcePort == datagram.sourcePort &&
           flow_->port == datagram.destinationPort;
}

// SMPTE 2022-1: columns on the media's port + 2, rows on + 4.
bool ChannelAnalyser::Channel::isProtection(const Datagram& datagram) const {
    return flow_ && isRtpVersion(datagram.payload) &&
           (datagram.destinationPort == flow_->port + 2 || datagram.destinationPort == flow_->port + 4);
}

void ChannelAnalyser::Channel::feed(const Datagram& datagram) {
    __builtin_prefetch(&delivery_);
    interArrival_.fetch();
    stream_.fetch();
    if (datagram.fragment) {
        ++fragments_;
    } else if (isFlow(datagram)) {
        feedFlow(datagram);
    } else {
        feedOther(datagram);
    }
}

void ChannelAnalyser::Channel::countOther(const Datagram& datagram) {
    ++otherFlows_;
    const std::optional<uint32_t> source = flow_ ? std::optional(flow_->source) : settings_.source;
    otherSources_ += source && datagram.source != *source ? 1 : 0;
}

void ChannelAnalyser::Channel::feedOther(const Datagram& datagram) {
    if (isProtection(datagram)) {
        ++protection_;
        return;
    }
    if (!fits(datagram)) {
        countOther(datagram);
        return;
    }
    const Payload payload = classify(datagram.payload, Encapsulation::kUnknown);
    if (payload.packets.empty()) {
        // Before there is a flow, who sends nonsense is taken for the channel's sender.
        if (flow_ || !payload.malformed || isRtpVersion(datagram.payload)) {
            countOther(datagram);
        } else {
            ++malformed_;
        }
    } else if (!flow_) {
        beginFlow(datagram);
    } else if (since(datagram.arrival) - lastDatagram_ > kSilence) {
        changeFlow(datagram);
    } else {
        countOther(datagram);
    }
}

void ChannelAnalyser::Channel::beginFlow(const Datagram& datagram) {
    flow_ = {datagram.source, datagram.sourcePort, datagram.destinationPort};
    begin_ = datagram.arrival;
    beginWall_ = knownWall(datagram);
    feedFlow(datagram);
}

void ChannelAnalyser::Channel::changeFlow(const Datagram& datagram) {
    const Nanoseconds at = std::max(since(datagram.arrival), now_);
    order_.restart(*this);
    endSeconds(at);
    stream_.restart(at);
    ChangeReport change;
    change.at = static_cast<double>(at) / static_cast<double>(kNsPerSecond);
    change.what = "flow";
    change.text = "The flow is " + nameOf(datagram.source, datagram.sourcePort, datagram.destinationPort) +
                  "; " + nameOf(flow_->source, flow_->sourcePort, flow_->port) + " was silent for over 5 s";
    if (changes_.size() == kFlowChangesLimit) {
        changes_.erase(changes_.begin());
    }
    changes_.push_back(change);
    if (events_.size() == kEventsLimit) {
        events_.erase(events_.begin());
    }
    events_.emplace_back(std::move(change));
    flow_ = {datagram.source, datagram.sourcePort, datagram.destinationPort};
    encapsulation_ = Encapsulation::kUnknown;
    bytesPerDatagram_ = 0;
    anyDatagram_ = false;
    rtp_.restart();
    interArrival_ = {};
    delivery_.restart();
    feedFlow(datagram);
}

inline void ChannelAnalyser::Channel::count(Bytes packets, Encapsulation encapsulation, Nanoseconds arrival) {
    encapsulation_ = encapsulation;
    if (!packets.empty()) {
        bytesPerDatagram_ = static_cast<uint32_t>(packets.size());
    }
    delivery_.datagram(arrival - (secondEnd_ - kNsPerSecond), packets.size());
}

inline void ChannelAnalyser::Channel::feedPlain(Bytes packets, Nanoseconds arrival, Nanoseconds wall) {
    count(packets, Encapsulation::kUdp, arrival);
    if (ordering_) {
        ordering_ = false;
        order_.flush(*this);
    }
    stream_.packets(packets, arrival, wall, 0);
}

void ChannelAnalyser::Channel::feedFlow(const Datagram& datagram) {
    const Nanoseconds arrival = std::max(since(datagram.arrival), now_);
    now_ = arrival;
    if (arrival >= secondEnd_) {
        endSeconds(arrival);
        marks_ = marksOf(datagram);
    }
    if (anyDatagram_) {
        interArrival_.datagram(arrival - lastDatagram_);
    } else {
        anyDatagram_ = true;
        marks_ = marksOf(datagram);
    }
    lastDatagram_ = arrival;
    ++datagrams_;
    if (isPlain(datagram.payload)) {
        feedPlain(datagram.payload, arrival, knownWall(datagram));
        return;
    }
    const Payload payload = classify(datagram.payload, encapsulation_);
    malformed_ += payload.malformed ? 1 : 0;
    if (payload.encapsulation == Encapsulation::kUnknown) {
        return;
    }
    if (payload.encapsulation == Encapsulation::kUdp) {
        feedPlain(payload.packets, arrival, knownWall(datagram));
        return;
    }
    count(payload.packets, Encapsulation::kRtp, arrival);
    feedRtp(payload.rtp, arrival, knownWall(datagram));
}

void ChannelAnalyser::Channel::feedRtp(const RtpPacket& rtp, Nanoseconds arrival, Nanoseconds wall) {
    ordering_ = true;
    if (rtp_.changesSource(rtp)) {
        order_.restart(*this);
    }
    rtp_.datagram(rtp, arrival);
    const RtpOrder::Place place = order_.feed(rtp, arrival, wall, *this);
    rtp_.placed(place);
    if (place == RtpOrder::Place::kLate) {
        delivery_.loss().outOfOrder += rtp.payload.size() / kPacketSize;
    }
}

void ChannelAnalyser::Channel::ordered(Bytes packets, Nanoseconds arrival, Nanoseconds wall,
                                       uint32_t missing) {
    uint64_t missingPackets = 0;
    if (missing > 0) {
        rtp_.missing(missing);
        missingPackets = uint64_t{missing} * packetsPerDatagram();
        rtpMissing_ += missingPackets;
        rtpRuns_.add(missingPackets);
        delivery_.loss().byRtp += missingPackets;
    }
    stream_.packets(packets, arrival, wall, missingPackets);
}

void ChannelAnalyser::Channel::endSeconds(Nanoseconds now) {
    const int64_t seconds = now / kNsPerSecond - second_;
    if (seconds <= 0) {
        return;
    }
    const LossFound found = stream_.takeLoss();
    const DeliveryIndex::Loss& loss = delivery_.loss();
    const uint64_t lost = encapsulation_ == Encapsulation::kRtp ? loss.byRtp
                          : stream_.lossByClock() ? static_cast<uint64_t>(std::max<int64_t>(found.byClock, 0))
                                                  : found.byCounter;
    const Pace rate = stream_.mediaRate();
    delivery_.secondEnded(lost + loss.outOfOrder, uint64_t{rate.packets} * kPacketSize, rate.ticks);
    if (seconds > 1) {
        delivery_.secondEnded(0, uint64_t{rate.packets} * kPacketSize, rate.ticks);
    }
    interArrival_.secondsEnded(seconds);
    rtpRuns_.secondsEnded(seconds);
    second_ += seconds;
    secondEnd_ = (second_ + 1) * kNsPerSecond;
}

void ChannelAnalyser::Channel::tick(Nanoseconds now) {
    if (!flow_ || since(now) <= now_) {
        return;
    }
    now_ = since(now);
    endSeconds(now_);
    stream_.advance(now_);
}

void ChannelAnalyser::Channel::finish() {
    order_.flush(*this);
    feedHeld();
    if (flow_) {
        stream_.advance(now_);
    }
    stream_.finish();
}

void ChannelAnalyser::Channel::feedHeld() {
    firstPace_.giveUp();
    stream_.packets(held_, 0, 0, 0);
    held_ = {};
}

void ChannelAnalyser::Channel::feedPackets(Bytes packets) {
    if (!settings_.bare) {
        return;
    }
    packets = packets.first(packets.size() / kPacketSize * kPacketSize);
    if (firstPace_.done()) {
        stream_.packets(packets, 0, 0, 0);
        return;
    }
    held_.insert(held_.end(), packets.begin(), packets.end());
    if (const std::optional<Pace> pace = firstPace_.search(packets)) {
        stream_.setFirstPace(*pace);
        feedHeld();
    } else if (held_.size() >= FirstPace::kHeadLimit) {
        feedHeld();
    }
}

std::vector<Event> ChannelAnalyser::Channel::takeEvents() {
    stream_.takeEvents(events_);
    if (events_.size() > kEventsLimit) {
        events_.erase(events_.begin(), events_.end() - static_cast<std::ptrdiff_t>(kEventsLimit));
    }
    return std::exchange(events_, {});
}

FlowReport ChannelAnalyser::Channel::flowReport() const {
    FlowReport report;
    if (flow_) {
        report.source = flow_->source;
        report.sourcePort = flow_->sourcePort;
        report.port = flow_->port;
        report.ttl = marks_.ttl;
        report.dscp = marks_.dscp;
    }
    if (encapsulation_ != Encapsulation::kUnknown) {
        report.encapsulation = encapsulation_ == Encapsulation::kRtp ? "rtp" : "udp";
    }
    if (bytesPerDatagram_ > 0) {
        report.packetsPerDatagram = packetsPerDatagram();
    }
    report.datagrams = datagrams_;
    report.malformed = malformed_;
    report.fragments = fragments_;
    report.otherFlows = otherFlows_;
    report.otherSources = otherSources_;
    report.fec = protection_;
    report.vlan.assign(marks_.vlan.begin(), marks_.vlan.begin() + marks_.vlanCount);
    return report;
}

NetworkReport ChannelAnalyser::Channel::networkReport() const {
    const auto ms = [](const std::optional<Nanoseconds>& ns) {
        return ns ? std::optional(static_cast<double>(*ns) / static_cast<double>(kNsPerMs)) : std::nullopt;
    };
    NetworkReport report;
    interArrival_.fill(report);
    report.delayFactorMs = ms(delivery_.delayFactor());
    report.delayFactorHighestMs = ms(delivery_.delayFactorHighest());
    report.lossRate = delivery_.lossRate();
    report.lossRateHighest = delivery_.lossRateHighest();
    if (rtp_.any()) {
        report.rtp = rtp_.report(order_.expected());
    }
    return report;
}

void ChannelAnalyser::Channel::fillRtpLoss(LossReport& lost) const {
    lost.byRtp = rtpMissing_;
    if (encapsulation_ != Encapsulation::kRtp) {
        return;  // it was, and says nothing of what came since
    }
    lost.basis = "rtp";
    lost.packets = static_cast<int64_t>(rtpMissing_);
    lost.events = rtp_.lossEvents();
    lost.longest = rtpRuns_.ever();
    lost.longestLately = rtpRuns_.lately();
    lost.longestMs.reset();
    if (const std::optional<Ticks> longest = stream_.duration(lost.longest)) {
        lost.longestMs = static_cast<double>(*longest) / static_cast<double>(kTicksPerMs);
    }
}

Report ChannelAnalyser::Channel::report() const {
    Report report;
    report.group = settings_.group;
    stream_.fill(report);
    if (settings_.bare) {
        return report;
    }
    report.seconds = static_cast<double>(now_) / static_cast<double>(kNsPerSecond);
    if (beginWall_ != 0) {
        report.begin = rfc3339Milliseconds(beginWall_);
    }
    report.flow = flowReport();
    report.network = networkReport();
    if (rtp_.any()) {
        fillRtpLoss(report.packets.lost);
    }
    report.changes.insert(report.changes.end(), changes_.begin(), changes_.end());
    std::ranges::stable_sort(report.changes, {}, &ChangeReport::at);
    return report;
}

}  // namespace meter
