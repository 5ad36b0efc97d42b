#include "meter/meterPort.h"

#include <algorithm>
#include <utility>

#include "meter/meterSession.h"

namespace station {

namespace {

constexpr PeerPort::Words kWords = {.thread = "meter",
                                    .name = "the meter",
                                    .kind = "a meter",
                                    .second = "a second meter",
                                    .without = "Without a meter set meter_socket = \"\""};

std::string helloOf(const std::string& version) {
    metering::FromStation message;
    metering::Hello& hello = *message.mutable_hello();
    hello.set_major(metering::kMajor);
    hello.set_minor(metering::kMinor);
    hello.set_version(version);
    return metering::framed(message);
}

std::string refusal() {
    metering::FromStation message;
    message.mutable_refused()->set_reason("another meter is connected already: stop one of them");
    return metering::framed(message);
}

}  // namespace

MeterPort::MeterPort(const std::filesystem::path& path, const std::string& version, MeterBook& book)
    : book_(book) {
    metering::quietParser();
    book.setConfigured(!path.empty());
    port_.emplace(
        path, kWords, helloOf(version), refusal(),
        PeerPort::Handlers{.connect = [&book] { return std::make_unique<MeterSession>(book); },
                           .disconnected = [&book](const Now& now) { book.disconnected(now); },
                           .problem = [&book](const std::string& problem) { book.setProblem(problem); },
                           .version = [&book](SteadyTime now) { return book.state(now).version; }});
}

std::size_t chooseMetered(std::vector<MeteredChannel>& channels) {
    if (channels.size() <= metering::kGroupsLimit) {
        return 0;
    }
    const std::size_t leftOut = channels.size() - metering::kGroupsLimit;
    // Not of std::ranges: Clang 14 does not take the subrange that it returns.
    std::stable_partition(channels.begin(), channels.end(),
                          [](const MeteredChannel& channel) { return channel.join; });
    channels.resize(metering::kGroupsLimit);
    return leftOut;
}

std::set<uint32_t> MeterPort::watch(std::vector<MeteredChannel> channels) {
    const std::size_t leftOut = chooseMetered(channels);
    std::set<uint32_t> joins;
    for (const MeteredChannel& channel : channels) {
        if (channel.join) {
            joins.insert(channel.group);
        }
    }
    if (watched_ && channels == *watched_) {
        return joins;
    }
    metering::FromStation message;
    metering::Groups& groups = *message.mutable_groups();
    std::set<uint32_t> watched;
    for (const MeteredChannel& channel : channels) {
        metering::Group& group = *groups.add_group();
        group.set_group(channel.group);
        group.set_join(channel.join);
        if (channel.source) {
            group.set_source(*channel.source);
        }
        if (channel.port) {
            group.set_port(*channel.port);
        }
        group.set_pid_absence_ms(channel.rules.pidAbsenceMs);
        group.set_pcr_repetition_ms(channel.rules.pcrRepetitionMs);
        group.set_service_information_required(channel.rules.serviceInformation ==
                                               ServiceInformation::kRequired);
        watched.insert(channel.group);
    }
    watched_ = std::move(channels);
    // First: reports of what is new may come at once.
    book_.watch(std::move(watched), leftOut, joins.size());
    groups.set_revision(++revision_);
    port_->tell(metering::framed(message));
    return joins;
}

}  // namespace station
