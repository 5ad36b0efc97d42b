// The monitor over recorded frames: time is what the capture's stamps say.
#pragma once

#include <pcap/pcap.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "captureFrame.h"
#include "kestor.h"

// An opened capture file whose frames pass the probe's filter. Failures throw std::runtime_error with a text
// for the operator.
class CaptureFile {
  public:
    explicit CaptureFile(const std::string& path);
    // The next frame, cut to what the probe would capture at most, or nothing at the end of the file.
    // Nanoseconds of the stamp are cut off.
    std::optional<CapturedFrame> next();

  private:
    struct Closer {
        void operator()(pcap_t* handle) const {
            pcap_close(handle);
        }
    };
    std::string path_;
    std::unique_ptr<pcap_t, Closer> handle_;
};

// Group texts as addresses in network byte order, each once; throws on what is no multicast group.
std::vector<uint32_t> parseGroups(const std::vector<std::string>& texts);

// One pass over a capture file. Memory grows with the number of groups, not with the file.
class Replay {
  public:
    // Without groups, every multicast destination in the file, in order of first appearance.
    Replay(const std::string& path, std::vector<uint32_t> groups);

    // Analyses all frames. Every second of the stamps, and once at the end, writes one snapshot of all groups
    // followed by an empty line; a gap of more than an hour, which one damaged stamp can make centuries long,
    // gets a single one. A file that breaks off throws, after the snapshot of what it holds. Diagnostics of
    // the analysis go to standard output and standard error.
    void run(FILE* records);

  private:
    void addGroups(uint64_t joinTimeMs);
    void writeSnapshot(FILE* records);
    // Writes a snapshot for each due time that `frame` has reached.
    void writeDueSnapshots(const CapturedFrame& frame, FILE* records);

    // Says on standard error which sections of which group were kept from the decoders.
    void tellOfDrops() const;

    CaptureFile capture_;
    std::vector<uint32_t> groups_;
    T_interface device_{MODE_MONITOR};
    uint64_t nextSnapshotUs_ = 0;
};
