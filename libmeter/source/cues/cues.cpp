#include "cues/cues.h"

#include <algorithm>
#include <deque>

#include "basics/text.h"
#include "cues/spliceInfo.h"
#include "fields/wallClock.h"

namespace meter {
namespace {

// Enough to tell one cue of a stream from the others.
uint64_t contentOf(Bytes section) {
    return basics::fingerprint({reinterpret_cast<const char*>(section.data()), section.size()});
}

// PTS less the program clock, over the wrap.
Ticks ahead(uint64_t pts, Ticks programClock) {
    const Ticks difference = (static_cast<Ticks>(pts) * kTicksPer90kHz - programClock) % kPcrModulus;
    const Ticks forward = difference < 0 ? difference + kPcrModulus : difference;
    return forward < kPcrModulus / 2 ? forward : forward - kPcrModulus;
}

}  // namespace

struct Cues::State {
    struct Kept {
        uint64_t content;  // of the whole section
        CueReport report;
    };
    std::deque<Kept> kept;  // oldest first
    uint64_t encrypted = 0;
    uint64_t malformed = 0;
};

Cues::Cues() : state_(std::make_unique<State>()) {}
Cues::~Cues() = default;

void Cues::section(const Section& section, std::optional<Ticks> programClock, std::vector<CueReport>& found) {
    CueReport cue;
    switch (section.crcOk ? readSpliceInfo(section.bytes, cue) : SpliceResult::kMalformed) {
        case SpliceResult::kOther:
            return;
        case SpliceResult::kEncrypted:
            ++state_->encrypted;
            return;
        case SpliceResult::kMalformed:
            ++state_->malformed;
            return;
        case SpliceResult::kCue:
            break;
    }
    const uint64_t content = contentOf(section.bytes);
    for (State::Kept& kept : state_->kept) {
        if (kept.content == content && kept.report.pid == section.pid) {
            ++kept.report.repetitions;
            return;
        }
    }
    cue.pid = section.pid;
    const Nanoseconds wall = section.moment.wall;
    if (cue.pts && programClock) {
        const Ticks difference = ahead(*cue.pts, *programClock);
        cue.aheadMs = static_cast<double>(difference) / static_cast<double>(kTicksPerMs);
        if (wall != 0)
            cue.at = rfc3339Milliseconds(wall + toNanoseconds(difference));
    } else if (cue.immediate.value_or(false) && !cue.cancelled && wall != 0) {
        cue.at = rfc3339Milliseconds(wall);
    }
    if (state_->kept.size() == kCuesLimit)
        state_->kept.pop_front();
    state_->kept.push_back({content, cue});
    found.push_back(std::move(cue));
}

void Cues::restart() {
    state_->kept.clear();
}

void Cues::fill(Report& report) const {
    report.cuesEncrypted = state_->encrypted;
    report.cuesMalformed = state_->malformed;
    for (const State::Kept& kept : state_->kept)
        report.cues.push_back(kept.report);
    std::ranges::stable_sort(report.cues, {}, &CueReport::pid);
}

}  // namespace meter
