// What the tables say the stream consists of: what checks, clocks and the report ask for.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "meter/report.h"

namespace meter {

// Bounds of what is kept of tables; what is beyond is left out.
inline constexpr std::size_t kProgramsLimit = 256;
inline constexpr std::size_t kStreamsPerProgramLimit = 64;
inline constexpr std::size_t kStreamsLimit = 1024;  // of the channel
inline constexpr std::size_t kCaPidsLimit = 64;     // of the CAT, and of a program

enum class Codec : uint8_t {
    kNone,
    kMpeg2Video,
    kH264,
    kH265,
    kMpegAudio,
    kAac,
    kAacLatm,
    kAc3,
    kEac3,
    kScte35,
    kDvbSubtitles,
    kTeletext,
};

struct StreamModel {
    uint16_t pid = 0;
    uint8_t streamType = 0;
    Codec codec = Codec::kNone;
    StreamKind kind = StreamKind::kData;
    uint8_t audioType = 0;      // of the ISO 639 language descriptor; 0 without one
    bool stillPicture = false;  // video_stream_descriptor's still_picture_flag, or AVC_still_present
    std::optional<uint8_t> aacProfileLevel;  // MPEG-4_audio_profile_and_level
    std::vector<uint16_t> ecmPids;
};

struct ProgramModel {
    uint16_t number = 0;  // not 0
    uint16_t pmtPid = 0;
    bool pmtKnown = false;     // a whole PMT with a right CRC came
    uint16_t pcrPid = 0x1FFF;  // none
    std::vector<StreamModel> streams;
    std::vector<uint16_t> ecmPids;  // of the whole program
};

struct ServiceModel {
    bool patKnown = false;  // all sections of one version came; it stands until the next whole one
    uint16_t transportStreamId = 0;
    std::optional<uint16_t> networkPid;  // program 0 of the PAT
    std::vector<ProgramModel> programs;  // in the PAT's order
    bool catKnown = false;
    std::vector<uint16_t> emmPids;  // of the CAT
    uint64_t revision = 0;          // counts changes of any of the above
};

}  // namespace meter
