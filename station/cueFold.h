// Which cues are told one by one.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "channels/channel.h"
#include "common/clock.h"

namespace station {

// A channel may tell kBurst cues at once, and one a minute in the long run: more than breaks need, and far
// less than a stream that sends cues all the time. What is more is held back, and told with the next one that
// may be, by its number. One thread.
class CueFold {
  public:
    static constexpr int kBurst = 30;
    static constexpr std::chrono::seconds kEvery{60};

    // What is to be told of it now; nothing where it is held back.
    std::optional<std::string> take(const Group& group, const std::string& text, const Now& now);
    // What is to be told of those that were held back. Forgets channels that were calm for long. Any time.
    std::vector<std::pair<Group, std::string>> due(const Now& now);

  private:
    struct Channel {
        SteadyTime paid{};  // what was told is made up for then
        uint64_t held = 0;
        WallTime since{};    // of the first that is held
        std::string last{};  // of those
    };
    static bool mayTell(const Channel& channel, SteadyTime now);
    static std::string tell(Channel& channel, SteadyTime now);

    std::map<Group, Channel> channels_;  // with cues lately: those that are watched at most
};

}  // namespace station
