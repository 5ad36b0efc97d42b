// The traffic that the benchmarks analyse: a recorded multiplex as Ethernet frames, and tables of many
// streams.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "sarn/udpStreams.h"

namespace bench {

inline constexpr std::size_t kPacketsPerFrame = 7;
inline constexpr std::size_t kHeadersSize = 14 + 20 + 8;
inline constexpr std::size_t kPayloadSize = kPacketsPerFrame * kTsPacketSize;
inline constexpr std::size_t kFrameSize = kHeadersSize + kPayloadSize;
inline constexpr double kMultiplexBitrate = 12e6;

// The i-th monitored group, network byte order: 239.20.x.y.
uint32_t groupAddress(uint32_t index);

// Writes Ethernet, IPv4 and UDP headers for seven packets to `group` in front of a frame.
void writeHeaders(uint8_t* frame, uint32_t group);

// Frames of seven packets from the transport stream that the environment's KESTOR_BENCH_TS names
// (bench/run.sh has ffmpeg make one; without it the process ends with a message), in the order in which
// `groups` senders would send them: frame i goes to group i modulo `groups`, and every group plays the
// recording from a place of its own, so that all streams are clean. One behind the other in memory, as in a
// capture ring.
class Recording {
  public:
    explicit Recording(uint32_t groups);
    std::size_t frames() const {
        return bytes_.size() / kFrameSize;
    }
    const uint8_t* frame(std::size_t index) const {
        return bytes_.data() + index % frames() * kFrameSize;
    }
    uint32_t groups() const {
        return groups_;
    }

  private:
    std::vector<uint8_t> bytes_;
    uint32_t groups_;
};

// A stream table with the groups of a recording, and the clock that its frames arrive by.
class Table {
  public:
    explicit Table(const Recording& recording);
    ~Table();
    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;

    // Hands the next frame to the table. All streams run at the multiplex's rate side by side.
    void feed();

  private:
    const Recording& recording_;
    UdpStreamTable* table_;
    pthread_rwlock_t lock_ = PTHREAD_RWLOCK_INITIALIZER;
    std::size_t next_ = 0;
};

// The floor that analysis is compared with: read each packet's header and count per PID.
void countHeaders(std::span<const uint8_t> frame, std::vector<uint64_t>& perPid);

// Resident memory of this process, bytes.
uint64_t residentBytes();

}  // namespace bench
