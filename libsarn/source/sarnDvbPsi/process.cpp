// The packet loop: every transport packet of every datagram passes here.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "sarn/h264.h"
#include "sarn/mediaDeliveryIndex.h"
#include "sarn/packetJitter.h"
#include "sarn/qualityScores.h"
#include "sarn/sarnDvbPsi.h"
#include "sarn/sarnLog.h"
#include "sarnDvbPsi/contextInternals.h"
#include "sarnDvbPsi/packetStep.h"
#include "sarnDvbPsi/sectionGuard.h"
#include "saturate.h"

namespace {

constexpr uint16_t kPatPid = 0;
constexpr uint16_t kCatPid = 1;
constexpr uint16_t kTsdtPid = 2;
constexpr uint16_t kNitPid = 16;
constexpr uint16_t kSdtPid = 17;
constexpr uint16_t kEitPid = 18;
constexpr uint16_t kTdtPid = 20;
static_assert(kTdtPid == kLastFixedPsiPid);

constexpr uint8_t kGoodRunInSync = 5;    // sync is regained with the fifth good packet in a row
constexpr uint8_t kBadRunOutOfSync = 2;  // and lost with the third failure in a row
constexpr uint8_t kBadRunLimit = 249;
constexpr int64_t kPresenceCheckPeriodMs = 500;
constexpr int64_t kPtsRepetitionLimitMs = 700;
constexpr uint64_t kBitrateSpanPackets = 70000;
constexpr double kBitrateSpanMegabits = 105280000000000.0;  // 70000 packets x 188 x 8 bits x 10^6
constexpr double kTicksPerMicrosecond = 54;
constexpr int kDuplicateGap = 16;
constexpr uint16_t kSamplePeriod = 1000;  // frames until a slot of the two sample buffers is used again
constexpr uint8_t kVideoStreamId = 0xE0;
constexpr uint32_t kPesHeaderEnd = 13;  // behind the TS header and a PES header without its data

// Distance from `buf[i]` to the next sync byte with a whole packet behind it; what remains if there is none.
int32_t findSync(const uint8_t* buf, int32_t len, int32_t i) {
    const int32_t remaining = len - i;
    const void* found = memchr(buf + i, kSyncByte, static_cast<std::size_t>(remaining));
    if (found == nullptr) {
        return remaining;
    }
    const auto distance = static_cast<int32_t>(static_cast<const uint8_t*>(found) - (buf + i));
    return remaining - distance >= kTsPacketSize ? distance : remaining;
}

void countSyncFailure(ts_stream_t& stream, int32_t skipped) {
    stream.i_lost_bytes += static_cast<uint64_t>(skipped);
    ++stream.tr101290[kSyncByteError];
    if (stream.i_sync_bad_run >= kBadRunOutOfSync && stream.b_in_sync) {
        stream.b_in_sync = 0;
        ++stream.tr101290[kTsSyncLoss];
    }
    stream.i_sync_good_run = 0;
    if (++stream.i_sync_bad_run > kBadRunLimit) {
        stream.i_sync_bad_run = kBadRunOutOfSync;
    }
}

// Returns where the next packet begins, or `len`.
[[gnu::noinline]] int32_t resynchronise(ts_stream_t& stream, const uint8_t* buf, int32_t len, int32_t i) {
    const int32_t skipped = findSync(buf, len, i);
    countSyncFailure(stream, skipped);
    i += skipped;
    SARN_ASSERT(i >= len || buf[i] == kSyncByte, "buf[i] == 0x47");
    return i;
}

inline void countGoodPacket(ts_stream_t& stream) {
    if (stream.i_sync_bad_run == 0 && stream.i_sync_good_run == kGoodRunInSync) [[likely]] {
        return;
    }
    stream.i_sync_bad_run = 0;
    if (++stream.i_sync_good_run >= kGoodRunInSync) {
        stream.i_sync_good_run = kGoodRunInSync;
        stream.b_in_sync = 1;
    }
}

void startStream(ts_stream_t& stream, const Arrival& arrival) {
    stream.b_started = 1;
    stream.i_first_time = arrival.ms;
    stream.i_bitrate_start_hr = arrival.hr;
    stream.i_next_check = wrappingAdd(arrival.ms, kPresenceCheckPeriodMs);
}

inline void countPacket(ts_stream_t& stream, ts_pid_t& pid, const Arrival& arrival) {
    ++pid.i_packets;
    ++stream.i_packets;
    pid.i_prev_seen = pid.i_last_seen;
    relaxedStore(pid.i_last_seen, arrival.ms);
}

bool isOverdue(const ts_pid_t& pid, int64_t now) {
    return wrappingAdd(pid.i_last_seen, kTableIntervalLimitMs) < now;
}

// Whether PAT and PMTs still come. One check moves the schedule by one period, however many have passed.
void checkPresence(ts_stream_t& stream, int64_t now) {
    stream.i_next_check = wrappingAdd(stream.i_next_check, kPresenceCheckPeriodMs);
    if (isOverdue(stream.pid[kPatPid], now)) {
        insertPid(stream.touched, kPatPid);
        countError(stream, stream.pid[kPatPid], kPatError);
        countError(stream, stream.pid[kPatPid], kPatError2);
    }
    for (const ts_pmt_t* pmt = stream.p_pmts; pmt != nullptr; pmt = pmt->p_next) {
        if (pmt->p_pid != nullptr && isOverdue(*pmt->p_pid, now)) {
            countError(stream, *pmt->p_pid, kPmtError);
            countError(stream, *pmt->p_pid, kPmtError2);
        }
    }
}

// What is brought up to date once a datagram instead of with each packet: the arrival of the last packet, and
// the delivery index, which takes as many packets at once as share bit rate and loss. Only the first packet
// of a datagram can close an interval, so the loss known before it is what counts.
class DatagramResults {
  public:
    DatagramResults(ts_stream_t& stream, const Arrival& arrival)
        : stream_(stream), arrival_(arrival), accounted_(stream.i_packets), lost_(stream.i_lost) {}

