#include "kestor.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <zmq.hpp>

#include "configuration.h"
#include "liveData.h"
#include "packetCapture.h"
#include "resultsWriter.h"
#include "sarn/sarnLog.h"
#include "streamjoiner.h"

namespace {

constexpr int kMessagingIoThreads = 1;
constexpr int kMessagingSocketLimit = 1023;
constexpr mode_t kResultsFifoMode = S_IFIFO | 0666;

constexpr uint64_t toMilliseconds(const timeval& time) {
    return static_cast<uint64_t>(time.tv_sec) * 1000 + static_cast<uint64_t>(time.tv_usec) / 1000;
}

}  // namespace

T_interface::T_interface(typeOfApplication mode) : applicationType(mode) {
    pthread_spin_init(&commandLock, PTHREAD_PROCESS_PRIVATE);
    pthread_rwlock_init(&streamsLock, nullptr);
    pthread_rwlock_init(&channelListLock, nullptr);
    udpStreams = sarnUdpStreams_initialize();
}

T_interface::~T_interface() {
    // The context waits for its sockets to be closed and for what they have still to send.
    if (liveDataSocket && *liveDataSocket) {
        liveDataSocket->set(zmq::sockopt::linger, 0);
    }
    liveDataSocket.reset();
    clearStreams(this);
    sarnUdpStreams_deleteAll(udpStreams);
    free(udpStreams);
    pthread_rwlock_destroy(&channelListLock);
    pthread_rwlock_destroy(&streamsLock);
    pthread_spin_destroy(&commandLock);
}

uint32_t init_kestor(typeOfApplication mode) {
    // Handed to threads that run until the process is killed, so nothing ever frees it.
    auto* device = new T_interface(mode);
    device->zmqContext = std::make_unique<zmq::context_t>(kMessagingIoThreads, kMessagingSocketLimit);
    device->streamJoiner = std::make_unique<StreamJoiner>();

    if (mode == MODE_TEST) {
        puts("Chodze sobie i chuja robie");
    }
    if (mode == MODE_MONITOR || mode == MODE_TEST) {
        analyzerCoreInit();
        pcapStartAnalyzing(device);
        fileSaverThread(device);
    }
    LiveData_ThreadStart(device);
    return 0;
}

int createFifoFile() {
    const int result = mknod(probelink::RESULTS_FIFO_PATH, kResultsFifoMode, 0);
    // Compares the call's result, not errno, so an existing pipe (result -1) passes without a message; that
    // is intended.
    if (result == EEXIST) {
        puts("got node already");
    }
    return result;
}

void create_core_file() {
    // Prepared, not applied: the inherited core-size limit stays.
    [[maybe_unused]] const rlimit unlimited{RLIM_INFINITY, RLIM_INFINITY};
}

void analyzerCoreInit() {}

int signal_setup() {
    struct sigaction action {};
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = signal_handler;
    for (int signalNumber : {SIGCHLD, SIGUSR1, SIGUSR2}) {
        sigaction(signalNumber, &action, nullptr);
    }
    return 0;
}

void signal_handler(int signalNumber, siginfo_t*, void*) {
    if (signalNumber != SIGCHLD) {
        return;
    }
    const int savedErrno = errno;
    int status;
    while (waitpid(-1, &status, WNOHANG) > 0) {
    }
    errno = savedErrno;
}

uint64_t GetTimeInt64() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return toMilliseconds(now);
}

uint64_t mdate() {
    timeval now{};
    if (gettimeofday(&now, nullptr) != 0) {
        printcf(4, "gettimeofday() error: %s\n", strerror(errno));
    }
    return toMilliseconds(now);
}

uint32_t GetTimeMs64() {
    return static_cast<uint32_t>(GetTimeInt64());
}
