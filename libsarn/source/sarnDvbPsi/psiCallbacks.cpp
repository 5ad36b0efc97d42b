// The PSI decoders of a context, and what it learns from the tables that libdvbpsi decodes.
#include <algorithm>
#include <bitset>
#include <cstring>

#include "sarn/dvbpsiHeaders.h"
#include "sarn/sarnDvbPsi.h"
#include "sarn/sarnLog.h"
#include "sarnDvbPsi/contextInternals.h"
#include "sarnDvbPsi/sectionGuard.h"
#include "sarnDvbPsi/siSubtables.h"

namespace {

constexpr uint16_t kPidMask = kPidCount - 1;

// Error messages count as CRC errors, except those that begin so; readers of the counter rely on this rule.
constexpr char kUncountedMessage[] = "Bad CRC_32 table";

void onMessage(dvbpsi_t* handle, dvbpsi_msg_level_t level, const char* message) {
    if (level != DVBPSI_MSG_ERROR || strncmp(message, kUncountedMessage, sizeof kUncountedMessage - 1) == 0) {
        return;
    }
    auto* stream = static_cast<ts_stream_t*>(handle->p_sys);
    ++stream->tr101290[kCrcError];
}

// Deletes a record with its table.
void dropPmt(ts_stream_t* stream, ts_pmt_t* pmt) {
    dvbpsi_pmt_t* table = pmt->p_table;
    deletePmt(stream, pmt);
    if (table != nullptr) {
        dvbpsi_pmt_delete(table);
    }
}

template <typename Predicate>
void dropPmtsIf(ts_stream_t* stream, Predicate unwanted) {
    for (ts_pmt_t* next = stream->p_pmts; next != nullptr;) {
        ts_pmt_t* pmt = next;
        next = pmt->p_next;
        if (unwanted(*pmt)) {
            dropPmt(stream, pmt);
        }
    }
}

void dropPmtsMissingFrom(const dvbpsi_pat_t& pat, ts_stream_t* stream) {
    std::bitset<kPidCount> announced;
    for (const dvbpsi_pat_program_t* program = pat.p_first_program; program != nullptr;
         program = program->p_next) {
        announced.set(program->i_pid & kPidMask);
    }
    dropPmtsIf(stream, [&](const ts_pmt_t& pmt) {
        return pmt.p_pid == nullptr || !announced.test(static_cast<uint32_t>(pmt.p_pid->i_pid) & kPidMask);
    });
}

// A program that moved took the PID from its old record, which has had its turn to move elsewhere with its
// table: left where it was, the PID would have two.
void dropPmtsThatLostTheirPid(ts_stream_t* stream) {
    dropPmtsIf(stream, [](const ts_pmt_t& pmt) { return pmt.p_pid->p_pmt != &pmt; });
}

void onPmt(void* data, dvbpsi_pmt_t* table);

// The record that holds the program from here on, with its old decoder detached.
ts_pmt_t* recordForProgram(ts_stream_t* stream, uint16_t number, uint16_t pid) {
    ts_pmt_t* pmt = indexedPmt(stream, number);
    if (pmt == nullptr) {
        if (ts_pmt_t* old = stream->pid[pid].p_pmt) {
            dropPmt(stream, old);
        }
        pmt = newPmt(stream);
        setPmtNumber(stream, pmt, number);
        return pmt;
    }
    if (dvbpsi_decoder_present(pmt->handle)) {
        dvbpsi_pmt_detach(pmt->handle);
    }
    return pmt;
}

bool followProgram(ts_stream_t* stream, const dvbpsi_pat_program_t& program) {
    const auto pid = static_cast<uint16_t>(program.i_pid & kPidMask);
    ts_pmt_t* pmt = recordForProgram(stream, program.i_number, pid);
    insertPid(stream->touched, pid);
    stream->pid[pid].i_pid = pid;
    setPmtPid(pmt, &stream->pid[pid]);
    if (!dvbpsi_pmt_attach(pmt->handle, program.i_number, onPmt, stream)) {
        return false;
    }
    guardSections(pmt->handle);
    return true;
}

void onPat(void* data, dvbpsi_pat_t* pat) {
    auto* stream = static_cast<ts_stream_t*>(data);
    const SpinGuard guard(stream->lock);
    stream->i_pat_prev_time = stream->i_pat_time;
    stream->i_pat_time = static_cast<uint64_t>(stream->pid[0].i_last_seen);
    if (stream->i_pat_prev_time != 0 &&
        stream->i_pat_time - stream->i_pat_prev_time > static_cast<uint64_t>(kTableIntervalLimitMs)) {
        countError(*stream, stream->pid[0], kPatError2);
    }
    stream->i_pat_version = pat->i_version;
    stream->i_ts_id = pat->i_ts_id;
    dropPmtsMissingFrom(*pat, stream);
    indexPmts(stream);
    for (const dvbpsi_pat_program_t* program = pat->p_first_program; program != nullptr;
         program = program->p_next) {
        if (!followProgram(stream, *program)) {
            printcf(2, "stofain: Failed to attach new pmt decoder\n");
            break;
        }
    }
    dropPmtsThatLostTheirPid(stream);
    dvbpsi_pat_delete(pat);
}

void checkPmtInterval(ts_stream_t& stream, ts_pmt_t& pmt) {
    pmt.i_prev_time = pmt.i_last_time;
    pmt.i_last_time = pmt.p_pid->i_last_seen;
    if (pmt.i_prev_time == 0 || wrappingSub(pmt.i_last_time, pmt.i_prev_time) <= kTableIntervalLimitMs) {
        return;
    }
    countError(stream, *pmt.p_pid, kPmtError);
    if (pmt.i_number != 0) {
        countError(stream, *pmt.p_pid, kPmtError2);
    }
}

// A PMT entry may list more descriptors than the record holds tags: the first 256 stay, and their number is
// kept modulo 256.
void recordElementaryStream(ts_stream_t& stream, uint16_t programNumber, const dvbpsi_pmt_es_t& es) {
    const auto number = static_cast<uint16_t>(es.i_pid & kPidMask);
    ts_pid_t& pid = stream.pid[number];
    insertPid(stream.touched, number);
    pid.i_program_number = programNumber;
    relaxedStore(pid.i_stream_type, es.i_type);
    std::size_t count = 0;
    for (const dvbpsi_descriptor_t* descriptor = es.p_first_descriptor; descriptor != nullptr;
         descriptor = descriptor->p_next) {
        if (count < kMaxDescriptorTags) {
            pid.descriptor_tags[count] = descriptor->i_tag;
        }
        ++count;
    }
    pid.i_descriptor_count = static_cast<uint8_t>(count);
}

void onPmt(void* data, dvbpsi_pmt_t* table) {
    auto* stream = static_cast<ts_stream_t*>(data);
    const SpinGuard guard(stream->lock);
    ts_pmt_t* pmt = indexedPmt(stream, table->i_program_number);
    if (pmt == nullptr) {
        dvbpsi_pmt_delete(table);
        return;
    }
    checkPmtInterval(*stream, *pmt);
    if (pmt->p_table != nullptr) {
        dvbpsi_pmt_delete(pmt->p_table);
    }
    pmt->p_table = table;
    const auto pcrPid = static_cast<uint16_t>(table->i_pcr_pid & kPidMask);
    insertPid(stream->touched, pcrPid);
    pmt->p_pcr_pid = &stream->pid[pcrPid];
    pmt->p_pcr_pid->b_pcr_pid = 1;
    uint32_t listed = 0;
    for (const dvbpsi_pmt_es_t* es = table->p_first_es; es != nullptr; es = es->p_next, ++listed) {
        recordElementaryStream(*stream, table->i_program_number, *es);
    }
    stream->listed_streams += listed - pmt->i_listed_streams;
    pmt->i_listed_streams = listed;
}

void onCat(void* data, dvbpsi_cat_t* cat) {
    auto* stream = static_cast<ts_stream_t*>(data);
    stream->b_cat_received = 1;
    stream->i_cat_version = cat->i_version;
    dumpCat(cat);
    dvbpsi_cat_delete(cat);
}

// Creates a handle and attaches its decoder; a handle that cannot have one is deleted at once.
template <typename Attach>
dvbpsi_t* newDecoder(ts_stream_t* stream, Attach attach) {
    dvbpsi_t* handle = newPsiHandle(stream);
    if (handle == nullptr) {
        return nullptr;
    }
    if (!attach(handle)) {
        dvbpsi_delete(handle);
        return nullptr;
    }
    return handle;
}

void deleteDecoder(dvbpsi_t*& handle, void (*detach)(dvbpsi_t*)) {
    if (handle == nullptr) {
        return;
    }
    if (dvbpsi_decoder_present(handle)) {
        detach(handle);
    }
    dvbpsi_delete(handle);
    handle = nullptr;
}

}  // namespace

