// Buffered dispatch: frames collected by a producer in one of two buffers are analysed by a thread of their
// own while the other buffer fills. No mode starts the thread and nothing produces; the capture thread
// analyses directly.
#pragma once

#include <pthread.h>

#include <array>
#include <cstddef>
#include <cstdint>

struct T_interface;

struct PacketBufferEntry {
    uint32_t capturedLength;
    const uint8_t* frame;  // the producer's; valid until the entry was analysed
    uint32_t seconds;      // capture time since the epoch
    uint32_t microseconds;
};

inline constexpr std::size_t kPacketBufferEntries = 65536;
using PacketBuffer = std::array<PacketBufferEntry, kPacketBufferEntries>;

extern PacketBuffer packetData0;
extern PacketBuffer packetData1;
// Guarded by packetsSpinlock: the buffer being filled, its index and its number of entries. A producer puts
// an entry at packetData[i_packetData] and counts it, under the lock, while there is room.
extern PacketBufferEntry* packetData;
extern int whichBufforIsUsed;
extern std::size_t i_packetData;
extern pthread_spinlock_t packetsSpinlock;

// One turn: reports capture losses, swaps the buffers and analyses what was collected, under commandLock.
void indicatePackets(T_interface* device);
// Thread body: turns for ever, 200 us apart.
void* MyIndicatePacketThreadFunction(void* argument);
