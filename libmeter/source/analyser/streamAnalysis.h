// One transport stream: packets with their arrival go in, in order, and all rooms look at them.
#pragma once

#include <bitset>
#include <limits>
#include <vector>

#include "analyser/longestRun.h"
#include "checks/checkBook.h"
#include "checks/presence.h"
#include "checks/serviceInformation.h"
#include "clocks/streamTime.h"
#include "cues/cues.h"
#include "excerpt/excerptTaker.h"
#include "media/mediaStreams.h"
#include "meter/report.h"
#include "meter/settings.h"
#include "packets/pidTable.h"
#include "packets/synchronisation.h"
#include "sections/section.h"
#include "services/services.h"

namespace meter {

// Packets lost, by what tells of it.
struct LossFound {
    uint64_t byCounter = 0;
    int64_t byClock = 0;
};

class StreamAnalysis final : private SectionSink {
  public:
    explicit StreamAnalysis(const Settings& settings);
    StreamAnalysis(const StreamAnalysis&) = delete;
    StreamAnalysis& operator=(const StreamAnalysis&) = delete;

    // Whole packets (a multiple of kPacketSize bytes) that arrived together, `arrival` after the begin;
    // `missing` packets before them stay missing. A bare file has no arrival.
    void packets(Bytes bytes, Nanoseconds arrival, Nanoseconds wall, uint64_t missing);
    // Fetches what packets() is about to touch, while other work is done.
    void fetch() const {
        __builtin_prefetch(&time_);
        __builtin_prefetch(&nextLook_);
        __builtin_prefetch(&touched_);
        pids_.fetch();
    }
    // Nothing came until `arrival`.
    void advance(Nanoseconds arrival);
    // What follows is another stream. Counters go on, all else begins anew.
    void restart(Nanoseconds arrival);
    void finish();
    // The pace of a bare file from its first packet on.
    void setFirstPace(const Pace& pace) {
        time_.setFirstPace(pace);
    }

    // What happened since the last call is appended.
    void takeEvents(std::vector<Event>& events);
    LossFound takeLoss();
    // Packets and ticks that say the media rate of the latest 10 s; 0 where no clock speaks for the stream.
    Pace mediaRate() const;
    bool lossByClock() const;  // the clock is the better witness of loss than the counters
    std::optional<Ticks> duration(uint64_t packets) const {
        return time_.duration(packets);
    }
    Nanoseconds now() const {
        return bare_ ? toNanoseconds(time_.now()) : arrival_;
    }
    // From the next packets on an excerpt is taken; one that was open is given up.
    void beginExcerpt(bool audio) {
        excerpt_ = std::make_unique<ExcerptTaker>(services_->model(), audio);
    }
    bool excerptIsEnded() const {
        return excerpt_ != nullptr && excerpt_->isEnded();
    }
    std::size_t excerptBytes() const {
        return excerpt_ != nullptr ? excerpt_->bytes() : 0;
    }
    // As far as it came; none is open then. Nothing where none was.
    std::optional<Excerpt> takeExcerpt();
    // Fills all of the report but what concerns the flow, the network and loss by RTP.
    void fill(Report& report) const;

  private:
    static constexpr std::size_t kPacketsTogether = 64;  // after which their last ones are kept
    static constexpr std::size_t kChangesLimit = 100;    // the newest are kept
    // After which a PID that nothing refers to gives its place to one that found none.
    static constexpr Ticks kSilentLimit = 60 * kTicksPerSecond;

    void section(const Section& section) override;
    void checkCrc(const Section& section);

