#include "alarms/incidents.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

namespace station {

namespace {

constexpr std::array<std::string_view, 4> kSharedNames = {"channel", "sender", "label", "machine"};

// Tells of channels and the way to them.
bool concernsChannels(const Alarm& alarm) {
    static const std::set<std::size_t> kOthers = {
        *findAlarmType("delivery_failing"), *findAlarmType("picture_silent"), *findAlarmType("second_asker")};
    return alarm.about.source() && !kOthers.contains(alarm.type);
}

// Tells of all channels. The others are about the groups that are not joined or were not asked for: whatever
// else is well is not touched by them.
bool concernsAll(const Alarm& alarm) {
    static const std::set<std::size_t> kSome = {*findAlarmType("not_joined"),
                                                *findAlarmType("probe_not_asking")};
    return concernsChannels(alarm) && !kSome.contains(alarm.type);
}

}  // namespace

std::string_view sharedKindName(Shared::Kind kind) {
    return kSharedNames.at(static_cast<std::size_t>(kind));
}

std::optional<Shared::Kind> parseSharedKind(std::string_view name) {
    const auto* const found = std::ranges::find(kSharedNames, name);
    return found == kSharedNames.end()
               ? std::nullopt
               : std::optional(static_cast<Shared::Kind>(found - kSharedNames.begin()));
}

std::string Shared::text() const {
    return kind == Kind::kMachine ? "this machine"
           : kind == Kind::kLabel ? name + "=" + value
                                  : std::string(sharedKindName(kind)) + " " + value;
}

void Incidents::Concerned::add(const Alarm& alarm) {
    subjects.insert(alarm.about);
    all = all || concernsAll(alarm);
}

void Incidents::Concerned::add(const Concerned& others) {
    subjects.insert(others.subjects.begin(), others.subjects.end());
    all = all || others.all;
}

void Incidents::setChannels(const ChannelMap& channels) {
    channelKeys_.clear();
    populations_.clear();
    channels_ = 0;
    for (const auto& [group, channel] : channels) {
        if (!channel.enabled) {
            continue;
        }
        ++channels_;
        std::vector<Shared>& keys = channelKeys_[group];
        keys.push_back({Shared::Kind::kChannel, {}, group.text()});
        if (!channel.source.empty()) {
            keys.push_back({Shared::Kind::kSender, {}, channel.source});
        }
        for (const auto& [name, value] : channel.labels) {
            keys.push_back({Shared::Kind::kLabel, name, value});
        }
        keys.push_back({Shared::Kind::kMachine, {}, {}});
        for (const Shared& key : keys) {
            ++populations_[key];
        }
    }
}

// In order. What is not known to be of this machine's way to the channels shares nothing.
std::vector<Shared> Incidents::keysOf(const Alarm& alarm) const {
    if (const auto group = alarm.about.group()) {
        const auto found = channelKeys_.find(*group);
        return found == channelKeys_.end() ? std::vector<Shared>() : found->second;
    }
    return concernsChannels(alarm) ? std::vector<Shared>{Shared{}} : std::vector<Shared>();
}

std::size_t Incidents::population(const Shared& key) const {
    const auto found = populations_.find(key);
    return found == populations_.end() ? 0 : found->second;
}

// How well it explains that these are in alarm; 0 or less: it does not.
double Incidents::score(const Shared& key, const Concerned& concerned) const {
    const auto channels = std::ranges::count_if(
        concerned.subjects, [](const Subject& subject) { return subject.group().has_value(); });
    const auto inAlarm = static_cast<double>(channels);
    const std::size_t ofMachine = concerned.subjects.size() - static_cast<std::size_t>(channels);
    constexpr double kLittle = 0.5;
    // An alarm of the machine itself is no further channel that speaks for it: what is narrower stays.
    if (key.kind == Shared::Kind::kMachine && concerned.all) {
        return channels == 0 && ofMachine > 1 ? kLittle : inAlarm;
    }
    const double well = std::max(0.0, static_cast<double>(population(key)) - inAlarm);
    const double against = key.kind == Shared::Kind::kMachine ? kAgainstMachine : kAgainst;
    const double all = inAlarm - well * against;
    return all <= 0 && static_cast<std::size_t>(channels) >= kMany ? kLittle : all;
}

bool Incidents::isOpen(const State& state, SteadyTime now) {
    return now - state.last <= kGap && now - state.first <= kSpan;
}

void Incidents::forgetOld(const Now& now) {
    std::erase_if(lone_, [&now](const auto& entry) { return now.steady - entry.second.at > kGap; });
    while (lone_.size() > kLone) {
        lone_.erase(lone_.begin());
    }
}

void Incidents::take(State& state, const Candidate& candidate, IncidentChange& change) {
    const int64_t id = candidate.alarm.id;
    Incident& incident = state.incident;
    incident.last = std::max(incident.last, candidate.alarm.raised);
    state.last = std::max(state.last, candidate.at);
    ++incident.alarms;
    state.concerned.add(candidate.alarm);
    const auto channels = static_cast<std::size_t>(std::ranges::count_if(
        state.concerned.subjects, [](const Subject& one) { return one.group().has_value(); }));
    // Of those from before a restart not all are known.
    incident.channels = std::max(incident.channels, channels);
    std::vector<Shared> common;
    std::ranges::set_intersection(state.common, candidate.keys, std::back_inserter(common));
    state.common = std::move(common);
    if (!candidate.cleared) {
        state.raised.insert(id);
        of_[id] = incident.id;
        incident.over.reset();
    }
    incident.active = state.raised.size();
    change.joined.push_back(id);
}

// Those that have the key come to the incident, which is of that from here on.
void Incidents::join(State& state, const Shared& key, std::map<int64_t, IncidentChange>& changes) {
    IncidentChange& change = changes[state.incident.id];
    state.incident.shared = key;
    state.incident.covered = population(key);
    for (auto entry = lone_.begin(); entry != lone_.end();) {
        if (std::ranges::binary_search(entry->second.keys, key)) {
            take(state, entry->second, change);
            entry = lone_.erase(entry);
        } else {
            ++entry;
        }
    }
    if (state.raised.empty()) {
        state.incident.over = state.incident.over.value_or(state.incident.last);
    }
    change.incident = state.incident;
}

// Of several incidents that an alarm could join, the narrowest.
void Incidents::joinOpen(const Now& now, std::map<int64_t, IncidentChange>& changes) {
    std::vector<State*> open;
    for (auto& [id, state] : states_) {
        if (isOpen(state, now.steady)) {
            open.push_back(&state);
        }
    }
    std::ranges::stable_sort(open, {}, [this](State* state) { return population(state->incident.shared); });
    for (State* state : open) {
        const bool any = std::ranges::any_of(lone_, [state](const auto& entry) {
            return std::ranges::binary_search(entry.second.keys, state->incident.shared);
        });
        if (any) {
            join(*state, state->incident.shared, changes);
        }
    }
}

Incidents::Proposal Incidents::propose(const Now& now) {
    std::map<Shared, std::pair<Concerned, std::size_t>> tally;  // who has it, by how many alarms
    for (const auto& [id, candidate] : lone_) {
        for (const Shared& key : candidate.keys) {
            auto& [concerned, alarms] = tally[key];
            concerned.add(candidate.alarm);
            ++alarms;
        }
    }
    Proposal best;
    const auto offer = [&](double gain, const Shared& key, State* wider) {
        const std::size_t wide = population(key);
        if (gain > 0 && (gain > best.gain || (gain == best.gain && wide < best.population))) {
            best = {gain, wide, key, wider};
        }
    };
    for (const auto& [key, found] : tally) {
        if (found.second >= 2) {
            offer(score(key, found.first), key, nullptr);
        }
    }
    for (auto& [id, state] : states_) {
        if (!isOpen(state, now.steady)) {
            continue;
        }
        const double before = score(state.incident.shared, state.concerned);
        for (const Shared& key : state.common) {
            const auto found = tally.find(key);
            if (found == tally.end() || key == state.incident.shared) {
                continue;
            }
            Concerned together = state.concerned;
            together.add(found->second.first);
            offer(score(key, together) - before, key, &state);
        }
    }
    return best;
}

std::vector<IncidentChange> Incidents::raise(std::span<const Alarm> raised, const Now& now) {
    for (const Alarm& alarm : raised) {
        if (auto keys = keysOf(alarm); !keys.empty()) {
            lone_.insert_or_assign(alarm.id, Candidate{alarm, std::move(keys), now.steady});
        }
    }
    forgetOld(now);
    std::map<int64_t, IncidentChange> changes;
    if (!raised.empty()) {
        joinOpen(now, changes);
    }
    for (std::size_t made = 0; !raised.empty() && lone_.size() + states_.size() > 1 && made < kAtOnce;
         ++made) {
        const Proposal best = propose(now);
        if (best.gain <= 0) {
            break;
        }
        State* state = best.wider;
        if (state == nullptr) {
            const auto first = std::ranges::find_if(lone_, [&best](const auto& entry) {
                return std::ranges::binary_search(entry.second.keys, best.key);
            });
            const Candidate& begun = first->second;
            state = &states_[first->first];
            state->incident = {.id = first->first,
                               .began = begun.alarm.raised,
                               .firstType = begun.alarm.type,
                               .firstAbout = begun.alarm.about,
                               .firstText = begun.alarm.text};
            state->first = state->last = begun.at;
            state->common = begun.keys;
        }
        join(*state, best.key, changes);
    }
    std::vector<IncidentChange> all;
    all.reserve(changes.size());
    for (auto& [id, change] : changes) {
        all.push_back(std::move(change));
    }
    return all;
}

std::optional<IncidentChange> Incidents::clear(int64_t alarm, const Now& now) {
    if (const auto lone = lone_.find(alarm); lone != lone_.end()) {
        lone->second.cleared = true;
    }
    const auto found = of_.find(alarm);
    if (found == of_.end()) {
        return std::nullopt;
    }
    State& state = states_.at(found->second);
    of_.erase(found);
    state.raised.erase(alarm);
    state.incident.active = state.raised.size();
    if (state.raised.empty()) {
        state.incident.over = now.wall;
    }
    return IncidentChange{state.incident};
}

void Incidents::forgetOver(const std::set<int64_t>& wanted) {
    const auto isOver = [&wanted](const auto& entry) {
        return entry.second.raised.empty() && !wanted.contains(entry.first);
    };
    auto over = static_cast<std::size_t>(std::ranges::count_if(states_, isOver));
    for (auto entry = states_.begin(); over > kOver && entry != states_.end();) {
        const bool drop = isOver(*entry);
        over -= drop ? 1 : 0;
        entry = drop ? states_.erase(entry) : std::next(entry);
    }
}

std::vector<int64_t> Incidents::restore(std::span<const Incident> stored, std::span<const Alarm> raised,
                                        const std::set<int64_t>& wanted, const Now& now) {
    std::vector<int64_t> forgotten;
    const auto since = [&now](WallTime then) {
        return now.steady - std::max(now.wall - then, std::chrono::milliseconds{0});
    };
    for (const Incident& incident : stored) {
        State state{.incident = incident, .first = since(incident.began), .last = since(incident.last)};
        bool first = true;
        for (const Alarm& alarm : raised) {
            if (alarm.incident != incident.id) {
                continue;
            }
            std::vector<Shared> keys = keysOf(alarm);
            if (!first) {
                std::vector<Shared> common;
                std::ranges::set_intersection(state.common, keys, std::back_inserter(common));
                keys = std::move(common);
            }
            first = false;
            state.common = std::move(keys);
            state.concerned.add(alarm);
            state.raised.insert(alarm.id);
            of_[alarm.id] = incident.id;
        }
        if (state.raised.empty() && !wanted.contains(incident.id)) {
            forgotten.push_back(incident.id);
            continue;
        }
        state.incident.active = state.raised.size();
        state.incident.over =
            state.raised.empty() ? std::optional(incident.over.value_or(incident.last)) : std::nullopt;
        states_.insert_or_assign(incident.id, std::move(state));
    }
    return forgotten;
}

int64_t Incidents::incidentOf(int64_t alarm) const {
    const auto found = of_.find(alarm);
    return found == of_.end() ? 0 : found->second;
}

const Incident* Incidents::find(int64_t incident) const {
    const auto found = states_.find(incident);
    return found == states_.end() ? nullptr : &found->second.incident;
}

std::vector<Incident> Incidents::all() const {
    std::vector<Incident> all;
    for (auto entry = states_.rbegin(); entry != states_.rend(); ++entry) {
        all.push_back(entry->second.incident);
    }
    return all;
}

}  // namespace station
