#include "links.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "basics/unixListener.h"

namespace pictured {

namespace {

constexpr std::chrono::seconds kListensAgain{1};
constexpr int kReadsAtOnce = 16;
constexpr const char* kOneAlready = "another meter is connected already: stop one of them";

std::pair<uint64_t, uint64_t> fileAt(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 ? std::pair<uint64_t, uint64_t>(status.st_dev, status.st_ino)
                                             : std::pair<uint64_t, uint64_t>();
}

bool readable(const pollfd& poll) {
    return (poll.revents & (POLLIN | POLLHUP | POLLERR)) != 0;
}

std::string seconds(std::chrono::seconds time) {
    return std::to_string(time.count()) + " s";
}

}  // namespace

MeterLink::MeterLink(std::string path, std::string version, Handlers handlers)
    : path_(std::move(path)), version_(std::move(version)), handlers_(std::move(handlers)) {}

MeterLink::~MeterLink() {
    if (listener_.isOpen() && fileAt(path_) == file_) {
        unlink(path_.c_str());
    }
}

void MeterLink::keepListening(Time now) {
    if (now < nextListen_) {
        return;
    }
    nextListen_ = now + kListensAgain;
    if (listener_.isOpen() && fileAt(path_) == file_) {
        return;
    }
    listener_ = basics::Descriptor();
    try {
        listener_ = basics::Descriptor(basics::listenUnix(path_));
        file_ = fileAt(path_);
        problem_.clear();
    } catch (const std::runtime_error& error) {
        problem_ = error.what();
        log_.say(problem_ + "; tried again every second");
    }
}

std::string MeterLink::problem() const {
    return connected()         ? std::string()
           : !problem_.empty() ? problem_
           : !refused_.empty() ? refused_
                               : "no meter is connected: is kestor-meter running?";
}

bool MeterLink::ask(uint32_t group, uint64_t id, bool audio) {
    picturing::ToMeter message;
    picturing::Wanted& wanted = *message.mutable_wanted();
    wanted.set_group(group);
    wanted.set_id(id);
    wanted.set_audio(audio);
    if (!connected() || !meter_->connection.queue(metering::framed(message))) {
        return false;
    }
    meter_->connection.send();
    return true;
}

void MeterLink::addPolls(std::vector<pollfd>& polls, bool reads) const {
    polls.push_back({listener_.number(), POLLIN, 0});
    const bool writes = meter_ && meter_->connection.sends();
    polls.push_back({meter_ ? meter_->connection.number() : -1,
                     static_cast<short>((reads ? POLLIN : 0) | (writes ? POLLOUT : 0)), 0});
}

void MeterLink::serve(std::span<const pollfd> polls, Time now, bool owes) {
    if (meter_ && readable(polls[1])) {
        read(now);
    }
    if (meter_ && !meter_->session.agreed() && now - meter_->since > kHelloTime) {
        end("something connected to " + path_ + " and did not say who it is: not a meter?");
    }
    if (meter_ && meter_->connection.sends()) {
        meter_->connection.send();
    }
    if (readable(polls[0])) {
        accept(now, owes);
    }
    keepListening(now);
}

void MeterLink::accept(Time now, bool owes) {
    basics::Descriptor socket(accept4(listener_.number(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!socket.isOpen()) {
        return;
    }
    if (meter_ && owes && now - meter_->lastRead > kHung) {
        end("the meter owed answers for " + seconds(kHung) + ", and another one takes its place");
    }
    if (meter_) {
        picturing::ToMeter message;
        message.mutable_refused()->set_reason(kOneAlready);
        Connection second(std::move(socket), kWaitingBytes);
        second.queue(metering::framed(message));
        second.send();
        log_.say("a second meter was refused at " + path_ +
                 " (or another kestor-picture looked whether it can listen there)");
        return;
    }
    meter_.emplace(Meter{
        Connection(std::move(socket), kWaitingBytes),
        MeterSession([this](picturing::Coded&& coded) { handlers_.coded(std::move(coded)); }), now, now});
    meter_->connection.queue(helloOf<picturing::ToMeter>(version_));
    meter_->connection.send();
}

void MeterLink::read(Time now) {
    const bool before = meter_->session.agreed();
    std::string_view bytes;
    for (int i = 0; i < kReadsAtOnce; ++i) {
        const Connection::Reading reading = meter_->connection.receive(bytes);
        if (reading == Connection::Reading::kNothing) {
            break;
        }
        if (reading == Connection::Reading::kEnd) {
            return end(meter_->session.agreed() ? "the meter went away" : "");
        }
        meter_->lastRead = now;
        try {
            meter_->session.received(bytes);
        } catch (const PeerLost& lost) {
            refused_ = lost.refused ? lost.what() : "";
            return end(lost.what());
        }
    }
    if (!before && meter_->session.agreed()) {
        refused_.clear();
        log_.say("the meter " + meter_->session.version() + " is connected");
    }
}

void MeterLink::end(const std::string& why) {
    meter_.reset();
    if (!why.empty()) {
        log_.say(why);
    }
    handlers_.lost();
}

StationLink::StationLink(std::string path, std::string version, Handlers handlers)
    : path_(std::move(path)), version_(std::move(version)), handlers_(std::move(handlers)) {}

void StationLink::connect(Time now) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path_.size() >= sizeof address.sun_path) {
        return end(now, path_ + ": too long for a socket's path", true);
    }
    std::memcpy(address.sun_path, path_.data(), path_.size());
    basics::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!socket.isOpen() ||
        ::connect(socket.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        return end(now,
                   "no station at " + path_ + ": " + std::strerror(errno) + "; trying again each second");
    }
    station_.emplace(
        Station{Connection(std::move(socket), kWaitingBytes),
                StationSession([this](ChannelList&& list) { handlers_.channels(std::move(list)); }), now});
    station_->connection.queue(helloOf<picturing::ToStation>(version_));
    station_->connection.send();
}

bool StationLink::tell(const picturing::ToStation& message) {
    if (!connected() || !station_->connection.queue(metering::framed(message))) {
        return false;
    }
    station_->connection.send();
    return true;
}

void StationLink::addPolls(std::vector<pollfd>& polls) const {
    const bool writes = station_ && station_->connection.sends();
    polls.push_back({station_ ? station_->connection.number() : -1,
                     static_cast<short>(POLLIN | (writes ? POLLOUT : 0)), 0});
}

void StationLink::serve(std::span<const pollfd> polls, Time now) {
    if (!station_) {
        if (now >= nextConnect_) {
            connect(now);
        }
        return;
    }
    if (readable(polls[0])) {
        read(now);
    }
    if (station_ && station_->connection.sends()) {
        station_->connection.send();
    }
    if (station_ && !station_->session.agreed() && now - station_->since > kHelloTime) {
        end(now, "what listens at " + path_ + " did not say who it is within " + seconds(kHelloTime) +
                     ": no station, or one that hangs; trying again");
    }
}

void StationLink::read(Time now) {
    std::string_view bytes;
    for (int i = 0; i < kReadsAtOnce; ++i) {
        const Connection::Reading reading = station_->connection.receive(bytes);
        if (reading == Connection::Reading::kNothing) {
            break;
        }
        if (reading == Connection::Reading::kEnd) {
            return end(now, "the station went away");
        }
        try {
            station_->session.received(bytes);
        } catch (const PeerLost& lost) {
            return end(now, lost.what(), lost.refused);
        }
    }
    if (station_->session.agreed() && !station_->told) {
        station_->told = true;
        log_.say("connected to the station " + station_->session.version());
    }
}

void StationLink::end(Time now, const std::string& why, bool refused) {
    const bool was = station_.has_value();
    station_.reset();
    nextConnect_ = now + (refused ? kRefusedTime : kAgain);
    log_.say(why);
    if (was) {
        handlers_.lost();
    }
}

}  // namespace pictured
