// Publishes the results: once a second one snapshot of every monitored channel into the results pipe.
// docs/records.md lists the lines and their columns.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <cstdio>

#include "sarn/udpStreams.h"

struct T_interface;

// Starts the results-writer thread; returns pthread_create's result.
int fileSaverThread(T_interface* device);
// Its body, never ends. Blocks SIGPIPE for itself: a reader that leaves costs the rest of a snapshot, not
// the process.
void* saveToFileThreadFunction(void* argument);

// Writes one snapshot into the results pipe; waits until the pipe has a reader. Returns 0, or 1 when the pipe
// cannot be opened.
int saveStatisticToFile(T_interface* device);

// Writes the lines of all channels that have a stream, in channel-list order, latches each stream's interval
// and prints its diagnostics. Once writing has failed nothing more is written to `file`, but every stream is
// still latched and printed. Holds channelListLock for reading throughout. Returns the unlock result.
int saveStreamsV2(T_interface* device, FILE* file);

// The three steps of a channel. `streamsLock` is held for reading while the stream is looked at, not while
// anything is written or printed; null takes no lock.
// REQUIRES: channelListLock is held, or nothing else can delete the stream.

// Writes the channel's lines and latches the stream's interval, which ends before the first line is written.
void saveStreamToFile(UdpStream* stream, FILE* file, uint32_t group, pthread_rwlock_t* streamsLock = nullptr);
// Prints the GOP estimation of every listed video PID. Counts as an interval reading of every listed PID.
void showGOPValues(UdpStream* stream, uint32_t group, pthread_rwlock_t* streamsLock = nullptr);
// Prints the descriptor tags of every listed PID.
void showDescriptorsValues(UdpStream* stream, uint32_t group, pthread_rwlock_t* streamsLock = nullptr);