    void feedExcerpt(Bytes bytes, Nanoseconds arrival, Nanoseconds wall, uint64_t missing);
    void batch(const uint8_t* packet, const uint8_t* end);
    bool synchronise(const uint8_t* packet);
    void lookAtPacket(const uint8_t* packet, TsHeader header, Ticks now, PidState& likely);
    void goOn(PidState& state, const uint8_t* packet, Ticks now);
    void continueUnit(PidState& state, const uint8_t* packet);
    void transportError(uint16_t pid);
    PidState& stateOf(uint16_t pid, PidState& likely);
    PidRecord& recordOfUnknown(uint16_t pid);
    const PidRecord* clockRecordOf(const ProgramModel& program);
    void scrambledPacket(PidRecord& record, TsHeader header, const Moment& moment);
    static bool isRepeated(const PidState& state, const uint8_t* packet);
    ContinuityFinding findContinuity(PidState& state, const uint8_t* packet, TsHeader header,
                                     const Adaptation& adaptation);
    void continuityError(PidRecord& record, const ContinuityFinding& finding, const Moment& moment);
    Ticks readPcr(PidRecord& record, Ticks value);
    void countAccuracy(const PidRecord& record, const AccuracyFinding& finding);
    void readPayload(PidRecord& record, Bytes payload, TsHeader header, bool randomAccess,
                     const Moment& moment);
    void startPes(PidRecord& record, UnitPiece& piece, const PesStart& start, const Moment& moment);
    void remember(PidState& state, const uint8_t* packet) {
        if (state.last == nullptr) {
            touched_[touchedCount_++] = pids_.placeOf(state);
        }
        state.last = packet;
    }
    void keepTouched();

    Moment momentAt(Ticks now) const {
        return {bare_ ? toNanoseconds(now) : arrival_, now, position_, wall_};
    }
    // From when on a packet gets more than the usual; at once where sync bytes are in doubt.
    Ticks timeToLook() const {
        return sync_.calm() ? nextLook_ : std::numeric_limits<Ticks>::min();
    }
    uint64_t received() const {
        return position_ - missing_;
    }
    void look(Ticks now);
    void endSeconds(Nanoseconds arrival);
    void endSecond(PidRecord& record, int64_t seconds);
    void applyModel();
    std::vector<uint16_t> wantedPids(const ServiceModel& model) const;
    void makeRoom(const std::vector<uint16_t>& wanted);
    void giveBackSilent();
    void release(PidRecord& record);
    void refer(uint16_t pid) {
        referenced_.set(pid & (kPidCount - 1));
    }
    void clockLoss(int64_t missing);
    // Of the clocks that run the one with the most PCRs.
    const PidRecord* speakingClock() const;
    void tell(Event event);

    void fillPids(Report& report) const;
    void fillClocks(Report& report) const;
    void fillLoss(LossReport& report) const;
    void fillServices(Report& report) const;

    // What every datagram touches.
    bool bare_;
    StreamTime time_;
    Ticks nextLook_ = 0;
    uint64_t position_ = 0;
    Synchronisation sync_;
    std::size_t touchedCount_ = 0;
    Nanoseconds arrival_ = 0;
    Nanoseconds wall_ = 0;
    Nanoseconds secondEnd_ = kNsPerSecond;
    std::unique_ptr<ExcerptTaker> excerpt_;            // seldom there is one
    std::array<uint8_t, kPacketsTogether> touched_{};  // places of PIDs whose last packet is to be kept
    PidTable pids_;

    Settings settings_;
    Nanoseconds lookedAt_ = 0;  // arrival of the last look
    int64_t second_ = 0;        // that runs
    CheckBook book_;
    std::optional<Presence> presence_;
    std::optional<ServiceInformation> information_;
    std::bitset<kPidCount> referenced_;
    std::unique_ptr<Services> services_ = std::make_unique<Services>();
    std::unique_ptr<MediaStreams> media_ = std::make_unique<MediaStreams>();
    std::unique_ptr<Cues> cues_ = std::make_unique<Cues>();
    uint64_t modelRevision_ = 0;
    bool modelChanged_ = false;
    bool roomWanted_ = false;  // a PID found no place in the second that ended
    std::vector<PidRecord*> clocks_;

    uint64_t missing_ = 0;  // of the positions
    uint64_t notTracked_ =
        0;  // packets of PIDs that have no place, but for those of PidTable::refusedPackets()
    uint64_t scrambled_ = 0;
    uint64_t repeated_ = 0;
    uint64_t lostByCounter_ = 0;
    uint64_t counterEvents_ = 0;
    LongestRun counterRuns_;
    std::optional<int64_t> lostByClock_;  // by the clock that spoke for the stream; known once one could tell
    uint64_t clockEvents_ = 0;
    LongestRun clockRuns_;
    LossFound found_;

    SecondRing rates_;  // packets a second
    uint64_t receivedAtSecond_ = 0;
    uint64_t nullAtSecond_ = 0;
    std::optional<double> nullShare_;

    std::vector<ChangeReport> changes_;
    std::vector<ChangeReport> newChanges_;
    std::vector<CueReport> newCues_;
    std::vector<Event> events_;
};

}  // namespace meter
