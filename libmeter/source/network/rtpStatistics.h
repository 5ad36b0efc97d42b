// What RTP headers tell of the network (RFC 3550), of datagrams as they came.
#pragma once

#include "flow/rtpOrder.h"
#include "meter/report.h"

namespace meter {

class RtpStatistics {
  public:
    // A datagram, before it is put in order; and where it fell. `packets`: transport packets in it.
    void datagram(const RtpPacket& packet, Nanoseconds arrival);
    void placed(RtpOrder::Place place);
    // So many datagrams in a row were given up.
    void missing(uint32_t datagrams);
    // The flow is another one: what compares with the datagram before begins anew.
    void restart() {
        has_ = false;
        jitter_ = 0;
    }

    bool any() const {
        return any_;
    }
    // Whether this datagram begins another sequence.
    bool changesSource(const RtpPacket& packet) const {
        return has_ && packet.ssrc != ssrc_;
    }
    uint64_t missingDatagrams() const {
        return missing_;
    }
    uint64_t lossEvents() const {
        return lossEvents_;
    }
    uint64_t longestBurst() const {
        return longestBurst_;
    }
    // `expected`: datagrams that the sequence numbers say.
    RtpReport report(uint64_t expected) const;

  private:
    bool any_ = false;
    bool has_ = false;  // a datagram to compare with
    uint8_t payloadType_ = 0;
    uint32_t ssrc_ = 0;
    uint32_t timestamp_ = 0;
    Nanoseconds arrival_ = 0;
    // In 1/9 ns, which ns and 90 kHz are whole multiples of; times 16, as RFC 3550, A.8 has it.
    uint64_t jitter_ = 0;
    bool jitterKnown_ = false;

    uint64_t received_ = 0;
    uint64_t repeated_ = 0;
    uint64_t outOfOrder_ = 0;
    uint64_t missing_ = 0;
    uint64_t lossEvents_ = 0;
    uint64_t longestBurst_ = 0;
    uint64_t timestampSteps_ = 0;
    uint64_t ssrcChanges_ = 0;
};

}  // namespace meter
