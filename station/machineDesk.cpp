#include "machineDesk.h"

#include <utility>

namespace station {

namespace {

using namespace std::chrono_literals;

// The owner waits so long for this machine's counters when a loss or a missing signal is to be told.
constexpr auto kLossWaits = 20ms;

}  // namespace

std::vector<AlarmChange> MachineDesk::judge(const MachineWatch::Probe& probe, const Now& now) {
    if (auto reading = reader_->takeNewest()) {
        watch_.apply(std::move(*reading));
    }
    const MachineFindings found = watch_.judge(probe, now.steady);
    if (const std::string& unseen = watch_.problem(); !unseen.empty()) {
        unseen_.say(LogLevel::kWarning, unseen);
    } else {
        unseen_.resolved("this machine's interfaces can be looked at again");
    }
    std::vector<AlarmChange> changes;
    engine_.judge(*findAlarmType("not_joined"), Source::kProbe, {found.notJoined, now.steady, found.groups},
                  now, changes);
    engine_.judge(*findAlarmType("link_down"), Source::kProbe,
                  {found.linkDown, found.linkDownSince, found.linkDown == true ? 1.0 : 0.0}, now, changes);
    engine_.count(*findAlarmType("machine_drops"), Source::kProbe, found.drops, now, changes);
    explain(changes, now);
    return changes;
}

void MachineDesk::explain(std::vector<AlarmChange>& changes, const Now& now) {
    bool fresh = false;
    for (AlarmChange& change : changes) {
        const AlarmType& type = alarmTypes()[change.alarm.type];
        if (change.what != AlarmChange::What::kRaised) {
            continue;
        }
        if (!fresh && MachineWatch::goesByNow(type.name)) {
            fresh = true;
            if (auto reading = reader_->lookNow(kLossWaits)) {
                watch_.apply(std::move(*reading));
            }
        }
        const AlarmRule& rule = engine_.rule(change.alarm);
        const std::string remark = watch_.remark(type.name, rule, change.alarm.about, now.steady);
        if (auto text = watch_.raisedText(type.name, rule, now.steady)) {
            change.text = std::move(*text);
        } else if (!remark.empty()) {
            change.text += ": " + remark;
        }
    }
}

Groups MachineDesk::rejoin(const Now& now) {
    Groups again = watch_.rejoin(now);
    if (!again.empty()) {
        const bool one = again.size() == 1;
        log(LogLevel::kNotice, "the probe is told to join " +
                                   (one ? again.begin()->text() + " again: its"
                                        : std::to_string(again.size()) + " groups again, from " +
                                              again.begin()->text() + " on: their") +
                                   " route leads to " + watch_.card());
    }
    return again;
}

void MachineDesk::lookFor(const Groups& groups) {
    if (lookedFor_ == groups) {
        return;
    }
    lookedFor_ = groups;
    std::vector<Ipv4Address> addresses;
    addresses.reserve(groups.size());
    for (const Group& group : groups) {
        addresses.push_back(group.hostOrder());
    }
    reader_->watch(std::move(addresses));
}

}  // namespace station
