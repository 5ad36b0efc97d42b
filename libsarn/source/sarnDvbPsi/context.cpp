// Creation and destruction of analysis contexts, the registry of live ones, and the PMT list.
#include <sys/mman.h>
#include <utlist.h>

#include <cstdio>
#include <cstdlib>
#include <limits>
#include <mutex>
#include <type_traits>

#include "sarn/dvbpsiHeaders.h"
#include "sarn/mediaDeliveryIndex.h"
#include "sarn/metrics.h"
#include "sarn/packetJitter.h"
#include "sarn/qualityScores.h"
#include "sarn/sarnDvbPsi.h"
#include "sarn/sarnLog.h"
#include "sarnDvbPsi/contextInternals.h"
#include "sarnDvbPsi/knownStreams.h"

#if defined(KESTOR_ADDRESS_SANITIZER)
#include <sanitizer/lsan_interface.h>
#endif

// Contexts start as zero bytes and are copied byte by byte.
static_assert(std::is_trivial_v<ts_stream_t> && std::is_standard_layout_v<ts_stream_t>);

pthread_spinlock_t knownStreams_spinlock;
KnownStream* knownStreams = nullptr;

namespace {

constexpr uint32_t kSdtPid = 0x11;
constexpr uint32_t kEitPid = 0x12;
constexpr uint32_t kTdtPid = 0x14;
constexpr int32_t kDefaultPidTimeoutSeconds = 5;
constexpr uint64_t kBitrateSpanPackets = 70000;

// A context spans several megabytes of which a few pages are ever touched. Mapped directly, untouched pages
// cost nothing, and small pages keep it so where the system would hand out huge ones.
ts_stream_t* allocateContext() {
    void* block = mmap(nullptr, sizeof(ts_stream_t), PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (block == MAP_FAILED) {
        return nullptr;
    }
    madvise(block, sizeof(ts_stream_t), MADV_NOHUGEPAGE);
#if defined(KESTOR_ADDRESS_SANITIZER)
    __lsan_register_root_region(block, sizeof(ts_stream_t));
#endif
    return static_cast<ts_stream_t*>(block);
}

void freeContext(ts_stream_t* stream) {
#if defined(KESTOR_ADDRESS_SANITIZER)
    __lsan_unregister_root_region(stream, sizeof(ts_stream_t));
#endif
    munmap(stream, sizeof(ts_stream_t));
}

[[noreturn]] void outOfMemory(int line) {
    fputs("ts_stream_t *sarnDvbPsi_init(int debug)\n", stderr);
    sarnFatal(line, kSarnDvbPsiFile);
}

int32_t messageLevel(int32_t debug) {
    switch (debug) {
        case 2:
            return DVBPSI_MSG_WARN;
        case 3:
            return DVBPSI_MSG_DEBUG;
        default:
            return DVBPSI_MSG_ERROR;
    }
}

void startTimerThread() {
    static std::once_flag started;
    std::call_once(started, [] {
        pthread_spin_init(&knownStreams_spinlock, PTHREAD_PROCESS_PRIVATE);
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
        pthread_t thread;
        pthread_create(&thread, &attributes, thread_timer_function, nullptr);
        pthread_attr_destroy(&attributes);
    });
}

void registerContext(ts_stream_t* stream) {
    auto* entry = static_cast<KnownStream*>(calloc(1, sizeof(KnownStream)));
    if (entry == nullptr) {
        exit(-1);
    }
    entry->stream = stream;
    const SpinGuard guard(knownStreams_spinlock);
    HASH_ADD_PTR(knownStreams, stream, entry);
}

void unregisterContext(ts_stream_t* stream) {
    KnownStream* knownStream = nullptr;
    {
        const SpinGuard guard(knownStreams_spinlock);
        HASH_FIND_PTR(knownStreams, &stream, knownStream);
        SARN_ASSERT(knownStream != nullptr, "knownStream != ((void *)0)");
        HASH_DEL(knownStreams, knownStream);
    }
    free(knownStream);
}

void freeGopResults(ts_stream_t* stream) {
    forEachPid(stream->seen, [stream](uint32_t pid) {
        free(stream->pid[pid].p_gop_result);
        stream->pid[pid].p_gop_result = nullptr;
    });
}

// The only record that matches, or null.
template <typename Predicate>
ts_pmt_t* findPmt(const ts_stream_t* stream, Predicate matches) {
    ts_pmt_t* found = nullptr;
    int count = 0;
    for (ts_pmt_t* pmt = stream->p_pmts; pmt != nullptr; pmt = pmt->p_next) {
        if (matches(*pmt)) {
            found = pmt;
            ++count;
        }
    }
    SARN_ASSERT(count < 2, "count < 2");
    return found;
}

// What both an ended context and one that failed to start own besides decoders and interval storage.
void freeMeasures(ts_stream_t* stream) {
    mdi_cleanup(stream->p_mdi);
    jitter_cleanup(stream->p_jitter);
    freeGopResults(stream);
    freeGopStructure(stream);
    freeMos(stream);
    freePmts(stream);
}

}  // namespace

ts_stream_t* sarnDvbPsi_init(int32_t debug) {
    ts_stream_t* stream = allocateContext();
    if (stream == nullptr) {
        outOfMemory(__LINE__);
    }
    stream->p_mdi = mdi_start_new_measurement();
    stream->p_jitter = jitter_start_new_measurement();
    pthread_spin_init(&stream->lock, PTHREAD_PROCESS_PRIVATE);
    stream->level = messageLevel(debug);

    if (!attachDecoders(stream)) {
        deleteDecoders(stream);
        freeMeasures(stream);
        pthread_spin_destroy(&stream->lock);
        freeContext(stream);
        return nullptr;
    }
    stream->p_pat_pid = &stream->pid[0];
    stream->p_cat_pid = &stream->pid[1];
    stream->p_sdt_pid = &stream->pid[kSdtPid];
    stream->p_eit_pid = &stream->pid[kEitPid];
    stream->p_tdt_pid = &stream->pid[kTdtPid];
    stream->p_intervals = allocateContext();
    if (stream->p_intervals == nullptr) {
        printcf(1, "unable to allocate memory for interval\n");
        outOfMemory(__LINE__);
    }
    stream->i_pid_timeout = kDefaultPidTimeoutSeconds;
    stream->i_next_bitrate_packet = kBitrateSpanPackets;
    stream->i_next_check = std::numeric_limits<int64_t>::min();

    startTimerThread();
    registerContext(stream);
    return stream;
}

void sarnDvbPsi_exit(ts_stream_t* stream) {
    sarnDvbPsi_exit_finalize(stream);
}

void sarnDvbPsi_exit_finalize(ts_stream_t* stream) {
    unregisterContext(stream);
    deleteDecoders(stream);
    puts("dupa");
    freeMeasures(stream);
    freeLatched(stream);
    pthread_spin_destroy(&stream->lock);
    freeContext(stream);
}

void freeGopStructure(ts_stream_t* stream) {
    puts("freeGopStructure");
    forEachPid(stream->seen, [stream](uint32_t number) {
        ts_pid_t& pid = stream->pid[number];
        free(pid.p_samples_a);
        free(pid.p_samples_b);
        pid.p_samples_a = nullptr;
        pid.p_samples_b = nullptr;
        freeGopRings(&pid.gop);
    });
    puts("po freeGopStructure");
}

void freeMos(ts_stream_t* stream) {
    if (stream == nullptr) {
        return;
    }
    forEachPid(stream->seen, [stream](uint32_t pid) {
        free(stream->pid[pid].p_mos);
        stream->pid[pid].p_mos = nullptr;
    });
}

void freeLatched(ts_stream_t* stream) {
    ts_stream_t* data = stream->p_intervals;
    SARN_ASSERT(data != nullptr, "data != ((void *)0)");
    freeContext(data);
    stream->p_intervals = nullptr;
}

ts_pmt_t* newPmt(ts_stream_t* stream) {
    auto* pmt = static_cast<ts_pmt_t*>(calloc(1, sizeof(ts_pmt_t)));
    if (pmt == nullptr) {
        outOfMemory(__LINE__);
    }
    pmt->handle = newPsiHandle(stream);
    if (pmt->handle == nullptr) {
        outOfMemory(__LINE__);
    }
    DL_APPEND2(stream->p_pmts, pmt, p_prev, p_next);
    return pmt;
}

ts_pmt_t* findPmtByProgramNumber(ts_stream_t* stream, uint16_t programNumber) {
    return findPmt(stream, [programNumber](const ts_pmt_t& pmt) { return pmt.i_number == programNumber; });
}

ts_pmt_t* findPmtByPid(ts_stream_t* stream, uint16_t pid) {
    return findPmt(stream,
                   [pid](const ts_pmt_t& pmt) { return pmt.p_pid != nullptr && pmt.p_pid->i_pid == pid; });
}

void deletePmtByPid(ts_stream_t* stream, uint16_t pid) {
    if (ts_pmt_t* pmt = findPmtByPid(stream, pid)) {
        deletePmt(stream, pmt);
    }
}

void freePmts(ts_stream_t* stream) {
    HASH_CLEAR(hh, stream->p_pmt_by_number);
    stream->listed_streams = 0;
    while (ts_pmt_t* pmt = stream->p_pmts) {
        stream->p_pmts = pmt->p_next;
        setPmtPid(pmt, nullptr);
        SARN_ASSERT(dvbpsi_decoder_present(pmt->handle), "dvbpsi_HasDecoder(pmt->handle)");
        dvbpsi_pmt_detach(pmt->handle);
        dvbpsi_delete(pmt->handle);
        if (pmt->p_table != nullptr) {
            dvbpsi_pmt_delete(pmt->p_table);
        }
        free(pmt);
    }
}
