// What a selection means: which of the raised alarms, and which channels.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "state/commands.h"

namespace station {

// Those of `raised`, as they are shown, that are chosen.
std::vector<Alarm> chosenAlarms(const Selection& which, const std::vector<Alarm>& raised,
                                const ChannelMap& channels);
// The channels that are chosen; of ids and of an incident, those of their alarms.
std::set<Group> chosenGroups(const Selection& which, const std::vector<Alarm>& raised,
                             const ChannelMap& channels);
// "site=north", "incident 17", "3 channels"; for people.
std::string chosenText(const Selection& which, std::size_t channels);

}  // namespace station
