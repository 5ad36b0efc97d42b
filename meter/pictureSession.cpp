#include "pictureSession.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "clocks.h"
#include "fieldWalk.h"
#include "peerText.h"

namespace meterd {

namespace {

static_assert(meter::kExcerptVideoBytes == picturing::kVideoBytes);
static_assert(meter::kExcerptAudioBytes == picturing::kAudioBytes);
constexpr int64_t kCollectMs = std::chrono::milliseconds(picturing::kCollectTime).count();

picturing::Outcome outcomeOf(meter::ExcerptOutcome outcome) {
    switch (outcome) {
        case meter::ExcerptOutcome::kTaken:
            return picturing::OUTCOME_TAKEN;
        case meter::ExcerptOutcome::kNoPackets:
            return picturing::OUTCOME_NO_PACKETS;
        case meter::ExcerptOutcome::kScrambled:
            return picturing::OUTCOME_SCRAMBLED;
        case meter::ExcerptOutcome::kNoVideo:
            return picturing::OUTCOME_NO_VIDEO;
        case meter::ExcerptOutcome::kNoRandomAccess:
            return picturing::OUTCOME_NO_RANDOM_ACCESS;
        case meter::ExcerptOutcome::kTooLarge:
            return picturing::OUTCOME_TOO_LARGE;
        case meter::ExcerptOutcome::kUnsupportedCodec:
            return picturing::OUTCOME_UNSUPPORTED_CODEC;
    }
    return picturing::OUTCOME_UNKNOWN;
}

picturing::VideoCodec codecOf(meter::ExcerptVideo codec) {
    switch (codec) {
        case meter::ExcerptVideo::kMpeg2:
            return picturing::VIDEO_MPEG2;
        case meter::ExcerptVideo::kH264:
            return picturing::VIDEO_H264;
        case meter::ExcerptVideo::kH265:
            return picturing::VIDEO_H265;
    }
    return picturing::VIDEO_UNKNOWN;
}

picturing::AudioCodec codecOf(meter::ExcerptAudio codec) {
    switch (codec) {
        case meter::ExcerptAudio::kMpeg:
            return picturing::AUDIO_MPEG;
        case meter::ExcerptAudio::kAacAdts:
            return picturing::AUDIO_AAC_ADTS;
        case meter::ExcerptAudio::kAacLatm:
            return picturing::AUDIO_AAC_LATM;
        case meter::ExcerptAudio::kAc3:
            return picturing::AUDIO_AC3;
        case meter::ExcerptAudio::kEac3:
            return picturing::AUDIO_EAC3;
    }
    return picturing::AUDIO_UNKNOWN;
}

void fill(meter::Excerpt&& excerpt, picturing::Coded& coded) {
    coded.set_outcome(outcomeOf(excerpt.outcome));
    coded.set_arrived_ns(excerpt.wall != 0 ? excerpt.wall : wallNow());
    if (excerpt.video) {
        coded.mutable_video()->set_codec(codecOf(excerpt.video->codec));
        coded.mutable_video()->set_data(std::move(excerpt.video->data));
    }
    if (excerpt.audio) {
        coded.mutable_audio()->set_codec(codecOf(excerpt.audio->codec));
        coded.mutable_audio()->set_data(std::move(excerpt.audio->data));
    }
}

}  // namespace

PictureSession::PictureSession(std::string version, Begin begin)
    : version_(std::move(version)), begin_(std::move(begin)) {}

void PictureSession::connected() {
    unframer_ = {};
    picturing::FromMeter message;
    message.mutable_hello()->set_major(picturing::kMajor);
    message.mutable_hello()->set_minor(picturing::kMinor);
    message.mutable_hello()->set_version(version_);
    answers_.push_back({metering::framed(message), false});
}

void PictureSession::disconnected() {
    agreed_ = false;
    answers_.clear();
    excerpts_ = 0;
    bytes_ = 0;
    for (Turn& turn : turns_) {
        turn.answered = true;
    }
}

void PictureSession::received(std::string_view bytes, int64_t nowMs) {
    unframer_.add(bytes);
    while (const auto message = unframer_.next()) {
        take(*message, nowMs);
    }
}

void PictureSession::take(std::string_view bytes, int64_t nowMs) {
    picturing::ToMeter message;
    metering::parse(bytes, kMessageBytes, message);
    if (message.has_refused()) {
        throw metering::Unreadable("that it refuses this meter: " + shown(message.refused().reason()));
    }
    if (message.has_hello() && !agreed_) {
        if (message.hello().major() != picturing::kMajor) {
            throw metering::Unreadable("version " + std::to_string(message.hello().major()) +
                                       " of the messages, where this meter speaks " +
                                       std::to_string(picturing::kMajor) + ": install both from one release");
        }
        agreed_ = true;
        peer_ = shown(message.hello().version());
    } else if (message.has_wanted() && agreed_) {
        want(message.wanted(), nowMs);
    }
}

void PictureSession::want(const picturing::Wanted& wanted, int64_t nowMs) {
    if (turns_.size() + excerpts_ >= picturing::kWantedLimit || bytes_ > picturing::kWantedBytes ||
        std::ranges::any_of(turns_, [&](const Turn& turn) { return turn.group == wanted.group(); })) {
        answer(wanted.group(), wanted.id(), picturing::OUTCOME_BUSY);
        return;
    }
    turns_.push_back({++ticket_, wanted.group(), wanted.id(), nowMs + kCollectMs, false});
    begin_(wanted.group(), ticket_, wanted.audio());
}

void PictureSession::answer(uint32_t group, uint64_t id, picturing::Outcome outcome) {
    if (answers_.size() >= kBusyLimit) {
        return;
    }
    picturing::FromMeter message;
    message.mutable_coded()->set_group(group);
    message.mutable_coded()->set_id(id);
    message.mutable_coded()->set_outcome(outcome);
    message.mutable_coded()->set_arrived_ns(wallNow());
    answers_.push_back({metering::framed(message), false});
}

void PictureSession::taken(ExcerptTaken&& taken) {
    const auto turn = std::ranges::find(turns_, taken.ticket, &Turn::ticket);
    if (turn == turns_.end()) {
        return;
    }
    const Turn ended = *turn;
    turns_.erase(turn);
    if (ended.answered) {
        return;
    }
    if (!taken.excerpt) {
        answer(ended.group, ended.id, picturing::OUTCOME_UNKNOWN_GROUP);
        return;
    }
    if (taken.crowded || bytes_ > picturing::kWantedBytes) {
        answer(ended.group, ended.id, picturing::OUTCOME_BUSY);
        return;
    }
    picturing::FromMeter message;
    message.mutable_coded()->set_group(ended.group);
    message.mutable_coded()->set_id(ended.id);
    fill(std::move(*taken.excerpt), *message.mutable_coded());
    answers_.push_back({metering::framed(message), true});
    ++excerpts_;
    bytes_ += answers_.back().bytes.size();
}

void PictureSession::expire(int64_t nowMs) {
    for (Turn& turn : turns_) {
        if (!turn.answered && nowMs >= turn.deadline) {
            turn.answered = true;
            answer(turn.group, turn.id, picturing::OUTCOME_NO_PACKETS);
        }
    }
}

const std::string& PictureSession::front() const {
    static const std::string none;
    return answers_.empty() ? none : answers_.front().bytes;
}

void PictureSession::pop() {
    if (answers_.front().excerpt) {
        --excerpts_;
        bytes_ -= answers_.front().bytes.size();
    }
    answers_.pop_front();
}

}  // namespace meterd
