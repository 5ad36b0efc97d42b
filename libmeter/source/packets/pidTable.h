// What is kept of each PID.
#pragma once

#include <array>
#include <memory>
#include <span>
#include <vector>

#include "clocks/programClock.h"
#include "fields/sectionFields.h"
#include "packets/continuity.h"
#include "packets/packetPrint.h"
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
// Of them for those that every stream is measured by, however late they come: PAT, CAT, service information,
// null packets.
inline constexpr std::size_t kKeptPlaces = 8;
constexpr bool hasKeptPlace(uint16_t pid) {
    return pid == kPatPid || pid == kCatPid || (pid >= kNitPid && pid <= kTdtPid) || pid == kNullPid;
}
inline constexpr uint8_t kNoPid = 0;
inline constexpr uint8_t kOverflow = 1;
inline constexpr std::size_t kFirstPidPlace = 2;

inline constexpr uint16_t kNoSuchPid = 0xFFFF;

inline constexpr std::size_t kCacheLine = 64;

struct MediaStream;
struct PidRecord;

// What most packets of a PID touch, in one line of the cache: with a thousand channels each line that a
// packet touches is waited for.
struct alignas(kCacheLine) PidState {
    Continuity continuity;
    uint8_t roles = kUnknownPid;
    uint16_t pid = kNoSuchPid;  // of `record`, where that is this PID's alone
    uint64_t packets = 0;
    Ticks lastSeen = 0;             // stream time of the last packet
    const uint8_t* last = nullptr;  // it, where it lies in the datagram that is being read
    PacketPrint print;              // of the last packet before this datagram
    PidRecord* record = nullptr;
    MediaStream* media = nullptr;  // null where nothing is looked at
};
static_assert(sizeof(PidState) == kCacheLine);

// What else is kept of a PID.
struct alignas(kCacheLine) PidRecord {
    PidState* state = nullptr;
    uint16_t pid = kNoSuchPid;  // until it is given to one

    // What the begin of a PES packet or a PCR touches.
    StreamKind kind = StreamKind::kData;  // where a PMT lists it
    bool stream = false;                  // a PMT lists it
    bool stillPicture = false;
    bool discontinuity = false;
    const PidRecord* clockRecord = nullptr;  // of its program's PCRs; null where it has none
    std::optional<Ticks> ptsAt;              // stream time of the last PTS
    std::optional<PcrReading> pcr;           // the last one
    std::unique_ptr<ProgramClock> clock;
    std::unique_ptr<SectionAssembler> sections;
    ClockTrack track;

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

    bool referenced = false;
    bool tables = false;                    // a PMT comes there
    bool cues = false;                      // cues come there
    bool unreferencedHeld = false;          // 3.4.a holds
    std::optional<Ticks> unreferencedFrom;  // first packet since nothing refers to it
};

class PidTable {
  public:
    PidTable();
    PidTable(const PidTable&) = delete;
    PidTable& operator=(const PidTable&) = delete;

    // The PID's state; one that says kUnknownPid and is nobody's where it has none yet.
    PidState& find(uint16_t pid) {
        return states_[index_[pid]];
    }
    // For a run of packets; valid until obtain().
    struct View {
        const uint8_t* recent;
        PidState* states;

        // The state of a PID with this low byte, mostly the one that is meant.
        PidState& likely(uint8_t lowByte) const {
            return states[recent[lowByte]];
        }
    };
    View view() const {
        return {recent_.data(), states_};
    }
    // Fetches the states of the first PIDs.
    void fetch() const {
        constexpr std::size_t kFetched = 8;
        __builtin_prefetch(&states_);
        __builtin_prefetch(&recent_.front());
        __builtin_prefetch(&recent_.back());  // of null packets
#pragma GCC unroll 8
        for (std::size_t i = 0; i < kFetched; ++i) {
            __builtin_prefetch(&near_[kFirstPidPlace + i]);
        }
    }
    // What View::likely() finds is this one.
    void makeLikely(const PidState& state) {
        recent_[state.pid & 0xFF] = placeOf(state);
    }
    uint8_t placeOf(const PidState& state) const {
        return static_cast<uint8_t>(&state - states_);
    }
    // REQUIRES: a place of this table.
    PidState& stateAt(uint8_t place) {
        return states_[place];
    }
    const PidRecord* known(uint16_t pid) const {
        const uint8_t place = index_[pid & (kPidCount - 1)];
        return place == kNoPid || place == kOverflow ? nullptr : records_[place];
    }
    // Makes one where there is none. The record of all that found no place when the table is full: so it is
    // until forgetRefused(). States move.
    PidRecord& obtain(uint16_t pid);
    // PIDs without a kept place that obtain() has room for.
    std::size_t room() const {
        return kPidsLimit - kKeptPlaces - othersTaken_;
    }
    // Whether a PID found no place since forgetRefused().
    bool refused() const {
        return refused_;
    }
    // Those that found no place are as those that did not come yet.
    void forgetRefused();
    // Gives the place back. REQUIRES: a record of all(), of a PID without a kept place; nobody else points to
    // it.
    void release(PidRecord& record);
    // Packets of PIDs that found no place.
    uint64_t refusedPackets() const {
        return overflow_.state->packets;
    }

    // A walk over records that leaves out places without a PID. Not std::views::filter, which Clang 14 does
    // not take.
    class Known {
      public:
        class Iterator {
          public:
            Iterator(PidRecord* const* at, PidRecord* const* end) : at_(at), end_(end) {
                skip();
            }
            PidRecord* operator*() const {
                return *at_;
            }
            Iterator& operator++() {
                ++at_;
                skip();
                return *this;
            }
            bool operator==(const Iterator& other) const {
                return at_ == other.at_;
            }

          private:
            void skip() {
                while (at_ != end_ && (*at_)->pid == kNoSuchPid) {
                    ++at_;
                }
            }
            PidRecord* const* at_;
            PidRecord* const* end_;
        };
        explicit Known(std::span<PidRecord* const> records) : records_(records) {}
        Iterator begin() const {
            return {records_.data(), records_.data() + records_.size()};
        }
        Iterator end() const {
            return {records_.data() + records_.size(), records_.data() + records_.size()};
        }

      private:
        std::span<PidRecord* const> records_;
    };
    // Records of PIDs, by place; the overflow is not among them.
    Known all() const {
        return Known(std::span(records_).subspan(kFirstPidPlace));
    }

  private:
    static constexpr std::size_t kPlaces = kFirstPidPlace + kPidsLimit;
    static constexpr std::size_t kNearPlaces = 24;  // as many PIDs as most channels have

    // Records of a table stand side by side, whatever else is allocated while they come.
    static constexpr std::size_t kTogether = 8;
    using Records = std::array<PidRecord, kTogether>;

    uint8_t freePlace();
    PidRecord& nextRecord();
    void moveStates();

    // By the low byte of a PID the place of the one with it that was looked at last; and the states by place.
    // Behind the few lines of a stream's own state: a channel's packets touch a page of memory or two.
    std::array<uint8_t, 256> recent_{};
    PidState* states_ = nullptr;
    std::array<PidState, kNearPlaces> near_;
    std::unique_ptr<std::array<PidState, kPlaces>> far_;  // in place of near_ once there are more

    std::vector<PidRecord*> records_;  // by place
    std::vector<std::unique_ptr<Records>> own_;
    std::size_t othersTaken_ = 0;  // places, by PIDs without a kept one
    std::vector<uint8_t> free_;    // places that were given back
    bool refused_ = false;
    PidRecord none_;
    PidRecord overflow_;
    std::array<uint8_t, kPidCount> index_{};  // places
};

}  // namespace meter
