#include "scan.h"

#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using configuration::ConfigurationMessage;
using configuration::TasksRequest;

enum Status : int { kNotAvailable = 0, kAvailable = 1, kUnderScan = 2 };

// What the probe starts with, and what it takes as factor once it is told a latency.
constexpr int64_t kDefaultLatencyMs = 1000;
constexpr int64_t kDefaultFactor = 5;
constexpr int64_t kFactor = 10;

// A probe in channel-scan mode asks every 2500 ms, one that monitors every 500 ms.
constexpr std::chrono::milliseconds kMonitorAsksAgain = 1s;

constexpr int kUsualPort = 5000;

// Time for an answered request to come around, beyond what the scan itself takes.
constexpr std::chrono::milliseconds kReportDelay = 10s;

// The longest that one silent group can take: limit + 1 attempts of igmpLatency each.
std::chrono::milliseconds longestWait(const std::optional<int>& igmpLatencyMs) {
    const int64_t latency = igmpLatencyMs.value_or(kDefaultLatencyMs);
    const int64_t factor = igmpLatencyMs ? kFactor : kDefaultFactor;
    return std::chrono::milliseconds((latency * factor + 1) * latency);
}

std::string duration(std::chrono::milliseconds time) {
    const int64_t seconds = (time.count() + 999) / 1000;
    char text[64];
    if (seconds < 120) {
        snprintf(text, sizeof text, "%" PRId64 " s", seconds);
    } else {
        snprintf(text, sizeof text, "%" PRId64 " min %02" PRId64 " s", seconds / 60, seconds % 60);
    }
    return text;
}

class Scan {
  public:
    explicit Scan(const ScanOptions& options)
        : options_(options), onTerminal_(!options.json && isatty(STDOUT_FILENO) == 1) {}

    int run() {
        start();
        // The first request behind the list may not mention the scan: no group is finished yet.
        const auto silentUntil = Clock::now() + longestWait(options_.igmpLatencyMs) + kReportDelay;
        bool running = true;
        while (running) {
            const TasksRequest request = nextRequest();
            link_.answer(emptyResponse());
            take(request);
            mentioned_ = mentioned_ || request.has_scan_status();
            running = !(request.has_scan_status() && request.scan_status() == 0);
            if (!mentioned_ && Clock::now() > silentUntil) {
                clearProgress();
                throw probelink::LinkError(
                    "the probe does not scan: an earlier scan of it was abandoned, restart it");
            }
            showProgress();
        }
        clearProgress();
        writePlaylist();
        if (results_.size() < options_.groups.size()) {
            throw probelink::LinkError("the scan ended with " + std::to_string(results_.size()) + " of " +
                                       std::to_string(options_.groups.size()) + " groups reported");
        }
        return 0;
    }

  private:
    const ScanOptions& options_;
    const bool onTerminal_;
    probelink::ControllerLink link_;
    std::map<std::string, int> results_;  // groups reported, with their status
    std::string underScan_;
    bool mentioned_ = false;

    // The groups that carry traffic, in the order of the list. The scan does not learn their ports, and no
    // reader of a playlist for monitoring needs them.
    void writePlaylist() const {
        if (options_.m3u.empty()) {
            return;
        }
        std::ofstream file(options_.m3u, std::ios::trunc);
        file << "#EXTM3U\n";
        for (const std::string& group : options_.groups) {
            if (const auto found = results_.find(group);
                found != results_.end() && found->second == kAvailable) {
                file << "#EXTINF:-1," << group << "\nudp://@" << group << ":" << kUsualPort << "\n";
            }
        }
        if (!file.flush()) {
            throw probelink::LinkError("cannot write " + options_.m3u);
        }
    }

    static ConfigurationMessage emptyResponse() {
        ConfigurationMessage message;
        message.mutable_response();
        return message;
    }

    TasksRequest nextRequest() {
        if (auto request = link_.waitForRequest(options_.timeout)) {
            return *request;
        }
        clearProgress();
        throw probelink::LinkError("no request from the probe for " + duration(options_.timeout));
    }

    // Sends the list once, when the probe is ready for it: a list that comes while the probe scans would make
    // it abandon that scan, and a group that it has already is fatal to it.
    void start() {
        TasksRequest request = nextRequest();
        while (request.has_scan_status() && request.scan_status() != 0) {
            fputs("kestorctl: waiting for the end of a scan that is under way\n", stderr);
            link_.answer(emptyResponse());
            request = nextRequest();
        }
        ConfigurationMessage message;
        for (const std::string& group : options_.groups) {
            message.mutable_response()->add_append()->set_multicastgroup(group);
        }
        if (options_.igmpLatencyMs) {
            message.mutable_response()->set_igmp_latency(*options_.igmpLatencyMs);
        }
        if (link_.asksAgainWithin(kMonitorAsksAgain)) {
            throw probelink::LinkError("the probe does not scan but monitors: start it as kestor -c");
        }
        link_.answer(message);
        if (onTerminal_) {
            printf("%zu groups, a silent one takes up to %s\n", options_.groups.size(),
                   duration(longestWait(options_.igmpLatencyMs)).c_str());
        }
    }

    void take(const TasksRequest& request) {
        for (const auto& result : request.scan_results()) {
            if (result.status() == kUnderScan) {
                underScan_ = result.multicastgroup();
            } else if (results_.emplace(result.multicastgroup(), result.status()).second) {
                print(result.multicastgroup(), result.status());
            }
        }
    }

    void print(const std::string& group, int status) {
        const bool available = status == kAvailable;
        clearProgress();
        if (options_.json) {
            puts(nlohmann::ordered_json({{"group", group}, {"status", status}, {"available", available}})
                     .dump()
                     .c_str());
        } else {
            printf("%s %s\n", group.c_str(), available ? "available" : "not available");
        }
        fflush(stdout);
    }

    // The group under scan: the one that the probe named, or the next of the list, which it scans in order.
    std::string current() const {
        if (!underScan_.empty() && !results_.contains(underScan_)) {
            return underScan_;
        }
        const auto next = std::ranges::find_if(options_.groups,
                                               [&](const auto& group) { return !results_.contains(group); });
        return next == options_.groups.end() ? std::string() : *next;
    }

    void showProgress() const {
        const std::size_t left = options_.groups.size() - std::min(results_.size(), options_.groups.size());
        if (!onTerminal_ || left == 0) {
            return;
        }
        printf("\r\033[K%zu of %zu done, scanning %s, at most %s to go", results_.size(),
               options_.groups.size(), current().c_str(),
               duration(longestWait(options_.igmpLatencyMs) * static_cast<int64_t>(left)).c_str());
        fflush(stdout);
    }

    void clearProgress() const {
        if (onTerminal_) {
            fputs("\r\033[K", stdout);
        }
    }
};

}  // namespace

int runScan(const ScanOptions& options) {
    return Scan(options).run();
}
