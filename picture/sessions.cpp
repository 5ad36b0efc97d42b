#include "sessions.h"

#include <algorithm>
#include <cmath>
#include <iterator>

#include "fieldWalk.h"

namespace pictured {

namespace {

constexpr std::size_t kHeadBytes = std::size_t{64} * 1024;  // all but pictures, sound and channels
constexpr std::size_t kChannelBytes = 1024;
constexpr std::size_t kListBytes = picturing::kChannelsLimit * 64;
constexpr std::size_t kShownBytes = 200;

// For the log, which takes no control characters.
std::string shown(std::string text) {
    std::erase_if(text, [](char byte) { return byte < ' ' || byte > '~'; });
    text.resize(std::min(text.size(), kShownBytes));
    return text;
}

// Numbers of members that all messages have alike.
constexpr int kHello = picturing::FromMeter::kHelloFieldNumber;
static_assert(kHello == int{picturing::FromStation::kHelloFieldNumber});
constexpr int kRefused = picturing::FromStation::kRefusedFieldNumber;  // FromMeter has none of this number

}  // namespace

void Session::received(std::string_view bytes) {
    try {
        unframer_.add(bytes);
        while (const auto message = unframer_.next()) {
            if (message->size() > messageBytes_) {
                throw metering::Unreadable("a message of " + std::to_string(message->size()) + " bytes");
            }
            metering::forEachField(*message, [this](int number, std::string_view content, std::string_view) {
                if (number == kHello) {
                    takeHello(content);
                } else if (number == kRefused) {
                    takeRefused(content);
                } else if (agreed_) {
                    take(number, content);
                }
            });
        }
    } catch (const metering::Unreadable& error) {
        throw PeerLost(name_ + " sent " + error.what(), false);
    }
}

void Session::takeHello(std::string_view content) {
    picturing::Hello hello;
    metering::parse(content, kHeadBytes, hello);
    if (agreed_) {
        throw metering::Unreadable("twice who it is");
    }
    version_ = shown(hello.version());
    if (hello.major() != picturing::kMajor) {
        throw PeerLost(name_ + " (" + version_ + ") speaks version " + std::to_string(hello.major()) +
                           " of the messages, kestor-picture " + std::to_string(picturing::kMajor) +
                           ": install both from one release",
                       true);
    }
    agreed_ = true;
}

void Session::takeRefused(std::string_view content) {
    picturing::Refused refused;
    metering::parse(content, kHeadBytes, refused);
    throw PeerLost(name_ + " refuses: " + shown(refused.reason()), true);
}

MeterSession::MeterSession(std::function<void(picturing::Coded&&)> coded)
    : Session("the meter", picturing::kVideoBytes + picturing::kAudioBytes + kHeadBytes),
      coded_(std::move(coded)) {}

void MeterSession::take(int number, std::string_view content) {
    if (number != picturing::FromMeter::kCodedFieldNumber) {
        return;
    }
    picturing::Coded coded;
    metering::parse(content, content.size(), coded);
    if (coded.video().data().size() > picturing::kVideoBytes ||
        coded.audio().data().size() > picturing::kAudioBytes) {
        throw metering::Unreadable("a picture beyond its limit");
    }
    const bool taken = coded.outcome() == picturing::OUTCOME_TAKEN;
    if (taken && coded.video().data().empty()) {
        coded.set_outcome(picturing::OUTCOME_NO_RANDOM_ACCESS);
    } else if (!taken) {
        coded.clear_video();
    }
    if (!picturing::Outcome_IsValid(coded.outcome())) {
        coded.set_outcome(picturing::OUTCOME_UNKNOWN);
    }
    coded_(std::move(coded));
}

StationSession::StationSession(std::function<void(ChannelList&&)> channels)
    : Session("the station", kListBytes), channels_(std::move(channels)) {}

void StationSession::take(int number, std::string_view content) {
    if (number != picturing::FromStation::kChannelsFieldNumber) {
        return;
    }
    ChannelList list;
    std::string head;
    metering::forEachField(content, [&](int member, std::string_view bytes, std::string_view whole) {
        if (member != picturing::Channels::kChannelFieldNumber) {
            head.append(head.size() + whole.size() <= kHeadBytes
                            ? whole
                            : throw metering::Unreadable("a list of channels that cannot be read"));
        } else if (list.channels.size() < picturing::kChannelsLimit) {
            picturing::Channel channel;
            metering::parse(bytes, kChannelBytes, channel);
            list.channels.push_back(
                {channel.group(), channel.urgent(), channel.looked_at(), channel.audio()});
        }
    });
    picturing::Channels rest;
    metering::parse(head, kHeadBytes, rest);
    list.revision = rest.revision();
    list.cores = std::isfinite(rest.cores()) ? std::clamp(rest.cores(), 0.0, kCoresLimit) : 0;
    channels_(std::move(list));
}

}  // namespace pictured
