#include "probe/probeLink.h"

#include <algorithm>

namespace station {

namespace {

using namespace std::chrono_literals;

// A monitoring probe asks every 500 ms and what it needs for an answer, a scanning one every 2.5 s.
constexpr auto kMonitorAsksAgain = 1500ms;
constexpr auto kScanAsksAgain = 2200ms;
constexpr auto kScanAsksAtTheLatest = 3500ms;
// After that a request is the first of a probe that came back.
constexpr auto kSilence = 5s;
// A probe that was running before has shown its list by then, if anything reads its pipe.
constexpr auto kListShown = 3s;
// A snapshot that begins sooner after an answer may have been collected before the answer was acted on.
constexpr auto kTakesEffect = 1s;
// A group that stays away although it was told again is told ever more seldom.
constexpr int kLongestMissing = 60;

// For each group on its list that is not the one to remove the probe prints all its streams, so a removal
// costs the square of their number. That many printed lines fit into a cycle.
constexpr std::size_t kLinesPerAnswer = 16'000'000;
constexpr std::size_t kRemovedPerAnswer = 200;

}  // namespace

void ProbeLink::want(Groups groups) {
    wanted_ = std::move(groups);
}

void ProbeLink::setPassive(std::optional<bool> passive) {
    passive_ = passive;
}

void ProbeLink::setIgmpLatency(std::optional<std::chrono::milliseconds> latency) {
    igmpLatency_ = latency;
}

void ProbeLink::clearCounters() {
    clear_ = true;
}

ProbeLink::Event ProbeLink::request(int32_t sequence, SteadyTime now) {
    const bool first = !sequence_.has_value();
    const bool anew = !first && sequence <= *sequence_;
    const bool silent = !first && now - lastRequest_ > kSilence;
    if (first || anew) {
        told_.clear();
        removed_.clear();
        shown_.clear();
        fresh_ = sequence == 0 || anew;
        snapshotSince_ = false;
        firstRequest_ = now;
        monitors_ = false;
        scanning_ = false;
    } else if (sequence == *sequence_ + 1) {
        // Only requests that follow each other tell the pace.
        const auto gap = now - lastRequest_;
        monitors_ = monitors_ || gap < kMonitorAsksAgain;
        scanning_ = !monitors_ && gap > kScanAsksAgain && gap < kScanAsksAtTheLatest;
    }
    sequence_ = sequence;
    lastRequest_ = now;
    return anew ? Event::kRestarted : first || silent ? Event::kCame : Event::kNone;
}

// Whether told_ and shown_ say what the probe has: a group that it has is not told again without need, since
// the probe joins it again and prints all its streams.
bool ProbeLink::listKnown(SteadyTime now) const {
    return fresh_ || snapshotSince_ || now - firstRequest_ > kListShown;
}

ProbeLink::Answer ProbeLink::answer(SteadyTime now) {
    Answer answer;
    answer.passive = passive_;
    answer.igmpLatency = igmpLatency_;
    if (!monitors_ || !listKnown(now)) {
        return answer;
    }
    if (clear_) {
        clear_ = false;
        answer.clearAll = true;
        return answer;
    }
    answer.append = nextAdditions(now);
    answer.remove = nextRemovals(now);
    return answer;
}

std::vector<Group> ProbeLink::nextAdditions(SteadyTime now) {
    std::vector<Group> groups;
    for (const Group& group : wanted_) {
        if (groups.size() == kAddedPerAnswer) {
            break;
        }
        const auto told = told_.find(group);
        if (told == told_.end()) {
            told_[group] = {now};
            groups.push_back(group);
        } else if (told->second.missing >=
                   std::min(kMissingSnapshots << std::min(told->second.repeated, 8), kLongestMissing)) {
            told->second = {now, 0, told->second.repeated + 1};
            groups.push_back(group);
        } else {
            continue;
        }
        removed_.erase(group);
    }
    return groups;
}

std::vector<Group> ProbeLink::nextRemovals(SteadyTime now) {
    const std::size_t listed = std::max<std::size_t>(told_.size(), shown_.size());
    const std::size_t bound = std::clamp<std::size_t>(
        kLinesPerAnswer / std::max<std::size_t>(listed * listed, 1), 1, kRemovedPerAnswer);
    std::vector<Group> groups;
    const auto removeFrom = [&](const auto& candidates, const auto& groupOf) {
        for (const auto& candidate : candidates) {
            const Group& group = groupOf(candidate);
            if (groups.size() == bound) {
                return;
            }
            if (!wanted_.contains(group) && removed_.try_emplace(group, now).second) {
                groups.push_back(group);
            }
        }
    };
    removeFrom(told_, [](const auto& entry) -> const Group& { return entry.first; });
    removeFrom(shown_, [](const Group& group) -> const Group& { return group; });
    for (const Group& group : groups) {
        told_.erase(group);
    }
    return groups;
}

void ProbeLink::shown(const Groups& groups, SteadyTime began) {
    if (!sequence_) {
        return;  // nothing was told, so there is nothing to hold it against
    }
    shown_ = groups;
    snapshotSince_ = snapshotSince_ || began > firstRequest_;
    for (const Group& group : groups) {
        // What it has of the wanted ones need not be told, whoever told it.
        if (wanted_.contains(group)) {
            told_.try_emplace(group, Told{began});
        }
    }
    for (auto& [group, told] : told_) {
        if (groups.contains(group)) {
            told.missing = 0;
            told.repeated = 0;
        } else if (began - told.time > kTakesEffect) {
            ++told.missing;
        }
    }
    std::erase_if(removed_, [&](const auto& entry) {
        const bool stillThere = groups.contains(entry.first);
        return began - entry.second > (stillThere ? kMissingSnapshots * kTakesEffect : kTakesEffect);
    });
}

}  // namespace station
