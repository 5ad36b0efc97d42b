// Who joins the groups of channels that name their source.
#pragma once

#include "common/clock.h"

namespace station {

// The meter does, source-specific (RFC 4607); the probe knows no sources, and a membership of its own would
// let in all of them, so that it joins such a group passively then. But each change has the probe take the
// channel up anew, so that a meter that is restarted changes nothing. One thread; does no input or output.
class SourceJoins {
  public:
    // Connected for so long: it has joined, and is there to stay.
    static constexpr std::chrono::seconds kSettles{8};
    // Gone for so long, or for so long not connected for kSettles in a row with all joined: the probe joins.
    static constexpr std::chrono::seconds kGone{10};
    static constexpr std::chrono::seconds kUnsettled{30};

    // What is known of the meter at that time. About once a second.
    struct Meter {
        bool connected = false;
        SteadyTime since;        // of the connection
        bool joinedAll = false;  // what it is to join
    };
    // True when it is another one who joins from here on.
    bool update(const Meter& meter, SteadyTime now);
    bool byMeter() const {
        return byMeter_;
    }

  private:
    bool byMeter_ = false;
    SteadyTime lastConnected_;
    SteadyTime lastSettled_;
};

}  // namespace station
