#include "machine/machineReader.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace station {

MachineReading MachineLooker::look(const std::vector<Ipv4Address>& watched, const Now& now,
                                   const std::set<uint64_t>& others) {
    MachineReading reading;
    reading.time = now;
    try {
        const auto interfaces = sources_.interfaces();
        reading.advice = captureAdvice(interfaces);
        const std::set<int> captured = readCaptured(sources_.proc, others);
        if (const NetworkInterface* capture = findCaptureInterface(interfaces, captured)) {
            reading.capture = *capture;
            reading.captured = captured.contains(capture->index);
            findAstray(watched, interfaces, reading);
        }
        reading.softnet = readSoftnet(sources_.proc);
    } catch (const std::system_error& error) {
        reading = {};
        reading.time = now;
        reading.problem = error.what();
    }
    return reading;
}

void MachineLooker::findDoubled(const std::vector<Ipv4Address>& watched, const Memberships& memberships,
                                const std::set<std::string>& right, MachineReading& reading) {
    std::set<Ipv4Address> doubled;
    for (const auto& [name, groups] : memberships.on) {
        if (right.contains(name) || groups.empty()) {
            continue;
        }
        for (const Ipv4Address group : watched) {
            if (groups.contains(group) && std::ranges::any_of(right, [&](const std::string& card) {
                    return memberships.joined(card, group);
                })) {
                doubled.insert(group);
                reading.doubledOn.insert(name);
            }
        }
    }
    reading.doubled = doubled.size();
}

void MachineLooker::findLeft(const std::vector<Ipv4Address>& watched, const Memberships& memberships,
                             MachineReading& reading) {
    std::set<Ipv4Address> now(watched.begin(), watched.end());
    for (const Ipv4Address group : watchedBefore_) {
        if (!now.contains(group) && left_.size() < kLeftGroups) {
            left_.emplace(group, reading.time.steady);
        }
    }
    std::erase_if(left_, [&](const auto& entry) {
        return now.contains(entry.first) || memberships.where(entry.first).empty();
    });
    for (const auto& [group, since] : left_) {
        if (reading.time.steady - since >= kLeaveTakes) {
            ++reading.left;
            for (const std::string& name : memberships.where(group)) {
                reading.leftOn.insert(name);
            }
        }
    }
    watchedBefore_ = std::move(now);
}

void MachineLooker::findAstray(const std::vector<Ipv4Address>& watched,
                               const std::vector<NetworkInterface>& interfaces, MachineReading& reading) {
    const std::set<std::string> right = interfacesOn(*reading.capture, interfaces);
    const Memberships memberships = readMemberships(sources_.proc);
    reading.membershipsKnown = memberships.known;
    if (!memberships.known) {
        return;
    }
    findDoubled(watched, memberships, right, reading);
    findLeft(watched, memberships, reading);
    std::vector<Ipv4Address> astray;
    std::ranges::copy_if(watched, std::back_inserter(astray), [&](Ipv4Address group) {
        return std::ranges::none_of(right,
                                    [&](const std::string& name) { return memberships.joined(name, group); });
    });
    if (astray.empty()) {
        routedGroups_.clear();
        return;
    }
    const bool old = astray.size() <= kManyAstray || reading.time.steady - routesTime_ >= kRoutesAge;
    if (old || astray != routedGroups_) {
        routes_ = sources_.routes(astray);
        routedGroups_ = astray;
        routesTime_ = reading.time.steady;
    }
    for (std::size_t i = 0; i < astray.size(); ++i) {
        const auto route = std::ranges::find(interfaces, routes_[i].interface, &NetworkInterface::index);
        reading.astray.push_back({.group = astray[i],
                                  .joinedOn = memberships.where(astray[i]),
                                  .route = route == interfaces.end() ? std::string() : route->name,
                                  .routeError = routes_[i].error,
                                  .routeFits = route != interfaces.end() && right.contains(route->name)});
    }
    reading.membershipLimit = readMembershipLimit(sources_.proc);
}

struct MachineReader::Implementation {
    MachineLooker looker;
    std::mutex mutex;  // guards what follows; no lock is taken while it is held
    std::condition_variable_any changed;
    std::vector<Ipv4Address> watched;
    std::set<uint64_t> others;
    std::optional<MachineReading> newest;
    uint64_t requested = 0;  // readings that somebody waits for: the number of the last one
    uint64_t served = 0;     // the last number that was asked for when the last reading began
    std::jthread thread;

    explicit Implementation(MachineSources sources) : looker(std::move(sources)) {}

    void run(const std::stop_token& stop) {
        std::unique_lock lock(mutex);
        while (!stop.stop_requested()) {
            const uint64_t number = requested;
            const std::vector<Ipv4Address> groups = watched;
            const std::set<uint64_t> sockets = others;
            lock.unlock();
            MachineReading reading = looker.look(groups, systemNow(), sockets);
            lock.lock();
            newest = std::move(reading);
            served = number;
            changed.notify_all();
            changed.wait_for(lock, stop, kPause, [&] { return requested != number; });
        }
    }
};

MachineReader::MachineReader(MachineSources sources)
    : implementation_(std::make_unique<Implementation>(std::move(sources))) {
    implementation_->thread =
        std::jthread([this](const std::stop_token& stop) { implementation_->run(stop); });
}

MachineReader::~MachineReader() = default;

void MachineReader::watch(std::vector<Ipv4Address> groups) {
    const std::lock_guard lock(implementation_->mutex);
    implementation_->watched = std::move(groups);
}

void MachineReader::setOthers(std::set<uint64_t> sockets) {
    const std::lock_guard lock(implementation_->mutex);
    implementation_->others = std::move(sockets);
}

std::optional<MachineReading> MachineReader::takeNewest() {
    const std::lock_guard lock(implementation_->mutex);
    return std::exchange(implementation_->newest, std::nullopt);
}

std::optional<MachineReading> MachineReader::lookNow(std::chrono::milliseconds atMost) {
    std::unique_lock lock(implementation_->mutex);
    const uint64_t number = ++implementation_->requested;
    implementation_->changed.notify_all();
    const bool done =
        implementation_->changed.wait_for(lock, atMost, [&] { return implementation_->served >= number; });
    return done ? std::exchange(implementation_->newest, std::nullopt) : std::nullopt;
}

}  // namespace station
