#include "pictures/picturePort.h"

#include <set>

#include "pictureLimits.h"
#include "pictures/pictureReader.h"

namespace station {

namespace {

constexpr PeerPort::Words kWords = {.thread = "pictures",
                                    .name = "kestor-picture",
                                    .kind = "kestor-picture",
                                    .second = "a second kestor-picture",
                                    .without = "Without pictures set socket = \"\" in [pictures]"};

std::string helloOf(const std::string& version) {
    picturing::FromStation message;
    picturing::Hello& hello = *message.mutable_hello();
    hello.set_major(picturing::kMajor);
    hello.set_minor(picturing::kMinor);
    hello.set_version(version);
    return metering::framed(message);
}

std::string refusal() {
    picturing::FromStation message;
    message.mutable_refused()->set_reason("another kestor-picture is connected already: stop one of them");
    return metering::framed(message);
}

}  // namespace

PicturePort::PicturePort(const std::filesystem::path& path, const std::string& version, PictureBook& book)
    : book_(book) {
    metering::quietParser();
    book.setConfigured(!path.empty());
    port_.emplace(
        path, kWords, helloOf(version), refusal(),
        PeerPort::Handlers{.connect = [&book] { return std::make_unique<PictureReader>(book); },
                           .disconnected = [&book](const Now& now) { book.disconnected(now); },
                           .problem = [&book](const std::string& problem) { book.setProblem(problem); },
                           .version = [&book](SteadyTime now) { return book.state(now).version; }});
}

void PicturePort::tell(std::vector<PicturedChannel> channels, double cores) {
    if (channels.size() > picturing::kChannelsLimit) {
        channels.resize(picturing::kChannelsLimit);
    }
    auto wanted = std::pair(std::move(channels), cores);
    if (told_ == wanted) {
        return;
    }
    picturing::FromStation message;
    picturing::Channels& all = *message.mutable_channels();
    all.set_cores(cores);
    std::set<uint32_t> watched;
    for (const PicturedChannel& channel : wanted.first) {
        picturing::Channel& one = *all.add_channel();
        one.set_group(channel.group);
        one.set_urgent(channel.urgent);
        one.set_looked_at(channel.lookedAt);
        one.set_audio(true);
        watched.insert(channel.group);
    }
    told_ = std::move(wanted);
    // First: shots of what is new may come at once.
    book_.watch(std::move(watched));
    all.set_revision(++revision_);
    port_->tell(metering::framed(message));
}

}  // namespace station
