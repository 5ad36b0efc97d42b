// What a report says, made small for the owner.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "common/clock.h"
#include "measures/channelSample.h"
#include "meter.pb.h"
#include "meter/ownLoss.h"

namespace station {

// A channel's report as a sample without growth.
struct MeterFigures {
    uint32_t group = 0;  // host byte order
    Now time{};          // when it came
    ChannelSample sample{};

    // Takes the place of figures that nobody took, which are not to be lost: growth is not, since totals only
    // grow; a run of loss and what this machine lost itself are.
    void cover(const MeterFigures& before);
};

// What one report alone does not say: which streams fell silent, how long runs of loss are, whether a
// constant bit rate no longer is. One channel's, of one meter's connection; one thread. Whatever reports
// hold, it keeps kStreams streams.
class ReportReader {
  public:
    static constexpr std::size_t kStreams = 64;  // video and audio; further ones are not watched
    // Missing for 2 s. Reports are told each second and 0.1 s late, so with this limit an alarm comes 1.9 s
    // to 3 s after the last packet.
    static constexpr double kMissingSeconds = 1.8;
    // A stream that had packets in each report for so long is one that has packets all the time; others,
    // such as still pictures, may pause.
    static constexpr double kSteadySeconds = 10;
    // Reports do not list a stream before its first packet: of a kind without any nothing is known for so
    // long.
    static constexpr double kUnlistedSeconds = 60;
    // A bit rate that was constant for so long is meant to be.
    static constexpr double kConstantSeconds = 60;

    // `own`: what this machine lost itself of what the report tells.
    MeterFigures read(const metering::GroupReport& report, const OwnLoss& own, const Now& now);
    // One of the channel's cues.
    void cue() {
        ++cues_;
    }

  private:
    struct Stream {
        bool video = false;
        uint64_t packets = 0;
        double steady = 0;   // s with packets in each report
        double without = 0;  // s of reports without, while the channel had some
        double silent = 0;   // s since its last packet, as exactly as it is known
        bool listed = false;
    };
    void followStreams(const metering::GroupReport& report, double seconds, ChannelSample& sample);
    int missing(bool video) const;
    void followRate(const metering::GroupReport& report, double seconds, ChannelSample& sample);
    static void takeOwnLoss(const metering::GroupReport& report, const OwnLoss& own, ChannelSample& sample);
    void findRun(const metering::Packets& packets, ChannelSample& sample) const;

    std::optional<ChannelSample> last_;  // report of the epoch
    double seconds_ = 0;                 // its
    uint64_t disturbedSeconds_ = 0;
    std::map<uint16_t, Stream> streams_;
    double watched_ = 0;  // s with packets
    double constantFor_ = 0;
    double sinceLoss_ = 0;
    bool wasConstant_ = false;
    uint64_t cues_ = 0;
    uint64_t longest_ = 0;  // run of loss, of the last report
};

}  // namespace station
