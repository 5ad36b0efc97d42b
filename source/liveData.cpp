#include "liveData.h"

#include <arpa/inet.h>
#include <pthread.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>

#include "appLog.h"
#include "configuration.h"
#include "kestor.h"
#include "lockGuards.h"

using configuration::ConfigurationMessage;
using configuration::TasksRequest;
using configuration::TasksResponse;

namespace {

constexpr const char* kInformation = "co mi Panie dasz?";
constexpr std::chrono::milliseconds kReplyTimeout{500};
constexpr std::chrono::milliseconds kScanReplyTimeout{2500};
constexpr int32_t kControlledLatencyFactor = 10;

// Where the fatal report of an empty frame says it comes from.
constexpr int kEmptyFrameLine = 391;

// Values of the controller's view of a scan.
constexpr int kScanOver = 0;
constexpr int kScanGoesOn = 1;
constexpr int kStatusBeingScanned = 2;

void openLink(T_interface* device) {
    auto link = std::make_unique<zmq::socket_t>(*device->zmqContext, zmq::socket_type::req);
    link->connect(probelink::kControllerEndpoint);
    link->set(zmq::sockopt::linger, 0);
    device->liveDataSocket = std::move(link);
}

void closeLink(T_interface* device) {
    device->liveDataSocket->close();
    device->liveDataSocket.reset();
}

void sendRequest(T_interface* device, int sequenceNumber) {
    ConfigurationMessage message;
    create_message(device, &message, sequenceNumber);
    const std::string bytes = message.SerializeAsString();
    zmq::message_t frame(bytes.data(), bytes.size());
    device->liveDataSocket->send(frame, zmq::send_flags::none);
}

// Waits for one reply and handles it; false when none came in time.
bool handleReply(T_interface* device) {
    puts("except_reply == 1");
    zmq::pollitem_t item{device->liveDataSocket->handle(), 0, ZMQ_POLLIN, 0};
    zmq::poll(&item, 1, device->applicationType == MODE_CHANNEL_SCAN ? kScanReplyTimeout : kReplyTimeout);
    if (!(item.revents & ZMQ_POLLIN)) {
        return false;
    }
    zmq::message_t frame;
    if (device->liveDataSocket->recv(frame, zmq::recv_flags::none)) {
        analyzeMessage(device, &frame);
    }
    return true;
}

void addScanResult(TasksRequest* request, uint32_t group, int status) {
    configuration::Channel* result = request->add_scan_results();
    result->set_multicastgroup(dottedAddress(group));
    result->set_status(status);
}

// Adds the results not reported before. True when every record has been reported earlier.
bool reportNewResults(T_interface* device, TasksRequest* request) {
    bool allReported = true;
    for (ChannelRecord* channel = device->channelList; channel;
         channel = static_cast<ChannelRecord*>(channel->hh.next)) {
        if (channel->reported == 1) {
            continue;
        }
        allReported = false;
        if (channel->scanned) {
            addScanResult(request, channel->address, channel->status);
            channel->reported = 1;
        }
    }
    return allReported;
}

// Fills in the state of the scan. True when the scan is over and the channel list is to be emptied.
bool reportScan(T_interface* device, TasksRequest* request) {
    puts("current_device->has_scan_results");
    const ReadLock hold(&device->channelListLock);
    // Asked before the list is walked: a pass that ends meanwhile has left a result behind, and a scan with
    // a result to report is not abandoned.
    const bool passRuns = device->packetCaptureThreadActive;
    const bool allReported = reportNewResults(device, request);
    if (request->scan_results_size() > 0) {
        // Also with the last results: that all were reported shows at the next request.
        request->set_scan_status(kScanGoesOn);
        return false;
    }
    if (allReported) {
        device->has_scan_results = false;
        puts("send_all: request->scan_results_size() == 0");
        request->set_scan_status(kScanOver);
        return true;
    }
    if (passRuns) {
        addScanResult(request, device->scannedGroup, kStatusBeingScanned);
        puts("current_device->packetCaptureThreadActive: request->set_scan_status(true);");
        request->set_scan_status(kScanGoesOn);
        return false;
    }
    // The scan was abandoned with groups left.
    device->scanCompleted = true;
    puts("current_device->packetCaptureThreadActive: request->set_scan_status(false);");
    request->set_scan_status(kScanOver);
    return true;
}

void applyIgmpLatency(T_interface* device, const TasksResponse& response) {
    if (response.has_igmp_latency()) {
        device->igmpLatency = response.igmp_latency();
        device->igmpLatencyFactor = kControlledLatencyFactor;
    }
}

void applyMonitoringResponse(T_interface* device, const TasksResponse& response) {
    const SpinLock hold(&device->commandLock);
    for (const configuration::Channel& channel : response.remove()) {
        clearIPChannel(device, channel.multicastgroup());
    }
    for (const configuration::Channel& channel : response.append()) {
        addIPStream(device, channel.multicastgroup().c_str(), false);
    }
    applyIgmpLatency(device, response);
}

// Waits for the scan worker's end, unless none was started since the last time.
void joinScanWorker(T_interface* device) {
    if (device->packetCaptureThreadId != 0) {
        pthread_join(device->packetCaptureThreadId, nullptr);
        device->packetCaptureThreadId = 0;
    }
}

void startScanWorker(T_interface* device) {
    joinScanWorker(device);
    // Set before the worker runs: a pass that ends at once must not be overtaken by it.
    device->packetCaptureThreadActive = true;
    pthread_create(&device->packetCaptureThreadId, nullptr, check_streams_availavailability, device);
}

void applyScanResponse(T_interface* device, const TasksResponse& response) {
    applyIgmpLatency(device, response);
    if (device->scanCompleted) {
        return;
    }
    puts("Przyszla jakas wiadomosc !!!");
    const bool hasGroups = response.append_size() > 0;
    if (device->packetCaptureThreadActive && hasGroups) {
        // The request stays set for the pass that is started below, which therefore ends before its first
        // group; the next list that arrives while no pass runs clears it. The controller relies on that.
        device->packetCaptureThreadShouldStop = true;
        joinScanWorker(device);
    } else {
        device->packetCaptureThreadShouldStop = false;
    }
    for (const configuration::Channel& channel : response.append()) {
        const char* text = channel.multicastgroup().c_str();
        puts(text);
        addIpStreamToInternalList(device, inet_addr(text));
    }
    printf("current_device->packetCaptureThreadActive %d\n", device->packetCaptureThreadActive.load());
    if (!device->packetCaptureThreadActive && hasGroups) {
        startScanWorker(device);
    }
}

// Gives a channel a fresh stream, with all counters at zero, and joins its group anew.
void restartStream(T_interface* device, UdpStream* stream) {
    const uint32_t group = stream->group;
    leaveGroup(device, group);
    sarnUdpStreams_deleteStream(device->udpStreams, stream, &device->streamsLock);
    if (group != INADDR_NONE) {
        addIPStream(device, dottedAddress(group).c_str(), true);
    }
}

}  // namespace

