// Metric records: what a context has counted, as records that their caller owns.
//
// Every getter allocates; running out of memory ends the process with status 1. Threads: not concurrently
// with sarnDvbPsi_process on the same context; several getters may run at once.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>

#include "sarn/tsStream.h"

inline constexpr std::size_t kTr101290Half = kTr101290Count / 2;
using Tr101290Half = std::array<uint64_t, kTr101290Half>;

// A stream, since it was first seen (cumulative) or since the last latch (interval).
struct TsMetrics {
    Tr101290Half tr101290p1;  // TS_sync_loss to PID_error
    Tr101290Half tr101290p2;  // Transport_error to CAT_error
    uint32_t totalBitrate;    // bit/s; 0 below 200 ms
    uint64_t nullPackets;
    uint64_t packetsReceived;
    uint64_t packetsLost;
    uint64_t packetsOutOfSequence;
    uint64_t packetsDuplicated;
    uint64_t packetsOther;  // scrambled packets
    double plr;             // packet loss ratio, a fraction
    int64_t firstSeen;      // ms since the epoch; interval: the interval's start
    int64_t lastSeen;       // ms since the epoch
    float mdiDelayFactor;   // ms; these nine are cumulative in both kinds of record
    float mdiDelayFactorMaximum;
    uint32_t mdiLostInLastInterval;
    uint32_t mdiLostPerIntervalMaximum;
    uint32_t mdiReserved;  // always 0
    float jitterVariance;  // ms^2
    float jitterVarianceMaximum;
    uint64_t jitterMeanInterArrival;     // ms
    uint64_t jitterInterArrivalMaximum;  // ms
    double transportQualityIndex;        // 1.0 to 5.0; interval records only
};

// A PID, cumulative or interval.
struct PidMetrics {
    uint16_t pid;
    uint8_t seen;
    uint8_t streamType;       // from the PMT
    uint32_t bitrateAverage;  // bit/s; 0 below 200 ms
    uint64_t packetsLost;
    uint64_t packetsReceived;
    uint64_t packetsOutOfSequence;
    uint64_t packetsDuplicated;
    uint64_t packetsOther;  // scrambled packets
    double plr;             // lost / (lost + received)
    int64_t firstSeen;      // ms since the epoch
    int64_t lastSeen;
    uint8_t isPcrPid;
    int32_t pcrJitterUs;                // us
    int32_t maxPcrJitterUs;             // us; interval: of the current interval
    uint64_t maxPcrDate;                // ms since the epoch
    uint32_t gopWordA;                  // picture height; from here to the MOS results interval records only
    uint32_t gopWordB;                  // picture width
    std::array<uint8_t, 4> gopPattern;  // GOP length, its minimum and maximum, B frames
    double mosScore;
    double mosMinimum;
    double mosMaximum;
    uint8_t descriptorCount;
    uint8_t* descriptorTags;  // owned copy of that many tags, or null
    Tr101290Half tr101290p1;
    Tr101290Half tr101290p2;
};

// What the IP layer tells of a stream.
struct UdpMetrics {
    uint8_t ttl;
    uint8_t dscp;
    uint8_t ecn;
    uint64_t igmpLatency;  // ms from join to first packet; meaningless (and kept so) without a join time
};

struct ChannelInfo {
    uint32_t programNumber;
    uint16_t pmtPid;
    uint32_t elementaryPidCount;
    uint16_t* elementaryPids;  // owned, in table order
    char* sdtName;             // owned
    char* userSetName;         // owned
};

// The programs of the PAT whose records exist.
struct ChannelsInfo {
    uint32_t count;
    ChannelInfo* channels;  // owned
};

