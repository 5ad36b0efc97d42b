#include "resultsWriter.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <bitset>
#include <cerrno>
#include <csignal>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "configuration.h"
#include "kestor.h"
#include "lockGuards.h"
#include "sarn/metrics.h"
#include "sarn/sarnDvbPsi.h"

namespace {

constexpr int32_t kInterval = 0;
constexpr uint16_t kPatPid = 0;
constexpr unsigned int kSnapshotPeriodSeconds = 1;
constexpr size_t kPipeBufferSize = 65536;

// Releases a metric record with the function that belongs to it.
template <auto release>
struct Releaser {
    template <typename Record>
    void operator()(Record* record) const {
        release(record);
    }
};
template <typename Record, auto release>
using Owned = std::unique_ptr<Record, Releaser<release>>;

using CumulativeTs = Owned<TsMetrics, sarnDvbPsi_freeTsMetricsCumulative>;
using IntervalTs = Owned<TsMetrics, sarnDvbPsi_freeTsMetricsInterval>;
using CumulativePid = Owned<PidMetrics, sarnDvbPsi_freePidMetricsCumulative>;
using IntervalPid = Owned<PidMetrics, sarnDvbPsi_freePidMetricsInterval>;
using Udp = Owned<UdpMetrics, freeUdpMetrics>;
using Programs = Owned<ChannelsInfo, sarnDvbPsi_freeChannelsInfo>;

// The columns that every line of a channel carries.
struct Identity {
    int32_t source;  // the network-order word as a signed number, as the readers expect it
    int32_t destination;
    uint16_t sourcePort;
    uint16_t destinationPort;
    uint32_t firstPacketLength;
    bool wrongSource;
    uint32_t hasExtraHeader;
};

enum class LineKind { kPat, kPmt, kKnownPid, kUnlistedPid };

struct PidLine {
    LineKind kind;
    uint16_t pid;
    uint16_t pmtPid;  // of a known PID's program
    CumulativePid cumulative;
    IntervalPid interval;
};

// What one channel contributes to a snapshot, collected while the stream stands still.
struct StreamSnapshot {
    Identity identity;
    CumulativeTs cumulative;
    IntervalTs interval;
    Udp udp;
    std::vector<PidLine> lines;  // in the order of writing
};

using WrittenPids = std::bitset<kPidCount>;

Identity identify(const UdpStream& stream) {
    return {static_cast<int32_t>(stream.ipHeader->source),
            static_cast<int32_t>(stream.ipHeader->destination),
            stream.udpHeader->sourcePort,
            stream.udpHeader->destinationPort,
            stream.firstPacketLength,
            stream.wrongSource,
            stream.hasExtraHeader};
}

// Adds a line if the PID has both records.
void collectPid(StreamSnapshot& snapshot, WrittenPids& written, ts_stream_t* context, LineKind kind,
                uint16_t pid, uint16_t pmtPid = 0) {
    CumulativePid cumulative(sarnDvbPsi_getPidMetricsCumulative(context, pid));
    IntervalPid interval(sarnDvbPsi_getPidMetricsInterval(context, pid, kInterval));
    if (cumulative && interval) {
        snapshot.lines.push_back({kind, pid, pmtPid, std::move(cumulative), std::move(interval)});
        written.set(pid);
    }
}

void collectPrograms(StreamSnapshot& snapshot, WrittenPids& written, ts_stream_t* context) {
    const Programs programs(sarnDvbPsi_getChannelsInfo(context));
    if (!programs || programs->count == 0) {
        return;
    }
    collectPid(snapshot, written, context, LineKind::kPat, kPatPid);
    for (uint32_t i = 0; i < programs->count; ++i) {
        const ChannelInfo& program = programs->channels[i];
        collectPid(snapshot, written, context, LineKind::kPmt, program.pmtPid);
        // A PID that two programs list gets a line in each.
        for (uint32_t j = 0; j < program.elementaryPidCount; ++j) {
            collectPid(snapshot, written, context, LineKind::kKnownPid, program.elementaryPids[j],
                       program.pmtPid);
        }
    }
}

void collectUnlistedPids(StreamSnapshot& snapshot, WrittenPids& written, ts_stream_t* context) {
    std::array<uint32_t, kPidCount> seen;
    const uint32_t count = sarnDvbPsi_getTsStreamSeenPidsNumbers(context, seen.data());
    for (uint32_t i = 0; i < count; ++i) {
        if (!written.test(seen[i])) {
            collectPid(snapshot, written, context, LineKind::kUnlistedPid, static_cast<uint16_t>(seen[i]));
        }
    }
}

// Collects the channel's records and latches its interval.
StreamSnapshot collectStream(UdpStream* stream) {
    ts_stream_t* context = stream->tsStream;
    StreamSnapshot snapshot;
    snapshot.identity = identify(*stream);
    snapshot.cumulative.reset(sarnDvbPsi_getTsMetricsCumulative(context));
    snapshot.interval.reset(sarnDvbPsi_getTsMetricsInterval(context, kInterval));
    if (snapshot.cumulative && snapshot.interval) {
        snapshot.udp.reset(
            getUdpMetrics(stream->ttl, stream->dscp, stream->ecn, stream->igmpJoinTime, context));
        WrittenPids written;
        collectPrograms(snapshot, written, context);
        collectUnlistedPids(snapshot, written, context);
    }
    sarnDvbPsi_latchInterval(context, kInterval);
    return snapshot;
}

// The identity columns, each preceded by ';'.
std::string identityText(const Identity& identity) {
    char text[96];
    snprintf(text, sizeof text, ";%d;%d;%d;%d;%d;%d;%d", identity.source, identity.destination,
             identity.sourcePort, identity.destinationPort, static_cast<int>(identity.firstPacketLength),
             identity.wrongSource, static_cast<int>(identity.hasExtraHeader));
    return text;
}

void writeStreamLine(StreamSnapshot& snapshot, FILE* file, const char* group, const char* identity) {
    printf("%s;0;-1;-1%s\n", group, identity);
    if (ferror(file)) {
        return;
    }
    fprintf(file, "%s;0;-1;-1%s", group, identity);
    sarnDvbPsi_printStreamMetricsToFile(snapshot.cumulative.release(), snapshot.interval.release(), file,
                                        snapshot.udp.get());
}

void writePidLine(PidLine& line, FILE* file, const char* group, const char* identity) {
    const int streamType = line.cumulative->streamType;
    switch (line.kind) {
        case LineKind::kPat:
            fprintf(file, "%s;1;%d;PAT%s", group, line.pid, identity);
            break;
        case LineKind::kPmt:
            fprintf(file, "%s;1;%d;PMT%s", group, line.pid, identity);
            break;
        case LineKind::kKnownPid:
            fprintf(file, "%s;1;%d;KP;%d;%d%s", group, line.pid, streamType, line.pmtPid, identity);
            break;
        case LineKind::kUnlistedPid:
            fprintf(file, "%s;1;%d;UP;%d%s", group, line.pid, streamType, identity);
            break;
    }
    sarnDvbPsi_printPidMetricsToFile(line.cumulative.release(), line.interval.release(), file);
}

void writeSnapshot(StreamSnapshot snapshot, FILE* file, const char* group) {
    if (!snapshot.cumulative || !snapshot.interval) {
        return;
    }
    const std::string identity = identityText(snapshot.identity);
    writeStreamLine(snapshot, file, group, identity.c_str());
    for (PidLine& line : snapshot.lines) {
        if (ferror(file)) {
            return;
        }
        writePidLine(line, file, group, identity.c_str());
    }
}

template <typename Record>
using ListedRecords = std::vector<std::pair<uint16_t, Record>>;

// The records, got by `get`, of every elementary PID that a program lists.
template <typename Record, typename Get>
ListedRecords<Record> collectListedPids(UdpStream* stream, pthread_rwlock_t* streamsLock, Get get) {
    ListedRecords<Record> records;
    const ReadLock hold(streamsLock);
    const Programs programs(sarnDvbPsi_getChannelsInfo(stream->tsStream));
    for (uint32_t i = 0; programs && i < programs->count; ++i) {
        const ChannelInfo& program = programs->channels[i];
        for (uint32_t j = 0; j < program.elementaryPidCount; ++j) {
            const uint16_t pid = program.elementaryPids[j];
            if (Record record{get(stream->tsStream, pid)}) {
                records.emplace_back(pid, std::move(record));
            }
        }
    }
    return records;
}

// MPEG-1, MPEG-2, MPEG-4 part 2 and H.264 video (ISO/IEC 13818-1, table 2-34).
bool isVideo(uint8_t streamType) {
    return streamType == 1 || streamType == 2 || streamType == 16 || streamType == 27;
}

void appendColumn(std::string& text, unsigned int value) {
    text += std::to_string(value);
    text += ';';
}

// What the results pipe's FILE writes to. After a failed write nothing more goes into the pipe: whoever opens
// it next must not receive the rest of a snapshot.
struct PipeSink {
    int descriptor;
    bool broken;
};

ssize_t writeToPipe(void* cookie, const char* data, size_t size) {
    auto* sink = static_cast<PipeSink*>(cookie);
    size_t written = 0;
    while (!sink->broken && written < size) {
        const ssize_t result = write(sink->descriptor, data + written, size - written);
        if (result > 0) {
            written += static_cast<size_t>(result);
        } else if (errno != EINTR) {
            sink->broken = true;
        }
    }
    return sink->broken ? 0 : static_cast<ssize_t>(size);
}

}  // namespace

