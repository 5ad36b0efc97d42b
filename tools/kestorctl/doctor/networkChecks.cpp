// The interface, and how groups come to it.
#include <algorithm>

#include "checks.h"
#include "machine/captureAdvice.h"

namespace doctor {

namespace {

using station::GroupRoute;
using station::Ipv4Address;
using station::NetworkInterface;

constexpr std::size_t kNamed = 3;  // groups that are named where there may be a thousand

std::string some(const std::vector<Ipv4Address>& groups) {
    std::string text;
    for (std::size_t i = 0; i < std::min(groups.size(), kNamed); ++i) {
        text += (i == 0 ? "" : ", ") + station::addressText(groups[i]);
    }
    return text + (groups.size() > kNamed ? ", ..." : "");
}

std::string count(std::size_t part, std::size_t all) {
    return std::to_string(part) + " of " + std::to_string(all) + (all == 1 ? " group" : " groups");
}

std::string speed(const NetworkInterface& interface) {
    return interface.bitsPerSecond ? ", " + std::to_string(*interface.bitsPerSecond / 1'000'000) + " Mbit/s"
                                   : "";
}

std::string nameOf(std::span<const NetworkInterface> interfaces, int index) {
    const auto found = std::ranges::find(interfaces, index, &NetworkInterface::index);
    return found == interfaces.end() ? "interface " + std::to_string(index) : found->name;
}

struct Elsewhere {
    std::size_t count = 0;
    std::string where{};
};
// Of the groups those that are joined on other interfaces than the right ones.
Elsewhere joinedElsewhere(const std::set<std::string>& right, const station::Memberships& memberships,
                          const std::vector<Ipv4Address>& groups) {
    Elsewhere found;
    std::set<std::string> names;
    for (const Ipv4Address group : groups) {
        bool elsewhere = false;
        for (const std::string& name : memberships.where(group)) {
            if (!right.contains(name)) {
                elsewhere = true;
                names.insert(name);
            }
        }
        found.count += elsewhere ? 1 : 0;
    }
    for (const std::string& name : names) {
        found.where += (found.where.empty() ? "" : ", ") + name;
    }
    return found;
}

std::string routeAdvice(const std::string& interface) {
    return "ip route replace 224.0.0.0/4 dev " + interface +
           ", and for good in the network's configuration (\"Two cards\" in "
           "/usr/share/doc/kestor/docs/operations.md); the station "
           "then "
           "has the groups joined again";
}

}  // namespace

Findings checkInterface(std::span<const NetworkInterface> interfaces, const Captures& captures,
                        const Processes& processes, const StationLook& station) {
    const station::CaptureAdvice none = captureAdvice(interfaces);
    if (!none.problem.empty()) {
        return {failure("interface", none.problem, none.advice)};
    }
    const NetworkInterface& capture = *findCaptureInterface(interfaces, captures.on);
    const bool any = captures.on.contains(capture.index);
    // Whether one of those who capture there is the probe; the station knows the meter's sockets.
    const std::optional<bool> probe = any && captures.others ? station.captured : any;
    Findings findings;
    if (!capture.carrier) {
        findings.push_back(failure("interface", capture.name + " has no link: nothing arrives",
                                   "look at the cable and at the switch's port"));
    } else if (processes.run("kestor") && probe == false) {
        findings.push_back(failure("interface",
                                   "kestor runs, but does not capture on " + capture.name +
                                       ": the interface was missing or down when the probe looked for one",
                                   "systemctl restart kestor"));
    } else {
        findings.push_back(
            ok("interface", capture.name + " is up and has a link" + speed(capture) +
                                (!processes.run("kestor") ? ""
                                 : probe                  ? ", the probe captures there"
                                         : "; whether the probe captures there is for root to see")));
    }
    if (!capture.multicast) {
        findings.push_back(warning("interface", capture.name + " takes no multicast",
                                   "ip link set " + capture.name + " multicast on"));
    }
    const auto alike = [](const NetworkInterface& one) {
        return one.name.find(station::kCaptureName) != std::string::npos;
    };
    if (std::ranges::count_if(interfaces, alike) > 1) {
        findings.push_back(warning("interface",
                                   "several names contain eth0 (" + station::namesOf(interfaces, alike) +
                                       "); the probe takes " + capture.name +
                                       ", and at its next start perhaps another one",
                                   "name the others differently, containers' interfaces for instance"));
    }
    return findings;
}

Finding checkRoutes(std::span<const NetworkInterface> interfaces, const NetworkInterface* capture,
                    std::span<const Ipv4Address> groups, std::span<const GroupRoute> routes,
                    const StationLook& station) {
    if (capture == nullptr) {
        return unseen("route", "without an interface for the probe there is none to judge");
    }
    if (station.answers() && station.passive) {
        return ok("route", "joins are passive: no route is needed");
    }
    std::vector<Ipv4Address> without;
    std::vector<Ipv4Address> elsewhere;
    std::set<std::string> where;
    const std::set<std::string> right = station::interfacesOn(*capture, interfaces);
    for (std::size_t i = 0; i < std::min(groups.size(), routes.size()); ++i) {
        if (routes[i].interface == 0) {
            without.push_back(groups[i]);
        } else if (const std::string name = nameOf(interfaces, routes[i].interface); !right.contains(name)) {
            elsewhere.push_back(groups[i]);
            where.insert(name);
        }
    }
    if (!without.empty()) {
        return failure("route",
                       count(without.size(), groups.size()) + " cannot be joined, there is no route (" +
                           some(without) + ")",
                       routeAdvice(capture->name));
    }
    if (!elsewhere.empty()) {
        std::string names;
        for (const std::string& name : where) {
            names += (names.empty() ? "" : ", ") + name;
        }
        return failure("route",
                       count(elsewhere.size(), groups.size()) + " would be joined on " + names + ", not on " +
                           capture->name + " (" + some(elsewhere) + ")",
                       routeAdvice(capture->name));
    }
    return ok("route", "multicast is joined on " + capture->name);
}

Finding checkMemberships(std::span<const NetworkInterface> interfaces, const NetworkInterface* capture,
                         const station::Memberships& memberships, const StationLook& station) {
    if (capture == nullptr || !memberships.known) {
        return unseen("memberships", capture == nullptr ? "there is no interface to be a member on"
                                                        : "/proc/net/igmp cannot be read");
    }
    if (station.answers() && station.passive) {
        return ok("memberships", "joins are passive: groups are let in without being asked for");
    }
    const auto on = memberships.on.find(capture->name);
    const std::size_t joined = on == memberships.on.end() ? 0 : on->second.size();
    if (!station.answers()) {
        return unseen("memberships", std::to_string(joined) + (joined == 1 ? " group is" : " groups are") +
                                         " joined on " + capture->name +
                                         "; which ones should be, the station did not tell");
    }
    const std::set<std::string> right = station::interfacesOn(*capture, interfaces);
    std::vector<Ipv4Address> missing;
    std::set<std::string> where;
    for (const Ipv4Address group : station.groups) {
        if (std::ranges::none_of(right,
                                 [&](const std::string& name) { return memberships.joined(name, group); })) {
            missing.push_back(group);
            for (const std::string& name : memberships.where(group)) {
                where.insert(name);
            }
        }
    }
    if (missing.empty()) {
        const auto twice = joinedElsewhere(right, memberships, station.groups);
        if (twice.count == 0) {
            return ok("memberships", "every watched group (" + std::to_string(station.groups.size()) +
                                         ") is joined on " + capture->name);
        }
        return warning(
            "memberships",
            count(twice.count, station.groups.size()) + (twice.count == 1 ? " is" : " are") + " joined on " +
                twice.where + " as well as on " + capture->name + ": the network sends them there too",
            "systemctl restart kestor, at a time that suits; if that does not help, another program "
            "joins them there");
    }
    std::string names;
    for (const std::string& name : where) {
        names += (names.empty() ? ", but on " : ", ") + name;
    }
    return failure("memberships",
                   count(missing.size(), station.groups.size()) + (missing.size() == 1 ? " is" : " are") +
                       " not joined on " + capture->name + names + " (" + some(missing) + ")",
                   "see services, route and limits; the station has them joined again within seconds, else "
                   "systemctl restart kestor");
}

}  // namespace doctor
