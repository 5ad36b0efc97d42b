// Renderings of the metric records: columns of the results file, and readable blocks on standard output.
#include <array>
#include <charconv>
#include <concepts>
#include <cstdio>
#include <string_view>

#include "sarn/metrics.h"
#include "sarn/names.h"
#include "sarn/sarnLog.h"

namespace {

constexpr char kRuler[] =
    "-----------------------------------------------------------------------------------";
static_assert(sizeof kRuler - 1 == 83);

using ull = unsigned long long;
using ll = long long;

// One line's metric columns, each preceded by ';', gathered so that the file is asked once a line.
class Columns {
  public:
    Columns& operator<<(std::integral auto value) {
        return append(value);
    }
    // As printf's %f.
    Columns& operator<<(double value) {
        return append(value, std::chars_format::fixed, 6);
    }
    Columns& operator<<(const Tr101290Half& counters) {
        for (const uint64_t counter : counters) {
            *this << counter;
        }
        return *this;
    }
    void writeLine(FILE* file) {
        text_[size_++] = '\n';
        fwrite(text_.data(), 1, size_, file);
    }

  private:
    // 32 columns of at most 20 digits, or 317 for a double, and up to 255 descriptor tags.
    static constexpr std::size_t kCapacity = 8192;
    std::array<char, kCapacity> text_;
    std::size_t size_ = 0;

    Columns& append(auto value, auto... format) {
        text_[size_++] = ';';
        const auto result =
            std::to_chars(text_.data() + size_, text_.data() + kCapacity - 1, value, format...);
        size_ = static_cast<std::size_t>(result.ptr - text_.data());
        return *this;
    }
};

template <typename Metrics>
void appendCounters(Columns& columns, const Metrics& cumulative) {
    columns << cumulative.packetsLost << cumulative.packetsOutOfSequence << cumulative.packetsDuplicated
            << cumulative.packetsReceived << cumulative.packetsOther << cumulative.tr101290p1
            << cumulative.tr101290p2;
}

void printCounters(const std::array<const char*, kTr101290Half>& formats, const Tr101290Half& counters) {
    for (std::size_t i = 0; i < kTr101290Half; ++i) {
        printf(formats[i], static_cast<ull>(counters[i]));
    }
}

constexpr std::array<const char*, kTr101290Half> kFirstPriorityFormats = {
    "    TS_sync_loss:\t\t%10llu\n", "    Sync_byte_error:\t%10llu\n",       "    PAT_error: \t\t\t%10llu\n",
    "    PAT_error_2: \t\t%10llu\n", "    Continuity_count_error: %10llu\n", "    PMT_error: \t\t\t%10llu\n",
    "    PMT_error_2: \t\t%10llu\n", "    PID_error: \t\t\t%10llu\n",
};
constexpr std::array<const char*, kTr101290Half> kSecondPriorityFormats = {
    "    Transport_error\t\t%10llu\n",
    "    CRC_error:\t\t\t%10llu\n",
    "    PCR_error: \t\t\t%10llu\n",
    "    PCR_repetition_error:%10llu\n",
    "    PCR_discontinuity_indicator_error: %10llu\n",
    "    PCR_accuracy_error:\t%10llu\n",
    "    PTS_error: \t\t\t%10llu\n",
    "    CAT_error: \t\t\t%10llu\n",
};

// Wraps as the records' own arithmetic does.
ll duration(int64_t firstSeen, int64_t lastSeen) {
    return static_cast<ll>(static_cast<uint64_t>(lastSeen) - static_cast<uint64_t>(firstSeen));
}

}  // namespace

void sarnDvbPsi_printStreamMetricsToFile(TsMetrics* cumulative, TsMetrics* interval, FILE* file,
                                         const UdpMetrics* udp) {
    Columns columns;
    columns << interval->totalBitrate;
    appendCounters(columns, *cumulative);
    columns << cumulative->mdiDelayFactor << cumulative->mdiReserved << cumulative->jitterVariance
            << cumulative->jitterVarianceMaximum << cumulative->jitterMeanInterArrival
            << interval->transportQualityIndex << udp->ttl << udp->dscp << udp->ecn << udp->igmpLatency;
    columns.writeLine(file);
    sarnDvbPsi_freeTsMetricsCumulative(cumulative);
    sarnDvbPsi_freeTsMetricsInterval(interval);
}