int fileSaverThread(T_interface* device) {
    return pthread_create(&device->fileSaverThreadId, nullptr, saveToFileThreadFunction, device);
}

void* saveToFileThreadFunction(void* argument) {
    sigset_t brokenPipe;
    sigemptyset(&brokenPipe);
    sigaddset(&brokenPipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &brokenPipe, nullptr);

    auto* device = static_cast<T_interface*>(argument);
    for (;;) {
        puts("Zapisuje wyniki");
        if (saveStatisticToFile(device) != -1) {
            sleep(kSnapshotPeriodSeconds);
        }
    }
}

int saveStatisticToFile(T_interface* device) {
    PipeSink sink{open(probelink::RESULTS_FIFO_PATH, O_WRONLY | O_CREAT | O_TRUNC, 0666), false};
    if (sink.descriptor < 0) {
        fprintf(stderr, "Failed to open %s for writing", probelink::RESULTS_FIFO_PATH);
        return 1;
    }
    const auto buffer = std::make_unique_for_overwrite<char[]>(kPipeBufferSize);
    cookie_io_functions_t functions{};
    functions.write = writeToPipe;
    if (FILE* file = fopencookie(&sink, "w", functions)) {
        setvbuf(file, buffer.get(), _IOFBF, kPipeBufferSize);
        saveStreamsV2(device, file);
        fclose(file);
    }
    close(sink.descriptor);
    return 0;
}

