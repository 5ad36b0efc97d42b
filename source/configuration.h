// The channel list: the groups that the controller named, and what is done to one end to end.
#pragma once

#include <netinet/in.h>
#include <uthash.h>

#include <atomic>
#include <cstdint>
#include <string>

struct T_interface;

// One group on the list; owned by it. The scan worker writes status and scanned while the live-data thread
// reads them, both holding channelListLock for reading.
struct ChannelRecord {
    uint32_t address = 0;             // network byte order; the key
    std::atomic<uint8_t> status{0};   // channel scan: 1 traffic seen, 0 none
    std::atomic<uint8_t> scanned{0};  // 1 once the scan has dealt with the group
    uint8_t reported = 0;             // 1 once the result was sent; used by the live-data thread only
    UT_hash_handle hh{};              // iteration is in order of insertion
};

// The record of a group (network byte order), or null. The caller holds channelListLock.
ChannelRecord* findChannel(T_interface* device, uint32_t address);

// Dotted text of an address in network byte order.
std::string dottedAddress(uint32_t address);

// Group texts are dotted quads; text that is none stands for 255.255.255.255. Every function that is given
// one prints it on standard output.

// Makes the group's stream unless there is one, puts it on the channel list unless skipList, and joins the
// group in any case. Takes streamsLock, and channelListLock unless skipList.
void addIPStream(T_interface* device, const char* text, bool skipList);

// Appends a record; a group that is on the list already is fatal. Takes channelListLock for writing.
void addIpStreamToInternalList(T_interface* device, unsigned int address);

// Leaves the group, deletes its stream and its record; a group that is not listed is left alone. Takes
// channelListLock for writing and streamsLock inside it.
void clearIPChannel(T_interface* device, const std::string& text);

// Leaves a stream's group in the way that passiveMonitoring says.
void leaveGroup(T_interface* device, uint32_t group);

// Empties the list; streams and memberships stay. Takes channelListLock for writing.
void clearStreams(T_interface* device);

// Body of the scan worker: one pass over the list, holding channelListLock for reading. Joins each group,
// scans it and leaves it; a stop request is honoured between groups.
void* check_streams_availavailability(void* argument);

// Adds the fixed test group 239.212.0.12. Takes commandLock.
void test_function(T_interface* device);
