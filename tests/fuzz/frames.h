// The input of the frames target: records of a kind, a delay and a length, each followed by so many bytes.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace fuzzing {

inline constexpr int kGroups = 4;

enum class FrameKind : uint8_t {
    datagram,  // the bytes are the payload of a datagram to the group
    cut,       // the same, of whose frame the capture has three quarters
    rtp,       // the same behind an RTP header
    video,     // each byte is the number of packets of a PES packet on kVideoPid; comes again so often as
               // the GOP estimate and the interval measures want to have it
    frame,     // the bytes are the whole Ethernet frame
    snapshot,  // all groups' records are written and their intervals end
    restart,   // the group is removed and added again
    timer,     // one pass of the timer; the delay counts as seconds, backwards too
    repeat,    // the group's last frame comes again, a thousand times
};
// By the low four bits of a record's first byte; the next two are the group.
inline constexpr FrameKind kFrameKinds[16] = {
    FrameKind::datagram, FrameKind::datagram, FrameKind::datagram, FrameKind::datagram,
    FrameKind::datagram, FrameKind::datagram, FrameKind::cut,      FrameKind::cut,
    FrameKind::rtp,      FrameKind::frame,    FrameKind::frame,    FrameKind::snapshot,
    FrameKind::restart,  FrameKind::timer,    FrameKind::video,    FrameKind::repeat};
inline constexpr uint16_t kVideoPid = 0x101;

struct FrameRecord {
    FrameKind kind;
    int group;
    int delay;  // ms after the record before
    std::size_t size;
};
inline constexpr std::size_t kRecordHead = 4;

// Reads the record head at `head`, of which, with its bytes, `left` (at least kRecordHead) remain.
inline FrameRecord readRecord(const uint8_t* head, std::size_t left) {
    const FrameKind kind = kFrameKinds[head[0] & 15];
    const std::size_t size = kind > FrameKind::frame ? 0 : head[2] | static_cast<std::size_t>(head[3]) << 8;
    return {kind, head[0] >> 4 & 3, head[1] > 127 ? head[1] * 16 : head[1],
            std::min(size, left - kRecordHead)};
}

}  // namespace fuzzing
