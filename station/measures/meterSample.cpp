#include "measures/meterSample.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "measures/lossTally.h"
#include "meter.pb.h"

namespace station {

namespace {

constexpr double kNotKnown = std::numeric_limits<double>::quiet_NaN();

uint64_t atLeastZero(int64_t value) {
    return static_cast<uint64_t>(std::max<int64_t>(value, 0));
}

// 3.2 has the faults of repetition of the others once more, and some that are its own (BAT, TOT).
constexpr int placeOf(std::string_view id) {
    return static_cast<int>(std::ranges::find(basics::kChecks, id, &basics::CheckName::id) -
                            basics::kChecks.begin());
}
constexpr int kRepetitionCheck = placeOf("3.2");
constexpr bool isOfServiceInformation(int check) {
    return check >= placeOf("3.1.a") && check != placeOf("3.4.a");
}

// The value that is furthest from 0, of those that are known.
template <typename Value>
double furthest(const metering::GroupReport& report, Value value) {
    double worst = kNotKnown;
    for (const metering::Clock& clock : report.clock()) {
        const double one = value(clock);
        worst = std::isnan(worst) || std::abs(one) > std::abs(worst) ? one : worst;
    }
    return worst;
}

}  // namespace

namespace metered {

bool undisturbed(const ChannelSample& sample, double /*value*/) {
    return !sample.disturbed;
}
bool beyondOwnLoss(const ChannelSample& sample, double value) {
    return sample.ownPackets != ChannelSample::kAllOfIt &&
           (value == 0 || value > static_cast<double>(sample.ownPackets));
}

bool hasLoss(const metering::GroupReport& report) {
    return report.packets().has_lost();
}
bool hasRtp(const metering::GroupReport& report) {
    return report.network().has_rtp();
}

uint64_t received(const metering::GroupReport& report) {
    return report.packets().received();
}
uint64_t lost(const metering::GroupReport& report) {
    return atLeastZero(report.packets().lost());
}
uint64_t lossEvents(const metering::GroupReport& report) {
    return report.packets().events();
}
uint64_t repeated(const metering::GroupReport& report) {
    return report.packets().repeated();
}
uint64_t scrambled(const metering::GroupReport& report) {
    return report.packets().scrambled();
}
uint64_t otherSources(const metering::GroupReport& report) {
    return report.flow().other_sources();
}
uint64_t rtpLost(const metering::GroupReport& report) {
    return atLeastZero(report.network().rtp().lost());
}
uint64_t rtpLossEvents(const metering::GroupReport& report) {
    return report.network().rtp().loss_events();
}
uint64_t rtpOutOfOrder(const metering::GroupReport& report) {
    return report.network().rtp().out_of_order();
}
uint64_t rtpRepeated(const metering::GroupReport& report) {
    return report.network().rtp().repeated();
}

uint64_t serviceInformation(const metering::GroupReport& report) {
    uint64_t each = 0;
    uint64_t repetition = 0;
    for (const metering::Check& check : report.check()) {
        if (check.index() < basics::kChecks.size() &&
            isOfServiceInformation(static_cast<int>(check.index()))) {
            (static_cast<int>(check.index()) == kRepetitionCheck ? repetition : each) += check.count();
        }
    }
    return std::max(each, repetition);
}

double bitrate(const metering::GroupReport& report) {
    return report.bitrate().has_bps() ? static_cast<double>(report.bitrate().bps()) : kNotKnown;
}
double nullShare(const metering::GroupReport& report) {
    return report.bitrate().has_null_share() ? report.bitrate().null_share() : kNotKnown;
}
double delayFactor(const metering::GroupReport& report) {
    return report.network().has_delay_factor_ms() ? report.network().delay_factor_ms() : kNotKnown;
}
double mediaLoss(const metering::GroupReport& report) {
    return report.network().has_loss_rate() ? static_cast<double>(report.network().loss_rate()) : kNotKnown;
}
double accuracy(const metering::GroupReport& report) {
    return furthest(report, [](const metering::Clock& clock) {
        return clock.accuracy_applicable() && clock.has_last_worst_ns() ? clock.last_worst_ns() : kNotKnown;
    });
}
double clockJitter(const metering::GroupReport& report) {
    constexpr double kNsPerMs = 1e6;
    return furthest(report, [](const metering::Clock& clock) {
        return clock.has_overall_jitter_ns() ? clock.overall_jitter_ns() / kNsPerMs : kNotKnown;
    });
}
double clockOffset(const metering::GroupReport& report) {
    return furthest(report, [](const metering::Clock& clock) {
        return clock.has_frequency_offset_ppm() ? clock.frequency_offset_ppm() : kNotKnown;
    });
}
double interArrivalMean(const metering::GroupReport& report) {
    return report.network().has_mean_ms() ? report.network().mean_ms() : kNotKnown;
}
double interArrivalHighest(const metering::GroupReport& report) {
    return report.network().has_highest_ms() ? report.network().highest_ms() : kNotKnown;
}
double rtpJitter(const metering::GroupReport& report) {
    return report.network().rtp().has_jitter_ms() ? report.network().rtp().jitter_ms() : kNotKnown;
}
double utcOffset(const metering::GroupReport& report) {
    return report.has_utc_offset_ms() ? report.utc_offset_ms() : kNotKnown;
}

}  // namespace metered

namespace {

constexpr const Measure& kServiceInformation = measureOf("meter.serviceInformation");
constexpr const Measure& kReceived = measureOf("meter.packets");
constexpr const Measure& kLost = measureOf("meter.packetsLost");
constexpr const Measure& kCat = measureOf("meter.CAT_error");
constexpr const Measure& kScrambled = measureOf("meter.packetsScrambled");
constexpr const Measure& kLossBasis = measureOf("meter.lossBasis");
constexpr const Measure& kConstant = measureOf("meter.constant");

// The rows with the places of their measures.
constexpr auto kTaken = [] {
    auto rows = kMeterMeasures;
    for (MeterMeasure& row : rows) {
        row.measure = measureOf(row.measure.name);
    }
    return rows;
}();

int basisOf(const metering::GroupReport& report) {
    const LossBasis basis = lossBasisOf(report);
    return basis == LossBasis::kNone ? kUnknownState : static_cast<int>(basis);
}

// Each packet that is missing brings about one error of a kind at most; what is beyond those that this
// machine may have lost is the channel's.
void takeFaults(const MeterMeasure& row, Count& count, uint32_t seconds, const ChannelSample& sample) {
    const uint64_t own = row.ownLossNever                 ? 0
                         : row.measure.unit == "datagram" ? sample.ownFrames
                                                          : sample.ownPackets;
    count.faults = count.growth - std::min(count.growth, own);
    // What goes on without an error of its own, such as a missing table, a few packets do not bring about.
    const bool goesOn = count.growth == 0 && seconds > 0;
    const bool held = goesOn ? sample.disturbed && own > 0 : count.growth > 0 && count.faults == 0;
    count.judged = !held && own != ChannelSample::kAllOfIt;
    count.faultySeconds = !count.judged                         ? 0
                          : row.check == MeterMeasure::kNoCheck ? (count.faults > 0 ? 1 : 0)
                                                                : seconds;
}

// In which each check's faults are known already.
void takeServiceInformation(ChannelSample& sample) {
    Count each;
    Count repetition;
    uint32_t seconds = 0;
    bool judged = true;
    for (const MeterMeasure& row : kTaken) {
        if (row.check != MeterMeasure::kNoCheck && isOfServiceInformation(row.check)) {
            const Count& count = sample.count(row.measure);
            Count& sum = row.check == kRepetitionCheck ? repetition : each;
            sum.growth += count.growth;
            sum.faults += count.faults;
            seconds = std::max(seconds, count.faultySeconds);
            judged = judged && count.judged;
        }
    }
    Count& all = sample.count(kServiceInformation);
    all.growth = std::max(each.growth, repetition.growth);
    all.faults = std::max(each.faults, repetition.faults);
    all.faultySeconds = seconds;
    all.judged = judged || all.faults > 0 || seconds > 0;
}

}  // namespace

uint64_t lossGrowth(const ChannelSample& sample, const ChannelSample& previous) {
    const int basis = sample.state(kLossBasis);
    if (basis <= 0) {
        return 0;
    }
    const auto place = static_cast<std::size_t>(basis - 1);
    return sample.lostBy.at(place) - std::min(sample.lostBy.at(place), previous.lostBy.at(place));
}

ChannelSample readTotals(const metering::GroupReport& report) {
    ChannelSample sample;
    sample.source = Source::kMeter;
    sample.epoch = report.epoch();
    std::array<const metering::Check*, basics::kChecks.size()> checks{};
    for (const metering::Check& check : report.check()) {
        if (check.index() < checks.size()) {
            checks[check.index()] = &check;
        }
    }
    for (const MeterMeasure& row : kTaken) {
        if (row.check != MeterMeasure::kNoCheck) {
            const metering::Check* const check = checks[static_cast<std::size_t>(row.check)];
            sample.noCount[row.measure.place] = check == nullptr || check->inapplicable();
            if (check != nullptr) {
                Count& count = sample.count(row.measure);
                count.total = check->count();
                count.seconds = static_cast<uint32_t>(
                    std::min<uint64_t>(check->seconds(), std::numeric_limits<uint32_t>::max()));
            }
        } else if (row.count != nullptr) {
            sample.count(row.measure).total = row.count(report);
            sample.noCount[row.measure.place] = row.has != nullptr && !row.has(report);
        } else if (row.level != nullptr) {
            sample.level(row.measure) = row.level(report);
        } else if (row.state != nullptr) {
            sample.state(row.measure) = row.state(report);
        } else if (row.measure.kind == MeasureKind::kState) {
            sample.state(row.measure) = kUnknownState;
        }
    }
    sample.state(kLossBasis) = basisOf(report);
    sample.lostBy = {report.packets().by_counter(), atLeastZero(report.packets().by_clock()),
                     report.packets().by_rtp()};
    if (report.bitrate().has_constant()) {
        sample.state(kConstant) = report.bitrate().constant() ? 1 : 0;
    }
    sample.received = sample.count(kReceived).total;
    return sample;
}

void takeGrowth(ChannelSample& sample, const ChannelSample* previous,
                std::chrono::steady_clock::duration sincePrevious) {
    const bool anew =
        previous == nullptr || previous->epoch != sample.epoch || sample.received < previous->received;
    sample.first = anew || previous->received == 0;
    sample.signal = anew ? sample.received > 0 : sample.received > previous->received;
    if (previous != nullptr) {
        sample.seconds = std::chrono::duration<double>(sincePrevious).count();
    }
    if (anew) {
        for (Count& count : sample.counts) {
            count.judged = false;
        }
        return;
    }
    for (const MeterMeasure& row : kTaken) {
        if (row.measure.kind != MeasureKind::kCounter) {
            continue;
        }
        Count& count = sample.count(row.measure);
        const Count& before = previous->count(row.measure);
        // What goes by another count now than before has not grown by their difference.
        count.growth = row.measure.place == kLost.place ? lossGrowth(sample, *previous)
                       : count.total > before.total     ? count.total - before.total
                                                        : 0;
        takeFaults(row, count, count.seconds > before.seconds ? count.seconds - before.seconds : 0, sample);
    }
    takeServiceInformation(sample);
    // The check holds until a CAT comes, whether or not anything is scrambled any more.
    if (Count& cat = sample.count(kCat); cat.growth == 0 && sample.count(kScrambled).growth == 0) {
        cat.faultySeconds = 0;
    }
}

}  // namespace station