    // Accounts the packets up to the stream's count `packets` in the delivery index.
    void advanceTo(uint64_t packets) {
        if (stream_.i_bitrate != 0) {
            mdi_received_packets_cb(
                stream_.p_mdi, &arrival_.time, static_cast<uint32_t>(stream_.i_bitrate / 8),
                static_cast<uint32_t>(lost_), static_cast<uint32_t>(packets - accounted_));
        }
        accounted_ = packets;
        lost_ = stream_.i_lost;
    }

    // As if each packet counted so far had been accounted by itself.
    void settle() {
        if (stream_.i_packets == accounted_) {
            return;
        }
        stream_.i_last_time = arrival_.ms;
        stream_.i_last_time_hr = arrival_.hr;
        advanceTo(stream_.i_packets);
    }

  private:
    ts_stream_t& stream_;
    const Arrival& arrival_;
    uint64_t accounted_;
    uint64_t lost_;
};

// The rate over the last 70000 packets; the first span only starts the clock.
[[gnu::noinline]] void closeBitrateSpan(ts_stream_t& stream, uint64_t nowHr) {
    const uint64_t span = nowHr - stream.i_bitrate_start_hr;
    if (stream.i_packets == kBitrateSpanPackets || span == 0) {
        stream.i_bitrate = 0;
    } else {
        stream.i_bitrate =
            saturate<uint64_t>(kBitrateSpanMegabits / static_cast<double>(span) * kTicksPerMicrosecond);
    }
    stream.i_bitrate_start_hr = nowHr;
    stream.i_next_bitrate_packet += kBitrateSpanPackets;
}

void routePat(Step s) {
    if (!pushPsiPacket(s.stream.pat_handle, s.packet.data())) {
        countError(s.stream, s.pid, kPatError);
        countError(s.stream, s.pid, kPatError2);
    }
    if (s.pid.i_prev_seen != 0 && wrappingSub(s.pid.i_last_seen, s.pid.i_prev_seen) > kTableIntervalLimitMs) {
        countError(s.stream, s.pid, kPatError);
    }
    if (s.header.scramblingControl() != 0) {
        countError(s.stream, s.pid, kPatError);
        countError(s.stream, s.pid, kPatError2);
    }
}

void routePmt(Step s) {
    const ts_pmt_t& pmt = *s.pid.p_pmt;
    pushPsiPacket(pmt.handle, s.packet.data());
    if (s.header.scramblingControl() == 0) {
        return;
    }
    countError(s.stream, s.pid, kPmtError);
    if (pmt.i_number != 0) {
        countError(s.stream, s.pid, kPmtError2);
    }
}

void routePsi(Step s) {
    switch (s.number) {
        case kPatPid:
            routePat(s);
            break;
        case kCatPid:
            if (!pushPsiPacket(s.stream.cat_handle, s.packet.data())) {
                countError(s.stream, s.pid, kCatError);
            }
            break;
        case kTsdtPid:
        case kTdtPid:
            pushPsiPacket(s.stream.tdt_handle, s.packet.data());
            break;
        case kSdtPid:
            pushPsiPacket(s.stream.sdt_handle, s.packet.data());
            break;
        case kEitPid:
            pushPsiPacket(s.stream.eit_handle, s.packet.data());
            break;
        case kNitPid:
        case kNullPid:
            break;
        default:
            if (s.pid.p_pmt != nullptr) {
                routePmt(s);
            }
            break;
    }
}

// Zero-filled; running out of memory ends the process.
template <typename T>
T* allocateZeroed(std::size_t count, int line) {
    auto* block = static_cast<T*>(calloc(count, sizeof(T)));
    if (block == nullptr) {
        sarnFatal(line, kSarnDvbPsiFile);
    }
    return block;
}

void startPid(Step s) {
    ts_pid_t& pid = s.pid;
    pid.i_pid = s.number;
    pid.b_seen = 1;
    pid.i_first_seen = s.arrival.ms;
    // The counter that this packet follows, so that the continuity check finds no gap.
    pid.i_cc = (s.header.continuityCounter() + 15) & 0x0F;
    pid.b_sampled = 0;
    if (pid.p_gop_result == nullptr) {
        pid.p_gop_result = allocateZeroed<GopResult>(1, __LINE__);
        pid.p_gop_result->minimum = 255;
        pid.p_gop_result->maximum = 1;
    }
    if (pid.p_mos == nullptr) {
        pid.p_mos = allocateZeroed<MosMeasurement>(1, __LINE__);
        pid.p_mos->minimum = 5.0;
        pid.p_mos->maximum = 1.0;
    }
    insertPid(s.stream.touched, s.number);
    insertPid(s.stream.seen, s.number);
    updateRoutine(pid);
}

// What only some PIDs need: a table's packet goes to its decoder, a new PID is set up.
[[gnu::noinline]] void handleSpecialPid(Step s) {
    routePsi(s);
    if (!s.pid.b_seen) {
        startPid(s);
    }
}

// continuity_counter values missing before this packet, 0 to 15.
inline uint8_t checkContinuity(ts_pid_t& pid, TsHeader header) {
    const uint8_t counter = header.continuityCounter();
    const auto gap = static_cast<uint8_t>((counter + 15 - pid.i_cc) & 0x0F);
    pid.i_cc = counter;
    return gap;
}

void countIndicators(Step s) {
    if (s.header.transportErrorIndicator()) {
        countError(s.stream, s.pid, kTransportError);
    }
    if (s.header.scramblingControl() != 0) {
        if (!s.stream.b_cat_received) {
            countError(s.stream, s.pid, kCatError);
        }
        ++s.stream.i_scrambled;
        ++s.pid.i_scrambled;
    }
}

// Every 500th frame the sizes of the buffer just written go into the GOP estimate.
void estimateGop(Step s, const PesSample* samples) {
    if (s.pid.i_nal_count % kGopFrames == 0) {
        calculateGOP(samples, kGopFrames, &s.pid.gop, s.pid.i_nal_count, s.number);
        return;
    }
    // A fixed debugging aid for these four PIDs.
    if (s.number == 1641 || s.number == 1661 || s.number == 1501 || s.number == 531) {
        printf("stream->pid[i_pid].i_nal_count %d %d\n",
               static_cast<int>(static_cast<uint32_t>(s.pid.i_nal_count)),
               static_cast<int>(static_cast<uint32_t>(s.pid.i_nal_count >> 32)));
    }
}

// Takes the size of the frame that ended with this PES start.
void samplePes(Step s, uint8_t payloadOffset) {
    ts_pid_t& pid = s.pid;
    pid.i_byte_offset = pid.i_packets * kTsPacketSize + payloadOffset;
    pid.i_pes_bytes = pid.i_byte_offset - pid.i_prev_pes_offset;
    pid.i_prev_pes_offset = pid.i_byte_offset;
    ++pid.i_nal_count;
    pid.i_pes_packets = pid.i_packets - pid.i_prev_pes_packets;
    pid.i_prev_pes_packets = pid.i_packets;
    pid.i_pes_lost = pid.i_lost - pid.i_prev_pes_lost;
    pid.i_prev_pes_lost = pid.i_lost;

    if (pid.p_samples_a == nullptr) {
        pid.p_samples_a = allocateZeroed<PesSample>(kGopFrames, __LINE__);
        pid.p_samples_b = allocateZeroed<PesSample>(kGopFrames, __LINE__);
    }
    pid.sample_no = static_cast<uint16_t>(pid.i_nal_count % kSamplePeriod);
    pid.b_sampled = 1;
    pid.b_samples_a = pid.sample_no < kGopFrames;
    PesSample* samples = pid.b_samples_a ? pid.p_samples_a : pid.p_samples_b;
    const int sample_no = pid.sample_no % kGopFrames;
    SARN_ASSERT(sample_no < kGopFrames, "sample_no < 500");
    samples[sample_no] = {.i_pes_bytes = pid.i_pes_bytes,
                          .i_pes_packets = static_cast<uint32_t>(pid.i_pes_packets),
                          .i_pes_lost = static_cast<uint32_t>(pid.i_pes_lost)};
    estimateGop(s, samples);
}

void readPes(Step s, uint8_t payloadOffset) {
    const uint32_t pes = kTsHeaderSize + payloadOffset;
    if (isVideoStreamType(s.pid.i_stream_type)) {
        samplePes(s, payloadOffset);
    }
    if (pesStreamId(s.packet, pes) == kVideoStreamId) {
        const auto behindHeader = static_cast<uint8_t>(payloadOffset + pesHeaderDataLength(s.packet, pes));
        parse_nal(s.packet.data(), static_cast<uint8_t>(kPesHeaderEnd + behindHeader), s.readable,
                  &s.pid.nal_state[0], &s.pid.nal_state[1]);
    }
}

// A PES start counts wherever its prefix stands at the payload's begin; payload_unit_start_indicator is not
// asked.
void readPesStart(Step s) {
    const uint8_t payloadOffset = tsPayloadOffset(s.header, s.packet[kTsHeaderSize]);
    if (pesStartsAt(s.packet, kTsHeaderSize + payloadOffset)) {
        readPes(s, payloadOffset);
    }
}

void checkPts(Step s, uint32_t payload) {
    if (!s.header.payloadUnitStart() || !pesStartsAt(s.packet, payload) ||
        !pesHasOptionalHeader(pesStreamId(s.packet, payload)) || !pesHasPts(s.packet, payload)) {
        return;
    }
    if (s.pid.i_last_pts_time != 0 &&
        wrappingSub(s.arrival.ms, s.pid.i_last_pts_time) > kPtsRepetitionLimitMs) {
        countError(s.stream, s.pid, kPtsError);
    }
    s.pid.i_last_pts_time = s.arrival.ms;
}

// The gap is taken modulo 16, so no packet is classed as a duplicate: a repeated one counts 15 lost packets,
// which readers of the records rely on.
[[gnu::noinline]] void accountContinuity(Step s, uint8_t gap) {
    if (gap == kDuplicateGap &&
        std::equal(s.pid.last_header.begin(), s.pid.last_header.end(), s.packet.begin())) {
        ++s.stream.i_duplicated;
        ++s.pid.i_duplicated;
    } else {
        s.stream.i_lost += gap;
        s.pid.i_lost += gap;
    }
    ++s.stream.i_out_of_sequence;
    ++s.pid.i_out_of_sequence;
    countError(s.stream, s.pid, kContinuityCountError);
}

// All that a packet may need behind its counting, in order.
[[gnu::noinline]] void analysePayload(Step s, uint8_t gap) {
    countIndicators(s);
    readPesStart(s);
    bool continuityError = gap != 0 && s.header.hasPayload();
    uint32_t payload = kTsHeaderSize;
    if (s.header.hasAdaptationField() && tsAdaptationFieldLength(s.packet) != 0) {
        const AdaptationResult field = readAdaptationField(s, continuityError);
        payload = field.payload;
        continuityError = continuityError && !field.signalsDiscontinuity;
    }
    checkPts(s, payload);
    if (continuityError) {
        accountContinuity(s, gap);
    }
}

// Most packets only go on with a PES packet: clear payload, expected counter, no start code. For these none
// of the steps of analysePayload has anything to do.
inline bool isContinuation(TsPacket packet, TsHeader header, uint8_t gap) {
    return gap == 0 && header.isClearPayloadOnly() && !pesStartsAt(packet, kTsHeaderSize);
}

// A new context's check is due at once, with which the stream starts.
[[gnu::noinline]] void handleDueCheck(ts_stream_t& stream, const Arrival& arrival) {
    if (!stream.b_started) {
        startStream(stream, arrival);
    }
    if (arrival.ms >= stream.i_next_check) {
        checkPresence(stream, arrival.ms);
    }
}

inline void handleSchedule(ts_stream_t& stream, const Arrival& arrival, DatagramResults& results) {
    if (arrival.ms >= stream.i_next_check) [[unlikely]] {
        handleDueCheck(stream, arrival);
    }
    if (stream.i_packets == stream.i_next_bitrate_packet) [[unlikely]] {
        results.advanceTo(stream.i_packets - 1);
        closeBitrateSpan(stream, arrival.hr);
    }
}

[[gnu::noinline]] void callHook(const ts_pid_t& pid, const uint8_t* packet, DatagramResults& results) {
    results.settle();
    pid.pf_callback(kTsPacketSize, packet, pid.p_callback_data);
}

// `end` is the datagram's.
inline void analysePacket(ts_stream_t& stream, TsPacket packet, const uint8_t* end, const Arrival& arrival,
                          DatagramResults& results) {
    const TsHeader header(packet.data());
    const uint16_t number = header.pid();
    ts_pid_t& pid = stream.pid[number];
    // Made where it is needed: the usual packet keeps everything in registers.
    const auto step = [&] {
        const auto readable = static_cast<int32_t>(end - packet.data());
        return Step{stream, pid, arrival, packet, header, readable, number};
    };
    if (pid.pf_callback != nullptr) [[unlikely]] {
        callHook(pid, packet.data(), results);
    }
    countPacket(stream, pid, arrival);
    handleSchedule(stream, arrival, results);
    if (!pid.b_routine) [[unlikely]] {
        handleSpecialPid(step());
    }
    const uint8_t gap = checkContinuity(pid, header);
    if (number == kNullPid) {
        ++stream.i_null_packets;
    } else if (!isContinuation(packet, header, gap)) [[unlikely]] {
        analysePayload(step(), gap);
    }
    memcpy(pid.last_header.data(), packet.data(), kLastHeaderSize);
}

// False when the datagram ended in something that is no whole packet.
bool analysePackets(ts_stream_t& stream, const uint8_t* buf, int32_t len, const Arrival& arrival) {
    DatagramResults results(stream, arrival);
    const int32_t lastStart = len - kTsPacketSize;
    bool whole = true;
    for (int32_t i = 0;; i += kTsPacketSize) {
        if (i <= lastStart && buf[i] == kSyncByte) [[likely]] {
            countGoodPacket(stream);
        } else if (i >= len) {
            break;
        } else {
            i = resynchronise(stream, buf, len, i);
            if (i >= len) {
                whole = false;
                break;
            }
        }
        analysePacket(stream, TsPacket(buf + i, kTsPacketSize), buf + len, arrival, results);
    }
    results.settle();
    return whole;
}

// With many streams a datagram finds nothing of its own in the caches: what it will need is fetched at once
// instead of one after the other (bench/analysisBench, 1000 streams).
inline void prefetchRecords(const ts_stream_t& stream, const uint8_t* buf, int32_t len) {
    if (len >= kTsPacketSize) {
        __builtin_prefetch(&stream.pid[TsHeader(buf).pid()], 1);
    }
    __builtin_prefetch(stream.p_mdi, 1);
    __builtin_prefetch(&stream.p_jitter->lastArrival, 1);
}

// The delivery index looks at the low 32 bits of the seconds, as many as every machine's time has.
Arrival arrivalAt(int64_t ms, uint64_t hr) {
    timeval time{};
    time.tv_sec = static_cast<decltype(time.tv_sec)>(ms / 1000);
    time.tv_usec = static_cast<decltype(time.tv_usec)>(ms % 1000 * 1000);
    return {ms, hr, time};
}

}  // namespace

int32_t sarnDvbPsi_process(ts_stream_t* stream, const uint8_t* buf, int32_t len, int64_t now_ms,
                           uint64_t now_hr) {
    const Arrival arrival = arrivalAt(now_ms, now_hr);
    prefetchRecords(*stream, buf, len);
    // Unsigned, as the silence check compares.
    const auto seen = static_cast<uint64_t>(now_ms);
    if (!stream->b_started || seen < stream->i_earliest_seen) {
        relaxedStore(stream->i_earliest_seen, seen);
    }
    if (analysePackets(*stream, buf, len, arrival)) {
        jitter_received_at(stream->p_jitter, static_cast<uint64_t>(now_ms));
    }
    return 1;
}
