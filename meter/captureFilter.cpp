#include "captureFilter.h"

#include <net/ethernet.h>
#include <netinet/in.h>

namespace meterd {

namespace {

constexpr uint32_t kTypeAt = 12;
constexpr uint32_t kTagBytes = 4;
constexpr uint32_t kHeaderBytes = 14;
constexpr uint32_t kProtocolAt = 9;  // in the IPv4 header
constexpr uint32_t kDestinationAt = 16;
constexpr uint32_t kWhole = 0x40000;
constexpr uint32_t kStackedVlan = 0x88A8;     // IEEE 802.1ad
constexpr uint32_t kOldStackedVlan = 0x9100;  // what came before it, and is still in use

sock_filter statement(uint16_t code, uint32_t k) {
    return {code, 0, 0, k};
}
sock_filter jump(uint16_t code, uint32_t k, uint8_t yes, uint8_t no) {
    return {code, yes, no, k};
}

}  // namespace

std::vector<sock_filter> multicastFilter(Share share) {
    std::vector<sock_filter> program;
    // For no, one and two tags: is it IPv4 here? Then X is where its header begins. Else a tag has to be
    // there. Each step has 8 instructions, the tail comes behind the three.
    constexpr uint8_t kStep = 8;
    constexpr unsigned kSteps = 3;
    for (unsigned tags = 0; tags < kSteps; ++tags) {
        const auto remaining = static_cast<uint8_t>((kSteps - tags - 1) * kStep);
        const uint32_t type = kTypeAt + tags * kTagBytes;
        program.push_back(statement(BPF_LD | BPF_H | BPF_ABS, type));
        program.push_back(jump(BPF_JMP | BPF_JEQ | BPF_K, ETHERTYPE_IP, 0, 2));
        program.push_back(statement(BPF_LDX | BPF_W | BPF_IMM, kHeaderBytes + tags * kTagBytes));
        program.push_back(statement(BPF_JMP | BPF_JA, remaining + 4U));
        const bool last = tags + 1 == kSteps;
        program.push_back(jump(BPF_JMP | BPF_JEQ | BPF_K, ETHERTYPE_VLAN, last ? 2 : 3, 0));
        program.push_back(jump(BPF_JMP | BPF_JEQ | BPF_K, kStackedVlan, last ? 1 : 2, 0));
        program.push_back(jump(BPF_JMP | BPF_JEQ | BPF_K, kOldStackedVlan, last ? 0 : 1, 0));
        program.push_back(statement(BPF_RET | BPF_K, 0));
    }
    program.push_back(statement(BPF_LD | BPF_B | BPF_IND, kProtocolAt));
    program.push_back(jump(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_UDP, 0, 7));
    program.push_back(statement(BPF_LD | BPF_B | BPF_IND, kDestinationAt));
    program.push_back(statement(BPF_ALU | BPF_AND | BPF_K, 0xF0));
    program.push_back(jump(BPF_JMP | BPF_JEQ | BPF_K, 0xE0, 0, 4));
    program.push_back(statement(BPF_LD | BPF_B | BPF_IND, kDestinationAt + 3));
    program.push_back(statement(BPF_ALU | BPF_MOD | BPF_K, share.of));
    program.push_back(jump(BPF_JMP | BPF_JEQ | BPF_K, share.index, 0, 1));
    program.push_back(statement(BPF_RET | BPF_K, kWhole));
    program.push_back(statement(BPF_RET | BPF_K, 0));
    return program;
}

}  // namespace meterd
