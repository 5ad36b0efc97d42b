// The recording's groups as channels of the measuring library.
#pragma once

#include <memory>
#include <vector>

#include "meter/channelAnalyser.h"
#include "workload.h"

namespace bench {

class MeterChannels {
  public:
    explicit MeterChannels(const Recording& recording) : recording_(recording) {
        for (uint32_t i = 0; i < recording.groups(); ++i) {
            channels_.push_back(std::make_unique<meter::ChannelAnalyser>(meter::Settings{}));
        }
    }
    // Hands the next frame's datagram to its channel. All run at the multiplex's rate side by side.
    void feed() {
        constexpr int64_t kFrameNs =
            static_cast<int64_t>(kPacketsPerFrame * kTsPacketSize * 8 / kMultiplexBitrate * 1e9);
        const std::size_t channel = next_ % recording_.groups();
        meter::Datagram datagram;
        datagram.arrival = static_cast<int64_t>(next_ / recording_.groups()) * kFrameNs;
        datagram.source = 0x0A630002;
        datagram.sourcePort = 5000;
        datagram.destinationPort = 5000;
        datagram.payload = {recording_.frame(next_) + kHeadersSize, kPayloadSize};
        ++next_;
        channels_[channel]->feed(datagram);
    }
    const meter::ChannelAnalyser& channel(std::size_t index) const {
        return *channels_[index];
    }

  private:
    const Recording& recording_;
    std::vector<std::unique_ptr<meter::ChannelAnalyser>> channels_;
    std::size_t next_ = 0;
};

}  // namespace bench
