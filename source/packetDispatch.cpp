#include "packetDispatch.h"

#include <unistd.h>

#include <span>

#include "kestor.h"
#include "lockGuards.h"
#include "packetCapture.h"

namespace {

constexpr useconds_t kTurnPauseUs = 200;

// Takes what the producer has collected and lets it fill the other buffer.
std::span<const PacketBufferEntry> takeCollectedPackets() {
    const SpinLock hold(&packetsSpinlock);
    const std::span<const PacketBufferEntry> collected(packetData, i_packetData);
    const bool useSecond = whichBufforIsUsed != 1;
    packetData = useSecond ? packetData1.data() : packetData0.data();
    whichBufforIsUsed = useSecond ? 1 : 0;
    i_packetData = 0;
    return collected;
}

}  // namespace

PacketBuffer packetData0;
PacketBuffer packetData1;
PacketBufferEntry* packetData = packetData0.data();
int whichBufforIsUsed = 0;
std::size_t i_packetData = 0;
pthread_spinlock_t packetsSpinlock;
[[maybe_unused]] static const int packetsSpinlockReady =
    pthread_spin_init(&packetsSpinlock, PTHREAD_PROCESS_PRIVATE);

void indicatePackets(T_interface* device) {
    LostPacketsInPcapCount(device);
    const std::span<const PacketBufferEntry> collected = takeCollectedPackets();
    const SpinLock hold(&device->commandLock);
    for (const PacketBufferEntry& entry : collected) {
        processFrame(device, entry.frame, entry.capturedLength, entry.seconds, entry.microseconds);
    }
}

void* MyIndicatePacketThreadFunction(void* argument) {
    for (;;) {
        indicatePackets(static_cast<T_interface*>(argument));
        usleep(kTurnPauseUs);
    }
}
