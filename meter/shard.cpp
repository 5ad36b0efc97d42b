#include "shard.h"

#include <algorithm>
#include <chrono>
#include <set>

#include "reportLimit.h"
#include "reportMessages.h"

namespace meterd {

namespace {

constexpr uint32_t kMulticastMask = 0xF0000000;
constexpr uint32_t kMulticast = 0xE0000000;
constexpr uint32_t kHighestPort = 65535;
constexpr double kNsPerMs = 1e6;

}  // namespace

bool Watch::measuresLike(const Watch& other) const {
    return group == other.group && settings.source == other.settings.source &&
           settings.port == other.settings.port && settings.pidAbsenceMs == other.settings.pidAbsenceMs &&
           settings.pcrRepetitionMs == other.settings.pcrRepetitionMs &&
           settings.serviceInformationRequired == other.settings.serviceInformationRequired;
}

WatchList watchListOf(const metering::Groups& message) {
    WatchList list;
    list.revision = message.revision();
    std::set<uint32_t> known;
    for (const metering::Group& group : message.group()) {
        const bool fits = (group.group() & kMulticastMask) == kMulticast &&
                          (!group.has_port() || (group.port() > 0 && group.port() <= kHighestPort));
        if (!fits || list.groups.size() == kGroupsLimit || !known.insert(group.group()).second) {
            continue;
        }
        Watch watch;
        watch.group = group.group();
        watch.join = group.join();
        watch.settings.group = group.group();
        if (group.has_source()) {
            watch.settings.source = group.source();
        }
        if (group.has_port()) {
            watch.settings.port = static_cast<uint16_t>(group.port());
        }
        if (group.has_pid_absence_ms()) {
            watch.settings.pidAbsenceMs = group.pid_absence_ms();
        }
        if (group.has_pcr_repetition_ms()) {
            watch.settings.pcrRepetitionMs = group.pcr_repetition_ms();
        }
        watch.settings.serviceInformationRequired = group.service_information_required();
        list.groups.push_back(watch);
    }
    return list;
}

void Shard::watch(const WatchList& list) {
    revision_ = list.revision;
    std::map<uint32_t, const Watch*> wanted;
    for (const Watch& watch : list.groups) {
        if (share_.takes(watch.group)) {
            wanted.emplace(watch.group, &watch);
        }
    }
    std::erase_if(channels_, [&](const auto& entry) {
        const auto found = wanted.find(entry.first);
        return found == wanted.end() || !found->second->measuresLike(entry.second.watch);
    });
    if (nextEpoch_ == 0) {
        // Not those of a run before.
        nextEpoch_ = static_cast<uint64_t>(std::chrono::system_clock::now().time_since_epoch().count());
    }
    for (const auto& [group, watch] : wanted) {
        if (!channels_.contains(group)) {
            channels_.try_emplace(group, *watch, nextEpoch_++);
        }
    }
    byGroup_.clear();
    for (auto& [group, channel] : channels_) {
        byGroup_.emplace(group, &channel);
    }
}

void Shard::feed(const meter::Datagram& datagram) {
    const auto found = byGroup_.find(datagram.destination);
    if (found == byGroup_.end()) {
        return;
    }
    Channel& channel = *found->second;
    if (!channel.firstAt) {
        channel.firstAt = datagram.arrival;
    }
    channel.analyser.feed(datagram);
}

void Shard::tick(int64_t now) {
    for (auto& [group, channel] : channels_) {
        channel.analyser.tick(now);
    }
}

void Shard::joined(uint32_t group, int64_t now) {
    const auto found = channels_.find(group);
    if (found != channels_.end() && !found->second.joinedAt) {
        found->second.joinedAt = now;
    }
}

void Shard::describeAnew() {
    for (auto& [group, channel] : channels_) {
        channel.described = 0;
    }
}

std::size_t Shard::report(std::size_t limit, metering::Second& second) {
    std::size_t bytes = 0;
    auto channel = channels_.lower_bound(nextReport_);
    for (; channel != channels_.end() && limit > 0; ++channel, --limit) {
        Channel& from = channel->second;
        const meter::Report report = from.analyser.report();
        metering::GroupReport& message = *second.add_report();
        message.set_group(channel->first);
        message.set_epoch(from.epoch);
        if (from.joinedAt && from.firstAt && *from.firstAt >= *from.joinedAt) {
            message.set_join_latency_ms(static_cast<double>(*from.firstAt - *from.joinedAt) / kNsPerMs);
        }
        metering::writeLevels(report, message);
        metering::writeDescription(report, *message.mutable_description());
        bytes += metering::fitReport(message);
        const std::size_t described =
            std::max<std::size_t>(1, std::hash<std::string>()(message.description().SerializeAsString()));
        if (described == from.described) {
            message.clear_description();
        }
        from.described = described;
    }
    second.set_revision(revision_);
    second.set_last(channel == channels_.end());
    nextReport_ = channel == channels_.end() ? 0 : channel->first;
    return bytes;
}

std::vector<metering::Happened> Shard::takeEvents() {
    std::vector<metering::Happened> events;
    for (auto& [group, channel] : channels_) {
        for (const meter::Event& event : channel.analyser.takeEvents()) {
            metering::Happened& happened = events.emplace_back();
            happened.set_group(group);
            happened.set_epoch(channel.epoch);
            if (const auto* change = std::get_if<meter::ChangeReport>(&event)) {
                metering::writeChange(*change, *happened.mutable_change());
            } else {
                metering::writeCue(std::get<meter::CueReport>(event), *happened.mutable_cue());
            }
        }
    }
    return events;
}

}  // namespace meterd
