// What this process has used.
#pragma once

#include <cstdint>

#include "state/state.h"

namespace station {

// One thread.
class UseMeter {
  public:
    // Looks every few seconds, since that takes a system call or two. To be called about once a second.
    void measure(SteadyTime now);
    // What a snapshot takes of the calling thread, for as long as it lives.
    class Snapshot {
      public:
        explicit Snapshot(UseMeter& meter);
        ~Snapshot();
        Snapshot(const Snapshot&) = delete;

      private:
        UseMeter& meter_;
        const double before_;
    };
    const StationUse& use() const {
        return use_;
    }

  private:
    StationUse use_;
    SteadyTime measured_;
};

}  // namespace station
