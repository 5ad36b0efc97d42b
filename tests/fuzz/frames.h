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
    frame,     // the bytes are the whole Ethernet frame
    snapshot,  // all groups' records are written and their intervals end
    restart,   // the group is removed and added again
    timer,     // one pass of the timer; the delay counts as seconds, backwards too
};
inline constexpr int kFrameKinds = 7;

struct FrameRecord {
    FrameKind kind;
    int group;
    int delay;  // ms after the record before
    std::size_t size;
};
inline constexpr std::size_t kRecordHead = 4;

// Reads the record head at `head`, of which, with its bytes, `left` (at least kRecordHead) remain.
inline FrameRecord readRecord(const uint8_t* head, std::size_t left) {
    const auto kind = static_cast<FrameKind>(head[0] % kFrameKinds);
    const std::size_t size = kind > FrameKind::frame ? 0 : head[2] | static_cast<std::size_t>(head[3]) << 8;
    return {kind, head[0] / kFrameKinds % kGroups, static_cast<int8_t>(head[1]) < 0 ? head[1] * 16 : head[1],
            std::min(size, left - kRecordHead)};
}

}  // namespace fuzzing
