#include "meterIntake.h"

#include <algorithm>
#include <array>
#include <map>
#include <string_view>

#include "measures/meterSample.h"

namespace station {

namespace {

// What happens, by what the meter calls the change; the others are no news to anybody.
constexpr auto kServices =
    std::to_array<std::string_view>({"transport_stream", "program_added", "program_gone", "program_moved",
                                     "service_added", "service_gone", "service"});
constexpr auto kStreams =
    std::to_array<std::string_view>({"stream_added", "stream_gone", "stream_moved", "stream", "codec",
                                     "language", "conditional_access", "pcr_moved"});
constexpr std::string_view kFlow = "flow";
constexpr std::size_t kChangesListed = 5;  // changes in one event; of the rest the number

// "a; b; and 3 more".
struct ChangeList {
    std::size_t type;
    std::size_t count = 0;
    std::string text{};

    void add(const std::string& one) {
        if (++count <= kChangesListed) {
            text += (text.empty() ? "" : "; ") + one;
        }
    }
    std::string all() const {
        return count <= kChangesListed ? text
                                       : text + "; and " + std::to_string(count - kChangesListed) + " more";
    }
};

}  // namespace

MeterIntake::Result MeterIntake::apply(const MeterMail::Batch& batch, const Now& now) {
    Result result;
    std::map<uint32_t, std::vector<const MeterHappened*>> happened;
    for (const MeterHappened& one : batch.happened) {
        happened[one.group].push_back(&one);
    }
    auto next = batch.figures.begin();
    for (auto& [group, channel] : watch_.channels()) {  // both in the order of addresses
        const uint32_t address = group.hostOrder();
        while (next != batch.figures.end() && next->first < address) {
            ++next;
        }
        if (next != batch.figures.end() && next->first == address) {
            observe(channel, next->second, now, result.changes);
        }
        if (const auto found = happened.find(address); found != happened.end() && channel.channel.enabled) {
            report(channel.channel, found->second, now, result);
        }
    }
    return result;
}

void MeterIntake::report(const Channel& channel, const std::vector<const MeterHappened*>& happened,
                         const Now& now, Result& result) {
    ChangeList services{*findAlarmType("service_changed")};
    ChangeList streams{*findAlarmType("streams_changed")};
    ChangeList flow{*findAlarmType("flow_changed")};
    for (const MeterHappened* one : happened) {
        if (one->what.empty()) {
            result.cues.push_back({&channel, one->text});
        } else if (std::ranges::find(kServices, one->what) != kServices.end()) {
            services.add(one->text);
        } else if (std::ranges::find(kStreams, one->what) != kStreams.end()) {
            streams.add(one->text);
        } else if (one->what == kFlow) {
            flow.add(one->text);
        }
    }
    for (const ChangeList& list : {flow, services, streams}) {
        if (list.count > 0) {
            engine_.happen(list.type, channel.group, static_cast<double>(list.count), list.all(), now,
                           result.changes);
        }
    }
}

void MeterIntake::observe(WatchedChannel& channel, const MeterFigures& figures, const Now& now,
                          std::vector<AlarmChange>& changes) {
    const Observed& observed = channel.observed[Source::kMeter];
    ChannelSample sample = figures.sample;
    takeGrowth(sample, observed.sample ? &*observed.sample : nullptr, now.steady - observed.time);
    watch_.observe(channel, sample, now, changes);
}

}  // namespace station
