// What the stream's own clock says: the time that a packet was made for.
#pragma once

#include <algorithm>
#include <array>
#include <optional>

#include "fields/moment.h"

namespace meter {

// A clock's step from one PCR to the next, modulo the PCR's range.
constexpr Ticks pcrStep(Ticks from, Ticks to) {
    return to >= from ? to - from : to - from + kPcrModulus;
}

// Ticks a packet, exactly, as the quotient that it comes from.
struct Pace {
    uint32_t ticks = 0;
    uint32_t packets = 0;  // above 0

    bool slowerThan(const Pace& other) const {  // fewer packets in a time
        return uint64_t{ticks} * other.packets > uint64_t{other.ticks} * packets;
    }
};

// Steps from one PCR to the next that tell how the clock runs.
inline constexpr Ticks kStepLimit = kTicksPerSecond;

// The PCRs of a PID as stream time needs them; the caller has one a PID.
struct ClockTrack {
    Ticks pcr = 0;   // the last one
    Ticks time = 0;  // and its packet's stream time, not held back
    uint64_t position = 0;
    uint64_t count = 0;
    uint32_t sinceReference = 0;  // PCRs without one of the reference
    uint32_t referenceMark = 0;
    bool discontinuity = false;  // indicated since the last PCR
};

class StreamTime {
  public:
    static constexpr int kFraction = 16;  // bits of a tick

    // A pace that holds whatever PCRs say. `bitrate`: above 0.
    void setConstantPace(uint64_t bitrate);
    // A pace until PCRs say another one.
    void setFirstPace(const Pace& pace);
    std::optional<Pace> pace() const {
        return paceCount_ == 0 ? std::nullopt : std::optional(pace_);
    }

    // The time between two PCRs, to go on in registers: next() for each packet, then put() before anything
    // else of the object is asked for.
    struct Run {
        uint64_t since;
        uint64_t step;
        Ticks base;
        Ticks floor;

        Ticks next() {
            since += step;
            return std::max(floor, base + static_cast<Ticks>(since >> kFraction));
        }
    };
    Run run() const {
        return {since_, step_, base_, floor_};
    }
    void put(const Run& run) {
        since_ = run.since;
    }
    // A packet is next.
    void packet() {
        since_ += step_;
    }
    // So many are missing before the next one.
    void skip(uint64_t packets);
    // The datagram of the next packets has arrived: so much later than the one before.
    void arrived(Nanoseconds passed) {
        if (since_ >= kFoldAt) {
            fold();
        }
        if (step_ == 0) {
            goWithArrival(passed);
        }
    }
    // The packet that is next has a PCR. Returns its stream time.
    Ticks pcr(uint16_t pid, ClockTrack& track, Ticks pcr, uint64_t position);

    Ticks now() const {
        return std::max(floor_, goesOn());
    }
    std::optional<uint16_t> reference() const {
        return reference_ == kNoReference ? std::nullopt : std::optional(reference_);
    }
    // Ticks of so many packets at the pace; nothing before there is one.
    std::optional<Ticks> duration(uint64_t packets) const;

  private:
    static constexpr uint16_t kNoReference = 0xFFFF;
    static constexpr uint32_t kPcrsToTakeOver = 50;
    static constexpr std::size_t kPaces = 5;
    static constexpr uint64_t kFoldAt = uint64_t{1} << 40;

    Ticks goesOn() const {
        return base_ + static_cast<Ticks>(since_ >> kFraction);
    }
    void addPace(const Pace& pace);
    void fold();
    void goWithArrival(Nanoseconds passed);

    Ticks base_ = 0;      // stream time of the last PCR, or what went on from there
    uint64_t since_ = 0;  // time since, with a fraction
    uint64_t step_ = 0;   // of a packet; 0 before there is a pace
    Ticks floor_ = 0;     // what was handed out before the base was set
    Pace pace_;
    std::array<Pace, kPaces> paces_;  // the latest
    uint32_t paceCount_ = 0;
    uint16_t reference_ = kNoReference;
    uint32_t referenceMark_ = 0;  // changes with each PCR of the reference
    bool constant_ = false;
    Nanoseconds arrivalRest_ = 0;  // not yet a whole tick
};

}  // namespace meter
