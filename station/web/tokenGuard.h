// Slows down who tries tokens.
#pragma once

#include <chrono>
#include <map>
#include <string>

#include "common/clock.h"

namespace station {

// Counts the wrong tokens of each address. Beyond a few at once it says how long to leave all tokens from
// there unlooked at, right or wrong: else the rate of guesses would be that of connections. One thread; the
// time is given in.
class TokenGuard {
  public:
    static constexpr int kAtOnce = 10;               // wrong tokens that cost no time
    static constexpr std::chrono::seconds kEach{1};  // that each further one costs
    // Addresses that are remembered; beyond, the one that has the least to wait is forgotten.
    static constexpr std::size_t kAddresses = 1024;

    // How long until a token from this address is looked at; 0 for at once.
    std::chrono::seconds wait(const std::string& address, SteadyTime now) const;
    void wrong(const std::string& address, SteadyTime now);

  private:
    std::map<std::string, SteadyTime> restored_;  // when all of kAtOnce are free again
};

}  // namespace station
