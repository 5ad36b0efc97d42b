#include "workload.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace bench {

namespace {

constexpr uint64_t kStartUs = 1'700'000'000'000'000;
constexpr uint64_t kTicksPerUs = 54;
constexpr double kFrameUs = kPacketsPerFrame * kTsPacketSize * 8 / kMultiplexBitrate * 1e6;

}  // namespace

uint32_t groupAddress(uint32_t index) {
    return htonl(0xEF140000U + index + 1);
}

void writeHeaders(uint8_t* frame, uint32_t group) {
    constexpr uint8_t kTemplate[kHeadersSize] = {
        0x01, 0x00, 0x5E, 0,    0,    0,    2,    0,    0,    0,    0, 1, 8,  0,         // Ethernet
        0x45, 0,    0x05, 0x40, 0,    0,    0x40, 0,    8,    17,   0, 0, 10, 99, 0, 2,  // IPv4, 1344 bytes
        0,    0,    0,    0,    0x13, 0x88, 0x13, 0x88, 0x05, 0x2C, 0, 0};               // UDP, 1324 bytes
    memcpy(frame, kTemplate, sizeof kTemplate);
    memcpy(frame + 30, &group, sizeof group);
    memcpy(frame + 3, reinterpret_cast<const uint8_t*>(&group) + 1, 3);
    frame[3] &= 0x7F;
    uint32_t sum = 0;
    for (std::size_t i = 14; i < 34; i += 2) {
        sum += static_cast<uint32_t>(frame[i] << 8 | frame[i + 1]);
    }
    sum = (sum & 0xFFFF) + (sum >> 16);
    sum = ~((sum & 0xFFFF) + (sum >> 16));
    frame[24] = static_cast<uint8_t>(sum >> 8);
    frame[25] = static_cast<uint8_t>(sum);
}

namespace {

std::vector<uint8_t> readTransportStream() {
    const char* path = getenv("KESTOR_BENCH_TS");
    std::ifstream file(path != nullptr ? path : "", std::ios::binary | std::ios::ate);
    if (!file) {
        fprintf(stderr, "KESTOR_BENCH_TS must name a transport stream; bench/run.sh makes one\n");
        exit(1);
    }
    std::vector<uint8_t> bytes(static_cast<std::size_t>(file.tellg()));
    file.seekg(0);
    file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return bytes;
}

}  // namespace

Recording::Recording(uint32_t groups) : groups_(groups) {
    const std::vector<uint8_t> packets = readTransportStream();
    const std::size_t rounds = packets.size() / kPayloadSize / groups;
    bytes_.resize(rounds * groups * kFrameSize);
    for (std::size_t i = 0; i < rounds * groups; ++i) {
        uint8_t* frame = bytes_.data() + i * kFrameSize;
        writeHeaders(frame, groupAddress(static_cast<uint32_t>(i % groups)));
        memcpy(frame + kHeadersSize, packets.data() + (i % groups * rounds + i / groups) * kPayloadSize,
               kPayloadSize);
    }
}

Table::Table(const Recording& recording) : recording_(recording), table_(sarnUdpStreams_initialize()) {
    for (uint32_t i = 0; i < recording.groups(); ++i) {
        sarnUdpStreams_addStream(table_, groupAddress(i), 0, 0, "bench", &lock_);
    }
}

Table::~Table() {
    sarnUdpStreams_deleteAll(table_);
    free(table_);
}

void Table::feed() {
    const std::size_t round = next_ / recording_.groups();
    const auto us = kStartUs + static_cast<uint64_t>(static_cast<double>(round) * kFrameUs);
    sarnUdpStreams_processIpPacket(table_, recording_.frame(next_++), kFrameSize, us / 1000, us * kTicksPerUs,
                                   &lock_);
}

void countHeaders(std::span<const uint8_t> frame, std::vector<uint64_t>& perPid) {
    for (std::size_t i = kHeadersSize; i + kTsPacketSize <= frame.size(); i += kTsPacketSize) {
        uint32_t header;
        memcpy(&header, frame.data() + i, sizeof header);
        ++perPid[ntohl(header) >> 8 & 0x1FFF];
    }
}

uint64_t residentBytes() {
    std::ifstream statm("/proc/self/statm");
    uint64_t total = 0;
    uint64_t resident = 0;
    statm >> total >> resident;
    return resident * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace bench
