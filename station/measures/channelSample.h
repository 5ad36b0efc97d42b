// What one source says of one channel at one time.
#pragma once

#include <array>
#include <bitset>
#include <cmath>
#include <cstdint>
#include <limits>

#include "common/clock.h"
#include "measures/measures.h"

namespace station {

inline constexpr std::size_t kCounters = mostMeasures(MeasureKind::kCounter);
inline constexpr std::size_t kLevels = mostMeasures(MeasureKind::kLevel);
inline constexpr std::size_t kStates = mostMeasures(MeasureKind::kState);

inline constexpr int kUnknownState = -1;  // of states that are not always known

struct Count {
    uint64_t total = 0;
    uint64_t growth = 0;     // since the previous sample; 0 where it stepped back: it was cleared
    uint64_t faults = 0;     // of the growth, without what a faultless channel has
    bool judged = true;      // else nobody can say whether there were faults since the previous sample
    uint64_t faultless = 0;  // of the total
    // Of what the meter counts seconds of, those in which it held: in all, and since the previous sample.
    uint32_t seconds = 0;
    uint32_t faultySeconds = 0;
};

// Values stand by the place of their measure. Those of a measure are asked for with it; REQUIRES: it is of
// the sample's source, and of that kind.
struct ChannelSample {
    Source source = Source::kProbe;
    WallTime came{};     // of the meter's: when its report came
    double seconds = 0;  // since the previous sample; 0 without one
    // There is no growth: the channel's first sample, the first with packets, or the first after its
    // counters started anew.
    bool first = false;
    uint64_t received = 0;  // packets in all
    bool signal = false;    // packets were received since the previous sample (first: any packets at all)
    uint64_t epoch = 0;     // of the meter's counters: in another one they began anew
    // What this machine may have lost itself of what came since the previous sample, at most: so many errors
    // that follow from loss are no faults. kAllOfIt: nobody can say how many.
    static constexpr uint64_t kAllOfIt = std::numeric_limits<uint64_t>::max();
    uint64_t ownFrames = 0;
    uint64_t ownPackets = 0;
    bool disturbed = false;  // it is so much that rates and pauses need not be the channel's
    // Packets lost, by each basis that the meter has: counter, clock, RTP.
    std::array<uint64_t, 3> lostBy{};

    std::array<Count, kCounters> counts{};
    // Counters of what the channel has not, or nobody can judge: RTP of a plain flow, the accuracy of clocks
    // at a variable bit rate.
    std::bitset<kCounters> noCount{};
    std::array<double, kLevels> levels = [] {  // NaN while not known
        std::array<double, kLevels> unknown{};
        unknown.fill(std::numeric_limits<double>::quiet_NaN());
        return unknown;
    }();
    std::array<int, kStates> states{};

    const Count& count(const Measure& measure) const {
        return counts[measure.place];
    }
    Count& count(const Measure& measure) {
        return counts[measure.place];
    }
    double level(const Measure& measure) const {
        return levels[measure.place];
    }
    double& level(const Measure& measure) {
        return levels[measure.place];
    }
    int state(const Measure& measure) const {
        return states[measure.place];
    }
    int& state(const Measure& measure) {
        return states[measure.place];
    }

    // Of any kind: a counter's total, a level, a state.
    double value(const Measure& measure) const {
        switch (measure.kind) {
            case MeasureKind::kCounter:
                return static_cast<double>(count(measure).total);
            case MeasureKind::kLevel:
                return level(measure);
            case MeasureKind::kState:
                break;
        }
        return state(measure);
    }
    // Whether that means anything; `known` is one of the measure's.
    bool knows(const Measure& measure, Known known) const {
        const double number = value(measure);
        return !std::isnan(number) && !(measure.kind == MeasureKind::kCounter && noCount[measure.place]) &&
               (known == nullptr || known(*this, number));
    }
};

}  // namespace station
