// The stream table and the classification of captured frames.
#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>

#include "sarn/sarnDvbPsi.h"
#include "sarn/sarnLog.h"
#include "sarn/udpStreams.h"

namespace {

constexpr uint32_t kEthernetHeaderSize = 14;
constexpr uint32_t kIpv4HeaderSize = 20;
constexpr uint32_t kUdpHeaderSize = 8;
constexpr uint32_t kHeadersSize = kEthernetHeaderSize + kIpv4HeaderSize + kUdpHeaderSize;

// Where the library's fatal reports point.
constexpr int kClassificationLockLine = 86;
constexpr int kAddLockLine = 143;
constexpr int kAddAllocationLine = 150;
constexpr int kDeleteLockLine = 174;

// Fields of the fixed headers (RFC 791, RFC 768); addresses stay in network byte order.
uint8_t ipTypeOfService(const uint8_t* frame) {
    return frame[kEthernetHeaderSize + 1];
}
uint8_t ipTimeToLive(const uint8_t* frame) {
    return frame[kEthernetHeaderSize + 8];
}
uint32_t addressAt(const uint8_t* bytes) {
    uint32_t address;
    memcpy(&address, bytes, sizeof address);
    return address;
}
uint32_t ipSource(const uint8_t* frame) {
    return addressAt(frame + kEthernetHeaderSize + 12);
}
uint32_t ipDestination(const uint8_t* frame) {
    return addressAt(frame + kEthernetHeaderSize + 16);
}
uint16_t bigEndian16(const uint8_t* bytes) {
    return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
}

// Holds the table lock for writing; null holds nothing. Failing to take it is fatal.
class TableWriteGuard {
  public:
    TableWriteGuard(pthread_rwlock_t* lock, int line) : lock_(lock) {
        if (lock_ == nullptr) {
            return;
        }
        if (const int error = pthread_rwlock_wrlock(lock_); error != 0) {
            errno = error;
            sarnFatal(line, kSarnUdpStreamsFile);
        }
    }
    ~TableWriteGuard() {
        release();
    }
    TableWriteGuard(const TableWriteGuard&) = delete;
    TableWriteGuard& operator=(const TableWriteGuard&) = delete;

    // Returns the unlock result.
    int release() {
        pthread_rwlock_t* lock = lock_;
        lock_ = nullptr;
        return lock != nullptr ? pthread_rwlock_unlock(lock) : 0;
    }

  private:
    pthread_rwlock_t* lock_;
};

void learnStream(UdpStream& stream, const uint8_t* frame, uint32_t capturedLength) {
    stream.initialized = true;
    stream.wrongSource = false;
    stream.ipHeader->source = ipSource(frame);
    stream.ipHeader->destination = ipDestination(frame);
    stream.firstPacketLength = capturedLength;
    sarnUdpStreams_determineProtocolStack(frame, &stream, sarnUdpStreams_determineIpType(frame),
                                          sarnUdpStreams_determineEthernetType(frame));
}

// The transport packets of one frame: as many whole ones as the first datagram announced, as far as this
// frame was captured.
std::span<const uint8_t> transportPackets(const UdpStream& stream, std::span<const uint8_t> frame) {
    const std::size_t announced = stream.udpHeader->length / kTsPacketSize * std::size_t{kTsPacketSize};
    const auto captured = frame.subspan(std::min<std::size_t>(stream.payloadOffset, frame.size()));
    return captured.first(std::min(announced, captured.size()));
}

void processDatagram(UdpStream& stream, const uint8_t* frame, uint32_t capturedLength, uint64_t arrivalMs,
                     uint64_t arrivalTicks) {
    if (!stream.initialized) {
        learnStream(stream, frame, capturedLength);
    }
    stream.lastPacketTimeMs = arrivalMs;
    stream.ttl = ipTimeToLive(frame);
    stream.dscp = ipTypeOfService(frame) >> 2;
    stream.ecn = ipTypeOfService(frame) & 0x03;
    if (ipSource(frame) != stream.ipHeader->source) {
        stream.wrongSource = true;
        return;
    }
    const auto packets = transportPackets(stream, {frame, capturedLength});
    sarnDvbPsi_process(stream.tsStream, packets.data(), static_cast<int32_t>(packets.size()),
                       static_cast<int64_t>(arrivalMs), arrivalTicks);
}

}  // namespace

UdpStreamTable* sarnUdpStreams_initialize() {
    return static_cast<UdpStreamTable*>(calloc(1, sizeof(UdpStreamTable)));
}

UdpStream* sarnUdpStreams_getUdpStreamsList(UdpStreamTable* table) {
    return *table;
}

