// The daemon's own rooms, as far as the daemon in its network does not show them well.
#include <arpa/inet.h>
#include <gmock/gmock.h>

#include <vector>

#include "configuration.h"
#include "kestor.h"
#include "liveData.h"
#include "packetDispatch.h"
#include "resultsWriter.h"
#include "sarn/metrics.h"
#include "streamjoiner.h"
#include "support/frameBuilder.h"
#include "support/streamBuilder.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

UdpStream* addStream(T_interface& device, const char* group) {
    addIpStreamToInternalList(&device, inet_addr(group));
    return sarnUdpStreams_addStream(device.udpStreams, inet_addr(group), 0, 0, "s", &device.streamsLock);
}

test::Bytes datagramFor(const char* group) {
    test::TsStream packets;
    packets.null(7);
    return test::UdpFlow{.group = group}.frame(packets.takeDatagrams().front());
}

TEST(StreamJoiner, MapsGroupsToEthernetAddresses) {
    MacAddress mac;
    makeMulticastMac(inet_addr("239.212.0.12"), mac);
    EXPECT_THAT(mac, ElementsAre(0x01, 0x00, 0x5E, 0x54, 0x00, 0x0C));
    makeMulticastMac(inet_addr("224.128.1.2"), mac);
    EXPECT_THAT(mac, ElementsAre(0x01, 0x00, 0x5E, 0x00, 0x01, 0x02));
}

TEST(CreateMessage, ReportsAScanStepByStep) {
    struct Case {
        bool active;
        const char* channels;  // each: n not scanned, s scanned, r reported
        const char* request;   // what it holds beside text and number
        bool over, abandoned;
    };
    const Case cases[] = {
        {true, "sn", "scan_status: 1 scan_results { multicastGroup: \"239.1.1.1\" status: 1 } ", false,
         false},
        {false, "rs", "scan_status: 1 scan_results { multicastGroup: \"239.1.1.2\" status: 1 } ", false,
         false},
        {false, "rr", "scan_status: 0 ", true, false},
        {true, "rn", "scan_status: 1 scan_results { multicastGroup: \"239.1.1.9\" status: 2 } ", false,
         false},
        {false, "rn", "scan_status: 0 ", true, true},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.channels);
        T_interface device(MODE_CHANNEL_SCAN);
        uint32_t group = inet_addr("239.1.1.0");
        for (const char* state = test.channels; *state; ++state) {
            addIpStreamToInternalList(&device, group += htonl(1));
            ChannelRecord* channel = findChannel(&device, group);
            channel->scanned = *state != 'n';
            channel->reported = *state == 'r';
            channel->status = 1;
        }
        device.scannedGroup = inet_addr("239.1.1.9");
        device.has_scan_results = true;
        device.packetCaptureThreadActive = test.active;
        configuration::ConfigurationMessage message;
        create_message(&device, &message, 7);
        EXPECT_EQ(message.request().ShortDebugString(),
                  std::string("information: \"co mi Panie dasz?\" ") + test.request + "sequence_number: 7");
        EXPECT_EQ(device.channelList == nullptr, test.over);
        EXPECT_EQ(device.scanCompleted, test.abandoned);
        EXPECT_EQ(device.has_scan_results, !test.over || test.abandoned);
    }
}

TEST(ChannelList, RemovesOneChannelAndSaysSo) {
    T_interface device(MODE_MONITOR);
    device.streamJoiner = std::make_unique<StreamJoiner>();
    addStream(device, "239.1.1.1");
    addIpStreamToInternalList(&device, inet_addr("239.1.1.2"));
    CaptureStdout();
    clearIPChannel(&device, "239.1.1.2");
    EXPECT_EQ(GetCapturedStdout(),
              "clearIPChannel: 239.1.1.2\n\n239.1.1.2\nTego kanalu nie chce usuwac bo ...\n"
              "0 s 239.1.1.1 0 \nudpStream != NULL\n");
    CaptureStdout();
    clearIPChannel(&device, "239.1.1.1");
    EXPECT_THAT(GetCapturedStdout(),
                HasSubstr("deleteIPstream 239.1.1.1\nsarnUdpStreams_deleteStream 239.1.1.1\n"));
    EXPECT_EQ(device.channelList, nullptr);
    EXPECT_EQ(sarnUdpStreams_getUdpStreamsList(device.udpStreams), nullptr);
}

TEST(ControlLink, EndsTheProcessOnAnEmptyFrameAndOnAGroupListedTwice) {
    T_interface device(MODE_CHANNEL_SCAN);
    zmq::message_t empty;
    EXPECT_EXIT(analyzeMessage(&device, &empty), testing::KilledBySignal(SIGTERM), "");
    addIpStreamToInternalList(&device, 1);
    EXPECT_EXIT(addIpStreamToInternalList(&device, 1), testing::KilledBySignal(SIGTERM), "");
}

TEST(ResultsWriter, LatchesEveryStreamAlsoWhenWritingFails) {
    T_interface device(MODE_MONITOR);
    std::vector<UdpStream*> streams;
    for (const char* group : {"239.1.1.1", "239.1.1.2"}) {
        streams.push_back(addStream(device, group));
        const test::Bytes frame = datagramFor(group);
        sarnUdpStreams_processIpPacket(device.udpStreams, frame.data(), static_cast<uint32_t>(frame.size()),
                                       1000, 54'000'000, &device.streamsLock);
    }
    FILE* full = fopen("/dev/full", "w");
    setvbuf(full, nullptr, _IONBF, 0);
    EXPECT_EQ(saveStreamsV2(&device, full), 0);
    fclose(full);
    for (const UdpStream* stream : streams) {
        TsMetrics* metrics = sarnDvbPsi_getTsMetricsInterval(stream->tsStream, 0);
        EXPECT_EQ(metrics->packetsReceived, 0u);
        sarnDvbPsi_freeTsMetricsInterval(metrics);
    }
}

TEST(PacketDispatch, AnalysesWhatWasCollectedAndSwapsTheBuffers) {
    T_interface device(MODE_MONITOR);
    const UdpStream* stream = addStream(device, "239.1.1.1");
    const test::Bytes frame = datagramFor("239.1.1.1");
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
