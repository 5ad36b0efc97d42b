#include "turns.h"

#include <algorithm>
#include <cmath>

namespace pictured {

namespace {

constexpr std::chrono::seconds kAgain{1};  // after the meter was busy
constexpr std::chrono::seconds kLooks{1};
constexpr double kNewest = 1.0 / 16;

}  // namespace

Turns::Queue& Turns::queueOf(const Channel& channel) {
    return channel.fresh ? fresh_ : channel.preferred() ? preferred_ : others_;
}

void Turns::enqueue(const Channel& channel) {
    queueOf(channel).emplace(channel.due, channel.wanted.group);
}

void Turns::dequeue(const Channel& channel) {
    queueOf(channel).erase({channel.due, channel.wanted.group});
}

void Turns::setChannels(const std::vector<WantedChannel>& channels, double cores) {
    share_.setCores(cores);
    std::set<uint32_t> listed;
    for (const WantedChannel& wanted : channels) {
        if (listed.size() == picturing::kChannelsLimit) {
            break;
        }
        if (!listed.insert(wanted.group).second) {
            continue;
        }
        Channel& channel = channels_[wanted.group];
        if (channel.open == 0) {
            dequeue(channel);
        }
        channel.wanted = wanted;
        if (channel.open == 0) {
            enqueue(channel);
        }
    }
    for (auto channel = channels_.begin(); channel != channels_.end();) {
        if (listed.count(channel->first) != 0) {
            ++channel;
            continue;
        }
        if (channel->second.open != 0) {
            open_.erase(channel->second.open);
        } else {
            dequeue(channel->second);
        }
        channel = channels_.erase(channel);
    }
}

Turns::Queue* Turns::choose(Time now) {
    const auto due = [now](const Queue& queue) { return !queue.empty() && queue.begin()->first <= now; };
    if (due(fresh_)) {
        return &fresh_;
    }
    if (channels_.empty() || (last_ && now - *last_ < spacing())) {
        return nullptr;
    }
    const bool preferred = due(preferred_);
    const bool others = due(others_);
    if (preferred && (!others || preferredInRow_ < kPreferred)) {
        preferredInRow_ = std::min(preferredInRow_ + 1, kPreferred);
        return &preferred_;
    }
    if (others) {
        preferredInRow_ = 0;
        return &others_;
    }
    return nullptr;
}

Clock::duration Turns::spacing() const {
    return Clock::duration(picturing::kLeastInterval) /
           static_cast<int64_t>(std::max<std::size_t>(1, channels_.size()));
}

std::optional<Turns::Turn> Turns::next(Time now, microseconds taken) {
    share_.update(now, taken, open_.size());
    if (open_.size() >= window_ || !share_.allows(open_.size())) {
        return std::nullopt;
    }
    Queue* queue = choose(now);
    if (queue == nullptr) {
        return std::nullopt;
    }
    Channel& channel = channels_.at(queue->begin()->second);
    queue->erase(queue->begin());
    const Turn turn{++lastId_, channel.wanted.group, channel.wanted.audio};
    channel.open = turn.id;
    channel.due = now + picturing::kLeastInterval;
    open_.emplace(turn.id, OpenTurn{turn, now});
    // What began a little late takes nothing from the pace.
    last_ = last_ && now - *last_ < 2 * spacing() ? std::min(now, *last_ + spacing()) : now;
    return turn;
}

Time Turns::nextAt(Time now) const {
    Time at = now + kLooks;
    if (open_.size() >= window_ || share_.cores() <= 0) {
        return at;
    }
    for (const Queue* queue : {&fresh_, &preferred_, &others_}) {
        if (!queue->empty()) {
            Time due = queue->begin()->first;
            if (queue != &fresh_ && last_) {
                due = std::max(due, *last_ + spacing());
            }
            at = std::min(at, due);
        }
    }
    return std::clamp(std::max(at, now + share_.wait(open_.size())), now + std::chrono::milliseconds(1),
                      now + kLooks);
}

std::optional<Turns::Turn> Turns::open(uint64_t id) const {
    const auto found = open_.find(id);
    return found == open_.end() ? std::nullopt : std::optional(found->second.turn);
}

std::vector<Turns::Turn> Turns::begunBefore(Time since) const {
    std::vector<Turn> turns;
    for (const auto& [id, turn] : open_) {  // in the order in which they began
        if (turn.began >= since) {
            break;
        }
        turns.push_back(turn.turn);
    }
    return turns;
}

Turns::Channel* Turns::end(uint64_t id) {
    const auto found = open_.find(id);
    if (found == open_.end()) {
        return nullptr;
    }
    Channel& channel = channels_.at(found->second.turn.group);
    channel.open = 0;
    open_.erase(found);
    return &channel;
}

void Turns::finished(uint64_t id, Time now, std::optional<microseconds> cost) {
    const auto found = open_.find(id);
    if (found == open_.end()) {
        return;
    }
    turnSeconds_ +=
        kNewest * (std::chrono::duration<double>(now - found->second.began).count() - turnSeconds_);
    if (cost) {
        share_.spent(*cost);
    }
    window_ = std::min(window_ + 1, picturing::kWantedLimit);
    Channel* channel = end(id);
    channel->fresh = false;
    enqueue(*channel);
}

void Turns::refused(uint64_t id, Time now) {
    if (Channel* channel = end(id)) {
        window_ = std::max<std::size_t>(1, open_.size());
        channel->due = now + kAgain;
        enqueue(*channel);
    }
}

void Turns::killed(uint64_t id, Time now, const std::string& why, microseconds cost) {
    share_.spent(cost);
    Channel* channel = end(id);
    if (channel == nullptr) {
        return;
    }
    channel->fresh = false;
    std::erase_if(channel->deaths, [now](Time death) { return now - death > picturing::kLeftOutTime; });
    channel->deaths.push_back(now);
    if (channel->deaths.size() >= picturing::kWorkerDeaths) {
        channel->deaths.clear();
        channel->due = channel->leftOutUntil = now + picturing::kLeftOutTime;
        channel->why = why;
    }
    enqueue(*channel);
}

void Turns::abandoned(uint64_t id) {
    if (const Channel* channel = end(id)) {
        enqueue(*channel);
        window_ = picturing::kWantedLimit;
    }
}

std::vector<Turns::LeftOut> Turns::leftOut(Time now) const {
    std::vector<LeftOut> all;
    for (const auto& [group, channel] : channels_) {
        if (channel.leftOutUntil > now) {
            all.push_back({group, channel.leftOutUntil, channel.why});
        }
    }
    return all;
}

std::optional<double> Turns::intervalSeconds() const {
    if (channels_.empty() || share_.cores() <= 0) {
        return std::nullopt;
    }
    constexpr double kLeast = std::chrono::duration<double>(picturing::kLeastInterval).count();
    constexpr double kMostPreferred = static_cast<double>(kPreferred) / (kPreferred + 1);
    const auto all = static_cast<double>(channels_.size());
    const auto preferred = static_cast<double>(std::count_if(
        channels_.begin(), channels_.end(), [](const auto& entry) { return entry.second.preferred(); }));
    const double rate = std::min(share_.cores() * 1e6 / share_.cost(),
                                 static_cast<double>(window_) / std::max(turnSeconds_, 0.01));
    const double others = all - preferred;
    if (others == 0) {
        return std::max(kLeast, all / rate);
    }
    return std::max(kLeast, others / (rate - std::min(preferred / kLeast, rate * kMostPreferred)));
}

}  // namespace pictured