// intervalId must be 0; any other value aborts.
TsMetrics* sarnDvbPsi_getTsMetricsCumulative(ts_stream_t* stream);
TsMetrics* sarnDvbPsi_getTsMetricsInterval(ts_stream_t* stream, int32_t intervalId);
// pid below 8192. The interval getter also updates the PID's MOS and GOP result: every call counts as one.
PidMetrics* sarnDvbPsi_getPidMetricsCumulative(ts_stream_t* stream, uint16_t pid);
PidMetrics* sarnDvbPsi_getPidMetricsInterval(ts_stream_t* stream, uint16_t pid, int32_t intervalId);
// igmpJoinTime in ms since the epoch.
UdpMetrics* getUdpMetrics(uint8_t ttl, uint8_t dscp, uint8_t ecn, uint64_t igmpJoinTime,
                          const ts_stream_t* stream);
// Takes the context's `lock`.
ChannelsInfo* sarnDvbPsi_getChannelsInfo(ts_stream_t* stream);

void sarnDvbPsi_freeTsMetricsCumulative(TsMetrics* metrics);
void sarnDvbPsi_freeTsMetricsInterval(TsMetrics* metrics);
void sarnDvbPsi_freePidMetricsCumulative(PidMetrics* metrics);
void sarnDvbPsi_freePidMetricsInterval(PidMetrics* metrics);
void freeUdpMetrics(UdpMetrics* metrics);
void sarnDvbPsi_freeChannelsInfo(ChannelsInfo* info);  // null is accepted

// Writes every seen PID in ascending order to `pids` (room for 8192) and returns their number.
uint32_t sarnDvbPsi_getTsStreamSeenPidsNumbers(const ts_stream_t* stream, uint32_t* pids);

// The library user's words. A PID above 8191 is ignored by the setter and read as 0.
void sarnDvbPsi_setTsStreamUserData(ts_stream_t* stream, uint32_t value);
uint32_t sarnDvbPsi_getTsStreamUserData(const ts_stream_t* stream);
void sarnDvbPsi_setPidUserData(ts_stream_t* stream, uint32_t pid, uint32_t value);
uint32_t sarnDvbPsi_getPidUserData(const ts_stream_t* stream, uint32_t pid);

// Hook for every packet of a PID below 8192, called inside sarnDvbPsi_process; null removes it.
void sarnDvbPsi_setPidDataCallback(ts_stream_t* stream, uint16_t pid, PidDataCallback callback, void* data);

// What the silence check ignores: a non-zero state of a PID (below 8192; the setter aborts above) or of a
// stream type (low 8 bits). The reset clears all PIDs and types 0 to 254: the state of type 255 survives it.
void sarnDvbPsi_setPidNumberState(ts_stream_t* stream, uint32_t pidNumber, uint8_t state);
uint8_t sarnDvbPsi_getPidNumberState(const ts_stream_t* stream, uint32_t pidNumber);
void sarnDvbPsi_setPidTypeState(ts_stream_t* stream, uint32_t streamType, uint8_t state);
uint8_t sarnDvbPsi_getPidTypeState(const ts_stream_t* stream, uint32_t streamType);
void sarnDvbPsi_resetPidIgnoreState(ts_stream_t* stream);

// Seconds of silence after which the timer counts PID_error; 5 at creation.
void sarnDvbPsi_setPidErrorPeriod(ts_stream_t* stream, int32_t seconds);

// Appends the metric columns of a record line, each preceded by ';', and the line's end. The records, not the
// UDP one, are freed. docs/records.md lists the columns.
void sarnDvbPsi_printStreamMetricsToFile(TsMetrics* cumulative, TsMetrics* interval, FILE* file,
                                         const UdpMetrics* udp);
void sarnDvbPsi_printPidMetricsToFile(PidMetrics* cumulative, PidMetrics* interval, FILE* file);

// Readable blocks on standard output; the records stay the caller's.
void sarnDvbPsi_printTsMetricsCumulative(const TsMetrics* metrics);
void sarnDvbPsi_printTsMetricsInterval(const TsMetrics* metrics);
void sarnDvbPsi_printPidMetricsCumulative(const PidMetrics* metrics);
void sarnDvbPsi_printPidMetricsInterval(const PidMetrics* metrics);
// Through printcf at level 1.
void sarnDvbPsi_printChannelsInfo(const ChannelsInfo* info);
