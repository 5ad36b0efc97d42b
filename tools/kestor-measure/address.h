// IPv4 addresses as people write them.
#pragma once

#include <arpa/inet.h>

#include <cstdint>
#include <optional>
#include <string>

// `address` in host byte order.
inline std::string dotted(uint32_t address) {
    const in_addr network{htonl(address)};
    char text[INET_ADDRSTRLEN] = "";
    return inet_ntop(AF_INET, &network, text, sizeof text);
}

// A multicast group in host byte order.
inline std::optional<uint32_t> readGroup(const std::string& text) {
    in_addr network{};
    if (inet_pton(AF_INET, text.c_str(), &network) != 1 || !IN_MULTICAST(ntohl(network.s_addr))) {
        return std::nullopt;
    }
    return ntohl(network.s_addr);
}