int saveStreamsV2(T_interface* device, FILE* file) {
    ReadLock channels(&device->channelListLock);
    for (const ChannelRecord* channel = device->channelList; channel;
         channel = static_cast<const ChannelRecord*>(channel->hh.next)) {
        const uint32_t group = channel->address;
        ReadLock lookup(&device->streamsLock);
        // Stays valid without this hold: deleting a stream takes channelListLock for writing.
        UdpStream* stream = sarnUdpStreams_findStream(device->udpStreams, group, &device->streamsLock);
        lookup.unlock();
        if (!stream) {
            continue;
        }
        printf("StreamId %d\n", static_cast<int>(group));
        saveStreamToFile(stream, file, group, &device->streamsLock);
        showGOPValues(stream, group, &device->streamsLock);
        showDescriptorsValues(stream, group, &device->streamsLock);
    }
    return channels.unlock();
}

void saveStreamToFile(UdpStream* stream, FILE* file, uint32_t group, pthread_rwlock_t* streamsLock) {
    const std::string groupText = dottedAddress(group);
    printf("Zapisuje Kanal %s\n", groupText.c_str());
    ReadLock hold(streamsLock);
    StreamSnapshot snapshot = collectStream(stream);
    hold.unlock();
    writeSnapshot(std::move(snapshot), file, groupText.c_str());
}

void showGOPValues(UdpStream* stream, uint32_t group, pthread_rwlock_t* streamsLock) {
    const auto records =
        collectListedPids<IntervalPid>(stream, streamsLock, [](ts_stream_t* context, uint16_t pid) {
            return sarnDvbPsi_getPidMetricsInterval(context, pid, kInterval);
        });
    std::string text = "showGOPValues: Zapisuje Kanal " + dottedAddress(group) + "\n";
    for (const auto& [pid, metrics] : records) {
        if (!isVideo(metrics->streamType)) {
            continue;
        }
        appendColumn(text, metrics->streamType);
        appendColumn(text, pid);
        for (const uint8_t value : metrics->gopPattern) {
            text += ';';
            text += std::to_string(value);
        }
        text += '\n';
    }
    text += "\n\n\n\nendGOPValues\n\n";
    fputs(text.c_str(), stdout);
}

void showDescriptorsValues(UdpStream* stream, uint32_t group, pthread_rwlock_t* streamsLock) {
    const auto records =
        collectListedPids<CumulativePid>(stream, streamsLock, sarnDvbPsi_getPidMetricsCumulative);
    std::string text = "showDescriptorsValues: Zapisuje Kanal " + dottedAddress(group) + "\n";
    for (const auto& [pid, metrics] : records) {
        appendColumn(text, metrics->streamType);
        appendColumn(text, pid);
        for (uint8_t i = 0; i < metrics->descriptorCount; ++i) {
            appendColumn(text, metrics->descriptorTags[i]);
        }
        text += '\n';
    }
    text += "\n\n\nshowDescriptorsValues\n\n";
    fputs(text.c_str(), stdout);
}
