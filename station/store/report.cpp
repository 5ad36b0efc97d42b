#include "store/report.h"

#include <algorithm>
#include <cmath>

namespace station {

namespace {

using std::chrono::milliseconds;

// Rows by channel, with what all channels share.
struct Sorted {
    Spans whole;
    Spans observed;
    Spans watchedKnown;  // when it is known which channels were watched
    std::vector<Span> maintenanceOfAll;
    std::map<Group, std::vector<Span>> maintenance;
    std::map<Group, std::vector<const AlarmTime*>> alarms;
    std::vector<const AlarmTime*> others;  // of the probe and this machine
};

Span spanOf(const AlarmTime& alarm) {
    return {alarm.raised, alarm.cleared.value_or(WallTime::max())};
}

Sorted sortRows(const ReportRows& rows, const Span& time) {
    const std::size_t noLink = *findAlarmType("link_down");
    Sorted sorted;
    sorted.whole = Spans({time});
    sorted.watchedKnown = Spans({{rows.watchedKnownSince, WallTime::max()}});
    std::vector<Span> blind = {{WallTime::min(), rows.knownSince}};
    for (const AlarmTime& alarm : rows.alarms) {
        if (alarm.group) {
            sorted.alarms[*alarm.group].push_back(&alarm);
            continue;
        }
        sorted.others.push_back(&alarm);
        if (alarm.type == noLink) {
            blind.push_back(spanOf(alarm));
        }
    }
    sorted.observed = Spans(rows.observed).within(sorted.whole).without(Spans(std::move(blind)));
    for (const Maintenance& window : rows.maintenance) {
        const Span held{window.from, window.until};
        if (window.ofAll()) {
            sorted.maintenanceOfAll.push_back(held);
        } else if (window.group) {
            sorted.maintenance[*window.group].push_back(held);
        }
        for (const Group& group : window.groups) {
            sorted.maintenance[group].push_back(held);
        }
    }
    return sorted;
}

bool isWorse(const AlarmType& type, double value, double than) {
    return type.kind == AlarmKind::kLow ? value < than
           : type.eitherWay             ? std::abs(value) > std::abs(than)
                                        : value > than;
}

// Adds an alarm whose time counts for so long.
void addAlarm(std::vector<AlarmSum>& sums, const AlarmTime& alarm, milliseconds counted) {
    auto found = std::ranges::find(sums, alarm.type, &AlarmSum::type);
    if (found == sums.end()) {
        found = sums.insert(std::ranges::lower_bound(sums, alarm.type, {}, &AlarmSum::type),
                            AlarmSum{.type = alarm.type});
    }
    ++found->count;
    found->total += counted;
    found->longest = std::max(found->longest, counted);
    if (alarm.peak && (!found->worst || isWorse(alarmTypes()[alarm.type], *alarm.peak, *found->worst))) {
        found->worst = alarm.peak;
    }
}

// How long the alarm counts in those times; nothing when it lies outside of them.
std::optional<milliseconds> countedIn(const Spans& times, const AlarmTime& alarm) {
    if (alarm.momentary) {
        const Spans moment({{alarm.raised, alarm.raised + milliseconds(1)}});
        return moment.within(times).empty() ? std::nullopt : std::optional(milliseconds(0));
    }
    const milliseconds length = Spans({spanOf(alarm)}).within(times).length();
    return length.count() == 0 ? std::nullopt : std::optional(length);
}

ChannelReport reportOf(const Sorted& sorted, const std::vector<Span>* watchedSpans, ReportedChannel channel) {
    const std::size_t noSignal = *findAlarmType("no_signal");
    ChannelReport report{.channel = std::move(channel)};
    std::vector<Span> windows = sorted.maintenanceOfAll;
    if (const auto own = sorted.maintenance.find(report.channel.group); own != sorted.maintenance.end()) {
        windows.insert(windows.end(), own->second.begin(), own->second.end());
    }
    const Spans maintenance(std::move(windows));
    const Spans watched =
        Spans(watchedSpans == nullptr ? std::vector<Span>() : *watchedSpans).within(sorted.whole);
    const Spans counts = watched.without(maintenance);
    const Spans observed = counts.within(sorted.observed);
    report.counted = observed;
    std::vector<Span> out;
    std::vector<Span> wrong;
    if (const auto alarms = sorted.alarms.find(report.channel.group); alarms != sorted.alarms.end()) {
        for (const AlarmTime* const alarm : alarms->second) {
            const auto counted = countedIn(observed, *alarm);
            if (!counted) {
                continue;
            }
            addAlarm(report.alarms, *alarm, *counted);
            if (alarm->type == noSignal) {
                ++report.outages;
                report.longestOutage = std::max(report.longestOutage, *counted);
                report.listed.push_back({alarm->raised, alarm->cleared, *counted});
            }
            if (!alarm->momentary) {
                (alarm->type == noSignal ? out : wrong).push_back(spanOf(*alarm));
            }
        }
    }
    std::ranges::sort(report.listed, {}, &Outage::from);
    const Spans available = observed.without(Spans(std::move(out)));
    ReportTimes& times = report.times;
    const Spans others = sorted.whole.without(watched);
    times.notWatched = others.within(sorted.watchedKnown).length();
    times.maintenance = watched.length() - counts.length();
    times.unknown = counts.length() - observed.length() + others.without(sorted.watchedKnown).length();
    times.outage = observed.length() - available.length();
    times.available = available.length();
    times.withErrors = Spans(std::move(wrong)).within(available).length();
    return report;
}

void add(LabelTotal& total, const ChannelReport& channel) {
    ++total.channels;
    total.outages += channel.outages;
    total.times += channel.times;
}

void sumUp(Report& report, const std::string& label) {
    std::map<std::string, LabelTotal> totals;
    for (const ChannelReport& channel : report.channels) {
        add(report.total, channel);
        const auto& labels = channel.channel.labels;
        const auto value = labels.find(label);
        add(totals[value == labels.end() ? std::string() : value->second], channel);
    }
    for (auto& [value, total] : totals) {
        if (!label.empty()) {
            total.value = value;
            report.byLabel.push_back(std::move(total));
        }
    }
}

void boundOutages(Report& report) {
    std::size_t room = Report::kOutages;
    for (ChannelReport& channel : report.channels) {
        const std::size_t kept = std::min(room, channel.listed.size());
        report.outagesLeftOut += channel.listed.size() - kept;
        channel.listed.erase(channel.listed.begin() + static_cast<std::ptrdiff_t>(kept),
                             channel.listed.end());
        room -= kept;
    }
}

}  // namespace

std::optional<double> ReportTimes::percent() const {
    const auto observed = (available + outage).count();
    constexpr double kWhole = 100;
    return observed == 0 ? std::nullopt
                         : std::optional(kWhole * static_cast<double>(available.count()) /
                                         static_cast<double>(observed));
}

ReportTimes& ReportTimes::operator+=(const ReportTimes& other) {
    available += other.available;
    outage += other.outage;
    unknown += other.unknown;
    maintenance += other.maintenance;
    notWatched += other.notWatched;
    withErrors += other.withErrors;
    return *this;
}

Report makeReport(const ReportRows& rows, std::vector<ReportedChannel> channels, const ReportScope& scope) {
    const Sorted sorted = sortRows(rows, scope.time);
    std::ranges::sort(channels, {}, &ReportedChannel::group);
    Report report{.time = scope.time};
    const auto watchedOf = [&rows](const Group& group) {
        const auto found = rows.watched.find(group);
        return found == rows.watched.end() ? nullptr : &found->second;
    };
    const std::size_t present = channels.size();
    if (scope.channelsGone) {
        for (const auto& [group, spans] : rows.watched) {
            const auto end = channels.begin() + static_cast<std::ptrdiff_t>(present);
            const auto known = std::lower_bound(
                channels.begin(), end, group,
                [](const ReportedChannel& one, const Group& other) { return one.group < other; });
            if ((known == end || known->group != group) && !Spans(spans).within(sorted.whole).empty()) {
                const auto name = rows.names.find(group);
                channels.push_back({group, name == rows.names.end() ? group.text() : name->second, {}});
            }
        }
    }
    for (std::size_t index = 0; index < channels.size(); ++index) {
        const Group group = channels[index].group;
        report.channels.push_back(reportOf(sorted, watchedOf(group), std::move(channels[index])));
        report.channels.back().present = index < present;
    }
    std::ranges::sort(report.channels, {}, [](const ChannelReport& one) { return one.channel.group; });
    sumUp(report, scope.label);
    boundOutages(report);
    // What kept the probe from observing lies outside of observed time.
    const Spans times = sorted.whole.without(Spans(sorted.maintenanceOfAll));
    for (const AlarmTime* const alarm : sorted.others) {
        if (const auto counted = countedIn(times, *alarm)) {
            addAlarm(report.alarms, *alarm, *counted);
        }
    }
    return report;
}

}  // namespace station
