#include "analyser/streamAnalysis.h"

#include <algorithm>
#include <cstring>

namespace meter {

namespace {

constexpr Ticks kHalfPcrRange = kPcrModulus / 2;
// Where stream time goes with arrival it takes no more from one datagram to the next: while nothing arrives,
// nothing is late.
constexpr Nanoseconds kPauseLimit = 100'000'000;

bool isScrambled(TsHeader header) {
    return header.hasPayload() && header.scramblingControl() != 0;
}

}  // namespace

StreamAnalysis::StreamAnalysis(const Settings& settings)
    : bare_(settings.bare),
      settings_(settings),
      presence_(std::in_place, settings, pids_, book_, 0),
      information_(std::in_place, settings.serviceInformationRequired, book_, 0) {
    if (bare_ && settings.bitrate.value_or(0) > 0) {
        time_.setConstantPace(*settings.bitrate);
    }
    for (uint16_t pid = 0; pid <= kLastReservedPid; ++pid) {
        refer(pid);
    }
    refer(kNullPid);
}

void StreamAnalysis::packets(Bytes bytes, Nanoseconds arrival, Nanoseconds wall, uint64_t missing) {
    if (!bare_) {
        time_.arrived(std::min(arrival - arrival_, kPauseLimit));
        if (arrival >= secondEnd_) {
            endSeconds(arrival);
        }
        arrival_ = arrival;
        wall_ = wall;
    } else {
        time_.arrived(0);
    }
    if (missing > 0) {
        time_.skip(missing);
        position_ += missing;
        missing_ += missing;
    }
    if (excerpt_ != nullptr) [[unlikely]] {
        feedExcerpt(bytes, arrival, wall, missing);
    }
    for (; bytes.size() > kPacketsTogether * kPacketSize;
         bytes = bytes.subspan(kPacketsTogether * kPacketSize)) {
        batch(bytes.data(), bytes.data() + kPacketsTogether * kPacketSize);
    }
    batch(bytes.data(), bytes.data() + bytes.size());
}

void StreamAnalysis::feedExcerpt(Bytes bytes, Nanoseconds arrival, Nanoseconds wall, uint64_t missing) {
    if (missing > 0) {
        excerpt_->gap();
    }
    if (!excerpt_->isEnded()) {
        excerpt_->packets(bytes, arrival, wall);
    }
}

std::optional<Excerpt> StreamAnalysis::takeExcerpt() {
    const std::unique_ptr<ExcerptTaker> taker = std::move(excerpt_);
    return taker != nullptr ? std::optional(taker->take()) : std::nullopt;
}

// The packets' road. Most packets only go on with what began before, and end in the first branch.
void StreamAnalysis::batch(const uint8_t* packet, const uint8_t* end) {
    constexpr std::size_t kPidLowByteAt = 2;
    const uint8_t* const begin = packet;
    const uint64_t position = position_;
    StreamTime::Run run = time_.run();
    Ticks lookAt = timeToLook();
    PidTable::View pids = pids_.view();
    for (; packet != end; packet += kPacketSize) {
        const Ticks now = run.next();
        const TsHeader header(packet);
        PidState& state = pids.likely(packet[kPidLowByteAt]);
        if (state.continuity.goesOn(header) && now < lookAt) [[likely]] {
            if (state.roles == 0) [[likely]] {
                goOn(state, packet, now);
                continue;
            }
            if (state.roles == kMediaWanted) {
                goOn(state, packet, now);
                continueUnit(state, packet);
                continue;
            }
        }
        if (header.isNull() && state.roles == kNullRole && now < lookAt) {
            ++state.packets;
            continue;
        }
        position_ = position + static_cast<uint64_t>(packet - begin) / kPacketSize;
        time_.put(run);
        if ((packet[0] == kSyncByte && sync_.calm()) || synchronise(packet)) {
            lookAtPacket(packet, header, now, state);
        }
        run = time_.run();
        lookAt = timeToLook();
        pids = pids_.view();
    }
    time_.put(run);
    position_ = position + static_cast<uint64_t>(end - begin) / kPacketSize;
    keepTouched();
    if (roomWanted_) {
        giveBackSilent();
    }
}

inline void StreamAnalysis::goOn(PidState& state, const uint8_t* packet, Ticks now) {
    state.continuity.goOn();
    ++state.packets;
    state.lastSeen = now;
    remember(state, packet);
}

// More of a PES packet that somebody looks at, and nothing else to be seen in the packet.
void StreamAnalysis::continueUnit(PidState& state, const uint8_t* packet) {
    UnitPiece piece;
    piece.payload = {packet + kTsHeaderSize, kPacketSize - kTsHeaderSize};
    if (!MediaStreams::unit(*state.media, piece)) {
        state.roles = 0;
    }
}

void StreamAnalysis::keepTouched() {
    for (std::size_t i = 0; i < touchedCount_; ++i) {
        PidState& state = pids_.stateAt(touched_[i]);
        if (state.last != nullptr) {
            state.print = printOf(state.last);
            state.last = nullptr;
        }
    }
    touchedCount_ = 0;
}

// Returns whether there is a packet to look into.
bool StreamAnalysis::synchronise(const uint8_t* packet) {
    const bool syncByte = packet[0] == kSyncByte;
    const Synchronisation::Finding finding = sync_.packet(syncByte);
    const Nanoseconds arrival = momentAt(time_.now()).arrival;
    if (!syncByte) {
        book_.hit(Check::kSyncByteError, CheckBook::kNoPid, arrival);
    }
    if (finding == Synchronisation::Finding::kLost) {
        book_.begin(Check::kTsSyncLoss, CheckBook::kNoPid, arrival, arrival);
    } else if (finding == Synchronisation::Finding::kFound) {
        book_.end(Check::kTsSyncLoss, arrival);
    }
    return syncByte;
}

// Fetches what is needed next of a PID, while its header is looked at.
inline void fetchRecord(const PidState& state) {
    const auto* const record = reinterpret_cast<const uint8_t*>(state.record);
    __builtin_prefetch(record);
    __builtin_prefetch(record + kCacheLine);
    __builtin_prefetch(state.media);
}

inline PidState& StreamAnalysis::stateOf(uint16_t pid, PidState& likely) {
    if (likely.pid == pid && (likely.roles & kUnknownPid) == 0) {
        fetchRecord(likely);
        return likely;
    }
    PidState& known = pids_.find(pid);
    return (known.roles & kUnknownPid) != 0 ? *recordOfUnknown(pid).state : known;
}

// Of a PID that was not seen yet, or has to be seen as if it was not.
PidRecord& StreamAnalysis::recordOfUnknown(uint16_t pid) {
    PidRecord& record = pids_.obtain(pid);
    if (record.state->packets == 0 && (record.state->roles & kUnknownPid) != 0) {
        record.referenced = referenced_.test(pid);
        const bool serviceInformation =
            pid == kPatPid || pid == kCatPid || (pid >= kNitPid && pid <= kTdtPid);
        if (serviceInformation && !record.sections) {
            record.sections = std::make_unique<SectionAssembler>(pid);
            record.state->roles |= kSectionsPid;
        }
    }
    return record;
}

// A damaged packet may name any PID: it makes none known.
void StreamAnalysis::transportError(uint16_t pid) {
    book_.hit(Check::kTransportError, pid, momentAt(time_.now()).arrival);
    PidState& state = pids_.find(pid);
    if (state.pid != pid) {
        ++notTracked_;
        return;
    }
    PidRecord& record = *state.record;
    ++state.packets;
    ++record.notRead;
    state.continuity.forget();
    state.last = nullptr;
    state.roles &= static_cast<uint8_t>(~kMediaWanted);
    if (record.sections) {
        record.sections->drop();
    }
}

void StreamAnalysis::lookAtPacket(const uint8_t* packet, TsHeader header, Ticks now, PidState& likely) {
    if (header.transportErrorIndicator()) {
        if (now >= nextLook_) {
            look(now);
        }
        transportError(header.pid());
        return;
    }
    PidState& state = stateOf(header.pid(), likely);
    PidRecord& record = *state.record;
    if ((state.roles & kOverflowPid) != 0 || header.pid() == kNullPid ||
        !(header.hasPayload() || header.hasAdaptationField())) {
        if (now >= nextLook_) {
            look(now);
        }
        ++state.packets;
        state.lastSeen = now;
        if (header.pid() == kNullPid) {
            state.roles = kNullRole;
            pids_.makeLikely(state);
        } else {
            ++record.notRead;
        }
        return;
    }
    if ((state.roles & kSectionsPid) == 0) {  // which are seldom, and would be in the way of others
        pids_.makeLikely(state);
    }
    const TsPacket bytes(packet, kPacketSize);
    Adaptation adaptation;
    if (header.hasAdaptationField()) {
        adaptation = adaptationOf(bytes);
        record.discontinuity = record.discontinuity || adaptation.discontinuity;
    }
    // What is missing in front of a PCR is known before the PCR is measured.
    const ContinuityFinding finding = findContinuity(state, packet, header, adaptation);
    if (adaptation.pcr) {
        now = readPcr(record, *adaptation.pcr);
    }
    if (now >= nextLook_) {
        look(now);
    }
    const Moment moment = momentAt(now);
    ++state.packets;
    state.lastSeen = now;
    if ((state.roles & kUnknownPid) != 0) {
        presence_->appeared(record, moment);
    }
    if (finding.error) {
        continuityError(record, finding, moment);
    } else if (finding.repetition) {
        ++record.repeated;
        ++repeated_;
    }
    remember(state, packet);
    if (!header.hasPayload()) {
        ++record.notRead;
        return;
    }
    if (isScrambled(header)) {
        scrambledPacket(record, header, moment);
    } else if (!finding.repetition && (record.sections || record.stream)) {
        readPayload(record, payloadOf(bytes, header), header, adaptation.randomAccess, moment);
    }
}

// Whether the packet is the PID's last one once more. There is a last one where the counter mayRepeat().
bool StreamAnalysis::isRepeated(const PidState& state, const uint8_t* packet) {
    if (state.last != nullptr) {
        return isRepetition(packet, state.last);
    }
    return printOf(packet) == state.print;
}

ContinuityFinding StreamAnalysis::findContinuity(PidState& state, const uint8_t* packet, TsHeader header,
                                                 const Adaptation& adaptation) {
    if (header.hasPayload() && state.continuity.isNext(header)) {
        state.continuity.accept(header);
        return {};
    }
    const bool equal = state.continuity.mayRepeat(header) && isRepeated(state, packet);
    const ContinuityFinding finding = state.continuity.packet(header, adaptation, equal);
    if (finding.broken) {
        state.roles &= static_cast<uint8_t>(~kMediaWanted);
        if (state.record->sections) {
            state.record->sections->drop();
        }
    }
    if (finding.error) {
        for (PidRecord* clock : clocks_) {
            countAccuracy(*clock, clock->clock->packetsMissing());
        }
    }
    return finding;
}

void StreamAnalysis::continuityError(PidRecord& record, const ContinuityFinding& finding,
                                     const Moment& moment) {
    book_.hit(Check::kContinuityCountError, record.pid, moment.arrival);
    ++record.continuityErrors;
    if (finding.missing > 0) {
        record.lost += finding.missing;
        lostByCounter_ += finding.missing;
        found_.byCounter += finding.missing;
        ++counterEvents_;
        counterRuns_.add(finding.missing);
    }
}

void StreamAnalysis::countAccuracy(const PidRecord& record, const AccuracyFinding& finding) {
    for (const Nanoseconds arrival : finding.beyond) {
        book_.hit(Check::kPcrAccuracyError, record.pid, arrival);
    }
}

// Returns the packet's stream time.
Ticks StreamAnalysis::readPcr(PidRecord& record, Ticks value) {
    if (!record.clock) {
        record.clock = std::make_unique<ProgramClock>();
    }
    if (record.clock->count() == 0) {
        clocks_.push_back(&record);
    }
    record.clock->fetch();
    const bool signalled = record.discontinuity;
    record.track.discontinuity = signalled;
    record.discontinuity = false;
    const Ticks now = time_.pcr(record.pid, record.track, value, position_);
    const Moment moment = momentAt(now);
    const PcrFinding finding = record.clock->pcr(value, moment, record.track.time, signalled);
    record.pcr = {value, now};
    const Ticks limit = settings_.pcrRepetitionMs * kTicksPerMs;
    if (finding.interval > limit) {
        book_.holdFor(Check::kPcrRepetitionError, record.pid,
                      moment.arrival - toNanoseconds(finding.interval - limit), moment.arrival);
    }
    if (finding.discontinuity) {
        book_.hit(Check::kPcrDiscontinuityIndicatorError, record.pid, moment.arrival);
    }
    if (finding.compared && (finding.missing != 0 || !lostByClock_) && &record == speakingClock()) {
        clockLoss(finding.missing);
    }
    countAccuracy(record, finding.accuracy);
    return now;
}

void StreamAnalysis::clockLoss(int64_t missing) {
    found_.byClock += missing;
    lostByClock_ = lostByClock_.value_or(0) + missing;
    if (missing > 0) {
        ++clockEvents_;
        clockRuns_.add(static_cast<uint64_t>(missing));
    }
}

void StreamAnalysis::scrambledPacket(PidRecord& record, TsHeader header, const Moment& moment) {
    constexpr uint8_t kEvenKey = 2;
    const uint8_t key = header.scramblingControl();
    ++scrambled_;
    ++record.scrambled;
    record.keysInSecond |= static_cast<uint8_t>(1U << key);
    if (key >= kEvenKey) {
        record.keyChanges += record.key != 0 && record.key != key ? 1 : 0;
        record.key = key;
    }
    record.ptsAt.reset();
    record.state->roles &= static_cast<uint8_t>(~kMediaWanted);
    presence_->scrambled(moment);
    if (record.sections) {
        record.sections->drop();
    }
    if (record.pid == kPatPid) {
        book_.hit(Check::kPatError2, record.pid, moment.arrival);
    } else if (record.tables) {
        book_.hit(Check::kPmtError2, record.pid, moment.arrival);
    }
}

void StreamAnalysis::readPayload(PidRecord& record, Bytes payload, TsHeader header, bool randomAccess,
                                 const Moment& moment) {
    if (record.sections) {
        record.sections->feed(payload, header.payloadUnitStart(), moment, *this);
        if (modelChanged_) {
            applyModel();
        }
        return;
    }
    UnitPiece piece;
    piece.start = header.payloadUnitStart();
    piece.randomAccess = randomAccess;
    piece.payload = payload;
    if (piece.start) {
        const std::optional<PesStart> start = pesStartOf(payload);
        if (!start) {
            record.state->roles &= static_cast<uint8_t>(~kMediaWanted);
            return;
        }
        startPes(record, piece, *start, moment);
    } else if ((record.state->roles & kMediaWanted) == 0) {
        return;
    }
    const bool wanted = record.state->media != nullptr && MediaStreams::unit(*record.state->media, piece);
    record.state->roles = static_cast<uint8_t>(wanted ? record.state->roles | kMediaWanted
                                                      : record.state->roles & ~kMediaWanted);
}

void StreamAnalysis::startPes(PidRecord& record, UnitPiece& piece, const PesStart& start,
                              const Moment& moment) {
    piece.payload = start.payload;
    piece.pts = start.pts;
    piece.dts = start.dts;
    if (!start.pts) {
        return;
    }
    const Ticks now = moment.stream;
    const bool media = record.kind == StreamKind::kVideo || record.kind == StreamKind::kAudio;
    if (media && !record.stillPicture) {
        if (record.ptsAt && now - *record.ptsAt > kPtsLimit) {
            book_.holdFor(Check::kPtsError, record.pid,
                          moment.arrival - toNanoseconds(now - *record.ptsAt - kPtsLimit), moment.arrival);
        }
        record.ptsAt = now;
    }
    const PidRecord* clock = record.clockRecord;
    if (clock != nullptr && clock->pcr) {
        const Ticks ahead = pcrStep(clock->pcr->valueAt(now), *start.pts * kTicksPer90kHz);
        piece.ptsAhead = ahead > kHalfPcrRange ? ahead - kPcrModulus : ahead;
    }
}

}  // namespace meter