UdpStream* sarnUdpStreams_findStream(UdpStreamTable* table, uint32_t group, pthread_rwlock_t* /*lock*/) {
    UdpStream* stream = nullptr;
    HASH_FIND(hh, *table, &group, sizeof group, stream);
    return stream;
}

UdpStream* sarnUdpStreams_addStream(UdpStreamTable* table, uint32_t group, uint32_t userData,
                                    uint32_t streamId, const char* name, pthread_rwlock_t* lock) {
    const TableWriteGuard guard(lock, kAddLockLine);
    auto* stream = static_cast<UdpStream*>(calloc(1, sizeof(UdpStream)));
    if (stream == nullptr) {
        sarnFatal(kAddAllocationLine, kSarnUdpStreamsFile);
    }
    stream->group = group;
    stream->userData = userData;
    stream->streamId = streamId;
    // Right behind the record, where every datagram looks as well.
    stream->ipHeader = static_cast<Ipv4HeaderImage*>(calloc(1, sizeof(Ipv4HeaderImage)));
    stream->udpHeader = static_cast<UdpHeaderImage*>(calloc(1, sizeof(UdpHeaderImage)));
    stream->name = strdup(name);
    stream->tsStream = sarnDvbPsi_init(0);
    HASH_ADD(hh, *table, group, sizeof stream->group, stream);
    return stream;
}

void sarnUdpStreams_deleteStream(UdpStreamTable* table, UdpStream* stream, pthread_rwlock_t* lock) {
    {
        const TableWriteGuard guard(lock, kDeleteLockLine);
        HASH_DEL(*table, stream);
    }
    sarnDvbPsi_exit(stream->tsStream);
    free(stream->name);
    free(stream->ipHeader);
    free(stream->udpHeader);
    free(stream);
}

void sarnUdpStreams_deleteAll(UdpStreamTable* table) {
    while (UdpStream* stream = *table) {
        // NOLINTNEXTLINE(clang-analyzer-unix.Malloc): the table's head is another one each time
        sarnUdpStreams_deleteStream(table, stream, nullptr);
    }
}

std::string sarnUdpStreams_listStreams(const UdpStreamTable* table) {
    std::string lines;
    for (const UdpStream* stream = *table; stream != nullptr;
         stream = static_cast<const UdpStream*>(stream->hh.next)) {
        const in_addr group{.s_addr = stream->group};
        lines += std::to_string(static_cast<int>(stream->streamId));
        lines.append(" ").append(stream->name).append(" ").append(inet_ntoa(group)).append(" ");
        lines.append(std::to_string(stream->port)).append(" \n");
    }
    return lines;
}

void sarnUdpStreams_printStreams(UdpStreamTable* table) {
    const std::string lines = sarnUdpStreams_listStreams(table);
    fwrite(lines.data(), 1, lines.size(), stdout);
}

void sarnUdpStreams_setIGMPJoinTime(UdpStream* stream, uint64_t time) {
    stream->igmpJoinTime = time;
}

void sarnUdpStreams_setIGMPLeaveTime(UdpStream* stream, uint64_t time) {
    stream->igmpLeaveTime = time;
}

int sarnUdpStreams_processIpPacket(UdpStreamTable* table, const uint8_t* frame, uint32_t capturedLength,
                                   uint64_t arrivalMs, uint64_t arrivalTicks, pthread_rwlock_t* lock) {
    TableWriteGuard guard(lock, kClassificationLockLine);
    if (capturedLength >= kHeadersSize) {
        if (UdpStream* stream = sarnUdpStreams_findStream(table, ipDestination(frame), lock)) {
            processDatagram(*stream, frame, capturedLength, arrivalMs, arrivalTicks);
        }
    }
    return guard.release();
}

uint32_t sarnUdpStreams_determineEthernetType(const uint8_t* /*frame*/) {
    return kEthernetHeaderSize;
}

uint32_t sarnUdpStreams_determineIpType(const uint8_t* /*frame*/) {
    return kIpv4HeaderSize;
}

void sarnUdpStreams_determineProtocolStack(const uint8_t* frame, UdpStream* stream, uint32_t ipHeaderLength,
                                           uint32_t ethernetHeaderLength) {
    const uint8_t* udp = frame + ethernetHeaderLength + ipHeaderLength;
    stream->udpHeader->sourcePort = bigEndian16(udp);
    stream->udpHeader->destinationPort = bigEndian16(udp + 2);
    stream->udpHeader->length = bigEndian16(udp + 4);
    const uint32_t extra = stream->udpHeader->length % static_cast<uint32_t>(kTsPacketSize);
    stream->hasExtraHeader = extra != 0 ? 1 : 0;
    stream->payloadOffset = extra + ipHeaderLength + ethernetHeaderLength;
}
