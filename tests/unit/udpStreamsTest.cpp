// The stream table: which frames reach which stream, and how many packets of them.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <zmq.hpp>

#include "configuration.h"
#include "kestor.h"
#include "packetCapture.h"
#include "packetDispatch.h"
#include "sarn/packetJitter.h"
#include "sarn/udpStreams.h"
#include "support/frameBuilder.h"
#include "support/streamBuilder.h"

namespace {

using test::Bytes;
using test::UdpFlow;

class UdpStreams : public testing::Test {
  protected:
    ~UdpStreams() override {
        sarnUdpStreams_deleteAll(table_);
        free(table_);
    }
    UdpStream* add(const std::string& group) {
        return sarnUdpStreams_addStream(table_, inet_addr(group.c_str()), 0, 0, "name", &lock_);
    }
    // Cut to `size` bytes, behind which the sanitizers watch.
    void capture(const Bytes& frame, uint64_t ms = 1, std::size_t size = SIZE_MAX) {
        const Bytes block(frame.data(), frame.data() + std::min(size, frame.size()));
        sarnUdpStreams_processIpPacket(table_, block.data(), block.size(), ms, 0, &lock_);
    }

    UdpStreamTable* table_ = sarnUdpStreams_initialize();
    pthread_rwlock_t lock_ = PTHREAD_RWLOCK_INITIALIZER;
};

Bytes packets(int count) {
    return test::TsStream().null(count).takeDatagrams().front();
}

TEST_F(UdpStreams, LearnsTheLayoutFromTheFirstDatagram) {
    struct Case {
        UdpFlow flow;
        uint32_t hasExtraHeader, payloadOffset;
        uint64_t packets;  // of a datagram of seven and one of three, both read by the first one's layout
    };
    Case cases[] = {
        {{.group = "239.0.0.1"}, 1, 42, 7 + 3},
        {{.group = "239.0.0.2", .rtp = true}, 1, 54, 7 + 3},
        {{.group = "239.0.0.3", .udpLength = 8 + 3 * 188}, 1, 42, 3 + 3},
        {{.group = "239.0.0.4", .udpLength = 7 * 188}, 0, 34, 6 + 3},  // begins 8 bytes early, ends in a part
        {{.group = "239.0.0.5", .udpLength = 187}, 1, 221, 0},
    };
    for (Case& c : cases) {
        const UdpStream* stream = add(c.flow.group);
        capture(c.flow.frame(packets(7)));
        capture(c.flow.frame(packets(3)));
        EXPECT_EQ(stream->hasExtraHeader, c.hasExtraHeader) << c.flow.group;
        EXPECT_EQ(stream->payloadOffset, c.payloadOffset) << c.flow.group;
        EXPECT_EQ(stream->tsStream->i_packets, c.packets) << c.flow.group;
    }
}

TEST_F(UdpStreams, AnalysesWhatWasCaptured) {
    const UdpStream* stream = add("239.1.1.1");
    UdpFlow flow;
    capture(flow.frame(packets(7)), 1, 41);
    EXPECT_FALSE(stream->initialized) << "a frame without all its headers";
    capture(flow.frame(packets(7)), 5, 42 + 2 * 188 + 100);
    EXPECT_EQ(stream->tsStream->i_packets, 2u);
    EXPECT_EQ(stream->tsStream->i_lost_bytes, 100u);
    EXPECT_EQ(stream->tsStream->tr101290[kSyncByteError], 1u);
    capture(flow.frame(packets(7)), 7, 42);
    EXPECT_EQ(stream->lastPacketTimeMs, 7u);
    EXPECT_EQ(stream->tsStream->i_packets, 2u);
    EXPECT_EQ(stream->tsStream->p_jitter->arrivalCount, 1u) << "not of a datagram that ends in a part";
}

// The buffered path, which the daemon holds beside the direct one.
TEST_F(UdpStreams, CollectedFramesAreAnalysedWhenIndicatedAndTheBuffersSwapped) {
    T_interface device(MODE_MONITOR);
    device.zmqContext = std::make_unique<zmq::context_t>();
    device.liveDataSocket = std::make_unique<zmq::socket_t>(*device.zmqContext, zmq::socket_type::req);
    device.liveDataSocket->connect("tcp://127.0.0.1:1");
    device.liveDataSocket->send(zmq::str_buffer("kept back"));  // which must not keep the monitor from ending
    const UdpStream* stream =
        sarnUdpStreams_addStream(device.udpStreams, inet_addr("239.1.1.1"), 0, 0, "s", &lock_);
    const Bytes frame = UdpFlow{}.frame(packets(7));
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

TEST(PacketCapture, ItsLastWordsComeAtOnce) {
    pcap_t* handle = pcap_open_dead(DLT_EN10MB, kCaptureSnapshotLength);
    testing::internal::CaptureStdout();
    EXPECT_EQ(endCapture(CaptureHandle(handle), PCAP_ERROR), kCaptureDeviceError);
    EXPECT_GT(lseek(STDOUT_FILENO, 0, SEEK_CUR), 0) << "nothing waits in the buffer";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error reading the packets: ");
    pcap_close(handle);
}

}  // namespace
