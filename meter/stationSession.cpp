#include "stationSession.h"

#include "fieldWalk.h"
#include "peerText.h"

namespace meterd {

void StationSession::received(std::string_view bytes) {
    try {
        unframer_.add(bytes);
        while (const auto message = unframer_.next()) {
            take(*message);
        }
    } catch (const metering::Unreadable& error) {
        throw StationLost(std::string("the station sent ") + error.what(), false);
    }
}

void StationSession::take(std::string_view message) {
    metering::forEachField(message, [this](int number, std::string_view content, std::string_view) {
        if (number == metering::FromStation::kHelloFieldNumber) {
            takeHello(content);
        } else if (number == metering::FromStation::kRefusedFieldNumber) {
            takeRefused(content);
        } else if (number == metering::FromStation::kGroupsFieldNumber && agreed_) {
            takeGroups(content);
        }
    });
}

void StationSession::takeHello(std::string_view bytes) {
    metering::Hello hello;
    metering::parse(bytes, kHeadBytes, hello);
    if (agreed_) {
        throw metering::Unreadable("twice who it is");
    }
    const std::string station = shown(hello.version());
    if (hello.major() != metering::kMajor) {
        throw StationLost("the station (" + station + ") speaks version " + std::to_string(hello.major()) +
                              " of the messages, this meter (" + version_ + ") " +
                              std::to_string(metering::kMajor) + ": install both from one release",
                          true);
    }
    agreed_ = true;
    handlers_.connected(station);
}

void StationSession::takeGroups(std::string_view bytes) {
    metering::Groups groups;
    std::string head;
    metering::forEachField(bytes, [&](int number, std::string_view content, std::string_view whole) {
        if (number != metering::Groups::kGroupFieldNumber) {
            head.append(head.size() + whole.size() <= kHeadBytes
                            ? whole
                            : throw metering::Unreadable("a list of groups that cannot be read"));
        } else if (groups.group_size() < static_cast<int>(metering::kGroupsLimit)) {
            metering::parse(content, kGroupBytes, *groups.add_group());
        }
    });
    metering::Groups rest;
    metering::parse(head, kHeadBytes, rest);
    groups.set_revision(rest.revision());
    handlers_.groups(groups);
}

void StationSession::takeRefused(std::string_view bytes) {
    metering::Refused refused;
    metering::parse(bytes, kHeadBytes, refused);
    throw StationLost("the station refuses this meter: " + shown(refused.reason()), true);
}

}  // namespace meterd
