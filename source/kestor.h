// Start-up of a monitor and the context that its threads share.
#pragma once

#include <pthread.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <memory>

#include "probeEndpoints.h"
#include "sarn/udpStreams.h"

class StreamJoiner;
struct ChannelRecord;
namespace zmq {
class context_t;
class socket_t;
}  // namespace zmq

enum typeOfApplication : uint32_t {
    MODE_MONITOR = 0,       // -s: monitors the groups that the controller lists
    MODE_CHANNEL_SCAN = 1,  // -c: tells which of the controller's groups carry traffic
    MODE_TEST = 2,          // -t: monitors one fixed group, without a controller
};

// One running monitor. Atomic members are polled by threads that hold no lock; a store takes effect at some
// later poll, nothing else is ordered by it.
//
// Lock order: commandLock, then channelListLock, then streamsLock; a context's own lock comes last.
struct T_interface {
    // Sets every member that needs a value to start from, and the locks. Starts no thread and opens no
    // socket: zmqContext and streamJoiner are left null.
    explicit T_interface(typeOfApplication mode);
    // Closes the link, dropping what was not sent, and frees channels and streams. REQUIRES: no thread uses
    // the context. The daemon never ends a monitor.
    ~T_interface();
    T_interface(const T_interface&) = delete;
    T_interface& operator=(const T_interface&) = delete;

    pthread_t fileSaverThreadId = 0;
    pthread_t liveDataThreadId = 0;
    // The capture thread; in channel-scan mode the scan worker, 0 while there is none to join.
    pthread_t packetCaptureThreadId = 0;
    std::atomic<bool> packetCaptureThreadActive{false};  // the scan worker runs
    std::atomic<bool> packetCaptureThreadShouldStop{
        false};  // the scan worker is to end before its next group

    // Serialises the application of controller commands, joins and leaves included.
    pthread_spinlock_t commandLock;
    UdpStreamTable* udpStreams = nullptr;  // guarded by streamsLock
    const typeOfApplication applicationType;
    std::unique_ptr<zmq::socket_t> liveDataSocket;  // used by the live-data thread only
    std::unique_ptr<zmq::context_t> zmqContext;

    // Guards the stream table and every stream's analysis: held for writing while a frame is classified and
    // analysed and while the table changes, for reading while metric records are collected and latched. Never
    // held across a write to the results pipe.
    pthread_rwlock_t streamsLock;
    ChannelRecord* channelList = nullptr;  // uthash head, null while empty; guarded by channelListLock
    // Guards the channel list. A holder may take streamsLock. Whoever deletes a stream holds it for writing,
    // so a reader's streams stay alive.
    pthread_rwlock_t channelListLock;
    std::unique_ptr<StreamJoiner> streamJoiner;

    std::atomic<bool> has_scan_results{false};   // a scanned group's result may be waiting to be reported
    std::atomic<uint32_t> scannedGroup{0};       // group under scan, network byte order
    std::atomic<bool> scanCompleted{false};      // a scan was abandoned; later responses are ignored
    std::atomic<int32_t> igmpLatency{1000};      // ms that a channel scan waits for one frame
    std::atomic<int32_t> igmpLatencyFactor{5};   // igmpLatency times this is a scan's number of attempts
    std::atomic<bool> passiveMonitoring{false};  // join in the interface's receive filter, without IGMP
};

// Builds a monitor that lives as long as the process, and starts its threads. Always returns 0.
uint32_t init_kestor(typeOfApplication mode);

// Makes the results pipe with mode 0666 less the umask; returns mknod's result. An existing pipe passes
// silently.
int createFifoFile();

// Hooks without effect: the core-size limit, and start-up of the analysis.
void create_core_file();
void analyzerCoreInit();

// Installs signal_handler for SIGCHLD, SIGUSR1 and SIGUSR2; returns 0. The daemon leaves the default
// dispositions in force and does not call it.
int signal_setup();
// Reaps ended children on SIGCHLD.
void signal_handler(int signalNumber, siginfo_t* information, void* context);

// Wall-clock time in ms since the epoch; GetTimeMs64 keeps its low 32 bits.
uint64_t GetTimeInt64();
uint64_t mdate();
uint32_t GetTimeMs64();
