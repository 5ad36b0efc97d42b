// What kestor-picture, the meter and the station agree on besides the messages of proto/picture.proto.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace picturing {

inline constexpr uint32_t kMajor = 1;  // sides with different ones do not talk
inline constexpr uint32_t kMinor = 0;
// Each listens in a directory of its own: kestor-picture, which is the one that may be taken over, can put
// nothing beside the station's sockets.
inline constexpr const char* kCodedSocket = "/run/kestor-picture/coded.sock";  // kestor-picture listens
inline constexpr const char* kPictureSocket = "/run/kestor/picture.sock";      // the station listens

inline constexpr std::size_t kVideoBytes = std::size_t{4} * 1024 * 1024;  // of a coded picture
inline constexpr std::size_t kAudioBytes = std::size_t{1} * 1024 * 1024;  // of a piece of sound
inline constexpr std::chrono::seconds kAudioTime{2};                      // of sound in a piece
inline constexpr std::chrono::seconds kCollectTime{10};  // for the meter to answer what is wanted
inline constexpr std::chrono::seconds kAnswerTime{15};   // after which the answer is waited for no longer
// Open at the meter, and what these may hold together; it answers `busy` beyond either. A turn takes 2 to 3
// s, for the next random access picture and kAudioTime of sound, and there are up to some 15 turns a second
// (100 channels each 10 s; 1000 in 70 s). kestor-picture asks for less where it was told `busy`.
inline constexpr std::size_t kWantedLimit = 64;
inline constexpr std::size_t kWantedBytes = std::size_t{32} * 1024 * 1024;

inline constexpr std::size_t kChannelsLimit = 10'000;
inline constexpr std::chrono::seconds kLeastInterval{10};  // between two pictures of a channel
inline constexpr int kWorkerDeaths = 3;                    // by one channel, until it is left out
inline constexpr std::chrono::hours kLeftOutTime{1};

inline constexpr int kShotWidth = 320;  // what a picture fits into
inline constexpr int kShotHeight = 180;
inline constexpr std::size_t kJpegBytes = std::size_t{32} * 1024;
inline constexpr double kSilenceLufs = -120.0;

}  // namespace picturing
