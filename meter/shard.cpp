#include "shard.h"

#include <algorithm>
#include <chrono>
#include <set>

#include "arrivalClock.h"
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
    allGroups_ = list.groups.size();
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
    describeAnew();
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
    now_ = now;
    for (auto& [group, channel] : channels_) {
        channel.analyser.tick(now);
    }
}

void Shard::disturbed(uint64_t seconds) {
    for (auto& [group, channel] : channels_) {
        channel.disturbedSeconds += seconds;
        channel.disturbedAt = now_;
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

void Shard::beginTurn() {
    turn_.begun = true;
    turn_.next = turn_.first;
    turn_.channels = channels_.size();
    const std::size_t all = std::max<std::size_t>(1, allGroups_);
    turn_.even = limits_.levels / all;
    turn_.levels = turn_.even * turn_.channels;
    turn_.descriptions = limits_.descriptions / all * turn_.channels;
}

Shard::Channels::iterator Shard::nextOfTurn() {
    auto channel = channels_.lower_bound(turn_.next);
    if (channel == channels_.end() && !turn_.wrapped) {
        turn_.wrapped = true;
        turn_.next = 0;
        channel = channels_.begin();
    }
    return turn_.wrapped && channel != channels_.end() && channel->first >= turn_.first ? channels_.end()
                                                                                        : channel;
}
std::size_t Shard::reportLevels(uint32_t group, const Channel& channel, const meter::Report& report,
                                metering::GroupReport& message) {
    message.set_group(group);
    message.set_epoch(channel.epoch);
    if (channel.joinedAt && channel.firstAt && *channel.firstAt >= *channel.joinedAt) {
        message.set_join_latency_ms(static_cast<double>(*channel.firstAt - *channel.joinedAt) / kNsPerMs);
    }
    if (channel.disturbedSeconds > 0) {
        message.set_disturbed_seconds(channel.disturbedSeconds);
        const double ago = static_cast<double>(now_ - channel.disturbedAt) / kNsPerSecond;
        message.set_last_disturbed(std::max(0.0, report.seconds - ago));
    }
    metering::writeLevels(report, message);
    turn_.channels -= turn_.channels > 0 ? 1 : 0;  // more than at its begin: the list changed meanwhile
    const std::size_t others = turn_.even * turn_.channels;
    const std::size_t left = turn_.levels > others ? turn_.levels - others : 0;
    const std::size_t bytes =
        metering::fitLevels(message, std::min(metering::kHalfReport, std::max(left, turn_.even)));
    turn_.levels -= std::min(turn_.levels, bytes);
    return bytes;
}

std::size_t Shard::reportDescription(uint32_t group, Channel& channel, const meter::Report& report,
                                     metering::GroupReport& message) {
    metering::writeDescription(report, *message.mutable_description());
    const std::size_t bytes = metering::fitDescription(message);
    const std::size_t described =
        std::max<std::size_t>(1, std::hash<std::string>()(message.description().SerializeAsString()));
    if (described != channel.described && turn_.descriptions > 0) {
        turn_.descriptions -= std::min(turn_.descriptions, bytes);
        channel.described = described;
        return bytes;
    }
    if (described != channel.described && !turn_.put) {
        turn_.put = group;
    }
    message.clear_description();
    return 0;
}

std::size_t Shard::report(std::size_t limit, metering::Second& second) {
    if (!turn_.begun) {
        beginTurn();
    }
    std::size_t bytes = 0;
    auto entry = nextOfTurn();
    for (; entry != channels_.end() && limit > 0; entry = nextOfTurn(), --limit) {
        auto& [group, channel] = *entry;
        const meter::Report report = channel.analyser.report();
        metering::GroupReport& message = *second.add_report();
        bytes += reportLevels(group, channel, report, message);
        bytes += reportDescription(group, channel, report, message);
        turn_.next = group + 1;
    }
    second.set_revision(revision_);
    second.set_last(entry == channels_.end());
    if (entry == channels_.end()) {
        turn_ = {.first = turn_.put.value_or(0)};
    }
    return bytes;
}

void Shard::beginExcerpt(ExcerptWanted wanted, int64_t deadline) {
    if (const auto channel = channels_.find(wanted.group); channel != channels_.end()) {
        channel->second.analyser.beginExcerpt(wanted.audio);
    }
    excerpts_.push_back({std::move(wanted), deadline});
}

void Shard::dropLargestExcerpt() {
    OpenExcerpt* largest = nullptr;
    std::size_t most = 0;
    std::size_t all = 0;
    for (OpenExcerpt& open : excerpts_) {
        const auto channel = channels_.find(open.wanted.group);
        const std::size_t bytes = channel == channels_.end() ? 0 : channel->second.analyser.excerptBytes();
        all += bytes;
        if (bytes > most) {
            most = bytes;
            largest = &open;
        }
    }
    const std::size_t limit = limits_.excerpts / share_.of;
    if (all <= limit) {
        return;
    }
    channels_.find(largest->wanted.group)->second.analyser.takeExcerpt();
    meter::Excerpt dropped;
    dropped.outcome = meter::ExcerptOutcome::kTooLarge;
    largest->wanted.taken({largest->wanted.group, largest->wanted.ticket, dropped, most <= limit});
    excerpts_.erase(excerpts_.begin() + (largest - excerpts_.data()));
}

void Shard::takeExcerpts(int64_t now) {
    if (!excerpts_.empty()) {
        dropLargestExcerpt();
    }
    std::erase_if(excerpts_, [&](OpenExcerpt& open) {
        const auto channel = channels_.find(open.wanted.group);
        if (channel != channels_.end() && !channel->second.analyser.excerptIsEnded() && now < open.deadline) {
            return false;
        }
        ExcerptTaken taken{open.wanted.group, open.wanted.ticket, std::nullopt, false};
        if (channel != channels_.end()) {
            // Of a channel that began anew meanwhile there is none.
            taken.excerpt = channel->second.analyser.takeExcerpt().value_or(meter::Excerpt());
        }
        open.wanted.taken(std::move(taken));
        return true;
    });
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
