// Captured frames of several groups through classification and analysis, with snapshots in between.
#include <array>
#include <cstdio>
#include <memory>

#include "configuration.h"
#include "fuzz/frames.h"
#include "fuzz/fuzzing.h"
#include "kestor.h"
#include "packetCapture.h"
#include "resultsWriter.h"
#include "sarn/sarnDvbPsi.h"
#include "support/frameBuilder.h"
#include "support/streamBuilder.h"

using namespace fuzzing;

namespace {

// Of one input; they take a hundred times as long as others.
constexpr int kMaxLongRecords = 3;
constexpr uint64_t kStartUs = 1'700'000'000'000'000;

class Monitor {
  public:
    Monitor() {
        for (int group = 0; group < kGroups; ++group) {
            flows_[group].group = "239.1.1." + std::to_string(group);
            addIpStreamToInternalList(&device_, address(group));
            addStream(group);
        }
    }

    void take(const FrameRecord& record, std::span<const uint8_t> bytes) {
        const int sign = record.kind == FrameKind::timer ? (record.delay % 2 == 0 ? 1000 : -1000) : 1;
        nowUs_ += static_cast<uint64_t>(int64_t{record.delay} * 1000 * sign);
        test::UdpFlow& flow = flows_[record.group];
        switch (record.kind) {
            case FrameKind::datagram:
            case FrameKind::cut:
            case FrameKind::rtp: {
                flow.rtp = record.kind == FrameKind::rtp;
                test::Bytes frame = flow.frame(bytes);
                if (record.kind == FrameKind::cut)
                    frame.resize(frame.size() / 4 * 3);
                analyse(record.group, frame);
                break;
            }
            case FrameKind::video:
                if (longRecords_++ < kMaxLongRecords)
                    sendVideo(record, bytes);
                break;
            case FrameKind::frame:
                analyse(record.group, {bytes.begin(), bytes.end()});
                break;
            case FrameKind::snapshot:
                saveStreamsV2(&device_, stdout);
                break;
            case FrameKind::restart:
                sarnUdpStreams_deleteStream(device_.udpStreams, find(record.group), &device_.streamsLock);
                addStream(record.group);
                break;
            case FrameKind::timer:
                sarnDvbPsi_timerTick(static_cast<int64_t>(nowUs_ / 1'000'000));
                break;
            case FrameKind::repeat:
                for (int count = longRecords_++ < kMaxLongRecords ? 1000 : 0; count > 0;
                     --count, nowUs_ += static_cast<uint64_t>(record.delay) * 10)
                    analyse(record.group, test::Bytes(last_[record.group]));
                break;
        }
    }

    // After an abandoned run: nobody else is left to hold a lock.
    void releaseLocks() {
        pthread_rwlock_init(&device_.streamsLock, nullptr);
        pthread_rwlock_init(&device_.channelListLock, nullptr);
        for (int group = 0; group < kGroups; ++group)
            if (UdpStream* stream = find(group))
                pthread_spin_init(&stream->tsStream->lock, PTHREAD_PROCESS_PRIVATE);
    }

  private:
    static uint32_t address(int group) {
        return htonl(0xEF010100U + static_cast<uint32_t>(group));
    }
    UdpStream* find(int group) {
        return sarnUdpStreams_findStream(device_.udpStreams, address(group), &device_.streamsLock);
    }
    void addStream(int group) {
        sarnUdpStreams_addStream(device_.udpStreams, address(group), 0, 0, "", &device_.streamsLock);
    }
    void sendVideo(const FrameRecord& record, std::span<const uint8_t> sizes) {
        constexpr std::size_t kPesPackets = 600;
        test::TsStream& stream = streams_[record.group];
        for (std::size_t i = 0; i < kPesPackets && !sizes.empty(); ++i) {
            stream.pes(kVideoPid, {.packets = 1 + sizes[i % sizes.size()] % 16});
            if (i % 8 == 0)
                stream.pcr(kVideoPid, pcr_ += 320 * 27'000);
        }
        for (const test::Bytes& datagram : stream.takeDatagrams()) {
            analyse(record.group, flows_[record.group].frame(datagram));
            nowUs_ += static_cast<uint64_t>(record.delay) * 10;
        }
    }
    // A copy of exactly the frame's size: a read behind it is seen.
    void analyse(int group, const test::Bytes& frame) {
        last_[group] = frame;
        const std::unique_ptr<uint8_t[]> captured(new uint8_t[frame.size()]);
        std::copy(frame.begin(), frame.end(), captured.get());
        processFrame(&device_, captured.get(), static_cast<uint32_t>(frame.size()), nowUs_ / 1'000'000,
                     nowUs_ % 1'000'000);
    }

    T_interface device_{MODE_MONITOR};
    std::array<test::UdpFlow, kGroups> flows_;
    std::array<test::TsStream, kGroups> streams_;
    std::array<test::Bytes, kGroups> last_;
    uint64_t pcr_ = 0;
    int longRecords_ = 0;
    uint64_t nowUs_ = kStartUs;
};

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    silenceOutput();
    Monitor monitor;
    const bool ended = runToItsEnd([&] {
        for (std::size_t at = 0; at + kRecordHead <= size;) {
            const FrameRecord record = readRecord(data + at, size - at);
            monitor.take(record, {data + at + kRecordHead, record.size});
            at += kRecordHead + record.size;
        }
        monitor.take({FrameKind::snapshot, 0, 0, 0}, {});
    });
    if (!ended)
        monitor.releaseLocks();
    return 0;
}
