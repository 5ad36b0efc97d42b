// The recording as channels of the measuring library.
#pragma once

#include <algorithm>
#include <cstring>
#include <vector>

#include "meter/channelAnalyser.h"
#include "workload.h"

namespace bench {

// Each channel plays the whole recording, from a place of its own; all run at the multiplex's rate side by
// side. Datagrams are laid one behind the other before they are handed out, as a capture has them.
class MeterChannels {
  public:
    static constexpr std::size_t kBlock = 1000;  // datagrams laid out together

    // `recording`: of one group.
    MeterChannels(const Recording& recording, uint32_t count)
        : recording_(recording), block_(kBlock * kPayloadSize) {
        for (uint32_t i = 0; i < count; ++i) {
            channels_.emplace_back(meter::Settings{});
        }
    }
    // The next datagrams, in turn to each channel.
    void layOut() {
        for (std::size_t i = 0; i < kBlock; ++i) {
            const std::size_t channel = (next_ + i) % channels_.size();
            const std::size_t begin = channel * (recording_.frames() / channels_.size());
            const std::size_t round = (next_ + i) / channels_.size();
            std::memcpy(block_.data() + i * kPayloadSize, recording_.frame(begin + round) + kHeadersSize,
                        kPayloadSize);
        }
    }
    void feed() {
        for (std::size_t i = 0; i < kBlock; ++i, ++next_) {
            feed(next_ % channels_.size(), next_ / channels_.size(),
                 {block_.data() + i * kPayloadSize, kPayloadSize});
        }
    }
    // A single channel's next datagram, as the recording has it.
    void feedOne() {
        feed(0, next_, {recording_.frame(next_) + kHeadersSize, kPayloadSize});
        ++next_;
    }
    // Until medians, rates and the tables that came are those of the latest 10 s.
    void warmUp() {
        const std::size_t rounds = std::min(kWarmUpRounds, recording_.frames());
        while (next_ < rounds * channels_.size()) {
            layOut();
            feed();
        }
    }
    const meter::ChannelAnalyser& channel(std::size_t index) const {
        return channels_[index];
    }

  private:
    static constexpr double kFrameSeconds = kPacketsPerFrame * kTsPacketSize * 8 / kMultiplexBitrate;
    static constexpr auto kWarmUpRounds = static_cast<std::size_t>(12 / kFrameSeconds);

    void feed(std::size_t channel, std::size_t round, std::span<const uint8_t> payload) {
        meter::Datagram datagram;
        datagram.arrival = static_cast<int64_t>(round) * static_cast<int64_t>(kFrameSeconds * 1e9);
        datagram.source = 0x0A630002;
        datagram.sourcePort = 5000;
        datagram.destinationPort = 5000;
        datagram.payload = payload;
        channels_[channel].feed(datagram);
    }

    const Recording& recording_;
    std::vector<uint8_t> block_;
    std::vector<meter::ChannelAnalyser> channels_;
    std::size_t next_ = 0;
};

}  // namespace bench
