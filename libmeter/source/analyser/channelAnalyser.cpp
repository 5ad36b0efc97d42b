#include "meter/channelAnalyser.h"

#include "analyser/channel.h"

namespace meter {

ChannelAnalyser::ChannelAnalyser(const Settings& settings) : channel_(std::make_unique<Channel>(settings)) {}
ChannelAnalyser::~ChannelAnalyser() = default;
ChannelAnalyser::ChannelAnalyser(ChannelAnalyser&&) noexcept = default;
ChannelAnalyser& ChannelAnalyser::operator=(ChannelAnalyser&&) noexcept = default;

void ChannelAnalyser::feed(const Datagram& datagram) {
    channel_->feed(datagram);
}
void ChannelAnalyser::feedPackets(std::span<const uint8_t> packets) {
    channel_->feedPackets(packets);
}
void ChannelAnalyser::tick(int64_t now) {
    channel_->tick(now);
}
void ChannelAnalyser::finish() {
    channel_->finish();
}
Report ChannelAnalyser::report() const {
    return channel_->report();
}
std::vector<Event> ChannelAnalyser::takeEvents() {
    return channel_->takeEvents();
}
void ChannelAnalyser::beginExcerpt(bool audio) {
    channel_->beginExcerpt(audio);
}
bool ChannelAnalyser::excerptIsEnded() const {
    return channel_->excerptIsEnded();
}
std::size_t ChannelAnalyser::excerptBytes() const {
    return channel_->excerptBytes();
}
std::optional<Excerpt> ChannelAnalyser::takeExcerpt() {
    return channel_->takeExcerpt();
}

}  // namespace meter
