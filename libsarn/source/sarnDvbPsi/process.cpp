// The packet loop: every transport packet of every datagram passes here.
#include <sys/time.h>

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
#include "sarnDvbPsi/packetFields.h"
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

constexpr uint8_t kGoodRunInSync = 5;    // sync is regained with the fifth good packet in a row
constexpr uint8_t kBadRunOutOfSync = 2;  // and lost with the third failure in a row
constexpr uint8_t kBadRunLimit = 249;
constexpr int64_t kPresenceCheckPeriodMs = 500;
constexpr int64_t kPcrRepetitionLimitMs = 40;  // ETSI TR 101 290 5.2.2
constexpr int64_t kPcrDiscontinuityLimitNs = 100'000'000;
constexpr int64_t kPcrAccuracyLimitNs = 500;
constexpr int64_t kPtsRepetitionLimitMs = 700;
constexpr uint64_t kBitrateSpanPackets = 70000;
constexpr double kBitrateSpanBitsPerMegahertz = 105280000000000.0;  // 70000 packets x 188 x 8 bits x 10^6
constexpr double kTicksPerMicrosecond = 54;
constexpr double kPacketNanobits = 1504.0 * 1e9;
constexpr int kDuplicateGap = 16;
constexpr uint16_t kSamplePeriod = 1000;  // frames until a slot of the two sample buffers is used again
constexpr uint8_t kVideoStreamId = 0xE0;
constexpr uint32_t kPesHeaderEnd = 13;  // behind the TS header and a PES header without its data
constexpr uint8_t kAdaptationLengthWithPcr = 7;

// Differences of clocks that the network or a capture file controls may be anything: they wrap.
int64_t wrappingSub(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}
int64_t wrappingAdd(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}
int64_t wrappingMul(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) * static_cast<uint64_t>(b));
}

// When a datagram came, in the units that the steps want.
struct Arrival {
    int64_t ms;
    uint64_t hr;
    timeval time;
};

Arrival makeArrival(int64_t nowMs, uint64_t nowHr) {
    return {nowMs, nowHr, {.tv_sec = nowMs / 1000, .tv_usec = nowMs % 1000 * 1000}};
}

// One packet on its way through the steps.
struct Step {
    ts_stream_t& stream;
    ts_pid_t& pid;
    const Arrival& arrival;
    TsPacket packet;
    int32_t readable;  // bytes from the packet's start to the datagram's end
    uint16_t number;   // the PID
    uint8_t gap;       // continuity_counter values missing before this packet, 0 to 15
    bool continuityError;
};

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

// Moves `i` to the next packet. False when the datagram holds none.
inline bool synchronise(ts_stream_t& stream, const uint8_t* buf, int32_t len, int32_t& i) {
    if (buf[i] == kSyncByte && len - i >= kTsPacketSize) [[likely]] {
        stream.i_sync_bad_run = 0;
        if (stream.i_sync_good_run < kGoodRunInSync) {
            ++stream.i_sync_good_run;
        }
        if (stream.i_sync_good_run == kGoodRunInSync) {
            stream.b_in_sync = 1;
        }
        return true;
    }
    const int32_t skipped = findSync(buf, len, i);
    countSyncFailure(stream, skipped);
    i += skipped;
    if (i >= len) {
        return false;
    }
    SARN_ASSERT(buf[i] == kSyncByte, "buf[i] == 0x47");
    return true;
}

inline void countPacket(const Step& s) {
    ++s.pid.i_packets;
    ++s.stream.i_packets;
    s.pid.i_prev_seen = s.pid.i_last_seen;
    relaxedStore(s.pid.i_last_seen, s.arrival.ms);
    s.stream.i_last_time = s.arrival.ms;
    s.stream.i_last_time_hr = s.arrival.hr;
}

void startStream(ts_stream_t& stream, const Arrival& arrival) {
    stream.b_started = 1;
    stream.i_first_time = arrival.ms;
    stream.i_bitrate_start_hr = arrival.hr;
    stream.i_next_check = wrappingAdd(arrival.ms, kPresenceCheckPeriodMs);
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
        if (isOverdue(*pmt->p_pid, now)) {
            countError(stream, *pmt->p_pid, kPmtError);
            countError(stream, *pmt->p_pid, kPmtError2);
        }
    }
}

