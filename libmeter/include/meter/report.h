// The report of a channel: what is known of it at a moment. What is not known is absent and never 0.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace meter {

inline constexpr std::size_t kHistogramBins = 32;

struct FlowReport {
    std::optional<uint32_t> source;  // host byte order; with the ports absent until there is a flow
    std::optional<uint16_t> sourcePort;
    std::optional<uint16_t> port;
    std::optional<std::string> encapsulation;  // "udp" or "rtp"
    std::optional<uint32_t> packetsPerDatagram;
    uint64_t datagrams = 0;
    uint64_t malformed = 0;
    uint64_t fragments = 0;
    uint64_t otherFlows = 0;  // datagrams
    uint64_t fec = 0;         // datagrams
    std::vector<uint16_t> vlan;
    std::optional<uint8_t> ttl;
    std::optional<uint8_t> dscp;
    uint64_t otherSources = 0;  // of otherFlows, those of another source address; not in the JSON
};

struct LossReport {
    std::optional<int64_t> packets;
    std::optional<std::string> basis;  // "rtp", "clock", "counter"
    uint64_t byCounter = 0;
    std::optional<int64_t> byClock;
    std::optional<uint64_t> byRtp;
    uint64_t events = 0;
    uint64_t longest = 0;  // packets
    std::optional<double> longestMs;
    uint64_t longestLately = 0;  // of the second that runs and the one before it; not in the JSON
};

struct PacketsReport {
    uint64_t received = 0;
    uint64_t null = 0;
    uint64_t scrambled = 0;
    uint64_t repeated = 0;
    LossReport lost;
    uint64_t notTracked =
        0;  // of PIDs that are not in the report: damaged packets, and more PIDs than are tracked
};

struct BitrateReport {
    std::optional<uint64_t> bps;  // last whole second
    std::optional<uint64_t> lowest;
    std::optional<uint64_t> highest;
    std::optional<uint64_t> byClock;
    std::optional<bool> constant;
    std::optional<double> nullShare;
};

struct CheckReport {
    const char* id = "";
    const char* name = "";
    uint8_t priority = 0;
    bool applicable = true;
    uint64_t count = 0;
    uint64_t seconds = 0;
    std::optional<double> first;  // s since the begin; not in the JSON
    std::optional<double> last;   // s since the begin
    bool active = false;
    std::vector<std::pair<uint16_t, uint64_t>> pids;  // PID, count; ascending
};

struct ClockReport {
    uint16_t pid = 0;
    std::vector<uint16_t> programs;
    std::optional<double> intervalHighestMs;
    std::optional<double> intervalMeanMs;
    bool accuracyApplicable = false;
    std::optional<double> worstNs;
    std::optional<double> lastWorstNs;
    uint64_t over500 = 0;
    uint64_t measured = 0;
    std::optional<double> overallJitterNs;
    std::optional<double> frequencyOffsetPpm;
    uint64_t signalled = 0;
    uint64_t unsignalled = 0;
};

struct RtpReport {
    uint8_t payloadType = 0;
    uint32_t ssrc = 0;
    uint64_t received = 0;
    int64_t lost = 0;
    uint64_t lossEvents = 0;
    uint64_t longestBurst = 0;  // datagrams
    uint64_t repeated = 0;
    uint64_t outOfOrder = 0;
    std::optional<double> jitterMs;
    uint64_t timestampSteps = 0;
    uint64_t ssrcChanges = 0;
};

struct NetworkReport {
    std::optional<double> interArrivalLowestMs;
    std::optional<double> interArrivalMeanMs;
    std::optional<double> interArrivalHighestMs;
    std::optional<double> interArrivalP99Ms;
    std::array<uint64_t, kHistogramBins> histogram{};  // n-th, from 1: below 2^n us
    std::optional<double> delayFactorMs;
    std::optional<double> delayFactorHighestMs;
    std::optional<uint64_t> lossRate;
    std::optional<uint64_t> lossRateHighest;
    std::optional<RtpReport> rtp;
};

struct TransportReport {
    std::optional<uint16_t> transportStreamId;
    std::optional<uint16_t> originalNetworkId;
    std::optional<std::string> network;
    std::optional<std::string> utc;  // RFC 3339
    std::optional<double> utcOffsetMs;
};

struct VideoReport {
    std::optional<uint32_t> width;
    std::optional<uint32_t> height;
    std::optional<std::string> pixelAspect;  // "16:11"
    std::optional<double> frameRate;
    std::optional<bool> interlaced;
    std::optional<std::string> profile;  // profiles and levels as ffprobe spells them
    std::optional<uint32_t> level;
    std::optional<std::string> chroma;  // "4:2:0"
    std::optional<uint32_t> bitDepth;
    std::optional<std::string> colour;
    std::optional<std::string> transfer;
    std::optional<double> picturesPerSecond;
};

struct GopReport {
    std::optional<std::string> structure;  // of the last whole group
    std::optional<uint32_t> pictures;
    std::optional<double> ms;
    std::optional<double> lowest;
    std::optional<double> highest;
    std::optional<double> mean;
    std::optional<bool> closed;
    uint64_t intraWithoutIdr = 0;
};

struct AudioReport {
    std::optional<uint32_t> sampleRate;
    std::optional<uint32_t> channels;
    std::optional<uint64_t> bitrate;
    std::optional<std::string> profile;
};

enum class StreamKind : uint8_t { kVideo, kAudio, kSubtitle, kTeletext, kCue, kData };

