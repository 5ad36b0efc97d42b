#include "web/tokenGuard.h"

#include <algorithm>

namespace station {

std::chrono::seconds TokenGuard::wait(const std::string& address, SteadyTime now) const {
    const auto found = restored_.find(address);
    if (found == restored_.end()) {
        return std::chrono::seconds(0);
    }
    const auto over = found->second - now - (kAtOnce - 1) * kEach;
    return std::max(std::chrono::ceil<std::chrono::seconds>(over), std::chrono::seconds(0));
}

void TokenGuard::wrong(const std::string& address, SteadyTime now) {
    if (!restored_.contains(address) && restored_.size() >= kAddresses) {
        restored_.erase(
            std::ranges::min_element(restored_, {}, [](const auto& known) { return known.second; }));
    }
    SteadyTime& restored = restored_[address];
    restored = std::max(restored, now) + kEach;
}

}  // namespace station
