#include "probe/probeLink.h"

#include <algorithm>
#include <utility>

namespace station {

namespace {

using namespace std::chrono_literals;

// A monitoring probe asks every 500 ms and what it needs for an answer, a scanning one every 2.5 s.
constexpr auto kMonitorAsksAgain = 1500ms;
constexpr auto kScanAsksAgain = 2200ms;
constexpr auto kScanAsksAtTheLatest = 3500ms;
// After that a request is the first of a probe that came back.
constexpr auto kSilence = 5s;
// Of one asker: a request is answered at once or given up after 500 ms, so that one with a number so much
// higher is not its next.
constexpr auto kCycle = 500ms;
constexpr auto kShortestCycle = 400ms;
constexpr int64_t kCyclesAtOnce = 2;
// Who keeps a later number than the first ones may have a list from before.
constexpr int32_t kFirstNumbers = 3;
constexpr auto kForgotten = 10s;
// A few requests of others may be somebody's try.
constexpr int kAsidesTold = 3;
constexpr auto kAsideOver = 10s;
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

void ProbeLink::want(Groups groups, Groups passively) {
    wanted_ = std::move(groups);
    wantedPassively_ = std::move(passively);
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

void ProbeLink::rejoin(const Groups& groups) {
    rejoin_.insert(groups.begin(), groups.end());
}

ProbeLink::Event ProbeLink::request(int32_t sequence, SteadyTime now) {
    Asker* asker = findAsker(sequence, now);
    if (asker == nullptr) {
        asker = &addAsker(sequence, now);
    } else {
        if (sequence == asker->sequence + 1) {
            // Only requests that follow each other tell the pace.
            const auto gap = now - asker->last;
            asker->monitors = asker->monitors || gap < kMonitorAsksAgain;
            asker->scanning = !asker->monitors && gap > kScanAsksAgain && gap < kScanAsksAtTheLatest;
        }
        asker->repeats = true;
        asker->sequence = sequence;
    }
    const SteadyTime before = std::exchange(asker->last, now);
    asideAsked_ = false;
    if (!main_) {
        makeMain(*asker, now);
        return Event::kCame;
    }
    if (asker == &askers_.front()) {
        return now - before > kSilence ? Event::kCame : Event::kNone;
    }
    if (takesOver(*asker, now)) {
        makeMain(*asker, now);
        return Event::kReplaced;
    }
    noteAside(now);
    return Event::kAside;
}

// The one whose next number this is: of several the one whose pace it fits best.
ProbeLink::Asker* ProbeLink::findAsker(int32_t sequence, SteadyTime now) {
    Asker* found = nullptr;
    SteadyTime::duration leastOff{};
    for (Asker& asker : askers_) {
        const int64_t step = int64_t{sequence} - asker.sequence;
        const auto elapsed = now - asker.last;
        if (step <= 0 || step > kCyclesAtOnce + elapsed / kShortestCycle) {
            continue;
        }
        const auto off = std::chrono::abs(elapsed - step * kCycle);
        if (found == nullptr || off < leastOff) {
            found = &asker;
            leastOff = off;
        }
    }
    return found;
}

ProbeLink::Asker& ProbeLink::addAsker(int32_t sequence, SteadyTime now) {
    const auto others = askers_.begin() + (main_ ? 1 : 0);
    askers_.erase(std::remove_if(others, askers_.end(),
                                 [&](const Asker& asker) { return now - asker.last > kForgotten; }),
                  askers_.end());
    if (askers_.size() == kAskers) {
        askers_.erase(std::ranges::min_element(askers_.begin() + 1, askers_.end(), {}, &Asker::last));
    }
    return askers_.emplace_back(Asker{.firstSequence = sequence, .sequence = sequence, .last = now});
}

// The one that is told what to watch has to be overdue, and this one has to be more than a single try.
bool ProbeLink::takesOver(const Asker& asker, SteadyTime now) const {
    const Asker& main = askers_.front();
    const auto overdue = main.scanning ? kScanAsksAtTheLatest : kMonitorAsksAgain;
    return now - main.last > kSilence || (asker.repeats && now - main.last > overdue);
}

void ProbeLink::makeMain(Asker& asker, SteadyTime now) {
    const Asker chosen = asker;
    // Of a run that was seen from its begin.
    fresh_ = chosen.firstSequence == 0 || (main_ && chosen.firstSequence <= kFirstNumbers);
    askers_.erase(askers_.begin() + (&asker - askers_.data()));
    if (main_) {
        askers_.erase(askers_.begin());  // if it asks again it is another
    }
    askers_.insert(askers_.begin(), chosen);
    main_ = true;
    assigned_.clear();
    heldPassively_.clear();
    removed_.clear();
    shown_.clear();
    rejoin_.clear();
    snapshotSince_ = false;
    firstRequest_ = now;
    asides_ = 0;
}

void ProbeLink::noteAside(SteadyTime now) {
    asideAsked_ = true;
    if (asides_ == 0 || now - lastAside_ > kAsideOver) {
        asides_ = 0;
        firstAside_ = now;
    }
    asides_ = std::min(asides_ + 1, kAsidesTold);
    lastAside_ = now;
}

// A probe that was started anew asks beside nobody: the one before it is silent by then.
bool ProbeLink::secondAsker(SteadyTime now) const {
    return main_ && asides_ >= kAsidesTold && askers_.front().last > firstAside_ &&
           now - lastAside_ <= kAsideOver;
}

// Another one that asks as a probe does gets what this one does not watch. False when there is none.
bool ProbeLink::handOver(SteadyTime now) {
    const auto next = std::find_if(askers_.begin() + 1, askers_.end(), [&](const Asker& asker) {
        return asker.monitors && now - asker.last < kMonitorAsksAgain;
    });
    if (next == askers_.end()) {
        return false;
    }
    std::iter_swap(askers_.begin(), next);
    return true;
}

// Whether assigned_ and shown_ say what the probe has: a group that it has is not told again without need,
// since the probe joins it again and prints all its streams.
bool ProbeLink::listKnown(SteadyTime now) const {
    return fresh_ || snapshotSince_ || now - firstRequest_ > kListShown;
}

ProbeLink::Answer ProbeLink::answer(SteadyTime now) {
    Answer answer;
    if (!main_ || asideAsked_) {
        return answer;
    }
    answer.passive = passive_;
    answer.igmpLatency = igmpLatency_;
    if (tookTurns_ && !answer.passive) {
        answer.passive = false;
    }
    const bool turned = std::exchange(passiveTurn_, false);
    if (!askers_.front().monitors || !listKnown(now)) {
        return answer;
    }
    if (!turned && !clear_ && passiveWaits()) {
        passiveTurn_ = tookTurns_ = true;
        answer.passive = true;
        answer.append = nextAdditions(now);
        answer.remove = nextRemovals(now);
        return answer;
    }
    if (clear_ && !turned) {
        clear_ = false;
        answer.clearAll = true;
        heldPassively_.clear();  // it joins all anew, by the mode that holds
        return answer;
    }
    std::erase_if(rejoin_, [this](const Group& group) {
        return !wanted_.contains(group) || wantedPassively_.contains(group);
    });
    if (!rejoin_.empty() && !shown_.empty() && std::ranges::includes(rejoin_, shown_)) {
        // All that it has: it joins them anew as it starts all counters anew, without the cost of removals.
        rejoin_.clear();
        answer.clearAll = true;
        return answer;
    }
    answer.append = nextAdditions(now);
    answer.remove = nextRemovals(now);
    const std::vector<Group> again = nextRejoins(removalsPerAnswer() - answer.remove.size(), now);
    answer.remove.insert(answer.remove.end(), again.begin(), again.end());
    answer.append.insert(answer.append.end(), again.begin(), again.end());
    return answer;
}

// Whether there is something to be joined or left without IGMP.
bool ProbeLink::passiveWaits() const {
    if (!apart()) {
        return false;
    }
    const auto waits = [this](const Group& group) {
        const auto assignment = assigned_.find(group);
        return assignment == assigned_.end() ||
               (heldPassively_.contains(group) && overdue(assignment->second));
    };
    return std::ranges::any_of(wantedPassively_, waits) ||
           std::ranges::any_of(heldPassively_,
                               [this](const Group& group) { return !wantedPassively_.contains(group); });
}

// It stays away, although it was told.
bool ProbeLink::overdue(const Assignment& assignment) {
    return assignment.missing >=
           std::min(kMissingSnapshots << std::min(assignment.repeated, 8), kLongestMissing);
}

std::vector<Group> ProbeLink::nextAdditions(SteadyTime now) {
    std::vector<Group> groups;
    for (const Group& group : wanted_) {
        if (groups.size() == kAddedPerAnswer) {
            break;
        }
        if (!ofTurn(wantedPassively_, group) || (assigned_.contains(group) && misjoined(group))) {
            continue;
        }
        const auto assignment = assigned_.find(group);
        if (assignment == assigned_.end()) {
            assigned_[group] = {now};
            groups.push_back(group);
        } else if (overdue(assignment->second)) {
            assignment->second = {now, 0, assignment->second.repeated + 1};
            groups.push_back(group);
        } else {
            continue;
        }
        removed_.erase(group);
        if (passiveTurn_) {
            heldPassively_.insert(group);
        }
    }
    return groups;
}

std::size_t ProbeLink::removalsPerAnswer() const {
    const std::size_t listed = std::max<std::size_t>(assigned_.size(), shown_.size());
    return std::clamp<std::size_t>(kLinesPerAnswer / std::max<std::size_t>(listed * listed, 1), 1,
                                   kRemovedPerAnswer);
}

// Those that it has, so that they can be removed and added in one answer.
std::vector<Group> ProbeLink::nextRejoins(std::size_t bound, SteadyTime now) {
    std::vector<Group> groups;
    while (!rejoin_.empty() && groups.size() < bound) {
        const Group group = *rejoin_.begin();
        rejoin_.erase(rejoin_.begin());
        const auto assignment = assigned_.find(group);
        if (shown_.contains(group) && assignment != assigned_.end() && assignment->second.time != now) {
            assignment->second = {now};
            groups.push_back(group);
        }
    }
    return groups;
}

std::vector<Group> ProbeLink::nextRemovals(SteadyTime now) {
    const std::size_t bound = removalsPerAnswer();
    std::vector<Group> groups;
    const auto removeFrom = [&](const auto& candidates, const auto& groupOf) {
        for (const auto& candidate : candidates) {
            const Group& group = groupOf(candidate);
            if (groups.size() == bound) {
                return;
            }
            if (ofTurn(heldPassively_, group) && (!wanted_.contains(group) || misjoined(group)) &&
                removed_.try_emplace(group, now).second) {
                groups.push_back(group);
            }
        }
    };
    removeFrom(assigned_, [](const auto& entry) -> const Group& { return entry.first; });
    removeFrom(shown_, [](const Group& group) -> const Group& { return group; });
    for (const Group& group : groups) {
        assigned_.erase(group);
        heldPassively_.erase(group);
    }
    return groups;
}

void ProbeLink::shown(const Groups& groups, SteadyTime began) {
    if (!main_) {
        return;  // nothing was told, so there is nothing to hold it against
    }
    shown_ = groups;
    snapshotSince_ = snapshotSince_ || began > firstRequest_;
    for (const Group& group : groups) {
        // What it has of the wanted ones need not be told, whoever told it.
        if (wanted_.contains(group) && !removed_.contains(group)) {
            assigned_.try_emplace(group, Assignment{began});
        }
    }
    bool ignored = false;
    for (auto& [group, assignment] : assigned_) {
        if (groups.contains(group)) {
            assignment.missing = 0;
            assignment.repeated = 0;
        } else if (began - assignment.time > kTakesEffect) {
            ++assignment.missing;
            ignored = ignored || assignment.missing == kMissingSnapshots;
        }
    }
    if (ignored && handOver(began)) {
        std::erase_if(assigned_, [](const auto& entry) { return entry.second.missing >= kMissingSnapshots; });
    }
    std::erase_if(removed_, [&](const auto& entry) {
        const bool stillThere = groups.contains(entry.first);
        return began - entry.second > (stillThere ? kMissingSnapshots * kTakesEffect : kTakesEffect);
    });
}

}  // namespace station
