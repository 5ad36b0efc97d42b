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
inline constexpr std::size_t kFrameSize = kHeadersSize + kPacketsPerFrame * kTsPacketSize;
inline constexpr double kMultiplexBitrate = 12e6;

// The i-th monitored group, network byte order: 239.20.x.y.
uint32_t groupAddress(uint32_t index);

// Writes Ethernet, IPv4 and UDP headers for seven packets to `group` in front of a frame.
void writeHeaders(uint8_t* frame, uint32_t group);

// Frames of seven packets from a transport stream, one behind the other, with room for headers. Reads the
// file that the environment's KESTOR_BENCH_TS names (bench/run.sh has ffmpeg make one); ends the process with
// a message if there is none.
class Recording {
  public:
    Recording();
    std::size_t frames() const {
        return bytes_.size() / kFrameSize;
    }
    uint8_t* frame(std::size_t index) {
        return bytes_.data() + index % frames() * kFrameSize;
    }

  private:
    std::vector<uint8_t> bytes_;
};

// A stream table under its lock, and the clock that its frames arrive by.
class Table {
  public:
    explicit Table(uint32_t streams);
    ~Table();
    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;

    // Hands the next stream in turn its next frame. Every stream plays the recording from a place of its own,
    // at the multiplex's rate, so that all are clean and no two share the frames in the caches.
    void feed(Recording& recording);

    UdpStreamTable* table() {
        return table_;
    }
    pthread_rwlock_t* lock() {
        return &lock_;
    }
    uint32_t streams() const {
        return streams_;
    }

  private:
    UdpStreamTable* table_;
    pthread_rwlock_t lock_ = PTHREAD_RWLOCK_INITIALIZER;
    uint32_t streams_;
    uint32_t nextStream_ = 0;
    std::size_t round_ = 0;
};

// The floor that analysis is compared with: read each packet's header and count per PID.
void countHeaders(std::span<const uint8_t> frame, std::vector<uint64_t>& perPid);

// Resident memory of this process, bytes.
uint64_t residentBytes();

}  // namespace bench
