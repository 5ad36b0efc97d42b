// The metric records: getters, free functions and the small per-PID setters.
#include "sarn/metrics.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "sarn/dvbpsiHeaders.h"
#include "sarn/mediaDeliveryIndex.h"
#include "sarn/packetJitter.h"
#include "sarn/qualityScores.h"
#include "sarn/sarnLog.h"
#include "sarnDvbPsi/contextInternals.h"
#include "saturate.h"

namespace {

constexpr int64_t kBitrateMinimumMs = 200;
constexpr double kPacketBits = 1504;
constexpr double kMsPerSecond = 1000.0;
constexpr int32_t kNsPerUs = 1000;
constexpr double kPercent = 100.0;

// Where the library's fatal reports and assertions point.
constexpr int kPidMetricsAllocationLine = 2284;
constexpr int kPidIntervalLine = 2375;
constexpr int kPidLostLine = 2388;
constexpr int kTsMetricsAllocationLine = 2497;
constexpr int kTsIntervalLine = 2570;
constexpr int kTsLostLine = 2576;
constexpr int kChannelsHeaderLine = 2660;
constexpr int kChannelsArrayLine = 2675;
constexpr int kChannelsPidsLine = 2703;

constexpr char kSdtName[] = "TODO sdtName";
constexpr char kUserSetName[] = "TODO userSetName";

template <typename T>
T* checked(T* block, int line) {
    if (block == nullptr) {
        fputs("sarnDvbPsi_getPidMetricsCumulative: calloc\n", stderr);
        sarnFatal(line, kSarnDvbPsiFile);
    }
    return block;
}

template <typename T>
T* allocate(int line) {
    return checked(static_cast<T*>(calloc(1, sizeof(T))), line);
}

// Room for one more element.
template <typename T>
T* grow(T* array, uint32_t count, int line) {
    return checked(static_cast<T*>(realloc(array, (count + std::size_t{1}) * sizeof(T))), line);
}

constexpr char kIntervalAssertion[] = "intervalId < 1 && intervalId >=0";
constexpr bool isInterval(int32_t intervalId) {
    return intervalId < 1 && intervalId >= 0;
}

// The loss ratio; without traffic the value given stays.
template <typename Metrics>
void updateLossRatio(Metrics& metrics) {
    const uint64_t all = metrics.packetsLost + metrics.packetsReceived;
    if (all != 0) {
        metrics.plr = static_cast<double>(metrics.packetsLost) / static_cast<double>(all);
    }
}

// The mean rate between first and last packet, lost ones included; 0 below 200 ms. A rate beyond 32 bits
// keeps the low 32 of its integer part.
template <typename Metrics>
uint32_t meanBitrate(const Metrics& metrics) {
    const auto duration = static_cast<int64_t>(static_cast<uint64_t>(metrics.lastSeen) -
                                               static_cast<uint64_t>(metrics.firstSeen));
    if (duration < kBitrateMinimumMs) {
        return 0;
    }
    const double bits = static_cast<double>(metrics.packetsReceived + metrics.packetsLost) * kPacketBits;
    return static_cast<uint32_t>(saturate<uint64_t>(bits / (static_cast<double>(duration) / kMsPerSecond)));
}

template <typename Metrics>
void copyErrors(Metrics& metrics, const Tr101290Block& counters) {
    for (std::size_t i = 0; i < kTr101290Half; ++i) {
        metrics.tr101290p1[i] = relaxedLoad(counters[i]);
        metrics.tr101290p2[i] = counters[kTr101290Half + i];
    }
}

template <typename Metrics>
void subtractErrors(Metrics& current, const Metrics& previous) {
    for (std::size_t i = 0; i < kTr101290Half; ++i) {
        current.tr101290p1[i] -= previous.tr101290p1[i];
        current.tr101290p2[i] -= previous.tr101290p2[i];
    }
}

// An interval begins where the one before ended.
template <typename Metrics>
void startAtPrevious(Metrics& current, const Metrics& previous) {
    if (previous.lastSeen != 0) {
        current.firstSeen = previous.lastSeen;
    }
}

void copyDescriptorTags(PidMetrics& metrics, const ts_pid_t& entry) {
    metrics.descriptorCount = entry.i_descriptor_count;
    if (metrics.descriptorCount == 0) {
        return;
    }
    metrics.descriptorTags =
        checked(static_cast<uint8_t*>(malloc(metrics.descriptorCount)), kPidMetricsAllocationLine);
    std::copy_n(entry.descriptor_tags.begin(), metrics.descriptorCount, metrics.descriptorTags);
}

// The three GOP bytes count once their average is valid and there is a length.
void copyGopPattern(PidMetrics& metrics, const ts_pid_t& entry) {
    getGOP(entry.p_gop_result, entry.gop);
    if (entry.p_gop_result == nullptr) {
        return;
    }
    const GopResult& result = *entry.p_gop_result;
    if (entry.gop.lengthAverageValid && result.length != 0) {
        metrics.gopPattern[0] = result.length;
        metrics.gopPattern[1] = result.minimum;
        metrics.gopPattern[2] = result.maximum;
    }
    if (entry.gop.bFrameAverageValid) {
        metrics.gopPattern[3] = result.b_frames;
    }
}

void updateMos(PidMetrics& metrics, const ts_pid_t& entry) {
    if (entry.p_mos == nullptr) {
        return;
    }
    getMosScore(metrics.streamType, static_cast<int32_t>(metrics.bitrateAverage / 1000), metrics.plr,
                metrics.descriptorTags, metrics.descriptorCount, entry.p_mos);
    metrics.mosScore = entry.p_mos->score;
    metrics.mosMinimum = entry.p_mos->minimum;
    metrics.mosMaximum = entry.p_mos->maximum;
}

char* copyOf(const char* text) {
    return strdup(text);
}

void appendElementaryPids(ChannelInfo& channel, const dvbpsi_pmt_t* table) {
    if (table == nullptr) {
        return;
    }
    for (const dvbpsi_pmt_es_t* es = table->p_first_es; es != nullptr; es = es->p_next) {
        channel.elementaryPids = grow(channel.elementaryPids, channel.elementaryPidCount, kChannelsPidsLine);
        channel.elementaryPids[channel.elementaryPidCount++] = es->i_pid;
    }
}

}  // namespace

