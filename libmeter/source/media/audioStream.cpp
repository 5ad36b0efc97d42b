#include "media/audioStream.h"

#include <algorithm>

#include "media/profileNames.h"

namespace meter {
namespace {

AudioFrameReader readerOf(Codec codec) {
    switch (codec) {
        case Codec::kMpegAudio:
            return readMpegAudioFrame;
        case Codec::kAac:
            return readAdtsFrame;
        case Codec::kAacLatm:
            return readLoasFrame;
        default:
            return readAc3Frame;
    }
}

}  // namespace

AudioStream::AudioStream(Codec codec, std::optional<uint8_t> aacProfileLevel)
    : read_(readerOf(codec)), aacProfileLevel_(aacProfileLevel) {}

void AudioStream::walk(Bytes payload) {
    while (!payload.empty()) {
        const std::size_t passed = std::min<std::size_t>(skip_, payload.size());
        skip_ -= static_cast<uint32_t>(passed);
        payload = payload.subspan(passed);
        const std::size_t count = std::min<std::size_t>(headWanted_ - headSize_, payload.size());
        std::copy_n(payload.begin(), count, head_.begin() + headSize_);
        headSize_ += static_cast<uint32_t>(count);
        payload = payload.subspan(count);
        if (headSize_ < headWanted_)
            return;
        if (headWanted_ == kAudioSyncSize)
            takeSync();
        else
            takeHead();
    }
}

// The first bytes of what may be a frame: whether it is, and how much of it is wanted.
void AudioStream::takeSync() {
    const auto frame = read_(Bytes(head_).first(headSize_));
    if (!frame) {
        slide();
        return;
    }
    headWanted_ = std::min<uint32_t>(frame->size, kAudioHeadLimit);
    if (headWanted_ == headSize_)
        takeHead();
}

void AudioStream::takeHead() {
    const auto frame = read_(Bytes(head_).first(headSize_));
    if (candidate_)
        account(*candidate_);
    candidate_ = frame;
    skip_ = frame && frame->size > headSize_ ? frame->size - headSize_ : 0;
    headSize_ = 0;
    headWanted_ = kAudioSyncSize;
}

// No frame begins here: neither was the one that should have ended here one.
void AudioStream::slide() {
    candidate_.reset();
    std::copy(head_.begin() + 1, head_.begin() + headSize_, head_.begin());
    --headSize_;
    headWanted_ = kAudioSyncSize;
}

void AudioStream::account(const AudioFrame& frame) {
    second_.bytes += frame.size;
    if (frame.continues) {
        group_.places |= frame.places;
        return;
    }
    if (frame.samples == 0) {  // says nothing anew
        second_.samples += group_.samples;
        return;
    }
    second_.samples += frame.samples;
    known_ = group_;
    if (known_.places != 0)
        known_.channels = countLoudspeakers(known_.places);
    group_ = frame;
}

void AudioStream::secondEnded() {
    lastSecond_ = second_;
    second_ = {};
}

std::optional<uint64_t> AudioStream::measuredRate() const {
    const Volume& volume = lastSecond_.value_or(second_);
    if (volume.samples == 0)
        return std::nullopt;
    return (volume.bytes * 8 * known_.codedRate + volume.samples / 2) / volume.samples;
}

void AudioStream::fill(AudioReport& report) const {
    if (known_.size == 0)
        return;
    AudioFrame heard = known_;
    applyDescriptor(heard);
    if (heard.sampleRate != 0)
        report.sampleRate = heard.sampleRate;
    if (heard.channels != 0)
        report.channels = heard.channels;
    if (!heard.profile.empty())
        report.profile = heard.profile;
    report.bitrate = heard.bitrate != 0 ? std::optional<uint64_t>(heard.bitrate) : measuredRate();
}

// Spectral band replication in ADTS is found by decoding alone; the descriptor tells of it where the frames
// have half the rate (ISO/IEC 13818-1 table 2-73: 0x58 to 0x5B High Efficiency AAC, 0x60 to 0x63 its second
// version).
void AudioStream::applyDescriptor(AudioFrame& frame) const {
    constexpr uint32_t kHalfRateLimit = 24000;
    constexpr uint32_t kLowComplexity = 2;
    constexpr uint32_t kHighEfficiency = 5;
    constexpr uint32_t kHighEfficiency2 = 29;
    const unsigned group = aacProfileLevel_.value_or(0) & 0xFC;
    const bool first = group == 0x58;
    const bool second = group == 0x60;
    if ((!first && !second) || frame.profile != aacProfileName(kLowComplexity) ||
        frame.codedRate > kHalfRateLimit)
        return;
    frame.sampleRate = frame.codedRate * 2;
    frame.profile = aacProfileName(second ? kHighEfficiency2 : kHighEfficiency);
    if (second && frame.channels == 1)
        frame.channels = 2;
}

}  // namespace meter
