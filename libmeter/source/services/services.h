// Reads PAT, PMT, CAT, NIT, SDT, EIT present/following, TDT and TOT.
#pragma once

#include <memory>
#include <vector>

#include "sections/section.h"
#include "services/serviceModel.h"

namespace meter {

class Services {
  public:
    Services();
    ~Services();

    // A section with a right CRC of a PID up to 0x1F or of a PMT. What changed is appended to `changes`.
    void section(const Section& section, std::vector<ChangeReport>& changes);
    const ServiceModel& model() const;
    // Fills `transport`, and of each service all that tables say (streams in the order of their PIDs); leaves
    // alone what is measured (scrambled, video, gop, audio, ptsAheadMs, audioVideoMs).
    void fill(Report& report) const;

  private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace meter
