// Settings that only a restart puts in force.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "configuration/configuration.h"

namespace station {

// One thread. Bounded: a note a setting.
class RestartNotes {
  public:
    // What the station runs with to its end.
    explicit RestartNotes(std::shared_ptr<const Configuration> started) : started_(std::move(started)) {}

    // Compares what was read with it; logs what was not noted before. A note stands as long as the two
    // differ.
    void compare(const Configuration& read);

    // A sentence for each setting that differs.
    const std::vector<std::string>& all() const {
        return notes_;
    }

  private:
    std::shared_ptr<const Configuration> started_;
    std::vector<std::string> notes_;
};

}  // namespace station
