// Life and feeding of an analysis context.
#pragma once

#include <cstdint>

#include "sarn/tsStream.h"

// Creates a context. debug chooses libdvbpsi's message level: 2 warnings, 3 everything, any other value
// errors only. The first call starts the process-wide timer thread. Returns null when a decoder cannot be
// attached; running out of memory ends the process with status 1.
ts_stream_t* sarnDvbPsi_init(int32_t debug);

// Ends and frees a context from sarnDvbPsi_init; aborts when it is none. No thread may be using it.
void sarnDvbPsi_exit(ts_stream_t* stream);
void sarnDvbPsi_exit_finalize(ts_stream_t* stream);

// Analyses one datagram's payload: `len` bytes at `buf`, a sequence of 188-byte transport packets. now_ms is
// its arrival in ms, now_hr in 1/54 us (used for the bit rate only). Reads nothing outside the `len` bytes.
// Always returns 1. A tail that is no whole packet counts as lost bytes and ends the call before the jitter
// measurement is fed.
// Threads: one caller at a time per context, not concurrently with the getters of sarn/metrics.h.
int32_t sarnDvbPsi_process(ts_stream_t* stream, const uint8_t* buf, int32_t len, int64_t now_ms,
                           uint64_t now_hr);

// Closes the current interval: copies the context into snapshot `intervalId` (0) and starts a new maximum of
// the PCR jitter there. Same threads as sarnDvbPsi_process.
void sarnDvbPsi_latchInterval(ts_stream_t* stream, int32_t intervalId);

// Body of the timer thread, never ends: once a second counts PID_error for the PIDs of every live context
// whose silence exceeds i_pid_timeout.
void* thread_timer_function(void*);

// One pass of the timer thread over all live contexts, for the wall clock `nowSeconds`. The threshold is
// computed in unsigned 32-bit arithmetic, so with millisecond times beyond 2^32, as the epoch's are, nothing
// is counted; readers of the records rely on that.
void sarnDvbPsi_timerTick(int64_t nowSeconds);

// The PMT list. The caller holds `lock` or is the only user of the context.
// newPmt appends a record (out of memory is fatal), zero-filled but for its handle. The find functions walk
// the list and compare i_number, or the i_pid of p_pid, with what is asked for; they return the record or
// null, and abort when there are two. deletePmtByPid finds likewise, unlinks and frees the record but not its
// p_table. freePmts frees all with tables, and aborts on a handle without a decoder. Packets reach a record
// whose fields the caller has filled only once a PAT has announced its program.
ts_pmt_t* newPmt(ts_stream_t* stream);
ts_pmt_t* findPmtByProgramNumber(ts_stream_t* stream, uint16_t programNumber);
ts_pmt_t* findPmtByPid(ts_stream_t* stream, uint16_t pid);
void deletePmtByPid(ts_stream_t* stream, uint16_t pid);
void freePmts(ts_stream_t* stream);

// Release functions used when a context ends. freeMos accepts null.
void freeGopStructure(ts_stream_t* stream);
void freeMos(ts_stream_t* stream);
void freeLatched(ts_stream_t* stream);
