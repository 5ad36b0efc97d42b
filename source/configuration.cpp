#include "configuration.h"

#include <arpa/inet.h>
#include <pthread.h>

#include <cstdio>
#include <memory>

#include "appLog.h"
#include "channelScan.h"
#include "kestor.h"
#include "lockGuards.h"
#include "streamjoiner.h"

namespace {

constexpr const char* kTestGroup = "239.212.0.12";
constexpr const char* kStreamName = "example name";

// Where fatal reports say they come from.
constexpr int kDuplicateChannelLine = 134;
constexpr int kNoStreamLine = 170;

// The address of a group text in network byte order, all ones for anything else; prints the text.
uint32_t parseGroup(const char* text) {
    puts(text);
    return inet_addr(text);
}

// A lookup by the thread that changes the table.
UdpStream* findStream(T_interface* device, uint32_t group) {
    const ReadLock hold(&device->streamsLock);
    return sarnUdpStreams_findStream(device->udpStreams, group, &device->streamsLock);
}

void joinGroup(T_interface* device, UdpStream* stream) {
    if (device->passiveMonitoring) {
        device->streamJoiner->join_passive(stream->group);
        return;
    }
    device->streamJoiner->join(stream->group);
    // The latency counts from here, not from the end of the wait for the lock.
    const uint64_t joinTime = GetTimeInt64();
    const WriteLock hold(&device->streamsLock);
    sarnUdpStreams_setIGMPJoinTime(stream, joinTime);
}

void removeStream(T_interface* device, UdpStream* stream) {
    const std::string group = dottedAddress(stream->group);
    printf("deleteIPstream %s\n", group.c_str());
    leaveGroup(device, stream->group);
    printf("sarnUdpStreams_deleteStream %s\n", group.c_str());
    sarnUdpStreams_deleteStream(device->udpStreams, stream, &device->streamsLock);
    printf("po sarnUdpStreams_deleteStream %s\n", group.c_str());
}

void scanChannel(T_interface* device, ChannelRecord* channel) {
    device->streamJoiner->join(channel->address);
    device->scannedGroup = channel->address;
    const ChannelScanArgument argument{device, channel->address};
    MyChannelScanThreadFunction(&argument);
    channel->scanned = 1;
    device->streamJoiner->leave(channel->address);
    device->has_scan_results = true;
}

void scanChannels(T_interface* device) {
    const ReadLock hold(&device->channelListLock);
    for (ChannelRecord* channel = device->channelList; channel;
         channel = static_cast<ChannelRecord*>(channel->hh.next)) {
        puts("check_streams_availavailability working");
        if (device->packetCaptureThreadShouldStop) {
            puts("device->packetCaptureThreadShouldStop true");
            return;
        }
        scanChannel(device, channel);
    }
}

}  // namespace

ChannelRecord* findChannel(T_interface* device, uint32_t address) {
    ChannelRecord* channel = nullptr;
    HASH_FIND(hh, device->channelList, &address, sizeof address, channel);
    return channel;
}

std::string dottedAddress(uint32_t address) {
    char text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &address, text, sizeof text);
    return text;
}

void addIPStream(T_interface* device, const char* text, bool skipList) {
    const uint32_t address = parseGroup(text);
    printf("Dodaje kanal: %s\n\n", text);
    UdpStream* stream = findStream(device, address);
    if (stream) {
        puts("Mam juz ten kanal!");
        sarnUdpStreams_printStreams(device->udpStreams);
    } else {
        stream =
            sarnUdpStreams_addStream(device->udpStreams, address, 0, 0, kStreamName, &device->streamsLock);
        if (!stream) {
            reportFatal(kNoStreamLine, kConfigurationFile);
            return;
        }
        if (!skipList) {
            addIpStreamToInternalList(device, address);
        }
    }
    joinGroup(device, stream);
}

void addIpStreamToInternalList(T_interface* device, unsigned int address) {
    const WriteLock hold(&device->channelListLock);
    if (findChannel(device, address)) {
        reportFatal(kDuplicateChannelLine, kConfigurationFile);
        return;
    }
    auto channel = std::make_unique<ChannelRecord>();
    channel->address = address;
    ChannelRecord* record = channel.release();
    HASH_ADD(hh, device->channelList, address, sizeof record->address, record);
}

void clearIPChannel(T_interface* device, const std::string& text) {
    printf("clearIPChannel: %s\n\n", text.c_str());
    const uint32_t address = parseGroup(text.c_str());
    const WriteLock hold(&device->channelListLock);
    // Printed once a channel, so with thousands of them it is made only when it changes.
    std::string streams = sarnUdpStreams_listStreams(device->udpStreams);
    ChannelRecord* channel;
    ChannelRecord* next;
    HASH_ITER(hh, device->channelList, channel, next) {
        if (channel->address != address) {
            puts("Tego kanalu nie chce usuwac bo ...");
            fwrite(streams.data(), 1, streams.size(), stdout);
            continue;
        }
        HASH_DEL(device->channelList, channel);
        if (UdpStream* stream = findStream(device, address)) {
            removeStream(device, stream);
        } else {
            // Printed when the stream is missing, whatever the text says.
            puts("udpStream != NULL");
        }
        streams = sarnUdpStreams_listStreams(device->udpStreams);
        delete channel;
    }
}

void leaveGroup(T_interface* device, uint32_t group) {
    if (device->passiveMonitoring) {
        device->streamJoiner->leave_passive(group);
    } else {
        device->streamJoiner->leave(group);
    }
}

void clearStreams(T_interface* device) {
    const WriteLock hold(&device->channelListLock);
    ChannelRecord* next = device->channelList;
    HASH_CLEAR(hh, device->channelList);
    while (next) {
        const std::unique_ptr<ChannelRecord> channel(next);
        next = static_cast<ChannelRecord*>(channel->hh.next);
    }
}

void* check_streams_availavailability(void* argument) {
    auto* device = static_cast<T_interface*>(argument);
    puts("check_streams_availavailability start");
    scanChannels(device);
    device->packetCaptureThreadActive = false;
    return nullptr;
}

void test_function(T_interface* device) {
    const SpinLock hold(&device->commandLock);
    addIPStream(device, kTestGroup, false);
}
