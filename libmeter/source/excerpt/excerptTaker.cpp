#include "excerpt/excerptTaker.h"

#include <algorithm>

#include "packets/packetPrint.h"

namespace meter {

namespace {

constexpr uint8_t kMpeg1Video = 0x01;  // stream_type; its start codes are those of H.262

std::optional<ExcerptVideo> videoCodecOf(const StreamModel& stream) {
    switch (stream.codec) {
        case Codec::kMpeg2Video:
            return ExcerptVideo::kMpeg2;
        case Codec::kH264:
            return ExcerptVideo::kH264;
        case Codec::kH265:
            return ExcerptVideo::kH265;
        default:
            return stream.streamType == kMpeg1Video ? std::optional(ExcerptVideo::kMpeg2) : std::nullopt;
    }
}

std::optional<ExcerptAudio> audioCodecOf(const StreamModel& stream) {
    switch (stream.codec) {
        case Codec::kMpegAudio:
            return ExcerptAudio::kMpeg;
        case Codec::kAac:
            return ExcerptAudio::kAacAdts;
        case Codec::kAacLatm:
            return ExcerptAudio::kAacLatm;
        case Codec::kAc3:
            return ExcerptAudio::kAc3;
        case Codec::kEac3:
            return ExcerptAudio::kEac3;
        default:
            return std::nullopt;
    }
}

bool isVideo(const StreamModel& stream) {
    return stream.kind == StreamKind::kVideo;
}
bool isKnownAudio(const StreamModel& stream) {
    return stream.kind == StreamKind::kAudio && audioCodecOf(stream);
}

template <typename Is>
const ProgramModel* firstProgram(const ServiceModel& model, Is is) {
    const auto found = std::ranges::find_if(model.programs, [is](const ProgramModel& program) {
        return std::ranges::any_of(program.streams, is);
    });
    return found == model.programs.end() ? nullptr : &*found;
}

template <typename Is>
const StreamModel* firstStream(const ProgramModel* program, Is is) {
    if (program == nullptr) {
        return nullptr;
    }
    const auto found = std::ranges::find_if(program->streams, is);
    return found == program->streams.end() ? nullptr : &*found;
}

// Bytes of a PES packet's header from packet_start_code_prefix on; none where no such packet begins.
std::optional<std::size_t> pesHeaderSize(Bytes payload) {
    constexpr std::size_t kShort = 6;
    constexpr std::size_t kLong = 9;
    if (payload.size() < kLong || u24At(payload, 0) != 1) {
        return std::nullopt;
    }
    return pesHasOptionalHeader(payload[3]) ? kLong + payload[kLong - 1] : kShort;
}

}  // namespace

ExcerptTaker::ExcerptTaker(const ServiceModel& model, bool audio) : audioWanted_(audio) {
    setModel(model);
}

void ExcerptTaker::setModel(const ServiceModel& model) {
    tablesKnown_ = model.patKnown && std::ranges::all_of(model.programs, &ProgramModel::pmtKnown);
    const ProgramModel* program = firstProgram(model, isVideo);
    const StreamModel* const video = firstStream(program, isVideo);
    if (program == nullptr) {
        program = firstProgram(model, isKnownAudio);
    }
    const StreamModel* const audio = firstStream(program, isKnownAudio);
    const std::optional<ExcerptVideo> videoCodec = video == nullptr ? std::nullopt : videoCodecOf(*video);
    const std::optional<ExcerptAudio> audioCodec = audio == nullptr ? std::nullopt : audioCodecOf(*audio);
    videoListed_ = video != nullptr;
    if (const uint16_t pid = video == nullptr ? kNoTrack : video->pid;
        pid != video_.pid || videoCodec != videoCodec_) {
        video_ = Track(pid);
        videoCodec_ = videoCodec;
        picture_ = videoCodec ? std::make_unique<KeyPicture>(*videoCodec) : nullptr;
    }
    if (const uint16_t pid = audio == nullptr ? kNoTrack : audio->pid;
        pid != audio_.pid || audioCodec != audioCodec_) {
        audio_ = Track(pid);
        audioCodec_ = audioCodec;
        sound_ = {};
        soundBegin_.reset();
    }
}

void ExcerptTaker::gap() {
    video_.inPes = audio_.inPes = false;
    video_.last.reset();
    audio_.last.reset();
    if (picture_ && !picture_->isEnded()) {
        picture_->gap();
    }
}

void ExcerptTaker::packets(Bytes bytes, Nanoseconds arrival, Nanoseconds wall) {
    now_ = arrival;
    wall_ = wall;
    if (!begin_) {
        begin_ = arrival;
    }
    for (; bytes.size() >= kPacketSize; bytes = bytes.subspan(kPacketSize)) {
        const TsHeader header(bytes.data());
        ++packets_;
        if (bytes[0] == kSyncByte && header.pid() != kNullPid) {
            packet(bytes.data(), header);
        }
    }
}

void ExcerptTaker::packet(const uint8_t* packet, TsHeader header) {
    if (header.pid() == video_.pid && picture_) {
        videoPacket(packet, header);
    } else if (header.pid() == audio_.pid && audioWanted_) {
        audioPacket(packet, header);
    }
}

// What of the packet belongs to the elementary stream.
ExcerptTaker::Piece ExcerptTaker::pieceOf(Track& track, const uint8_t* packet, TsHeader header) {
    if (header.transportErrorIndicator()) {
        track.inPes = false;
        return {Found::kGap, false, {}};
    }
    if (!header.hasPayload()) {
        return {};
    }
    const auto goesOnFrom = [header](const uint8_t* before) {
        return ((TsHeader(before).continuityCounter() + 1U) & 0x0F) == header.continuityCounter();
    };
    // Another one with its counter is one with others missing between.
    if (track.last && isRepetition(packet, track.last->data())) {
        return {};
    }
    const bool goesOn = track.last && goesOnFrom(track.last->data());
    std::copy_n(packet, kPacketSize, track.last.emplace().begin());
    track.inPes = track.inPes && goesOn;
    if (header.scramblingControl() != 0) {
        ++track.scrambled;
        track.inPes = false;
        return {Found::kGap, false, {}};
    }
    track.scrambled = 0;
    ++track.clear;
    Piece piece{goesOn ? Found::kMore : Found::kGap, header.payloadUnitStart(),
                payloadOf(TsPacket(packet, kPacketSize), header)};
    if (piece.start) {
        const std::optional<std::size_t> headerSize = pesHeaderSize(piece.bytes);
        track.inPes = headerSize.has_value();
        track.headerLeft = headerSize.value_or(0);
    }
    if (!track.inPes) {
        piece.bytes = {};
        return piece;
    }
    const std::size_t passed = std::min(track.headerLeft, piece.bytes.size());
    track.headerLeft -= passed;
    piece.bytes = piece.bytes.subspan(passed);
    return piece;
}

void ExcerptTaker::videoPacket(const uint8_t* packet, TsHeader header) {
    if (picture_->isEnded()) {
        return;
    }
    const Piece piece = pieceOf(video_, packet, header);
    if (piece.found == Found::kGap) {
        picture_->gap();
    }
    if (piece.found != Found::kNothing) {
        picture_->feed(piece.bytes);
        pictureWall_ = wall_;
    }
}

void ExcerptTaker::audioPacket(const uint8_t* packet, TsHeader header) {
    if (audioIsEnded()) {
        return;
    }
    const Piece piece = pieceOf(audio_, packet, header);
    if (audio_.scrambled > 0) {
        return;
    }
    if (!soundBegin_ && piece.start && audio_.inPes) {
        soundBegin_ = now_;
    }
    const std::size_t count = std::min(piece.bytes.size(), kExcerptAudioBytes - sound_.size());
    sound_.append(reinterpret_cast<const char*>(piece.bytes.data()), count);
}

bool ExcerptTaker::videoIsEnded() const {
    if (!videoListed_) {
        return tablesKnown_;
    }
    return !picture_ || picture_->isEnded() || video_.scrambled >= kScrambledPackets;
}

bool ExcerptTaker::audioIsEnded() const {
    if (!audioWanted_ || sound_.size() >= kExcerptAudioBytes || audio_.scrambled >= kScrambledPackets) {
        return true;
    }
    if (audio_.pid == kNoTrack) {
        return tablesKnown_ || videoListed_;
    }
    if (soundBegin_) {
        return now_ - *soundBegin_ >= kAudioTime;
    }
    return begin_ && now_ - *begin_ >= kAudioPatience;
}

bool ExcerptTaker::isEnded() const {
    return videoIsEnded() && audioIsEnded();
}

ExcerptOutcome ExcerptTaker::outcome() const {
    // What tables rule out needs no packet.
    if (videoListed_ && !picture_) {
        return ExcerptOutcome::kUnsupportedCodec;
    }
    if (!videoListed_ && tablesKnown_) {
        return ExcerptOutcome::kNoVideo;
    }
    if (packets_ == 0) {
        return ExcerptOutcome::kNoPackets;
    }
    if (!videoListed_) {
        return ExcerptOutcome::kNoVideo;
    }
    if (picture_->isEnded()) {
        return picture_->isTooLarge() ? ExcerptOutcome::kTooLarge : ExcerptOutcome::kTaken;
    }
    if (video_.scrambled > 0) {
        return ExcerptOutcome::kScrambled;
    }
    return video_.clear == 0 ? ExcerptOutcome::kNoVideo : ExcerptOutcome::kNoRandomAccess;
}

Excerpt ExcerptTaker::take() {
    Excerpt excerpt;
    excerpt.outcome = outcome();
    excerpt.wall = wall_;
    if (excerpt.outcome == ExcerptOutcome::kTaken) {
        excerpt.video = {*videoCodec_, picture_->take()};
        excerpt.wall = pictureWall_;
    }
    if (audioCodec_ && !sound_.empty()) {
        excerpt.audio = {*audioCodec_, std::move(sound_)};
    }
    return excerpt;
}

}  // namespace meter