TsMetrics* sarnDvbPsi_getTsMetricsCumulative(ts_stream_t* stream) {
    auto* metrics = allocate<TsMetrics>(kTsMetricsAllocationLine);
    metrics->nullPackets = stream->i_null_packets;
    metrics->packetsOther = stream->i_scrambled;
    metrics->packetsReceived = stream->i_packets;
    metrics->packetsLost = stream->i_lost;
    metrics->packetsOutOfSequence = stream->i_out_of_sequence;
    metrics->packetsDuplicated = stream->i_duplicated;
    metrics->firstSeen = stream->i_first_time;
    metrics->lastSeen = stream->i_last_time;
    updateLossRatio(*metrics);
    metrics->totalBitrate = meanBitrate(*metrics);
    copyErrors(*metrics, stream->tr101290);
    mdi_get_result(stream->p_mdi, &metrics->mdiDelayFactor, &metrics->mdiDelayFactorMaximum,
                   &metrics->mdiLostInLastInterval, &metrics->mdiLostPerIntervalMaximum);
    jitter_get_result(stream->p_jitter, &metrics->jitterVariance, &metrics->jitterVarianceMaximum,
                      &metrics->jitterMeanInterArrival, &metrics->jitterInterArrivalMaximum);
    return metrics;
}

TsMetrics* sarnDvbPsi_getTsMetricsInterval(ts_stream_t* stream, int32_t intervalId) {
    SARN_ASSERT_AT(isInterval(intervalId), kIntervalAssertion, kSarnDvbPsiFile, kTsIntervalLine);
    TsMetrics* tsMetricsPrev = sarnDvbPsi_getTsMetricsCumulative(stream->p_intervals + intervalId);
    TsMetrics* tsMetricsCurrent = sarnDvbPsi_getTsMetricsCumulative(stream);
    tsMetricsCurrent->nullPackets -= tsMetricsPrev->nullPackets;
    SARN_ASSERT_AT(tsMetricsPrev->packetsLost <= tsMetricsCurrent->packetsLost,
                   "tsMetricsPrev->packetsLost <= tsMetricsCurrent->packetsLost", kSarnDvbPsiFile,
                   kTsLostLine);
    tsMetricsCurrent->packetsOther -= tsMetricsPrev->packetsOther;
    tsMetricsCurrent->packetsLost -= tsMetricsPrev->packetsLost;
    tsMetricsCurrent->packetsReceived -= tsMetricsPrev->packetsReceived;
    updateLossRatio(*tsMetricsCurrent);
    tsMetricsCurrent->packetsOutOfSequence -= tsMetricsPrev->packetsOutOfSequence;
    tsMetricsCurrent->packetsDuplicated -= tsMetricsPrev->packetsDuplicated;
    startAtPrevious(*tsMetricsCurrent, *tsMetricsPrev);
    tsMetricsCurrent->totalBitrate = meanBitrate(*tsMetricsCurrent);
    subtractErrors(*tsMetricsCurrent, *tsMetricsPrev);
    // The seed is chosen afresh each time: the previous record's index is 0 and goes with it.
    getTransportQualityIndex(static_cast<int32_t>(tsMetricsCurrent->totalBitrate / 1000),
                             tsMetricsCurrent->plr / kPercent, tsMetricsCurrent->mdiDelayFactor,
                             &tsMetricsCurrent->transportQualityIndex, &tsMetricsPrev->transportQualityIndex);
    sarnDvbPsi_freeTsMetricsInterval(tsMetricsPrev);
    return tsMetricsCurrent;
}

