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
    // RFC 3550, A.1 MAX_MISORDER: what is further behind is a sender that began anew, once its next one
    // follows.
    static constexpr uint16_t kMisorderLimit = 100;

    enum class Place : uint8_t { kInOrder, kEarly, kLate, kTooLate, kRepeated, kStray };

    // Hands to `sink` what is in order by now. Arrivals are those of the packets' road: none is before the
    // last.
    Place feed(const RtpPacket& packet, Nanoseconds arrival, Nanoseconds wall, OrderedSink& sink);
    // Hands out what is held; missing ones are given up.
    void flush(OrderedSink& sink) {
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

    Place beginAt(const RtpPacket& packet, Nanoseconds arrival, Nanoseconds wall, OrderedSink& sink);
    void handOut(Bytes packets, Nanoseconds arrival, Nanoseconds wall, uint32_t missing, OrderedSink& sink);
    void handOutHeld(OrderedSink& sink);
    void giveUpFirst(OrderedSink& sink);
    bool seen(uint64_t number) const;
    void markSeen(uint64_t number);

    bool began_ = false;
    uint64_t next_ = 0;     // the number that is handed out next, extended to 64 bits
    uint64_t first_ = 0;    // of this sequence
    uint64_t highest_ = 0;  // received
    uint64_t expectedBefore_ = 0;
    std::array<uint64_t, kSeenBits / 64> seen_{};  // received ones up to the highest
    bool straying_ = false;
    uint16_t strayNext_ = 0;
    std::size_t heldCount_ = 0;
    std::vector<Held> held_;  // none, or kHeld places
    Nanoseconds lastArrival_ = 0;
};

}  // namespace meter
