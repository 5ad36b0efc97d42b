#include "media/mediaStreams.h"

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

#include "media/audioStream.h"
#include "media/videoStream.h"

namespace meter {
namespace {

bool isMeasuredVideo(Codec codec) {
    return codec == Codec::kMpeg2Video || codec == Codec::kH264 || codec == Codec::kH265;
}

bool isMeasuredAudio(Codec codec) {
    return codec >= Codec::kMpegAudio && codec <= Codec::kEac3;
}

// Comes in PES packets that are presented at their PTS.
bool isPresented(StreamKind kind) {
    return kind != StreamKind::kCue && kind != StreamKind::kData;
}

}  // namespace

struct MediaStream {
    uint16_t pid;
    Codec codec;
    std::optional<uint8_t> aacProfileLevel;
    // Made when the stream's first packet comes.
    std::unique_ptr<VideoStream> video;
    std::unique_ptr<AudioStream> audio;
    std::optional<Ticks> leastAhead;      // of the second that runs
    std::optional<Ticks> lastLeastAhead;  // of the last one

    bool feed(const UnitPiece& piece) {
        if (video != nullptr)
            return video->feed(piece.start, piece.randomAccess, piece.payload,
                               piece.dts ? piece.dts : piece.pts);
        if (audio != nullptr) {
            audio->feed(piece.payload);
            return true;
        }
        if (isMeasuredVideo(codec))
            video = std::make_unique<VideoStream>(codec);
        else if (isMeasuredAudio(codec))
            audio = std::make_unique<AudioStream>(codec, aacProfileLevel);
        else
            return false;
        return feed(piece);
    }
    std::optional<double> aheadMs() const {
        const auto& least = lastLeastAhead ? lastLeastAhead : leastAhead;
        return least ? std::optional(static_cast<double>(*least) / static_cast<double>(kTicksPerMs))
                     : std::nullopt;
    }
};

struct MediaStreams::State {
    std::vector<std::unique_ptr<MediaStream>> streams;  // by PID, each once

    MediaStream* find(uint16_t pid) const {
        const auto place = std::ranges::lower_bound(streams, pid, {}, pidOf);
        return place != streams.end() && (*place)->pid == pid ? place->get() : nullptr;
    }
    static uint16_t pidOf(const std::unique_ptr<MediaStream>& stream) {
        return stream->pid;
    }
    void fillService(ServiceReport& service) const;
};

MediaStreams::MediaStreams() : state_(std::make_unique<State>()) {}
MediaStreams::~MediaStreams() = default;

void MediaStreams::setModel(const ServiceModel& model) {
    std::vector<std::unique_ptr<MediaStream>> fresh;
    for (const ProgramModel& program : model.programs)
        for (const StreamModel& stream : program.streams)
            if (isPresented(stream.kind))
                fresh.push_back(
                    std::make_unique<MediaStream>(MediaStream{.pid = stream.pid,
                                                              .codec = stream.codec,
                                                              .aacProfileLevel = stream.aacProfileLevel,
                                                              .video = {},
                                                              .audio = {},
                                                              .leastAhead = {},
                                                              .lastLeastAhead = {}}));
    std::ranges::stable_sort(fresh, {}, State::pidOf);
    // Not std::ranges::unique: Clang 14 does not take the subrange that it returns.
    fresh.erase(std::unique(fresh.begin(), fresh.end(),
                            [](const auto& one, const auto& other) { return one->pid == other->pid; }),
                fresh.end());
    if (fresh.size() > kMediaStreamsLimit)
        fresh.erase(fresh.begin() + kMediaStreamsLimit, fresh.end());
    for (std::unique_ptr<MediaStream>& old : state_->streams) {
        const auto place = std::ranges::lower_bound(fresh, old->pid, {}, State::pidOf);
        if (place != fresh.end() && (*place)->pid == old->pid && (*place)->codec == old->codec &&
            (*place)->aacProfileLevel == old->aacProfileLevel)
            *place = std::move(old);
    }
    state_->streams = std::move(fresh);
}

MediaStream* MediaStreams::find(uint16_t pid) const {
    return state_->find(pid);
}

bool MediaStreams::unit(MediaStream& stream, const UnitPiece& piece) {
    if (piece.start && piece.ptsAhead && (!stream.leastAhead || *piece.ptsAhead < *stream.leastAhead))
        stream.leastAhead = piece.ptsAhead;
    return stream.feed(piece);
}

void MediaStreams::secondEnded() {
    for (const std::unique_ptr<MediaStream>& stream : state_->streams) {
        stream->lastLeastAhead = std::exchange(stream->leastAhead, std::nullopt);
        if (stream->video != nullptr)
            stream->video->secondEnded();
        if (stream->audio != nullptr)
            stream->audio->secondEnded();
    }
}

void MediaStreams::State::fillService(ServiceReport& service) const {
    std::optional<double> video;
    std::optional<double> audio;
    for (StreamReport& report : service.streams) {
        const MediaStream* stream = find(report.pid);
        if (stream == nullptr)
            continue;
        report.ptsAheadMs = stream->aheadMs();
        if (report.kind == StreamKind::kVideo && !video)
            video = report.ptsAheadMs;
        if (report.kind == StreamKind::kAudio && !audio)
            audio = report.ptsAheadMs;
        if (stream->video != nullptr)
            stream->video->fill(report.video.emplace(), report.gop.emplace());
        if (stream->audio != nullptr)
            stream->audio->fill(report.audio.emplace());
    }
    if (video && audio)
        service.audioVideoMs = *audio - *video;
}

void MediaStreams::fill(Report& report) const {
    for (ServiceReport& service : report.services)
        state_->fillService(service);
}

}  // namespace meter
