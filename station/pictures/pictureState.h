// What is known of pictures at one moment: of each channel, and of kestor-picture, which takes them.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/clock.h"

namespace station {

// What became of a channel's last turn, by the messages' outcomes.
enum class PictureOutcome : uint8_t {
    kUnknown,
    kTaken,
    kNoPackets,
    kScrambled,
    kNoVideo,
    kNoRandomAccess,
    kTooLarge,
    kUnsupportedCodec,
    kDamaged,
    kGaveUp,
    kNoAnswer,
};
// In the API: "taken", "scrambled", ...
std::string_view pictureOutcomeName(PictureOutcome outcome);
// In place of a picture, for people; empty for kTaken.
std::string_view whyNoPicture(PictureOutcome outcome);

// What a turn found. Luma from 0 (black) to 255 (white).
struct PictureFigures {
    uint32_t group = 0;  // host byte order
    WallTime time{};     // when its last packet arrived; without a picture, when the turn ended
    PictureOutcome outcome = PictureOutcome::kUnknown;
    uint32_t width = 0;  // as coded; 0 without a picture, likewise below
    uint32_t height = 0;
    std::optional<double> luma{};
    std::optional<double> spread{};
    std::optional<double> difference{};  // to the picture before: mean, and of the part that changed most
    std::optional<double> change{};
    std::optional<WallTime> since{};   // when that one was taken
    std::optional<double> loudness{};  // LUFS
};

struct PictureBrief {
    WallTime taken{};                      // the newest picture there is; the epoch: none
    std::optional<PictureFigures> last{};  // turn
    std::string problem{};                 // of that, for people
    WallTime leftOutUntil{};               // the epoch: it is not
};
using PictureBriefs = std::map<uint32_t, PictureBrief>;  // by group, host byte order

struct PictureState {
    bool configured = false;   // [pictures] socket names one
    bool connected = false;    // a kestor-picture that speaks this station's version
    bool silent = false;       // it is connected, and told nothing for PictureBook::kSilence
    std::string problem;       // a sentence for an operator; empty when all is well or nothing is configured
    std::string version;       // of the last one that was connected
    WallTime since;            // when it connected; when the last one went; the epoch before the first
    uint64_t connections = 0;  // since the station's start
    std::size_t held = 0;      // pictures
    std::size_t bytes = 0;     // of them
    uint64_t refused = 0;      // shots that made no sense

    // By kestor-picture, since it was started.
    bool meter = false;  // gets packets
    uint64_t pictures = 0;
    uint64_t failures = 0;
    uint64_t workersKilled = 0;
    uint64_t dropped = 0;
    double cpuSeconds = 0;
    std::optional<double> intervalSeconds;  // between two pictures of a channel
    struct LeftOut {
        uint32_t group = 0;
        WallTime until{};
        std::string why;
    };
    std::vector<LeftOut> leftOut;  // at most PictureBook::kLeftOutLimit
};

}  // namespace station
