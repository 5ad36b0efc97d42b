// What the files of the analysis context share among themselves.
#pragma once

#include <bit>
#include <cstdint>

#include "sarn/tsStream.h"
#include "sharedAccess.h"

inline constexpr int64_t kTableIntervalLimitMs = 500;  // PAT and PMT repetition, ETSI TR 101 290 5.2.1

// Clocks that a capture file controls may be anything: their arithmetic wraps.
inline int64_t wrappingSub(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}
inline int64_t wrappingAdd(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}
inline int64_t wrappingMul(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) * static_cast<uint64_t>(b));
}

// Creates a handle whose messages are counted on `stream`. Null without memory.
dvbpsi_s* newPsiHandle(ts_stream_t* stream);

// Creates the five decoders of a new context. False at the first one that cannot be attached; what has been
// attached until then stays for deleteDecoders.
bool attachDecoders(ts_stream_t* stream);

// Detaches the decoders that are attached and deletes the handles that are not null.
void deleteDecoders(ts_stream_t* stream);

inline constexpr int32_t kLastFixedPsiPid = 20;  // up to here PIDs may carry tables whatever the PAT says

// To be called when what b_routine depends on has changed.
void updateRoutine(ts_pid_t& pid);

// The record of a program, or null, as far as setPmtNumber or indexPmts have placed it.
ts_pmt_t* indexedPmt(const ts_stream_t* stream, uint16_t programNumber);

// Makes `pmt` the record of PMT PID `pid`, to which this PID's ts_pid_t leads from here on. The one that it
// led to before comes back when `pmt` leaves. Null only unlinks.
void setPmtPid(ts_pmt_t* pmt, ts_pid_t* pid);

// Makes `pmt`, a record of the stream that has no program yet, the record of one. Aborts when another one is.
void setPmtNumber(ts_stream_t* stream, ts_pmt_t* pmt, uint16_t programNumber);

// Places the records whose i_number or p_pid a library user has written. Aborts when two have one program.
void indexPmts(ts_stream_t* stream);

// Unlinks and frees a record of the stream's list, but not its p_table.
void deletePmt(ts_stream_t* stream, ts_pmt_t* pmt);

// Adds to a set that the timer thread may be reading.
inline void insertPid(PidSet& set, uint32_t pid) {
    uint64_t& word = set[pid / 64];
    relaxedStore(word, word | uint64_t{1} << pid % 64);
}

// Calls f(pid) for every member, ascending.
template <typename F>
void forEachPid(const PidSet& set, F&& f) {
    for (uint32_t index = 0; index < set.size(); ++index) {
        for (uint64_t word = relaxedLoad(set[index]); word != 0; word &= word - 1) {
            f(index * 64 + static_cast<uint32_t>(std::countr_zero(word)));
        }
    }
}

// Counts on the stream and on one of its PIDs.
inline void countError(ts_stream_t& stream, ts_pid_t& pid, Tr101290 counter) {
    ++stream.tr101290[counter];
    ++pid.tr101290[counter];
}
