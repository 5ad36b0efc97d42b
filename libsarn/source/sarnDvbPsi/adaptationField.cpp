// The adaptation field (ISO/IEC 13818-1 2.4.3.4) and what its PCR tells.
#include <cstdio>

#include "sarn/sarnLog.h"
#include "sarnDvbPsi/contextInternals.h"
#include "sarnDvbPsi/packetStep.h"
#include "saturate.h"

namespace {

constexpr int64_t kPcrRepetitionLimitMs = 40;  // ETSI TR 101 290 5.2.2
constexpr int64_t kPcrDiscontinuityLimitNs = 100'000'000;
constexpr int64_t kPcrAccuracyLimitNs = 500;
constexpr double kPacketNanobits = 1504.0 * 1e9;
constexpr uint8_t kAdaptationLengthWithPcr = 7;

// How far the PCR's advance is from the arrival's, smoothed by a sixteenth of each new deviation.
void measurePcrJitter(Step s) {
    ts_pid_t& pid = s.pid;
    const int64_t elapsed = wrappingMul(wrappingSub(s.arrival.ms, pid.i_prev_pcr_time), 1'000'000);
    const int64_t deviation = wrappingSub(elapsed, wrappingSub(pid.i_pcr, pid.i_prev_pcr));
    const int64_t distance = deviation < 0 ? wrappingSub(0, deviation) : deviation;
    const auto change = static_cast<uint32_t>(wrappingSub(distance, pid.i_pcr_jitter) >> 4);
    pid.i_pcr_jitter = static_cast<int32_t>(static_cast<uint32_t>(pid.i_pcr_jitter) + change);
    for (ts_pid_t* record : {&pid, &s.stream.p_intervals->pid[s.number]}) {
        if (record->i_max_pcr_jitter < pid.i_pcr_jitter) {
            record->i_max_pcr_jitter_time = static_cast<uint64_t>(s.arrival.ms);
            record->i_max_pcr_jitter = pid.i_pcr_jitter;
        }
    }
}

// Whether the PCR advanced as the packets between the two PCRs take at the stream's bit rate.
void checkPcrAccuracy(Step s) {
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

void measurePcr(Step s, bool continuityError) {
    ts_pid_t& pid = s.pid;
    const int64_t pcr = tsPcrNanoseconds(s.packet);
    const int64_t old = pid.i_pcr;
    pid.i_pcr = pcr;
    if (pid.i_first_pcr == 0) {
        pid.i_first_pcr = pcr;
    }
    if (pcr < pid.i_last_pcr) {
        fputs(continuityError ? "stofain: Warning wrapping PCR on discontinuity\n"
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

// The extension's length byte stands at `q`. The offset of the piecewise rate, which counts from the packet's
// start already, is added to q once more; readers rely on what that yields.
void readAdaptationExtension(Step s, uint32_t q) {
    ts_pid_t& pid = s.pid;
    const auto at = [s](uint32_t offset) { return tsByteAt(s.packet, offset); };
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

}  // namespace

AdaptationResult readAdaptationField(Step s, bool continuityError) {
    ts_pid_t& pid = s.pid;
    const AdaptationFlags flags = tsAdaptationFlags(s.packet);
    pid.b_discontinuity = flags.discontinuity;
    pid.b_random_access = flags.randomAccess;
    pid.b_es_priority = flags.esPriority;
    pid.b_splicing_point = flags.splicingPoint;
    pid.b_private_data = flags.privateData;
    pid.b_af_extension = flags.extension;
    bool signalsDiscontinuity = false;
    uint32_t q = kAdaptationFlags;
    if (flags.pcr) {
        q += kPcrFieldSize;
        if (tsAdaptationFieldLength(s.packet) >= kAdaptationLengthWithPcr) {
            measurePcr(s, continuityError);
            if (flags.discontinuity) {
                // Without a PCR the indicator excuses nothing.
                printcf(2, "stofain: Server signalled the continuity counter discontinuity\n");
                signalsDiscontinuity = true;
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
    return {.payload = q - 1, .signalsDiscontinuity = signalsDiscontinuity};
}
