// What is kept of each PID.
#pragma once

#include <array>
#include <bit>
#include <deque>
#include <memory>
#include <vector>

#include "clocks/programClock.h"
#include "packets/continuity.h"
#include "packets/secondRing.h"
#include "sections/sectionAssembler.h"

namespace meter {

// Why a packet of a PID needs more than the counting that all get.
enum PidRole : uint8_t {
    kUnknownPid = 1 << 0,   // no packet of it yet, or none since it ceased to be referred to
    kSectionsPid = 1 << 1,  // carries sections that are read
    kMediaWanted = 1 << 2,  // more of the PES packet that began is looked at
    kOverflowPid = 1 << 3,  // one record for all PIDs that found no place
    kNullRole = 1 << 4,     // null packets, which are counted alone
};

// Places in the index: of a PID without record, and of one that found no place.
inline constexpr std::size_t kPidsLimit = 254;
inline constexpr uint8_t kNoPid = 0;
inline constexpr uint8_t kOverflow = 1;
inline constexpr std::size_t kFirstPidPlace = 2;

inline constexpr std::size_t kCacheLine = 64;

// What decides how far a packet of a PID is looked into.
struct PidState {
    Continuity continuity;
    uint8_t roles = kUnknownPid;

    // No role, and the next counter: one comparison for what is true of most packets.
    bool onlyGoesOn(unsigned counter) const {
        constexpr int kCounterAt = std::endian::native == std::endian::little ? 0 : 8;
        return std::bit_cast<uint16_t>(*this) == counter << kCounterAt;
    }
};

// With a thousand channels each line of the cache that a packet touches is waited for, so what it touches
// stands together, here and in the objects that hold the records.
struct alignas(kCacheLine) PidRecord : PidState {
    // What every packet touches.
    bool touched = false;  // `last` lies in the datagram that is being read
    uint16_t pid = 0;
    uint64_t packets = 0;
    Ticks lastSeen = 0;                     // stream time of the last packet
    const uint8_t* last = nullptr;          // it; null where there was none to compare with
    std::array<uint8_t, kPacketSize> kept;  // it, between datagrams

    // Counters, which outlive a change of flow.
    uint64_t scrambled = 0;
    uint64_t notRead = 0;  // without payload, or nothing in them is relied on: neither clear nor scrambled
    uint64_t continuityErrors = 0;
    uint64_t lost = 0;
    uint64_t repeated = 0;
    uint64_t keyChanges = 0;

    uint8_t key = 0;           // the last transport_scrambling_control other than clear
    uint8_t keysInSecond = 0;  // bit i: transport_scrambling_control i
    uint8_t keysShown = 0;     // of the last second with packets; bit 0: clear
    uint64_t packetsAtSecond = 0;
    uint64_t clearAtSecond = 0;
    SecondRing rates;  // packets a second

    StreamKind kind = StreamKind::kData;  // where a PMT lists it
    bool stream = false;                  // a PMT lists it
    bool referenced = false;
    bool tables = false;                    // a PMT comes there
    bool cues = false;                      // cues come there
    bool unreferencedHeld = false;          // 3.4.a holds
    std::optional<Ticks> unreferencedFrom;  // first packet since nothing refers to it
    bool stillPicture = false;
    std::optional<Ticks> ptsAt;  // stream time of the last PTS
    int mediaSlot = -1;
    uint16_t clockPid = kNullPid;  // of its program

    ClockTrack track;
    bool discontinuity = false;
    std::unique_ptr<ProgramClock> clock;
    std::unique_ptr<SectionAssembler> sections;
};

class PidTable {
  public:
    PidTable() : records_{&none_, &overflow_} {
        none_.roles = kUnknownPid;
        overflow_.roles = kOverflowPid;
    }
    PidTable(const PidTable&) = delete;
    PidTable& operator=(const PidTable&) = delete;

    // The PID's record; one that says kUnknownPid and is nobody's where it has none yet.
    PidRecord& find(uint16_t pid) {
        return *records_[index_[pid]];
    }
    // What find() reads, for a run of packets; valid until obtain().
    struct View {
        const uint8_t* index;
        PidRecord* const* records;

        PidRecord& find(uint16_t pid) const {
            return *records[index[pid]];
        }
    };
    View view() const {
        return {index_.data(), records_.data()};
    }
    const PidRecord* known(uint16_t pid) const {
        const uint8_t slot = index_[pid & (kPidCount - 1)];
        return slot == kNoPid || slot == kOverflow ? nullptr : records_[slot];
    }
    // Makes one where there is none. The record of all that found no place when the table is full.
    PidRecord& obtain(uint16_t pid);

    // In the order in which they came; the overflow is not among them.
    std::deque<PidRecord>& all() {
        return own_;
    }
    const std::deque<PidRecord>& all() const {
        return own_;
    }
    PidRecord& overflow() {
        return overflow_;
    }

  private:
    std::array<uint8_t, kPidCount> index_{};
    std::vector<PidRecord*> records_;  // by place
    std::deque<PidRecord> own_;
    PidRecord none_;
    PidRecord overflow_;
};

}  // namespace meter
