// Splice commands (ANSI/SCTE 35).
#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "meter/report.h"
#include "sections/section.h"

namespace meter {

// Cues kept, the latest ones. A repetition of one that is no longer kept counts as a new cue.
inline constexpr std::size_t kCuesLimit = 64;

class Cues {
  public:
    Cues();
    ~Cues();

    // A section with table_id 0xFC of a PID with stream type 0x86, right CRC or not. `programClock`: the PCR
    // of its program when it came, 27 MHz, where known. A new cue is appended to `found`.
    void section(const Section& section, std::optional<Ticks> programClock, std::vector<CueReport>& found);
    // What follows is another stream: the cues of this one are forgotten, the errors stay counted.
    void restart();
    // Fills `cues`, `cuesEncrypted`, `cuesMalformed`.
    void fill(Report& report) const;

  private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace meter