// The rate over the last 70000 packets; the first span only starts the clock.
void closeBitrateSpan(ts_stream_t& stream, uint64_t nowHr) {
    const uint64_t span = nowHr - stream.i_bitrate_start_hr;
    const bool first = stream.i_packets == kBitrateSpanPackets;
    stream.i_bitrate = first || span == 0
                           ? 0
                           : saturate<uint64_t>(kBitrateSpanBitsPerMegahertz / static_cast<double>(span) *
                                                kTicksPerMicrosecond);
    stream.i_bitrate_start_hr = nowHr;
    stream.i_next_bitrate_packet += kBitrateSpanPackets;
}

inline void feedDeliveryIndex(const Step& s) {
    if (s.stream.i_bitrate != 0) {
        mdi_received_packet_cb(s.stream.p_mdi, &s.arrival.time, static_cast<uint32_t>(s.stream.i_bitrate / 8),
                               static_cast<uint32_t>(s.stream.i_lost));
    }
}

inline void readHeader(const Step& s) {
    s.pid.b_transport_error = tsTransportErrorIndicator(s.packet);
    s.pid.b_payload_unit_start = tsPayloadUnitStart(s.packet);
    s.pid.b_transport_priority = tsTransportPriority(s.packet);
    s.pid.i_scrambling = tsScramblingControl(s.packet);
    s.pid.b_adaptation_field = tsHasAdaptationField(s.packet);
}

void routePat(const Step& s) {
    if (!pushPsiPacket(s.stream.pat_handle, s.packet.data())) {
        countError(s.stream, s.pid, kPatError);
        countError(s.stream, s.pid, kPatError2);
    }
    if (s.pid.i_prev_seen != 0 && wrappingSub(s.pid.i_last_seen, s.pid.i_prev_seen) > kTableIntervalLimitMs) {
        countError(s.stream, s.pid, kPatError);
    }
    if (s.pid.i_scrambling != 0) {
        countError(s.stream, s.pid, kPatError);
        countError(s.stream, s.pid, kPatError2);
    }
}

void routePmt(const Step& s) {
    const ts_pmt_t& pmt = *s.pid.p_pmt;
    pushPsiPacket(pmt.handle, s.packet.data());
    if (s.pid.i_scrambling == 0) {
        return;
    }
    countError(s.stream, s.pid, kPmtError);
    if (pmt.i_number != 0) {
        countError(s.stream, s.pid, kPmtError2);
    }
}

inline void routePsi(const Step& s) {
    if (s.number > kTdtPid) [[likely]] {
        if (s.pid.p_pmt != nullptr && s.number != kNullPid) {
            routePmt(s);
        }
        return;
    }
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
            break;
        default:
            if (s.pid.p_pmt != nullptr) {
                routePmt(s);
            }
            break;
    }
}

void startPid(const Step& s) {
    ts_pid_t& pid = s.pid;
    pid.i_pid = s.number;
    pid.b_seen = 1;
    pid.i_first_seen = s.arrival.ms;
    pid.i_cc = tsContinuityCounter(s.packet);
    pid.b_sampled = 0;
    if (pid.p_gop_result == nullptr) {
        pid.p_gop_result = static_cast<GopResult*>(calloc(1, sizeof(GopResult)));
        pid.p_gop_result->minimum = 255;
        pid.p_gop_result->maximum = 1;
    }
    if (pid.p_mos == nullptr) {
        pid.p_mos = static_cast<MosMeasurement*>(calloc(1, sizeof(MosMeasurement)));
        pid.p_mos->minimum = 5.0;
        pid.p_mos->maximum = 1.0;
    }
    insertPid(s.stream.touched, s.number);
    insertPid(s.stream.seen, s.number);
}

inline void checkContinuity(Step& s) {
    if (!s.pid.b_seen) [[unlikely]] {
        startPid(s);
        return;
    }
    const uint8_t counter = tsContinuityCounter(s.packet);
    s.gap = static_cast<uint8_t>((counter + 15 - s.pid.i_cc) & 0x0F);
    s.continuityError = s.gap != 0 && tsHasPayload(s.packet);
    s.pid.i_cc = counter;
}

