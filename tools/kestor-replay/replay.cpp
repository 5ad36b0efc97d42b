#include "replay.h"

#include <arpa/inet.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <unordered_set>

#include "configuration.h"
#include "packetCapture.h"
#include "resultsWriter.h"
#include "sarn/sectionDrops.h"

namespace {

constexpr uint64_t kSnapshotPeriodUs = 1'000'000;
constexpr uint64_t kLongestSilenceUs = 3'600'000'000;
constexpr std::size_t kDestinationOffset = 30;  // of the IPv4 destination address in an Ethernet frame

[[noreturn]] void fail(const std::string& path, const std::string& problem) {
    throw std::runtime_error(path + ": " + problem);
}

bool isMulticast(uint32_t group) {
    return IN_MULTICAST(ntohl(group));
}

std::vector<uint32_t> destinationsIn(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        fail(path, "only a regular file can be searched for groups, name them with -g");
    }
    CaptureFile capture(path);
    std::vector<uint32_t> groups;
    std::unordered_set<uint32_t> seen;
    try {
        while (const auto frame = capture.next()) {
            uint32_t destination;
            if (frame->length < kDestinationOffset + sizeof destination) {
                continue;
            }
            memcpy(&destination, frame->data + kDestinationOffset, sizeof destination);
            if (isMulticast(destination) && seen.insert(destination).second) {
                groups.push_back(destination);
            }
        }
    } catch (const std::runtime_error&) {
        // A file that breaks off is told of when it has been analysed that far.
    }
    return groups;
}

}  // namespace

CaptureFile::CaptureFile(const std::string& path) : path_(path) {
    char error[PCAP_ERRBUF_SIZE] = "";
    handle_.reset(pcap_open_offline_with_tstamp_precision(path.c_str(), PCAP_TSTAMP_PRECISION_MICRO, error));
    if (!handle_) {
        // libpcap names the file itself where it cannot be opened.
        const std::string text = error;
        throw std::runtime_error(text.starts_with(path) ? text : path + ": " + text);
    }
    if (pcap_datalink(handle_.get()) != DLT_EN10MB) {
        const char* name = pcap_datalink_val_to_name(pcap_datalink(handle_.get()));
        fail(path, std::string("link type ") + (name != nullptr ? name : "unknown") + ", not Ethernet");
    }
    bpf_program program;
    constexpr int kOptimise = 1;
    if (pcap_compile(handle_.get(), &program, kCaptureFilter, kOptimise, kCaptureNetmask) < 0) {
        fail(path, pcap_geterr(handle_.get()));
    }
    const int result = pcap_setfilter(handle_.get(), &program);
    pcap_freecode(&program);
    if (result < 0) {
        fail(path, pcap_geterr(handle_.get()));
    }
}

std::optional<CapturedFrame> CaptureFile::next() {
    CapturedFrame frame;
    const int result = readCapturedFrame(handle_.get(), frame);
    if (result == PCAP_ERROR) {
        fail(path_, pcap_geterr(handle_.get()));
    }
    if (result != 1) {
        return std::nullopt;
    }
    frame.length = std::min<uint32_t>(frame.length, kCaptureSnapshotLength);
    return frame;
}

std::vector<uint32_t> parseGroups(const std::vector<std::string>& texts) {
    std::vector<uint32_t> groups;
    for (const std::string& text : texts) {
        in_addr address{};
        if (inet_pton(AF_INET, text.c_str(), &address) != 1 || !isMulticast(address.s_addr)) {
            throw std::runtime_error(text + " is not an IPv4 multicast address");
        }
        if (std::ranges::find(groups, address.s_addr) == groups.end()) {
            groups.push_back(address.s_addr);
        }
    }
    return groups;
}

Replay::Replay(const std::string& path, std::vector<uint32_t> groups)
    : capture_(path), groups_(groups.empty() ? destinationsIn(path) : std::move(groups)) {}

void Replay::addGroups(uint64_t joinTimeMs) {
    for (const uint32_t group : groups_) {
        UdpStream* stream =
            sarnUdpStreams_addStream(device_.udpStreams, group, 0, 0, "example name", &device_.streamsLock);
        sarnUdpStreams_setIGMPJoinTime(stream, joinTimeMs);
        addIpStreamToInternalList(&device_, group);
    }
}

void Replay::writeSnapshot(FILE* records) {
    saveStreamsV2(&device_, records);
    fputc('\n', records);
    if (ferror(records)) {
        throw std::runtime_error("cannot write the records");
    }
}

void Replay::writeDueSnapshots(const CapturedFrame& frame, FILE* records) {
    const uint64_t stamp = frame.stampUs();
    if (stamp < nextSnapshotUs_) {
        return;
    }
    // Counted beforehand: a damaged stamp near the end of the range must not let the due time wrap behind it.
    uint64_t due = (stamp - nextSnapshotUs_) / kSnapshotPeriodUs + 1;
    nextSnapshotUs_ += due * kSnapshotPeriodUs;
    if (due > kLongestSilenceUs / kSnapshotPeriodUs) {
        due = 1;
    }
    for (; due > 0; --due) {
        writeSnapshot(records);
    }
}

void Replay::tellOfDrops() const {
    for (const UdpStream* stream = sarnUdpStreams_getUdpStreamsList(device_.udpStreams); stream != nullptr;
         stream = static_cast<const UdpStream*>(stream->hh.next)) {
        sarnDvbPsi_printSectionDrops(stream->tsStream, dottedAddress(stream->group).c_str(), stderr);
    }
}

void Replay::run(FILE* records) {
    std::exception_ptr brokenOff;
    const auto next = [&]() -> std::optional<CapturedFrame> {
        try {
            return capture_.next();
        } catch (const std::runtime_error&) {
            brokenOff = std::current_exception();
            return std::nullopt;
        }
    };
    auto frame = next();
    addGroups(frame ? arrivalMs(frame->seconds, frame->microseconds) : 0);
    if (frame) {
        nextSnapshotUs_ = frame->stampUs() + kSnapshotPeriodUs;
    }
    for (; frame; frame = next()) {
        writeDueSnapshots(*frame, records);
        processFrame(&device_, frame->data, frame->length, frame->seconds, frame->microseconds);
    }
    writeSnapshot(records);
    tellOfDrops();
    if (brokenOff) {
        std::rethrow_exception(brokenOff);
    }
}