void sarnDvbPsi_printPidMetricsToFile(PidMetrics* cumulative, PidMetrics* interval, FILE* file) {
    Columns columns;
    columns << interval->bitrateAverage;
    appendCounters(columns, *cumulative);
    for (const uint8_t byte : interval->gopPattern) {
        columns << byte;
    }
    columns << interval->mosScore << interval->mosMinimum << interval->mosMaximum << interval->gopWordA
            << interval->gopWordB << cumulative->descriptorCount;
    for (std::size_t i = 0; i < cumulative->descriptorCount; ++i) {
        columns << cumulative->descriptorTags[i];
    }
    columns.writeLine(file);
    sarnDvbPsi_freePidMetricsCumulative(cumulative);
    sarnDvbPsi_freePidMetricsInterval(interval);
}

void sarnDvbPsi_printTsMetricsCumulative(const TsMetrics* metrics) {
    puts("---------------------sarnDvbPsi_printTsMetrics-------------------------------------");
    printf("TS first seen at %lld. TS last seen at %lld. TS duration: %lld\n",
           static_cast<ll>(metrics->firstSeen), static_cast<ll>(metrics->lastSeen),
           duration(metrics->firstSeen, metrics->lastSeen));
    printf(
        "Whole TS packets received: %llu. Whole TS packets lost: %llu. PLR: %f. NULL packets received: %llu. "
        "Total bitrate %u Duplicated: %llu. OOS: %llu\n",
        static_cast<ull>(metrics->packetsReceived), static_cast<ull>(metrics->packetsLost), metrics->plr,
        static_cast<ull>(metrics->nullPackets), metrics->totalBitrate,
        static_cast<ull>(metrics->packetsDuplicated), static_cast<ull>(metrics->packetsOutOfSequence));
    puts("TR101290p2");
    printCounters(kSecondPriorityFormats, metrics->tr101290p2);
    puts("TR101290p1");
    printCounters(kFirstPriorityFormats, metrics->tr101290p1);
    puts(kRuler);
}

void sarnDvbPsi_printTsMetricsInterval(const TsMetrics* metrics) {
    sarnDvbPsi_printTsMetricsCumulative(metrics);
}

void sarnDvbPsi_printPidMetricsCumulative(const PidMetrics* metrics) {
    puts("---------------------sarnDvbPsi_printPidMetrics------------------------------------");
    printf("            PID: %d, Seen: %d\n", metrics->pid, metrics->seen);
    if (metrics->seen) {
        printf("                Stream type: %s\n", GetTypeName(metrics->streamType));
        printf("                First seen: %lld. Last seen: %lld. Duration: %lld [ms]\n",
               static_cast<ll>(metrics->firstSeen), static_cast<ll>(metrics->lastSeen),
               duration(metrics->firstSeen, metrics->lastSeen));
        printf(
            "                Packets received: %llu. Packets lost: %llu. PLR: % f. Packets duplicated: %llu. "
            "Packets out of sequence %llu\n",
            static_cast<ull>(metrics->packetsReceived), static_cast<ull>(metrics->packetsLost), metrics->plr,
            static_cast<ull>(metrics->packetsDuplicated), static_cast<ull>(metrics->packetsOutOfSequence));
        printf("                Bitrate average: %u\n", metrics->bitrateAverage);
        if (metrics->isPcrPid) {
            puts("                This is PCR pid.");
            printf("                \tPCR jitter[us]: %d.\n", metrics->pcrJitterUs);
            printf("                \tMAX PCR jitter[us]: %d.\n", metrics->maxPcrJitterUs);
            printf("                \tMAX PCR date: %llu.\n", static_cast<ull>(metrics->maxPcrDate));
        }
    }
    puts(kRuler);
}

void sarnDvbPsi_printPidMetricsInterval(const PidMetrics* metrics) {
    sarnDvbPsi_printPidMetricsCumulative(metrics);
}

void sarnDvbPsi_printChannelsInfo(const ChannelsInfo* info) {
    if (info->count == 0) {
        return;
    }
    printcf(1, "------------------------------ sarnDvbPsi_printChannelsInfo -----------------------\n");
    printcf(1, "Total PMTs detected: %d\n", static_cast<int>(info->count));
    for (uint32_t i = 0; i < info->count; ++i) {
        const ChannelInfo& channel = info->channels[i];
        printcf(1, "    Channel nr: %d, PMT pid: %d. SDT decoded name: %s\n",
                static_cast<int>(channel.programNumber), channel.pmtPid, channel.sdtName);
        for (uint32_t k = 0; k < channel.elementaryPidCount; ++k) {
            printcf(1, "        Elementary stream PID: %d.\n", channel.elementaryPids[k]);
        }
    }
    printcf(1, "%s\n", kRuler);
}