struct CaReport {
    uint16_t system = 0;
    uint16_t pid = 0;
};

struct StreamReport {
    uint16_t pid = 0;
    uint8_t streamType = 0;
    std::optional<std::string> codec;
    StreamKind kind = StreamKind::kData;
    std::optional<std::string> language;
    std::vector<CaReport> ca;
    std::optional<uint8_t> componentTag;
    std::vector<std::string> pages;  // teletext magazines with page, subtitle pages
    std::optional<VideoReport> video;
    std::optional<GopReport> gop;
    std::optional<AudioReport> audio;
    std::optional<double> ptsAheadMs;
};

struct ProgrammeReport {  // an event of EIT present/following
    std::string title;
    std::optional<std::string> begin;  // RFC 3339
    std::optional<double> durationMs;
};

struct ServiceReport {
    uint16_t program = 0;
    std::optional<std::string> name;
    std::optional<std::string> provider;
    std::optional<uint8_t> type;
    std::optional<uint8_t> runningStatus;
    uint16_t pmtPid = 0;
    std::optional<uint8_t> pmtVersion;
    std::optional<uint16_t> pcrPid;
    std::optional<bool> scrambled;
    std::vector<CaReport> ca;
    std::optional<double> audioVideoMs;  // PTS of audio less that of video
    std::optional<ProgrammeReport> now;
    std::optional<ProgrammeReport> next;
    std::vector<StreamReport> streams;
};

struct PidReport {
    uint16_t pid = 0;
    std::string kind;  // a stream's, or "table", "null", "clock", "unreferenced"
    uint64_t packets = 0;
    std::optional<uint64_t> bps;
    std::optional<uint64_t> lowest;
    std::optional<uint64_t> highest;
    uint64_t continuityErrors = 0;
    uint64_t lost = 0;
    uint64_t repeated = 0;
    std::optional<std::string> scrambling;  // "clear", "even", "odd", "mixed"
    uint64_t keyChanges = 0;
    bool referenced = false;
    std::optional<double> silentMs;  // of stream time, since its last packet; not in the JSON
};

struct SegmentationReport {
    // Of one that is cancelled the identifier alone is known.
    std::optional<uint8_t> typeId;
    std::optional<std::string> type;
    uint32_t eventId = 0;
    std::optional<uint8_t> upidType;
    std::optional<std::string> upid;
    std::optional<double> durationMs;
    std::optional<uint8_t> number;
    std::optional<uint8_t> expected;
};

struct CueReport {
    uint16_t pid = 0;
    const char* command = "";  // "splice_insert", "time_signal"
    std::optional<uint32_t> eventId;
    std::optional<bool> out;
    std::optional<bool> immediate;  // not of a splice_insert that is cancelled
    std::optional<uint64_t> pts;    // 90 kHz, with adjustment
    std::optional<std::string> at;  // RFC 3339
    std::optional<double> aheadMs;
    std::optional<double> durationMs;
    std::optional<bool> autoReturn;
    bool cancelled = false;
    uint64_t repetitions = 0;
    std::vector<SegmentationReport> segmentation;
};

struct ChangeReport {
    double at = 0;  // s since the begin
    // "flow"; of a PAT "transport_stream", "program_added", "program_gone", "program_moved"; of a PMT
    // "stream_added", "stream_gone", "stream_moved", "stream", "codec", "language", "conditional_access",
    // "pcr_moved"; of an SDT "service_added", "service_gone", "service"; of each of them, where nothing that
    // is read is different, "version" or "content" (under the same version).
    std::string what;
    std::optional<uint16_t> program;
    std::optional<uint16_t> pid;
    std::string text;  // for people
};

using Event = std::variant<ChangeReport, CueReport>;

// Of a channel that is measured as it arrives.
struct LiveReport {
    bool disturbed = false;  // what it says of loss may be this machine's
    // Since the begin: seconds of which that may be so, and when the last of them was (s, as
    // Report::seconds).
    uint64_t disturbedSeconds = 0;
    std::optional<double> lastDisturbed;
    std::optional<double> joinLatencyMs;
    // Members of lists for which the report had no room.
    struct LeftOut {
        uint64_t cues = 0;
        uint64_t changes = 0;
        uint64_t services = 0;
        uint64_t streams = 0;  // what is measured of them
        uint64_t pids = 0;
        uint64_t checkPids = 0;
        uint64_t clocks = 0;
        uint64_t serviceLevels = 0;  // what is measured of services
    };
    std::optional<LeftOut> leftOut;
};

struct Report {
    std::optional<uint32_t> group;     // host byte order
    std::optional<std::string> begin;  // RFC 3339
    double seconds = 0;
    std::optional<FlowReport> flow;
    PacketsReport packets;
    BitrateReport bitrate;
    std::vector<CheckReport> checks;
    std::vector<ClockReport> clocks;
    std::optional<NetworkReport> network;
    TransportReport transport;
    std::vector<ServiceReport> services;
    std::vector<PidReport> pids;
    std::vector<CueReport> cues;
    uint64_t cuesEncrypted = 0;
    uint64_t cuesMalformed = 0;
    std::vector<ChangeReport> changes;
    std::optional<LiveReport> live;  // not of recordings; then not in the JSON either
};

// The checks of ETSI TR 101 290 that a report has, in its order, as when none ever failed.
std::vector<CheckReport> allChecks();

// The JSON document of a report, on one line, without an end of line; schema 1.
std::string toJson(const Report& report);

}  // namespace meter