PidMetrics* sarnDvbPsi_getPidMetricsCumulative(ts_stream_t* stream, uint16_t pid) {
    auto* metrics = allocate<PidMetrics>(kPidMetricsAllocationLine);
    const ts_pid_t& entry = stream->pid[pid];
    metrics->pid = pid;
    metrics->seen = entry.b_seen;
    metrics->streamType = entry.i_stream_type;
    copyDescriptorTags(*metrics, entry);
    if (!metrics->seen) {
        return metrics;
    }
    metrics->packetsOther = entry.i_scrambled;
    metrics->packetsReceived = entry.i_packets;
    metrics->packetsOutOfSequence = entry.i_out_of_sequence;
    metrics->packetsDuplicated = entry.i_duplicated;
    metrics->packetsLost = entry.i_lost;
    updateLossRatio(*metrics);
    metrics->firstSeen = entry.i_first_seen;
    metrics->lastSeen = entry.i_last_seen;
    metrics->bitrateAverage = meanBitrate(*metrics);
    if (entry.b_pcr_pid) {
        metrics->isPcrPid = 1;
        metrics->pcrJitterUs = entry.i_pcr_jitter / kNsPerUs;
        metrics->maxPcrJitterUs = entry.i_max_pcr_jitter / kNsPerUs;
        metrics->maxPcrDate = entry.i_max_pcr_jitter_time;
    }
    copyErrors(*metrics, entry.tr101290);
    return metrics;
}