int LiveData_ThreadStart(T_interface* device) {
    pthread_create(&device->liveDataThreadId, nullptr, My_LiveDataThreadFunction, device);
    return 0;
}

void* My_LiveDataThreadFunction(void* argument) {
    auto* device = static_cast<T_interface*>(argument);
    openLink(device);
    if (device->applicationType == MODE_TEST) {
        puts("Chodze sobie i chuja robie");
        test_function(device);
        return nullptr;
    }
    for (int32_t sequenceNumber = 0;; ++sequenceNumber) {
        printf("Chodze sobie i chuja robie\n passive monitoring %d\n", device->passiveMonitoring.load());
        sendRequest(device, sequenceNumber);
        // Waits once more after a reply, and reconnects every time: the controller is to see a new connection
        // for every request, at a steady pace.
        while (handleReply(device)) {
        }
        closeLink(device);
        openLink(device);
    }
}

void create_message(T_interface* device, ConfigurationMessage* message, int sequenceNumber) {
    TasksRequest* request = message->mutable_request();
    request->set_information(kInformation);
    request->set_sequence_number(sequenceNumber);
    if (device->applicationType != MODE_CHANNEL_SCAN || !device->has_scan_results) {
        return;
    }
    if (reportScan(device, request)) {
        clearStreams(device);
    }
}

void analyzeMessage(T_interface* device, zmq::message_t* frame) {
    ConfigurationMessage message;
    // What could be read of a malformed frame is acted on, whatever is missing.
    static_cast<void>(message.ParsePartialFromString(frame->to_string()));
    if (message.has_response()) {
        puts("analyzeResponseMessage");
        analyzeResponseMessage(device, message);
    } else if (message.has_clear()) {
        puts("analyzeClearErrorMessage");
        analyzeClearErrorMessage(device, message);
    } else {
        reportFatal(kEmptyFrameLine, kConfigurationFile);
    }
}

void analyzeResponseMessage(T_interface* device, const ConfigurationMessage& message) {
    const TasksResponse& response = message.response();
    if (response.has_passive_monitoring()) {
        device->passiveMonitoring = response.passive_monitoring();
    }
    if (device->applicationType == MODE_MONITOR) {
        applyMonitoringResponse(device, response);
    } else if (device->applicationType == MODE_CHANNEL_SCAN) {
        applyScanResponse(device, response);
    }
}

void analyzeClearErrorMessage(T_interface* device, const ConfigurationMessage& message) {
    const bool clearAll = message.clear().clearall();
    printf("Dupa!!!!%d\n\n\n\n\n\n\n\n", clearAll);
    if (!clearAll) {
        return;
    }
    const WriteLock hold(&device->channelListLock);
    for (ChannelRecord* channel = device->channelList; channel;
         channel = static_cast<ChannelRecord*>(channel->hh.next)) {
        ReadLock lookup(&device->streamsLock);
        UdpStream* stream =
            sarnUdpStreams_findStream(device->udpStreams, channel->address, &device->streamsLock);
        lookup.unlock();
        // A channel scan's groups have no streams.
        if (stream) {
            restartStream(device, stream);
        }
    }
}
