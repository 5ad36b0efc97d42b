// A channel: which flow it is, its datagrams as they came, and the stream in them.
#pragma once

#include "analyser/streamAnalysis.h"
#include "flow/firstPace.h"
#include "flow/payload.h"
#include "flow/rtpOrder.h"
#include "meter/channelAnalyser.h"
#include "network/deliveryIndex.h"
#include "network/interArrival.h"
#include "network/rtpStatistics.h"

namespace meter {

// What every datagram touches stands in front, in one page of memory: with a thousand channels a page is
// waited for as much as a line of the cache.
class alignas(4096) ChannelAnalyser::Channel final : private OrderedSink {
  public:
    explicit Channel(const Settings& settings)
        : stream_(settings), settings_(settings), firstPace_(settings) {}

    void feed(const Datagram& datagram);
    void feedPackets(Bytes packets);
    void tick(Nanoseconds now);
    void finish();
    Report report() const;
    std::vector<Event> takeEvents();
    void beginExcerpt(bool audio) {
        stream_.beginExcerpt(audio);
    }
    bool excerptIsEnded() const {
        return stream_.excerptIsEnded();
    }
    std::size_t excerptBytes() const {
        return stream_.excerptBytes();
    }
    std::optional<Excerpt> takeExcerpt() {
        return stream_.takeExcerpt();
    }

  private:
    static constexpr std::size_t kFlowChangesLimit = 100;      // the newest are kept
    static constexpr Nanoseconds kSilence = 5 * kNsPerSecond;  // after which a flow gives way to another

    struct Flow {
        uint32_t source = 0;
        uint16_t sourcePort = 0;
        uint16_t port = 0;
    };

    // What headers say that seldom changes: looked at once a second.
    struct Marks {
        uint8_t ttl = 0;
        uint8_t dscp = 0;
        uint8_t vlanCount = 0;
        std::array<uint16_t, kVlanTagsLimit> vlan{};
    };
    static Marks marksOf(const Datagram& datagram) {
        return {datagram.ttl, datagram.dscp, std::min<uint8_t>(datagram.vlanCount, kVlanTagsLimit),
                datagram.vlan};
    }
    uint32_t packetsPerDatagram() const {
        return bytesPerDatagram_ / static_cast<uint32_t>(kPacketSize);
    }

    // Ten years: sums of arrivals stay far from 64 bits. What comes later counts as that.
    static constexpr Nanoseconds kLongestAnalysis = Nanoseconds{10 * 365 * 86400LL} * kNsPerSecond;

    // The arrival since the begin, whatever it is.
    Nanoseconds since(Nanoseconds arrival) const {
        if (arrival <= begin_) {
            return 0;
        }
        const uint64_t passed = static_cast<uint64_t>(arrival) - static_cast<uint64_t>(begin_);
        return static_cast<Nanoseconds>(std::min(passed, static_cast<uint64_t>(kLongestAnalysis)));
    }
    void ordered(Bytes packets, Nanoseconds arrival, Nanoseconds wall, uint32_t missing) override;
    bool fits(const Datagram& datagram) const;
    bool isFlow(const Datagram& datagram) const;
    bool isProtection(const Datagram& datagram) const;
    void feedOther(const Datagram& datagram);
    void countOther(const Datagram& datagram);
    void beginFlow(const Datagram& datagram);
    void changeFlow(const Datagram& datagram);
    void feedFlow(const Datagram& datagram);
    void count(Bytes packets, Encapsulation encapsulation, Nanoseconds arrival);
    void feedPlain(Bytes packets, Nanoseconds arrival, Nanoseconds wall);
    void feedRtp(const RtpPacket& rtp, Nanoseconds arrival, Nanoseconds wall);
    void endSeconds(Nanoseconds now);
    uint64_t packetsByRtp() const;
    FlowReport flowReport() const;
    NetworkReport networkReport() const;
    void fillRtpLoss(LossReport& lost) const;
    void feedHeld();

    // What every datagram touches, the first of it in stream_ included.
    std::optional<Flow> flow_;
    Encapsulation encapsulation_ = Encapsulation::kUnknown;
    bool anyDatagram_ = false;       // of this flow
    bool ordering_ = false;          // the last datagram was RTP: some may be held
    uint32_t bytesPerDatagram_ = 0;  // of transport packets
    uint64_t datagrams_ = 0;
    Nanoseconds begin_ = 0;  // of the first flow; what follows is since then
    Nanoseconds now_ = 0;
    Nanoseconds lastDatagram_ = 0;
    Nanoseconds secondEnd_ = kNsPerSecond;
    DeliveryIndex delivery_;
    InterArrival interArrival_;
    StreamAnalysis stream_;

    Settings settings_;
    uint64_t malformed_ = 0;
    uint64_t fragments_ = 0;
    uint64_t otherFlows_ = 0;
    uint64_t otherSources_ = 0;
    uint64_t protection_ = 0;
    Marks marks_;
    Nanoseconds beginWall_ = 0;
    int64_t second_ = 0;  // that runs

    RtpOrder order_;
    RtpStatistics rtp_;
    uint64_t rtpMissing_ = 0;  // transport packets
    LongestRun rtpRuns_;

    // A bare file, until its first pace is known.
    FirstPace firstPace_;
    std::vector<uint8_t> held_;
    std::vector<Event> events_;
    std::vector<ChangeReport> changes_;
};

}  // namespace meter
