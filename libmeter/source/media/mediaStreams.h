// Video and audio streams as their PES packets show them.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "fields/bytes.h"
#include "fields/moment.h"
#include "meter/report.h"
#include "services/serviceModel.h"

namespace meter {

// A packet's share of a PES packet, of a PID that is not scrambled.
struct UnitPiece {
    bool start = false;             // the packet begins a PES packet
    bool randomAccess = false;      // random_access_indicator of the adaptation field
    Bytes payload;                  // behind the PES header where `start`
    std::optional<Ticks> pts;       // 90 kHz units; of the start
    std::optional<Ticks> dts;       // where absent the PTS holds
    std::optional<Ticks> ptsAhead;  // PTS less the program clock when the packet came, 27 MHz, signed
};

// Streams looked at, those with the lowest PIDs.
inline constexpr std::size_t kMediaStreamsLimit = 256;

struct MediaStream;

class MediaStreams {
  public:
    MediaStreams();
    ~MediaStreams();

    // The tables changed: streams of the same PID and codec go on, others begin anew.
    void setModel(const ServiceModel& model);
    // What to feed a PID by, until the next setModel(); null where nothing is looked at there.
    MediaStream* find(uint16_t pid) const;
    // Returns whether the next packet of the same PES packet is wanted as well. A piece whose `start` is set
    // always comes; after a gap in the PID the next one with `start` comes first.
    static bool unit(MediaStream& stream, const UnitPiece& piece);
    // A whole second of arrival ended: "the last second" and "the last minute" move on.
    void secondEnded();
    // Fills video, gop, audio, ptsAheadMs of the streams and audioVideoMs of the services of the report.
    void fill(Report& report) const;

  private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace meter
