#include "cueFold.h"

#include <algorithm>
#include <iterator>

#include "common/counted.h"
#include "common/text.h"

namespace station {

bool CueFold::mayTell(const Channel& channel, SteadyTime now) {
    return channel.paid - now <= (kBurst - 1) * kEvery;
}

std::string CueFold::tell(Channel& channel, SteadyTime now) {
    channel.paid = std::max(channel.paid, now) + kEvery;
    const uint64_t held = std::exchange(channel.held, 0);
    return held == 1
               ? channel.last
               : counted(held, "cue") + " since " + rfc3339(channel.since) + ", the last: " + channel.last;
}

std::optional<std::string> CueFold::take(const Group& group, const std::string& text, const Now& now) {
    Channel& channel = channels_[group];
    channel.since = channel.held == 0 ? now.wall : channel.since;
    channel.last = text;
    ++channel.held;
    return mayTell(channel, now.steady) ? std::optional(tell(channel, now.steady)) : std::nullopt;
}

std::vector<std::pair<Group, std::string>> CueFold::due(const Now& now) {
    std::vector<std::pair<Group, std::string>> told;
    for (auto entry = channels_.begin(); entry != channels_.end();) {
        Channel& channel = entry->second;
        if (channel.held > 0 && mayTell(channel, now.steady)) {
            told.emplace_back(entry->first, tell(channel, now.steady));
        }
        entry = channel.held == 0 && channel.paid <= now.steady ? channels_.erase(entry) : std::next(entry);
    }
    return told;
}

}  // namespace station