inline void countIndicators(const Step& s) {
    if (s.pid.b_transport_error) [[unlikely]] {
        countError(s.stream, s.pid, kTransportError);
    }
    if (s.pid.i_scrambling != 0) [[unlikely]] {
        if (!s.stream.b_cat_received) {
            countError(s.stream, s.pid, kCatError);
        }
        ++s.stream.i_scrambled;
        ++s.pid.i_scrambled;
    }
}

PesSample* newSamples() {
    return static_cast<PesSample*>(calloc(kGopFrames, sizeof(PesSample)));
}

// Every 500th frame the sizes of the buffer just written go into the GOP estimate.
void estimateGop(const Step& s, const PesSample* samples) {
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
void samplePes(const Step& s) {
    ts_pid_t& pid = s.pid;
    pid.i_byte_offset = pid.i_packets * kTsPacketSize + pid.i_payload_offset;
    pid.i_pes_bytes = pid.i_byte_offset - pid.i_prev_pes_offset;
    pid.i_prev_pes_offset = pid.i_byte_offset;
    ++pid.i_nal_count;
    pid.i_pes_packets = pid.i_packets - pid.i_prev_pes_packets;
    pid.i_prev_pes_packets = pid.i_packets;
    pid.i_pes_lost = pid.i_lost - pid.i_prev_pes_lost;
    pid.i_prev_pes_lost = pid.i_lost;

    if (pid.p_samples_a == nullptr) {
        pid.p_samples_a = newSamples();
        pid.p_samples_b = newSamples();
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

// A PES start counts wherever its prefix stands at the payload's begin; payload_unit_start_indicator is not
// asked.
inline void readPesStart(const Step& s) {
    s.pid.i_payload_offset = tsHasAdaptationField(s.packet) && tsHasPayload(s.packet)
                                 ? static_cast<uint8_t>(tsAdaptationFieldLength(s.packet) + 1)
                                 : uint8_t{0};
    const uint32_t pes = kTsHeaderSize + s.pid.i_payload_offset;
    if (!pesStartsAt(s.packet, pes)) {
        return;
    }
    if (isVideoStreamType(s.pid.i_stream_type)) {
        samplePes(s);
    }
    if (pesStreamId(s.packet, pes) == kVideoStreamId) {
        const auto behindHeader =
            static_cast<uint8_t>(s.pid.i_payload_offset + pesHeaderDataLength(s.packet, pes));
        parse_nal(s.packet.data(), static_cast<uint8_t>(kPesHeaderEnd + behindHeader), s.readable,
                  &s.pid.nal_state[0], &s.pid.nal_state[1]);
    }
}

// Jitter of PCR arrival, smoothed as RFC 3550 smooths RTP's.
void measurePcrJitter(const Step& s) {
    ts_pid_t& pid = s.pid;
    const int64_t elapsed = wrappingMul(wrappingSub(s.arrival.ms, pid.i_prev_pcr_time), 1'000'000);
    const int64_t deviation = wrappingSub(elapsed, wrappingSub(pid.i_pcr, pid.i_prev_pcr));
    const int64_t distance = deviation < 0 ? wrappingSub(0, deviation) : deviation;
    const auto step = static_cast<int32_t>(wrappingSub(distance, pid.i_pcr_jitter) >> 4);
    pid.i_pcr_jitter =
        static_cast<int32_t>(static_cast<uint32_t>(pid.i_pcr_jitter) + static_cast<uint32_t>(step));
    for (ts_pid_t* record : {&pid, &s.stream.p_intervals->pid[s.number]}) {
        if (record->i_max_pcr_jitter < pid.i_pcr_jitter) {
            record->i_max_pcr_jitter_time = static_cast<uint64_t>(s.arrival.ms);
            record->i_max_pcr_jitter = pid.i_pcr_jitter;
        }
    }
}

// Whether the PCR advanced as the packets between the two PCRs take at the stream's bit rate.
void checkPcrAccuracy(const Step& s) {
    const uint64_t packets = s.stream.i_packets - s.pid.i_packets_at_pcr;
    s.pid.i_packets_at_pcr = s.stream.i_packets;
    if (s.stream.i_bitrate == 0) {
        return;
    }
    const double transmission =
        static_cast<double>(packets) * kPacketNanobits / static_cast<double>(s.stream.i_bitrate);
    const auto advance = static_cast<double>(wrappingSub(s.pid.i_pcr, s.pid.i_prev_pcr));
    const auto accuracy = saturate<int64_t>(advance - transmission);
    if (accuracy > kPcrAccuracyLimitNs || accuracy < -kPcrAccuracyLimitNs) {
        countError(s.stream, s.pid, kPcrAccuracyError);
    }
}

void measurePcr(const Step& s) {
    ts_pid_t& pid = s.pid;
    const int64_t pcr = tsPcrNanoseconds(s.packet);
    const int64_t old = pid.i_pcr;
    pid.i_pcr = pcr;
    if (pid.i_first_pcr == 0) {
        pid.i_first_pcr = pcr;
    }
    if (pcr < pid.i_last_pcr) {
        fputs(s.continuityError ? "stofain: Warning wrapping PCR on discontinuity\n"
                                : "stofain: Warning wrapping PCR\n",
              stderr);
    }
    pid.i_prev_pcr = old;
    pid.i_prev_pcr_time = pid.i_last_pcr_time;
    pid.i_last_pcr_time = s.arrival.ms;
    pid.i_last_pcr = pcr;
    if (pid.i_prev_pcr_time == 0) {
        return;
    }
    measurePcrJitter(s);
    checkPcrAccuracy(s);
    if (wrappingSub(pid.i_last_pcr_time, pid.i_prev_pcr_time) > kPcrRepetitionLimitMs) {
        countError(s.stream, pid, kPcrRepetitionError);
        countError(s.stream, pid, kPcrError);
    }
    if (!pid.b_discontinuity && wrappingSub(pid.i_last_pcr, pid.i_prev_pcr) > kPcrDiscontinuityLimitNs) {
        countError(s.stream, pid, kPcrDiscontinuityIndicatorError);
        countError(s.stream, pid, kPcrError);
    }
}

// The extension's length byte stands at `q`. The piecewise rate is read from where its offset, counted from
// the packet's start, is added to q once more; the records keep what that yields.
void readAdaptationExtension(const Step& s, uint32_t q) {
    ts_pid_t& pid = s.pid;
    const auto at = [&s](uint32_t offset) { return tsByteAt(s.packet, offset); };
    pid.i_af_extension_length = at(q);
    if (pid.i_af_extension_length == 0) {
        return;
    }
    const uint8_t flags = at(q + 1);
    pid.b_ltw = afeLtw(flags);
    pid.b_piecewise_rate = afePiecewiseRate(flags);
    pid.b_seamless_splice = afeSeamlessSplice(flags);
    uint32_t r = q;
    if (pid.b_ltw) {
        pid.b_ltw_valid = at(q + 2) >> 7;
        pid.i_ltw_offset = at(q + 2) & 0x7F;
        r += 2;
    }
    if (pid.b_piecewise_rate) {
        pid.i_piecewise_rate =
            static_cast<uint32_t>((at(q + r) & 0x3F) << 16 | at(q + r + 1) << 8 | at(q + r + 2));
        r += 3;
    }
    if (pid.b_seamless_splice) {
        pid.i_splice_type = at(r) & 0xF0;
    }
}

// splice_countdown is taken as sign and magnitude.
int8_t spliceCountdown(uint8_t byte) {
    const int magnitude = byte & 0x7F;
    return static_cast<int8_t>((byte & 0x80) != 0 ? -magnitude : magnitude);
}

// Returns where the payload begins by the sum of the fields that are present; stuffing is not skipped.
uint32_t readAdaptationField(Step& s) {
    ts_pid_t& pid = s.pid;
    const AdaptationFlags flags = tsAdaptationFlags(s.packet);
    pid.b_discontinuity = flags.discontinuity;
    pid.b_random_access = flags.randomAccess;
    pid.b_es_priority = flags.esPriority;
    pid.b_splicing_point = flags.splicingPoint;
    pid.b_private_data = flags.privateData;
    pid.b_af_extension = flags.extension;
    uint32_t q = kAdaptationFlags;
    if (flags.pcr) {
        q += kPcrFieldSize;
        if (tsAdaptationFieldLength(s.packet) >= kAdaptationLengthWithPcr) {
            measurePcr(s);
            if (flags.discontinuity) {
                // Without a PCR the indicator excuses nothing.
                printcf(2, "stofain: Server signalled the continuity counter discontinuity\n");
                s.continuityError = false;
            }
        }
    }
    if (flags.opcr) {
        q += kPcrFieldSize;
    }
    if (flags.splicingPoint) {
        q += 1;
        pid.i_splice_countdown = spliceCountdown(tsByteAt(s.packet, q));
    }
    if (flags.privateData) {
        q += 1;
        pid.i_private_data_length = tsByteAt(s.packet, q);
        q += pid.i_private_data_length;
    }
    if (flags.extension) {
        q += 1;
        readAdaptationExtension(s, q);
    }
    q += 2;
    return q - 1;
}

inline void checkPts(const Step& s, uint32_t payload) {
    if (!s.pid.b_payload_unit_start || !pesStartsAt(s.packet, payload) ||
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
void accountContinuity(const Step& s) {
    if (s.gap == kDuplicateGap &&
        std::equal(s.pid.last_header.begin(), s.pid.last_header.end(), s.packet.begin())) {
        ++s.stream.i_duplicated;
        ++s.pid.i_duplicated;
    } else {
        s.stream.i_lost += s.gap;
        s.pid.i_lost += s.gap;
    }
    ++s.stream.i_out_of_sequence;
    ++s.pid.i_out_of_sequence;
    countError(s.stream, s.pid, kContinuityCountError);
}

inline void analysePayload(Step& s) {
    countIndicators(s);
    readPesStart(s);
    uint32_t payload = kTsHeaderSize;
    if (s.pid.b_adaptation_field && tsAdaptationFieldLength(s.packet) != 0) {
        payload = readAdaptationField(s);
    }
    checkPts(s, payload);
    if (s.continuityError) [[unlikely]] {
        accountContinuity(s);
    }
}

inline void analysePacket(ts_stream_t& stream, TsPacket packet, int32_t readable, const Arrival& arrival) {
    const uint16_t number = tsPid(packet);
    Step s{stream, stream.pid[number], arrival, packet, readable, number, 0, false};
    if (s.pid.pf_callback != nullptr) [[unlikely]] {
        s.pid.pf_callback(kTsPacketSize, packet.data(), s.pid.p_callback_data);
    }
    countPacket(s);
    if (!stream.b_started) [[unlikely]] {
        startStream(stream, arrival);
    }
    if (arrival.ms >= stream.i_next_check) [[unlikely]] {
        checkPresence(stream, arrival.ms);
    }
    if (stream.i_packets == stream.i_next_bitrate_packet) [[unlikely]] {
        closeBitrateSpan(stream, arrival.hr);
    }
    feedDeliveryIndex(s);
    readHeader(s);
    routePsi(s);
    checkContinuity(s);
    if (number == kNullPid) {
        ++stream.i_null_packets;
    } else {
        analysePayload(s);
    }
    std::copy_n(packet.begin(), kLastHeaderSize, s.pid.last_header.begin());
}

}  // namespace

int32_t sarnDvbPsi_process(ts_stream_t* stream, const uint8_t* buf, int32_t len, int64_t now_ms,
                           uint64_t now_hr) {
    const Arrival arrival = makeArrival(now_ms, now_hr);
    if (!stream->b_started || now_ms < stream->i_earliest_seen) {
        relaxedStore(stream->i_earliest_seen, now_ms);
    }
    for (int32_t i = 0; i < len; i += kTsPacketSize) {
        if (!synchronise(*stream, buf, len, i)) {
            return 1;
        }
        analysePacket(*stream, TsPacket(buf + i, kTsPacketSize), len - i, arrival);
    }
    jitter_received_packet_cb(stream->p_jitter, &arrival.time);
    return 1;
}
