// The once-a-second silence check over all contexts, and the latch that ends an interval.
#include <sys/time.h>
#include <unistd.h>

#include <cstring>

#include "sarn/sarnDvbPsi.h"
#include "sarnDvbPsi/contextInternals.h"
#include "sarnDvbPsi/knownStreams.h"

namespace {

void countSilentPids(ts_stream_t& stream, int64_t nowSeconds) {
    const auto timeout = static_cast<uint32_t>(relaxedLoad(stream.i_pid_timeout));
    const uint64_t threshold = uint32_t{(static_cast<uint32_t>(nowSeconds) - timeout) * 1000};
    if (relaxedLoad(stream.i_earliest_seen) >= threshold) {
        return;  // no PID can have been seen before that
    }
    forEachPid(stream.seen, [&stream, threshold](uint32_t number) {
        ts_pid_t& pid = stream.pid[number];
        if (number == kNullPid || relaxedLoad(stream.ignore_pid[number]) != 0 ||
            relaxedLoad(stream.ignore_stream_type[relaxedLoad(pid.i_stream_type)]) != 0) {
            return;
        }
        if (static_cast<uint64_t>(relaxedLoad(pid.i_last_seen)) < threshold) {
            relaxedIncrement(stream.tr101290[kPidError]);
            relaxedIncrement(pid.tr101290[kPidError]);
        }
    });
}

// Copies `size` bytes of a record whose PID_error counter, at `counter`, the timer thread may be writing.
void copyRecord(void* target, const void* source, std::size_t size, std::size_t counter) {
    auto* to = static_cast<unsigned char*>(target);
    const auto* from = static_cast<const unsigned char*>(source);
    const std::size_t behind = counter + sizeof(uint64_t);
    memcpy(to, from, counter);
    memcpy(to + behind, from + behind, size - behind);
}

void latchPid(ts_pid_t& slot, const ts_pid_t& live) {
    copyRecord(&slot, &live, sizeof(ts_pid_t), offsetof(ts_pid_t, tr101290) + kPidError * sizeof(uint64_t));
    slot.tr101290[kPidError] = relaxedLoad(live.tr101290[kPidError]);
    if (slot.b_pcr_pid) {
        slot.i_max_pcr_jitter = 0;
        slot.i_max_pcr_jitter_time = 0;
    }
}

}  // namespace

void sarnDvbPsi_timerTick(int64_t nowSeconds) {
    const SpinGuard guard(knownStreams_spinlock);
    for (KnownStream* known = knownStreams; known != nullptr;
         known = static_cast<KnownStream*>(known->hh.next)) {
        countSilentPids(*known->stream, nowSeconds);
    }
}

void* thread_timer_function(void*) {
    for (;;) {
        sleep(1);
        timeval now{};
        gettimeofday(&now, nullptr);
        sarnDvbPsi_timerTick(now.tv_sec);
    }
}

void sarnDvbPsi_latchInterval(ts_stream_t* stream, int32_t intervalId) {
    ts_stream_t* slot = stream->p_intervals + intervalId;
    // Only records of PIDs that were ever touched can differ from the slot's, and the masks only once
    // written.
    copyRecord(slot, stream, offsetof(ts_stream_t, pid),
               offsetof(ts_stream_t, tr101290) + kPidError * sizeof(uint64_t));
    slot->tr101290[kPidError] = relaxedLoad(stream->tr101290[kPidError]);
    if (stream->b_masks_touched) {
        slot->ignore_pid = stream->ignore_pid;
        slot->ignore_stream_type = stream->ignore_stream_type;
    }
    forEachPid(stream->touched, [stream, slot](uint32_t pid) { latchPid(slot->pid[pid], stream->pid[pid]); });
    slot->p_intervals = nullptr;
}