PidMetrics* sarnDvbPsi_getPidMetricsInterval(ts_stream_t* stream, uint16_t pid, int32_t intervalId) {
    SARN_ASSERT_AT(isInterval(intervalId), kIntervalAssertion, kSarnDvbPsiFile, kPidIntervalLine);
    ts_stream_t* latched = stream->p_intervals + intervalId;
    const ts_pid_t& entry = stream->pid[pid];
    PidMetrics* pidMetricsPrev = sarnDvbPsi_getPidMetricsCumulative(latched, pid);
    PidMetrics* pidMetricsCurrent = sarnDvbPsi_getPidMetricsCumulative(stream, pid);
    if (pidMetricsPrev->packetsLost > pidMetricsCurrent->packetsLost) {
        printf("zle jest pidMetricsPrev->packetsLost %llu > pidMetricsCurrent->packetsLost %llu\n",
               static_cast<unsigned long long>(pidMetricsPrev->packetsLost),
               static_cast<unsigned long long>(pidMetricsCurrent->packetsLost));
    }
    pidMetricsCurrent->streamType = entry.i_stream_type;
    pidMetricsCurrent->gopWordA = static_cast<uint32_t>(entry.nal_state[0]);
    pidMetricsCurrent->gopWordB = static_cast<uint32_t>(entry.nal_state[1]);
    SARN_ASSERT_AT(pidMetricsPrev->packetsLost <= pidMetricsCurrent->packetsLost,
                   "pidMetricsPrev->packetsLost <= pidMetricsCurrent->packetsLost", kSarnDvbPsiFile,
                   kPidLostLine);
    // The PID's own current count is taken off, not the latched one, so an interval shows 0 here.
    pidMetricsCurrent->packetsOther -= entry.i_scrambled;
    pidMetricsCurrent->packetsLost -= pidMetricsPrev->packetsLost;
    pidMetricsCurrent->packetsReceived -= pidMetricsPrev->packetsReceived;
    pidMetricsCurrent->packetsOutOfSequence -= pidMetricsPrev->packetsOutOfSequence;
    pidMetricsCurrent->packetsDuplicated -= pidMetricsPrev->packetsDuplicated;
    updateLossRatio(*pidMetricsCurrent);
    startAtPrevious(*pidMetricsCurrent, *pidMetricsPrev);
    pidMetricsCurrent->bitrateAverage = meanBitrate(*pidMetricsCurrent);
    if (pidMetricsCurrent->isPcrPid) {
        pidMetricsCurrent->maxPcrJitterUs = latched->pid[pid].i_max_pcr_jitter / kNsPerUs;
        pidMetricsCurrent->maxPcrDate = latched->pid[pid].i_max_pcr_jitter_time;
    }
    subtractErrors(*pidMetricsCurrent, *pidMetricsPrev);
    copyGopPattern(*pidMetricsCurrent, entry);
    updateMos(*pidMetricsCurrent, entry);
    sarnDvbPsi_freePidMetricsInterval(pidMetricsPrev);
    return pidMetricsCurrent;
}

UdpMetrics* getUdpMetrics(uint8_t ttl, uint8_t dscp, uint8_t ecn, uint64_t igmpJoinTime,
                          const ts_stream_t* stream) {
    auto* metrics = static_cast<UdpMetrics*>(calloc(1, sizeof(UdpMetrics)));
    metrics->ttl = ttl;
    metrics->dscp = dscp;
    metrics->ecn = ecn;
    metrics->igmpLatency = static_cast<uint64_t>(stream->i_first_time) - igmpJoinTime;
    return metrics;
}

ChannelsInfo* sarnDvbPsi_getChannelsInfo(ts_stream_t* stream) {
    auto* info = allocate<ChannelsInfo>(kChannelsHeaderLine);
    const SpinGuard guard(stream->lock);
    for (const ts_pmt_t* pmt = stream->p_pmts; pmt != nullptr; pmt = pmt->p_next) {
        info->channels = grow(info->channels, info->count, kChannelsArrayLine);
        ChannelInfo& channel = info->channels[info->count++];
        channel = {.programNumber = pmt->i_number,
                   .pmtPid = static_cast<uint16_t>(pmt->p_pid != nullptr ? pmt->p_pid->i_pid : 0),
                   .elementaryPidCount = 0,
                   .elementaryPids = nullptr,
                   .sdtName = nullptr,
                   .userSetName = nullptr};
        appendElementaryPids(channel, pmt->p_table);
        channel.sdtName = copyOf(kSdtName);
        channel.userSetName = copyOf(kUserSetName);
    }
    return info;
}

void sarnDvbPsi_freeTsMetricsCumulative(TsMetrics* metrics) {
    free(metrics);
}

