// Takes an excerpt of a stream: a picture and a piece of sound, out of the packets as they come.
#pragma once

#include <array>
#include <memory>
#include <optional>
#include <string>

#include "excerpt/keyPicture.h"
#include "fields/bytes.h"
#include "fields/moment.h"
#include "fields/packet.h"
#include "meter/excerpt.h"
#include "services/serviceModel.h"

namespace meter {

// Of the first service in the PAT's order that has video, else of the first that has audio. A packet that is
// missing, damaged or scrambled gives up the picture that was open; the next one is taken. Keeps at most
// kExcerptVideoBytes and kExcerptAudioBytes, and a packet or so besides.
class ExcerptTaker {
  public:
    // `model`: as setModel().
    ExcerptTaker(const ServiceModel& model, bool audio);

    // The tables changed: what goes on elsewhere or as something else begins anew.
    void setModel(const ServiceModel& model);
    // Whole packets in their order, which arrived together: `arrival` on a clock of the caller's, `wall`
    // since the Unix epoch.
    void packets(Bytes bytes, Nanoseconds arrival, Nanoseconds wall);
    // Packets are missing, or those that come are of another stream.
    void gap();
    // There is no more to come, or nothing that is worth waiting for.
    bool isEnded() const;
    // What is kept of the stream.
    std::size_t bytes() const {
        return sound_.capacity() + (picture_ ? picture_->bytes() : 0);
    }
    // What there is, and why there is no more. Nothing is done with this one then.
    Excerpt take();

  private:
    // The packets of one PID as the elementary stream that they carry.
    struct Track {
        explicit Track(uint16_t carried = kNoTrack) : pid(carried) {}

        uint16_t pid;
        std::optional<std::array<uint8_t, kPacketSize>> last;  // with payload
        bool inPes = false;          // a PES packet began, and nothing is missing since
        std::size_t headerLeft = 0;  // bytes of its header that are still to come
        uint64_t clear = 0;          // packets with payload
        uint64_t scrambled = 0;      // since the last clear one
    };
    enum class Found : uint8_t { kNothing, kMore, kGap };
    struct Piece {
        Found found = Found::kNothing;
        bool start = false;  // of a PES packet
        Bytes bytes;
    };

    static constexpr uint16_t kNoTrack = 0xFFFF;
    // Packets in a row after which video is said to be scrambled: some operators leave the first of a PES
    // packet clear.
    static constexpr uint64_t kScrambledPackets = 64;
    static constexpr Nanoseconds kAudioTime = 2 * kNsPerSecond;
    // For the begin of the first PES packet with audio to come.
    static constexpr Nanoseconds kAudioPatience = 3 * kNsPerSecond;

    static Piece pieceOf(Track& track, const uint8_t* packet, TsHeader header);
    void packet(const uint8_t* packet, TsHeader header);
    void videoPacket(const uint8_t* packet, TsHeader header);
    void audioPacket(const uint8_t* packet, TsHeader header);
    bool videoIsEnded() const;
    bool audioIsEnded() const;
    ExcerptOutcome outcome() const;

    const bool audioWanted_;
    bool tablesKnown_ = false;  // of each service
    bool videoListed_ = false;
    uint64_t packets_ = 0;

    Track video_;
    std::optional<ExcerptVideo> videoCodec_;  // none: not one that is known
    std::unique_ptr<KeyPicture> picture_;
    Nanoseconds pictureWall_ = 0;

    Track audio_;
    std::optional<ExcerptAudio> audioCodec_;
    std::string sound_;
    std::optional<Nanoseconds> begin_;       // arrival of the first packet
    std::optional<Nanoseconds> soundBegin_;  // of the first with sound
    Nanoseconds now_ = 0;
    Nanoseconds wall_ = 0;
};

}  // namespace meter
