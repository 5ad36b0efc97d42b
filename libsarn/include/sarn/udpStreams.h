// The table of monitored multicast streams, and the sorting of captured frames into it.
#pragma once

#include <netinet/in.h>
#include <pthread.h>
#include <uthash.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "sarn/tsStream.h"

// Source and destination address only are filled, in network byte order as in the frame.
struct Ipv4HeaderImage {
    uint8_t unused[12];
    uint32_t source;
    uint32_t destination;
};
static_assert(sizeof(Ipv4HeaderImage) == 20);

// Host byte order, from the stream's first datagram.
struct UdpHeaderImage {
    uint16_t sourcePort;
    uint16_t destinationPort;
    uint16_t length;
    uint16_t checksum;  // never filled
};
static_assert(sizeof(UdpHeaderImage) == 8);

// One monitored stream; owned by the table.
struct UdpStream {
    uint32_t streamId;           // the caller's
    char* name;                  // owned
    uint32_t group;              // network byte order; the key
    uint32_t userData;           // the caller's
    uint16_t port;               // never assigned
    UT_hash_handle hh;           // iteration (hh.next) is in order of insertion
    bool initialized;            // the first datagram has come
    bool wrongSource;            // a datagram came from another source than the first one
    uint64_t lastPacketTimeMs;   // capture time of the latest datagram, ms since the epoch
    uint32_t payloadOffset;      // first transport packet, bytes from the start of the frame
    uint32_t hasExtraHeader;     // 1: the UDP length is no multiple of 188
    uint32_t firstPacketLength;  // captured length of the first frame, bytes
    uint32_t reserved;
    ts_stream_t* tsStream;  // owned
    uint8_t ttl;            // of the latest datagram
    uint8_t dscp;
    uint8_t ecn;
    Ipv4HeaderImage* ipHeader;  // owned; zero until the first datagram
    UdpHeaderImage* udpHeader;  // owned; zero until the first datagram
    uint64_t igmpJoinTime;      // ms since the epoch; 0 until set
    uint64_t igmpLeaveTime;
};

// Cell that holds the head record; null while the table is empty. Never freed.
using UdpStreamTable = UdpStream*;

UdpStreamTable* sarnUdpStreams_initialize();

// The head record, or null.
UdpStream* sarnUdpStreams_getUdpStreamsList(UdpStreamTable* table);

// `lock` is the table's lock; the find function does not take it: the caller holds it, or no other thread
// changes the table. Groups are in network byte order.
UdpStream* sarnUdpStreams_findStream(UdpStreamTable* table, uint32_t group, pthread_rwlock_t* lock);

// Creates and inserts a record; `name` is copied. Does not look for an existing one. Takes `lock` for
// writing; failing that, or without memory, ends the process with status 1.
UdpStream* sarnUdpStreams_addStream(UdpStreamTable* table, uint32_t group, uint32_t userData,
                                    uint32_t streamId, const char* name, pthread_rwlock_t* lock);

// Removes the record under `lock` (taken for writing; null takes none) and then frees it with its context.
// REQUIRES: no other thread uses the record once it is out of the table.
void sarnUdpStreams_deleteStream(UdpStreamTable* table, UdpStream* stream, pthread_rwlock_t* lock);

// Deletes every record without locking.
void sarnUdpStreams_deleteAll(UdpStreamTable* table);

// Prints "streamId name group port " per record to standard output, in table order.
void sarnUdpStreams_printStreams(UdpStreamTable* table);
// What that prints.
std::string sarnUdpStreams_listStreams(const UdpStreamTable* table);

// Times in ms since the epoch. No lock is taken.
void sarnUdpStreams_setIGMPJoinTime(UdpStream* stream, uint64_t time);
void sarnUdpStreams_setIGMPLeaveTime(UdpStream* stream, uint64_t time);

// Sorts one captured Ethernet frame into its group's stream and analyses its transport packets, all under
// `lock` held for writing. Frames of unknown groups, and frames too short for their headers, are dropped
// uncounted. arrivalMs: capture time in ms since the epoch; arrivalTicks: the same in 1/54 us. Returns the
// unlock result.
int sarnUdpStreams_processIpPacket(UdpStreamTable* table, const uint8_t* frame, uint32_t capturedLength,
                                   uint64_t arrivalMs, uint64_t arrivalTicks, pthread_rwlock_t* lock);

// The capture filter admits plain Ethernet with IPv4 only, so the header lengths are fixed: 14 and 20.
uint32_t sarnUdpStreams_determineEthernetType(const uint8_t* frame);
uint32_t sarnUdpStreams_determineIpType(const uint8_t* frame);

// Learns ports, UDP length and payload offset from a stream's first frame, which must hold the three headers.
// What the UDP length has beyond whole transport packets counts as header: UDP's 8 bytes, and RTP's 12 where
// present.
void sarnUdpStreams_determineProtocolStack(const uint8_t* frame, UdpStream* stream, uint32_t ipHeaderLength,
                                           uint32_t ethernetHeaderLength);