void sarnDvbPsi_freeTsMetricsInterval(TsMetrics* metrics) {
    sarnDvbPsi_freeTsMetricsCumulative(metrics);
}

void sarnDvbPsi_freePidMetricsCumulative(PidMetrics* metrics) {
    if (metrics->descriptorCount != 0) {
        free(metrics->descriptorTags);
    }
    free(metrics);
}

void sarnDvbPsi_freePidMetricsInterval(PidMetrics* metrics) {
    sarnDvbPsi_freePidMetricsCumulative(metrics);
}

void freeUdpMetrics(UdpMetrics* metrics) {
    free(metrics);
}

void sarnDvbPsi_freeChannelsInfo(ChannelsInfo* info) {
    if (info == nullptr) {
        return;
    }
    for (uint32_t i = 0; i < info->count; ++i) {
        free(info->channels[i].elementaryPids);
        free(info->channels[i].sdtName);
        free(info->channels[i].userSetName);
    }
    free(info->channels);
    free(info);
}

uint32_t sarnDvbPsi_getTsStreamSeenPidsNumbers(const ts_stream_t* stream, uint32_t* pids) {
    uint32_t count = 0;
    forEachPid(stream->seen, [&](uint32_t pid) { pids[count++] = pid; });
    return count;
}

void sarnDvbPsi_setTsStreamUserData(ts_stream_t* stream, uint32_t value) {
    stream->i_user_data = value;
}

uint32_t sarnDvbPsi_getTsStreamUserData(const ts_stream_t* stream) {
    return stream->i_user_data;
}

void sarnDvbPsi_setPidUserData(ts_stream_t* stream, uint32_t pid, uint32_t value) {
    const auto number = static_cast<uint16_t>(pid);
    if (number < kPidCount) {
        insertPid(stream->touched, number);
        stream->pid[number].i_user_data = value;
    }
}

uint32_t sarnDvbPsi_getPidUserData(const ts_stream_t* stream, uint32_t pid) {
    const auto number = static_cast<uint16_t>(pid);
    return number < kPidCount ? stream->pid[number].i_user_data : 0;
}

void sarnDvbPsi_setPidDataCallback(ts_stream_t* stream, uint16_t pid, PidDataCallback callback, void* data) {
    if (pid < kPidCount) {
        insertPid(stream->touched, pid);
        stream->pid[pid].pf_callback = callback;
        stream->pid[pid].p_callback_data = data;
    }
}

void sarnDvbPsi_setPidNumberState(ts_stream_t* stream, uint32_t pidNumber, uint8_t state) {
    SARN_ASSERT(pidNumber < kPidCount, "pidNumber < 8192");
    relaxedStore(stream->ignore_pid[pidNumber], state);
    stream->b_masks_touched = 1;
}

uint8_t sarnDvbPsi_getPidNumberState(const ts_stream_t* stream, uint32_t pidNumber) {
    return pidNumber < kPidCount ? stream->ignore_pid[pidNumber] : uint8_t{0};
}

void sarnDvbPsi_setPidTypeState(ts_stream_t* stream, uint32_t streamType, uint8_t state) {
    relaxedStore(stream->ignore_stream_type[streamType & 0xFF], state);
    stream->b_masks_touched = 1;
}

uint8_t sarnDvbPsi_getPidTypeState(const ts_stream_t* stream, uint32_t streamType) {
    return stream->ignore_stream_type[streamType & 0xFF];
}

void sarnDvbPsi_resetPidIgnoreState(ts_stream_t* stream) {
    SARN_ASSERT(stream != nullptr, "stream != ((void *)0)");
    for (uint8_t& state : stream->ignore_pid) {
        relaxedStore(state, uint8_t{0});
    }
    for (std::size_t type = 0; type + 1 < stream->ignore_stream_type.size(); ++type) {
        relaxedStore(stream->ignore_stream_type[type], uint8_t{0});
    }
}

void sarnDvbPsi_setPidErrorPeriod(ts_stream_t* stream, int32_t seconds) {
    relaxedStore(stream->i_pid_timeout, seconds);
}