dvbpsi_t* newPsiHandle(ts_stream_t* stream) {
    dvbpsi_t* handle = dvbpsi_new(onMessage, static_cast<dvbpsi_msg_level_t>(stream->level));
    if (handle != nullptr) {
        handle->p_sys = stream;
    }
    return handle;
}

bool attachDecoders(ts_stream_t* stream) {
    const auto attachDemux = [stream](dvbpsi_t* handle) {
        return dvbpsi_AttachDemux(handle, newSubtable, stream);
    };
    stream->pat_handle =
        newDecoder(stream, [stream](dvbpsi_t* handle) { return dvbpsi_pat_attach(handle, onPat, stream); });
    if (stream->pat_handle == nullptr) {
        return false;
    }
    guardSections(stream->pat_handle);
    stream->cat_handle =
        newDecoder(stream, [stream](dvbpsi_t* handle) { return dvbpsi_cat_attach(handle, onCat, stream); });
    if (stream->cat_handle == nullptr) {
        return false;
    }
    guardSections(stream->cat_handle);
    for (dvbpsi_t** handle : {&stream->sdt_handle, &stream->eit_handle, &stream->tdt_handle}) {
        *handle = newDecoder(stream, attachDemux);
        if (*handle == nullptr) {
            return false;
        }
        guardSections(*handle);
    }
    return true;
}

void deleteDecoders(ts_stream_t* stream) {
    deleteDecoder(stream->pat_handle, dvbpsi_pat_detach);
    deleteDecoder(stream->cat_handle, dvbpsi_cat_detach);
    deleteDecoder(stream->sdt_handle, dvbpsi_DetachDemux);
    deleteDecoder(stream->eit_handle, dvbpsi_DetachDemux);
    deleteDecoder(stream->tdt_handle, dvbpsi_DetachDemux);
}
