#include "machineWatch.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>
#include <vector>

#include "common/counted.h"

namespace station {

namespace {

using namespace std::chrono_literals;

// What a snapshot tells may have been dropped so long before the alarm's window, as readings see it.
constexpr auto kReadingsApart = 2s;
constexpr auto kMinute = 60s;
constexpr std::size_t kClassesListed = 3;
constexpr std::string_view kLoopback = "lo";

// Alarms that lost packets raise.
constexpr std::array<std::string_view, 7> kLossTypes = {"packets_lost", "continuity",    "crc", "rtp_loss",
                                                        "loss_bursts",  "quality_index", "mos"};
constexpr std::string_view kNoSignal = "no_signal";

bool tellsLoss(std::string_view type) {
    return std::ranges::find(kLossTypes, type) != kLossTypes.end();
}

// Growth of a counter, which begins anew with the interface.
uint64_t growth(uint64_t before, uint64_t after) {
    return after > before ? after - before : 0;
}

uint64_t backlogGrowth(const std::optional<Softnet>& before, const std::optional<Softnet>& after) {
    if (!before || !after || before->droppedByCpu.size() != after->droppedByCpu.size()) {
        return 0;
    }
    uint64_t sum = 0;
    for (std::size_t cpu = 0; cpu < after->droppedByCpu.size(); ++cpu) {
        sum += after->droppedByCpu[cpu] - before->droppedByCpu[cpu];  // modulo 2^32, as the counters are
    }
    return sum;
}

std::string joined(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

// Groups that lack the same: "239.1.1.1 and 33 more are".
struct Class {
    const AstrayGroup* first;
    std::size_t count;

    std::string subject() const {
        const std::string one = addressText(first->group);
        return count == 1 ? one + " is" : one + " and " + std::to_string(count - 1) + " more are";
    }
    std::string their() const {
        return count == 1 ? "its" : "their";
    }
};

bool lacksTheSame(const AstrayGroup& a, const AstrayGroup& b) {
    return a.joinedOn == b.joinedOn && a.route == b.route && a.routeError == b.routeError;
}

std::string routeCommand(const std::string& card) {
    return "ip route replace 224.0.0.0/4 dev " + card;
}

// `rejoins`: so often the probe was told to join such groups again.
std::string describe(const Class& of, const std::string& card, std::optional<uint32_t> limit,
                     uint64_t rejoins) {
    const AstrayGroup& group = *of.first;
    std::string text = of.subject();
    text += group.joinedOn.empty() ? " not joined on " + card
                                   : " joined on " + joined(group.joinedOn) + ", not on " + card;
    if (group.routeFits && group.joinedOn.empty()) {
        return text + ", although " + of.their() +
               " route leads there: is net.ipv4.igmp_max_memberships large enough" +
               (limit ? " (it is " + std::to_string(*limit) + ")" : "") + "?";
    }
    if (group.routeFits) {
        return text + "; " + of.their() + " route leads to " + group.route +
               (rejoins < 2 ? ", so the probe is told to join again"
                            : ", and the probe was told " + std::to_string(rejoins) +
                                  " times to join again, in vain. systemctl restart kestor");
    }
    if (!group.route.empty()) {
        return text + ": " + of.their() + " route leads to " + group.route + ". " + routeCommand(card) +
               (group.route == kLoopback
                    ? std::string()
                    : " (if the channels come by " + group.route + ", that card has to be named " +
                          std::string(kCaptureName) + ")");
    }
    if (group.routeError == ENETUNREACH) {
        return text + ": there is no route. " + routeCommand(card);
    }
    return text + ": no route may be used (" + std::generic_category().message(group.routeError) +
           "). See ip rule and ip route get " + addressText(group.group);
}

}  // namespace

void MachineWatch::apply(MachineReading&& reading) {
    if (!anyReading_) {
        anyReading_ = true;
        firstReading_ = reading.time.steady;
    }
    state_.known = reading.problem.empty();
    state_.problem = state_.known ? std::string()
                                  : "this machine's interfaces cannot be looked at (" + reading.problem +
                                        "): joins, link and drops are not judged";
    if (!state_.known) {
        return;
    }
    settleCapture(reading);
    followCard(reading);
    followDrops(reading);
    state_.softnet = reading.softnet;
    previousTime_ = last_ ? last_->time.steady : reading.time.steady;
    last_ = std::move(reading);
    LinkProblem link = describeLink();
    state_.linkProblem = link.what + link.advice;
    linkInShort_ = std::move(link.what);
}

// After a cut the meter is back on the card before the station knows its new socket, which would pass for the
// probe's.
void MachineWatch::settleCapture(MachineReading& reading) {
    const bool captured = reading.capture && reading.captured;
    const bool settled = !last_ || (last_->captured && last_->capture && reading.capture &&
                                    last_->capture->index == reading.capture->index);
    if (!captured) {
        capturedSince_.reset();
        return;
    }
    capturedSince_ = capturedSince_.value_or(reading.time.steady);
    reading.captured = settled || reading.time.steady - *capturedSince_ >= kCaptureSettles;
}

// Of several interfaces with such a name another one may be found when the first is gone: the probe does not
// look again, so that it counts only once somebody captures there. Nor does one that is back.
void MachineWatch::followCard(const MachineReading& reading) {
    const auto& before = state_.interface;
    const bool same = before && reading.capture && before->index == reading.capture->index;
    gone_ = before && (!same || gone_) && (!reading.capture || !reading.captured);
    if (gone_) {
        flapped_ = false;
        state_.captured = false;
        return;
    }
    flapped_ = same && reading.capture->carrier && before->carrier &&
               reading.capture->carrierChanges != before->carrierChanges;
    const bool received = same && reading.capture->received.packets != before->received.packets;
    received_ = received || (same && received_);
    if (received || !same) {
        receivedAt_ = reading.time.steady;
    }
    hadLink_ = (same && hadLink_) || (reading.capture && reading.capture->carrier);
    state_.interface = reading.capture;
    state_.captured = reading.captured;
}

// The probe looks for a card when it starts and never again.
void MachineWatch::followCapture(const Probe& probe, SteadyTime now) {
    const bool well = last_->capture && last_->capture->carrier && state_.linkProblem.empty();
    if (!probe.connected || last_->captured || (!well && !uncapturedSince_)) {
        uncapturedSince_.reset();
        return;
    }
    uncapturedSince_ = uncapturedSince_.value_or(now);
    if (well && now - *uncapturedSince_ >= kCaptureTakes) {
        linkInShort_ = state_.interface->name + " is up, but nobody captures there";
        state_.linkProblem = linkInShort_ +
                             ": it was missing or down when the probe was started. systemctl restart "
                             "kestor";
    }
}

void MachineWatch::followDrops(const MachineReading& reading) {
    while (!drops_.empty() && reading.time.steady - drops_.front().time > kDropsKept) {
        drops_.pop_front();
    }
    if (!last_) {
        return;
    }
    Drops drops{.backlog = backlogGrowth(last_->softnet, reading.softnet)};
    if (!gone_ && last_->capture && reading.capture && last_->capture->index == reading.capture->index) {
        const auto& before = last_->capture->received;
        const auto& after = reading.capture->received;
        drops.missed = growth(before.missed, after.missed);
        drops.fifo = growth(before.fifo, after.fifo);
        // While nobody captures, frames of protocols that nobody listens to count as dropped.
        drops.dropped = last_->captured && reading.captured ? growth(before.dropped, after.dropped) : 0;
    }
    if (drops.sum() > 0) {
        drops_.push_back({reading.time.steady, drops});
        newDrops_ += drops.sum();
        state_.drops += drops.sum();
    }
}

MachineWatch::Drops MachineWatch::dropsSince(SteadyTime time) const {
    Drops sum;
    for (const auto& [when, drops] : drops_) {
        if (when > time) {
            sum.dropped += drops.dropped;
            sum.missed += drops.missed;
            sum.fifo += drops.fifo;
            sum.backlog += drops.backlog;
        }
    }
    return sum;
}

MachineState MachineWatch::state() const {
    if (state_.known) {
        return state_;
    }
    MachineState unknown;
    unknown.problem = state_.problem;
    unknown.rejoins = state_.rejoins;
    unknown.rejoinedGroups = state_.rejoinedGroups;
    unknown.lastRejoin = state_.lastRejoin;
    return unknown;
}

MachineFindings MachineWatch::judge(const Probe& probe, SteadyTime now) {
    MachineFindings found;
    astray_.clear();
    state_.joinProblem.clear();
    state_.doubled.clear();
    state_.notJoined.reset();
    state_.joinedElsewhere.reset();
    state_.dropsLastMinute = dropsSince(now - kMinute).sum();
    if (state_.known && now - last_->time.steady > kReadingHolds) {
        state_.known = false;
        state_.problem = "the kernel keeps a look at this machine's interfaces waiting for more than " +
                         std::to_string(kReadingHolds.count()) + " s: joins, link and drops are not judged";
    }
    if (!last_ || !state_.known) {
        joinedSince_.reset();
        rejoinableSince_.reset();
        uncapturedSince_.reset();
        return found;
    }
    followCapture(probe, now);
    found.drops = std::exchange(newDrops_, 0);
    if (state_.interface) {
        const bool comingUp = !hadLink_ && now - firstReading_ < kFirstLink;
        found.linkDown = comingUp && !state_.linkProblem.empty() ? std::nullopt
                                                                 : std::optional(!state_.linkProblem.empty());
        found.linkDownSince = flapped_ ? previousTime_ : last_->time.steady;
    }
    const bool judged = last_->capture && last_->membershipsKnown && !gone_ && probe.connected;
    if (judged && !probe.passive) {
        for (const AstrayGroup& astray : last_->astray) {
            const auto group = Group::parse(addressText(astray.group));
            if (group && !probe.hasSignal(*group)) {
                astray_.emplace(*group, astray);
            }
        }
    }
    if (judged) {
        found.notJoined = !astray_.empty();
        found.groups = static_cast<double>(astray_.size());
        state_.joinProblem = describeJoins();
        state_.doubled = describeDoubled();
        state_.joinedElsewhere = last_->doubled + last_->left;
    }
    if (judged && !probe.passive) {
        state_.notJoined = astray_.size();
    }
    if (!judged || !astray_.empty()) {
        joinedSince_.reset();
    } else {
        joinedSince_ = joinedSince_.value_or(now);
    }
    const bool rejoinable =
        std::ranges::any_of(astray_, [](const auto& entry) { return entry.second.routeFits; });
    rejoinableSince_ = rejoinable ? std::optional(rejoinableSince_.value_or(now)) : std::nullopt;
    return found;
}

Groups MachineWatch::rejoin(const Now& now) {
    if (joinedSince_ && now.steady - *joinedSince_ >= kJoinsHold) {
        pause_ = kFirstPause;
        lastRejoin_.reset();
        rejoinsInARow_ = 0;
    }
    Groups groups;
    if (!rejoinableSince_ || now.steady - *rejoinableSince_ < kRouteSettles ||
        (lastRejoin_ && now.steady - *lastRejoin_ < pause_)) {
        return groups;
    }
    for (const auto& [group, astray] : astray_) {
        if (astray.routeFits) {
            groups.insert(group);
        }
    }
    if (lastRejoin_) {
        pause_ = std::min<SteadyTime::duration>(2 * pause_, kLongestPause);
    }
    lastRejoin_ = now.steady;
    rejoinableSince_.reset();
    ++rejoinsInARow_;
    ++state_.rejoins;
    state_.rejoinedGroups += groups.size();
    state_.lastRejoin = now.wall;
    return groups;
}

MachineWatch::LinkProblem MachineWatch::describeLink() const {
    if (!state_.interface) {
        const auto& [problem, advice] = last_->advice;
        const std::string brief = problem.substr(0, problem.find(": "));
        return problem.empty() ? LinkProblem{}
                               : LinkProblem{brief, problem.substr(brief.size()) + ". To mend it: " + advice};
    }
    const NetworkInterface& card = *state_.interface;
    if (gone_ && last_->capture && last_->capture->name == card.name) {
        return {card.name + " was gone and is back, but nobody captures there", ": systemctl restart kestor"};
    }
    if (gone_) {
        return {card.name + " is gone",
                ": was it removed or renamed, or did its driver fail? The probe captures nothing until it is "
                "back and the probe is started again, which kestor-guard sees to; else: systemctl restart "
                "kestor"};
    }
    if (!card.up) {
        return {card.name + " is down", ": ip link set " + card.name + " up"};
    }
    if (!card.carrier && !receives()) {  // some drivers do not tell it
        return {card.name + " has no carrier",
                ": is the cable plugged in, and is the port at its other end switched on?"};
    }
    if (flapped_) {
        return {card.name + " lost its carrier for less than a second",
                ": look at cable, plugs and the switch's port"};
    }
    return {};
}

bool MachineWatch::receives() const {
    return received_ && last_->time.steady - receivedAt_ < kReceivesWithin;
}

std::string MachineWatch::describeJoins() const {
    std::vector<Class> classes;
    for (const auto& entry : astray_) {
        const auto same = std::ranges::find_if(
            classes, [&](const Class& one) { return lacksTheSame(*one.first, entry.second); });
        if (same != classes.end()) {
            ++same->count;
        } else {
            classes.push_back({&entry.second, 1});
        }
    }
    std::ranges::stable_sort(classes, std::ranges::greater{}, &Class::count);
    std::string text;
    std::size_t listed = 0;
    for (const Class& one : classes) {
        if (listed++ == kClassesListed) {
            text += "; and others";
            break;
        }
        text += (text.empty() ? "" : "; ") +
                describe(one, state_.interface->name, last_->membershipLimit, rejoinsInARow_);
    }
    if (text.find(routeCommand(state_.interface->name)) != std::string::npos) {
        text += ". That lasts until the next boot; for good it belongs in the network's configuration";
    }
    return text;
}

// The kernel leaves by the route as it joins by it, so that what was joined before the route was right stays.
std::string MachineWatch::describeDoubled() const {
    const auto tell = [](std::size_t count, const std::set<std::string>& on, const char* rest) {
        return count == 0 ? std::string()
                          : counted(count, "group") + (count == 1 ? " is" : " are") + " still joined on " +
                                joined({on.begin(), on.end()}) + rest;
    };
    const std::string both =
        tell(last_->doubled, last_->doubledOn, " as well, so the network sends them there too");
    const std::string left =
        tell(last_->left, last_->leftOn,
             " though not watched any more: they were left while their route led elsewhere");
    const std::string text = both + (both.empty() || left.empty() ? "" : "; ") + left;
    return text.empty() ? text : text + ". systemctl restart kestor ends that";
}

std::string MachineWatch::describeDrops(const Drops& drops) const {
    const std::string card = state_.interface ? state_.interface->name : "the card";
    std::string text;
    const auto add = [&](uint64_t count, const std::string& what) {
        if (count > 0) {
            text += (text.empty() ? "" : "; ") + std::to_string(count) + " " + what;
        }
    };
    add(drops.missed, "rx_missed_errors of " + card + " (its ring was full: ethtool -g " + card +
                          " shows its size and the maximum N, ethtool -G " + card + " rx N sets it)");
    add(drops.fifo, "rx_fifo_errors of " + card + " (the card itself was full: ring as above, less traffic)");
    add(drops.dropped,
        "rx_dropped of " + card + " (no memory or time for them: ring, other work on the machine)");
    add(drops.backlog,
        "in the backlog of the processors (net.core.netdev_max_backlog, other work on the machine)");
    return text;
}

std::optional<std::string> MachineWatch::raisedText(std::string_view type, const AlarmRule& rule,
                                                    SteadyTime now) const {
    std::string text = type == "not_joined"  ? state_.joinProblem
                       : type == "link_down" ? state_.linkProblem
                                             : std::string();
    if (type == "machine_drops") {
        const Drops drops = dropsSince(now - rule.window);
        text = "this machine dropped " + counted(drops.sum(), "packet") + " within " +
               std::to_string(rule.window.count()) + " s: " + describeDrops(drops);
    }
    return text.empty() ? std::nullopt : std::optional(std::move(text));
}

bool MachineWatch::goesByNow(std::string_view type) {
    return type == kNoSignal || tellsLoss(type);
}

std::string MachineWatch::remark(std::string_view type, const AlarmRule& rule, const Subject& about,
                                 SteadyTime now) const {
    if (const auto group = about.group(); type == kNoSignal && group) {
        const std::string why = !linkInShort_.empty() ? linkInShort_ : note(*group);
        const bool silent =
            state_.known && state_.interface && last_->time.steady - receivedAt_ >= kReceivesWithin;
        return why.empty() && silent ? card() + " receives nothing at all" : why;
    }
    if (tellsLoss(type)) {
        const auto time = std::max<SteadyTime::duration>(rule.window, rule.raiseDelay) + kReadingsApart;
        const uint64_t drops = dropsSince(now - time).sum();
        if (drops > 0) {
            return "this machine dropped " + counted(drops, "packet") + " in that time";
        }
    }
    return {};
}

std::string MachineWatch::note(const Group& group) const {
    const auto found = astray_.find(group);
    if (found == astray_.end()) {
        return {};
    }
    const std::string& card = state_.interface->name;
    return found->second.joinedOn.empty()
               ? "not joined on " + card + (found->second.route.empty() ? ": there is no route to it" : "")
               : "joined on " + joined(found->second.joinedOn) + ", not on " + card;
}

}  // namespace station
