// RTP datagrams in the order in which they were sent, as a receiver would put them (RFC 3550).
#pragma once

#include <array>
#include <vector>

#include "fields/moment.h"
#include "fields/rtp.h"

namespace meter {

// Who gets what was put in order.
class OrderedSink {
  public:
    // `missing`: so many datagrams before this one stay missing. The bytes live for the call alone.
    virtual void ordered(Bytes packets, Nanoseconds arrival, Nanoseconds wall, uint32_t missing) = 0;

  protected:
    ~OrderedSink() = default;
};

class RtpOrder {
  public:
    // A datagram that is missing is given up when so many later ones are held.
    static constexpr std::size_t kHeld = 16;
    // RFC 3550, A.1 MAX_MISORDER and MAX_DROPOUT. What is further behind, or further ahead than the time
    // since the last one can have held, is a sender that began anew, once its next one follows.
    static constexpr uint16_t kMisorderLimit = 100;
    static constexpr uint16_t kDropoutLimit = 3000;
    // A time holds at most so many times the datagrams that the rate of the sequence says; what is known of a
    // sequence is so once it lasted so long.
    static constexpr double kRateMargin = 4;
    static constexpr Nanoseconds kKnownAfter = kNsPerSecond;

    // kStray: of no place in the sequence, and left out unless the next one follows it; kBeganAnew: that one,
    // with the stray before it.
    enum class Place : uint8_t { kInOrder, kEarly, kLate, kTooLate, kRepeated, kStray, kBeganAnew };

    // Hands to `sink` what is in order by now. Arrivals are those of the packets' road: none is before the
    // last.
    Place feed(const RtpPacket& packet, Nanoseconds arrival, Nanoseconds wall, OrderedSink& sink);
    // Hands out what is held; missing ones are given up, and a stray is left out.
    void flush(OrderedSink& sink) {
        straying_ = false;
        while (heldCount_ > 0) {
            giveUpFirst(sink);
        }
    }
    // Another sender: what comes next begins a sequence.
    void restart(OrderedSink& sink);

    bool began() const {
        return began_;
    }
    // Datagrams that the numbers from the first to the highest say (of all sequences), RFC 3550, A.3.
    uint64_t expected() const {
        return expectedBefore_ + (began_ ? highest_ - first_ + 1 : 0);
    }
    std::size_t heldBytes() const;

  private:
    static constexpr std::size_t kSeenBits = 128;  // above kMisorderLimit, a power of two

    struct Held {
        bool used = false;
        uint64_t number = 0;
        Nanoseconds arrival = 0;
        Nanoseconds wall = 0;
        std::vector<uint8_t> bytes;
    };

    void beginAt(const RtpPacket& packet, Nanoseconds arrival, Nanoseconds wall, OrderedSink& sink);
    Place feedAt(uint64_t number, const RtpPacket& packet, Nanoseconds arrival, Nanoseconds wall,
                 OrderedSink& sink);
    void keepStray(const RtpPacket& packet, Nanoseconds arrival, Nanoseconds wall);
    std::optional<int64_t> ahead(const RtpPacket& packet, Nanoseconds arrival) const;
    std::optional<int64_t> outage(const RtpPacket& packet, Nanoseconds arrival, int64_t forward) const;
    bool isOffTime(uint32_t timestamp, Nanoseconds passed) const;
    void handOut(Bytes packets, Nanoseconds arrival, Nanoseconds wall, uint32_t missing, OrderedSink& sink);
    void handOutHeld(OrderedSink& sink);
    void giveUpFirst(OrderedSink& sink);
    bool seen(uint64_t number) const;
    void markSeen(uint64_t number);

    bool began_ = false;
    uint64_t next_ = 0;     // the number that is handed out next, extended to 64 bits
    uint64_t first_ = 0;    // of this sequence
    uint64_t highest_ = 0;  // received
    Nanoseconds firstArrival_ = 0;
    Nanoseconds highestArrival_ = 0;
    uint32_t firstTimestamp_ = 0;
    uint32_t highestTimestamp_ = 0;
    uint64_t expectedBefore_ = 0;
    std::array<uint64_t, kSeenBits / 64> seen_{};  // received ones up to the highest
    bool straying_ = false;
    RtpPacket strayHeader_;  // whose payload is that of the next
    Held stray_;
    std::size_t heldCount_ = 0;
    std::vector<Held> held_;  // none, or kHeld places
    Nanoseconds lastArrival_ = 0;
};

}  // namespace meter
