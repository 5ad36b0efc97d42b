// How the packet path finds PMT records: by program through a hash table, by PID through the PID's record.
#include <utlist.h>

#include <cstdlib>

#include "sarn/dvbpsiHeaders.h"
#include "sarn/sarnLog.h"
#include "sarnDvbPsi/contextInternals.h"

namespace {

void leavePid(ts_pmt_t* pmt) {
    ts_pid_t* pid = pmt->p_indexed_pid;
    if (pid == nullptr) {
        return;
    }
    (pmt->p_over != nullptr ? pmt->p_over->p_under : pid->p_pmt) = pmt->p_under;
    if (pmt->p_under != nullptr) {
        pmt->p_under->p_over = pmt->p_over;
    }
    pmt->p_indexed_pid = nullptr;
    pmt->p_under = nullptr;
    pmt->p_over = nullptr;
    updateRoutine(*pid);
}

void leaveNumber(ts_stream_t* stream, ts_pmt_t* pmt) {
    if (pmt->hh.tbl != nullptr) {
        // The table lives as long as one record is in it.
        HASH_DEL(stream->p_pmt_by_number, pmt);  // NOLINT(clang-analyzer-core.NullDereference)
        pmt->hh.tbl = nullptr;
    }
}

}  // namespace

void updateRoutine(ts_pid_t& pid) {
    pid.b_routine = pid.b_seen && pid.p_pmt == nullptr && pid.i_pid > kLastFixedPsiPid;
}

ts_pmt_t* indexedPmt(const ts_stream_t* stream, uint16_t programNumber) {
    ts_pmt_t* pmt = nullptr;
    HASH_FIND(hh, stream->p_pmt_by_number, &programNumber, sizeof programNumber, pmt);
    return pmt;
}

void setPmtPid(ts_pmt_t* pmt, ts_pid_t* pid) {
    leavePid(pmt);
    pmt->p_pid = pid;
    if (pid == nullptr) {
        return;
    }
    pmt->p_indexed_pid = pid;
    pmt->p_under = pid->p_pmt;
    if (pmt->p_under != nullptr) {
        pmt->p_under->p_over = pmt;
    }
    pid->p_pmt = pmt;
    updateRoutine(*pid);
}

void setPmtNumber(ts_stream_t* stream, ts_pmt_t* pmt, uint16_t programNumber) {
    SARN_ASSERT(indexedPmt(stream, programNumber) == nullptr, "count < 2");
    pmt->i_number = programNumber;
    pmt->i_indexed_number = programNumber;
    HASH_ADD(hh, stream->p_pmt_by_number, i_indexed_number, sizeof pmt->i_indexed_number, pmt);
}

void indexPmts(ts_stream_t* stream) {
    // All that changed leave before any comes: numbers may have been exchanged.
    for (ts_pmt_t* pmt = stream->p_pmts; pmt != nullptr; pmt = pmt->p_next) {
        if (pmt->i_indexed_number != pmt->i_number) {
            leaveNumber(stream, pmt);
        }
    }
    for (ts_pmt_t* pmt = stream->p_pmts; pmt != nullptr; pmt = pmt->p_next) {
        if (pmt->hh.tbl == nullptr) {
            setPmtNumber(stream, pmt, pmt->i_number);
        }
        if (pmt->p_indexed_pid != pmt->p_pid) {
            setPmtPid(pmt, pmt->p_pid);
        }
    }
}

void deletePmt(ts_stream_t* stream, ts_pmt_t* pmt) {
    DL_DELETE2(stream->p_pmts, pmt, p_prev, p_next);
    leaveNumber(stream, pmt);
    stream->listed_streams -= pmt->i_listed_streams;
    setPmtPid(pmt, nullptr);
    if (dvbpsi_decoder_present(pmt->handle)) {
        dvbpsi_pmt_detach(pmt->handle);
    }
    dvbpsi_delete(pmt->handle);
    free(pmt);
}
