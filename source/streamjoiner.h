// Makes the network deliver a multicast group to the probe's interface.
#pragma once

#include <netinet/in.h>

#include <array>
#include <cstdint>

// Groups are in network byte order. join and leave share a member: callers serialise them.
class StreamJoiner {
  public:
    // Opens the socket that all memberships hang on, bound to port 5500; failures are fatal.
    StreamJoiner();
    ~StreamJoiner();
    StreamJoiner(const StreamJoiner&) = delete;
    StreamJoiner& operator=(const StreamJoiner&) = delete;

    // IGMP membership on the interface that the routes choose. A failed join (the kernel's limit on
    // memberships per socket, or a group joined before) says so on standard error and returns the number of
    // bytes written; a failed leave returns -1 silently.
    int join(unsigned int group);
    int leave(unsigned int group);

    // Entry in the receive filter of eth0, without membership reports; it outlives the process. Returns 0, or
    // -1 on failure.
    int join_passive(unsigned int group);
    int leave_passive(unsigned int group);

  private:
    int setMembership(int option, unsigned int group);

    int m_socket;
    sockaddr_in m_localAddress;
    ip_mreq m_membership;
};

using MacAddress = std::array<uint8_t, 6>;

// The Ethernet address that an IPv4 group maps to (RFC 1112, 6.4).
void makeMulticastMac(uint32_t group, MacAddress& mac);
