// The buffered dispatch path, which the daemon holds beside the direct one.
#include "packetDispatch.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "configuration.h"
#include "kestor.h"
#include "support/frameBuilder.h"
#include "support/streamBuilder.h"

namespace {

TEST(PacketDispatch, AnalysesWhatWasCollectedAndSwapsTheBuffers) {
    T_interface device(MODE_MONITOR);
    const uint32_t group = inet_addr("239.1.1.1");
    const UdpStream* stream =
        sarnUdpStreams_addStream(device.udpStreams, group, 0, 0, "s", &device.streamsLock);
    const test::Bytes frame = test::UdpFlow{}.frame(test::TsStream().null(7).takeDatagrams().front());
    for (uint32_t turn = 1; turn <= 3; ++turn) {
        const PacketBufferEntry* filled = packetData;
        packetData[i_packetData++] = {static_cast<uint32_t>(frame.size()), frame.data(), turn, 2999};
        indicatePackets(&device);
        EXPECT_EQ(stream->lastPacketTimeMs, turn * 1000u + 2);
        EXPECT_EQ(stream->tsStream->i_packets, turn * 7u);
        EXPECT_EQ(i_packetData, 0u);
        EXPECT_NE(packetData, filled);
    }
}

}  // namespace
