// The analysis context of one transport stream and the records it consists of.
//
// Units: i64/u64 times are milliseconds on the caller's clock (Unix epoch in this system) unless a comment
// says otherwise; "hr" times count 1/54 microsecond; PCR values are nanoseconds. Header fields carry the
// names of ISO/IEC 13818-1 2.4.3.
//
// Threads: everything here is written by the thread that calls sarnDvbPsi_process and read by the metric
// getters; callers keep the two apart (the stream table lock does). The exceptions are noted at their fields:
// `lock`, and what the timer thread touches with relaxed atomic accesses.
#pragma once

#include <pthread.h>
#include <uthash.h>

#include <array>
#include <cstddef>
#include <cstdint>

#include "sarn/gop.h"
#include "sarn/packetBits.h"
#include "sarn/sectionDrops.h"

struct dvbpsi_s;
struct dvbpsi_pmt_s;
struct MdiMeasurement;
struct JitterMeasurement;
struct MosMeasurement;
struct ts_pmt_t;

inline constexpr std::size_t kLastHeaderSize = 20;
inline constexpr std::size_t kMaxDescriptorTags = 256;

// What atomic accesses to 64 bits need, also where the ABI aligns them less.
inline constexpr std::size_t kSharedAlignment = 8;

// Index of each counter of ETSI TR 101 290 in a counter block; also the order of the record columns. The
// first eight count as first priority here, the others as second.
enum Tr101290 : std::size_t {
    kTsSyncLoss,
    kSyncByteError,
    kPatError,
    kPatError2,
    kContinuityCountError,
    kPmtError,
    kPmtError2,
    kPidError,
    kTransportError,
    kCrcError,
    kPcrError,
    kPcrRepetitionError,
    kPcrDiscontinuityIndicatorError,
    kPcrAccuracyError,
    kPtsError,
    kCatError,
    kTr101290Count
};
using Tr101290Block = std::array<uint64_t, kTr101290Count>;

// Called with 188, the packet (valid during the call) and the data given with the hook.
using PidDataCallback = void (*)(int32_t length, const uint8_t* packet, void* data);

// Everything kept per PID. What every packet touches stands first, in as few cache lines as it fits; what a
// PMT or a rare event touches follows.
struct alignas(64) ts_pid_t {
    uint64_t i_packets;                             // received
    int64_t i_prev_seen;                            // arrival of the previous packet
    alignas(kSharedAlignment) int64_t i_last_seen;  // arrival of the last packet; the timer thread reads it
    // First bytes of the last packet: its header bits, as lastHeader of sarn/packetFields.h reads them, and
    // the start of the adaptation field.
    std::array<uint8_t, kLastHeaderSize> last_header;
    int32_t i_pid;          // written at the first packet, and by a PAT for PMT PIDs
    int32_t i_cc;           // continuity_counter of the last packet
    uint8_t b_routine;      // 1 when a packet needs no more than counting: seen, and carries no PSI
    uint8_t i_stream_type;  // from the PMT that lists this PID; the timer thread reads it
    uint8_t b_seen;         // 1 after the first packet

    // Hook, or null: called with every packet from the next one on, before the packet is counted. What the
    // packets before it have set stands, also where that is otherwise brought up to date once a datagram.
    PidDataCallback pf_callback;
    // The PMT record whose table this PID carries, or null; of several the one that came here last.
    ts_pmt_t* p_pmt;

    // Adaptation field of the last packet that had a non-empty one.
    uint8_t b_discontinuity;
    uint8_t b_random_access;
    uint8_t b_es_priority;
    uint8_t b_private_data;
    uint8_t b_splicing_point;
    int8_t i_splice_countdown;
    uint8_t i_splice_type;
    uint8_t i_private_data_length;
    uint8_t b_af_extension;
    uint8_t b_ltw;
    uint8_t b_ltw_valid;
    uint8_t b_piecewise_rate;
    uint8_t b_seamless_splice;
    uint16_t i_ltw_offset;
    int32_t i_af_extension_length;
    uint32_t i_piecewise_rate;

    // PCR, in nanoseconds, and its arrival.
    uint8_t b_pcr_pid;         // set when a PMT names this PID as its PCR PID; never cleared
    int32_t i_pcr_jitter;      // ns, smoothed
    int32_t i_max_pcr_jitter;  // ns
    uint64_t i_max_pcr_jitter_time;
    int64_t i_pcr;
    int64_t i_first_pcr;
    int64_t i_prev_pcr;
    int64_t i_prev_pcr_time;  // ms
    int64_t i_last_pcr;
    int64_t i_last_pcr_time;    // ms
    uint64_t i_packets_at_pcr;  // the stream's i_packets at the last PCR

    uint64_t i_lost;
    uint64_t i_duplicated;
    uint64_t i_out_of_sequence;
    uint64_t i_scrambled;
    alignas(kSharedAlignment) Tr101290Block tr101290;  // PID_error is written by the timer thread

    int64_t i_first_seen;
    int64_t i_last_pts_time;  // arrival of the last PES header with a PTS

    // Video PES starts and the sizes between them.
    uint64_t i_nal_count;  // PES starts seen
    uint64_t i_pes_bytes;  // of the last completed PES
    uint64_t i_pes_packets;
    uint64_t i_pes_lost;
    uint64_t i_prev_pes_offset;  // running positions
    uint64_t i_byte_offset;
    uint64_t i_prev_pes_packets;
    uint64_t i_prev_pes_lost;
    PesSample* p_samples_a;  // kGopFrames samples each, owned; allocated at the first sample
    PesSample* p_samples_b;
    uint16_t sample_no;  // i_nal_count modulo 1000
    uint8_t b_sampled;
    uint8_t b_samples_a;  // the last sample went to buffer A

    std::array<int32_t, 2> nal_state;  // picture height, width
    Gop gop;
    GopResult* p_gop_result;  // owned; from the first packet on
    MosMeasurement* p_mos;    // owned; from the first packet on

    void* p_callback_data;
    uint32_t i_user_data;  // the library user's word

    uint16_t i_program_number;   // of the PMT that lists this PID as an elementary stream
    uint8_t i_descriptor_count;  // modulo 256
    std::array<uint8_t, kMaxDescriptorTags> descriptor_tags;
};

// One program announced by the PAT.
struct ts_pmt_t {
    dvbpsi_s* handle;       // with a PMT decoder attached
    int64_t i_prev_time;    // i_last_seen of the PMT PID at the previous PMT callback
    int64_t i_last_time;    // ... and at the most recent one
    uint16_t i_number;      // program_number
    ts_pid_t* p_pid;        // record of the PMT PID; null in a new record
    ts_pid_t* p_pcr_pid;    // record of the PCR PID of the last PMT
    dvbpsi_pmt_s* p_table;  // last decoded PMT, owned; null before the first
    ts_pmt_t* p_next;

    // How packets and tables find the record without a walk. Kept by the library: what its user writes into
    // i_number and p_pid comes in here with the next PAT.
    ts_pmt_t* p_prev;           // of the first record, the last one
    uint32_t i_listed_streams;  // elementary streams in p_table
    uint16_t i_indexed_number;
    ts_pid_t* p_indexed_pid;  // the PID whose p_pmt leads here, directly or over p_under
    ts_pmt_t* p_under;        // the record that came to that PID before this one
    ts_pmt_t* p_over;         // ... and after it
    UT_hash_handle hh;        // by i_indexed_number
};

// One bit per PID.
using PidSet = std::array<uint64_t, kPidCount / 64>;

// The context. Allocated zero-filled in one piece that takes memory only where it is touched: only the pages
// of PIDs in use count.
struct ts_stream_t {
    // What every packet touches.
    uint8_t b_started;        // 1 from the first synchronised packet on
    uint8_t i_sync_bad_run;   // consecutive sync-byte failures
    uint8_t i_sync_good_run;  // consecutive packets with a sync byte, saturating at 5
    uint8_t b_in_sync;
    uint8_t b_cat_received;
    uint64_t i_packets;              // accepted, all PIDs
    uint64_t i_next_bitrate_packet;  // the i_packets that ends the current bit-rate span
    int64_t i_next_check;            // ms, next PAT/PMT presence check; at first the lowest value
    int64_t i_last_time;             // ms, arrival of the last packet
    uint64_t i_last_time_hr;
    uint64_t i_bitrate;     // bit/s; 0 until the second span of 70000 packets has ended
    MdiMeasurement* p_mdi;  // owned
    uint64_t i_lost;        // sum of continuity gaps
    uint64_t i_null_packets;
    uint64_t i_bitrate_start_hr;
    // ms, lowest arrival time ever; lets the timer thread, which reads it, skip
    alignas(kSharedAlignment) uint64_t i_earliest_seen;

    JitterMeasurement* p_jitter;  // owned
    uint64_t i_duplicated;
    uint64_t i_out_of_sequence;
    uint64_t i_lost_bytes;  // skipped in search of the sync byte
    uint64_t i_scrambled;
    int64_t i_first_time;                              // ms
    alignas(kSharedAlignment) Tr101290Block tr101290;  // PID_error is written by the timer thread

    // PSI. The five handles have their decoders attached for the whole life of the context.
    dvbpsi_s* pat_handle;      // PID 0
    dvbpsi_s* cat_handle;      // PID 1
    dvbpsi_s* sdt_handle;      // demultiplexer of PID 0x11
    dvbpsi_s* eit_handle;      // demultiplexer of PID 0x12
    dvbpsi_s* tdt_handle;      // demultiplexer of PIDs 0x14 and 0x02
    uint64_t i_pat_time;       // i_last_seen of PID 0 at the last PAT callback
    uint64_t i_pat_prev_time;  // ... and at the one before
    int32_t i_pat_version;
    int32_t i_ts_id;
    uint8_t i_cat_version;
    uint8_t i_splice_protocol_version;    // of the last splice_info_section
    std::array<uint32_t, 3> si_sections;  // of unfinished tables, held by the demultiplexers
    SectionDropCounts section_drops;      // what was kept from the decoders
    ts_pid_t* p_pat_pid;
    ts_pid_t* p_cat_pid;
    ts_pid_t* p_sdt_pid;
    ts_pid_t* p_eit_pid;
    ts_pid_t* p_tdt_pid;
    ts_pmt_t* p_pmts;           // list in order of creation, owned; guarded by `lock`
    ts_pmt_t* p_pmt_by_number;  // the same records by program_number; guarded by `lock`
    uint32_t listed_streams;    // of all their tables; used by the thread that feeds the context only
    int32_t level;              // libdvbpsi's message level
    // Guards the PMT list and what the PSI callbacks update. Taken by the PAT and PMT callbacks (inside
    // sarnDvbPsi_process) and by the program-list getter; nests inside the stream table lock, and no other
    // lock is taken while it is held.
    pthread_spinlock_t lock;

    ts_stream_t* p_intervals;  // slot 0 of the interval snapshots, owned; null in a snapshot
    int32_t i_pid_timeout;     // seconds of silence that count as PID_error; the timer thread reads it
    uint32_t i_user_data;      // the library user's word

    alignas(kSharedAlignment) PidSet seen;     // PIDs with b_seen; the timer thread reads it
    alignas(kSharedAlignment) PidSet touched;  // PIDs whose record may differ from zero
    uint8_t b_masks_touched;                   // an ignore mask was written since creation

    std::array<ts_pid_t, kPidCount> pid;
    std::array<uint8_t, kPidCount> ignore_pid;    // non-zero: the timer skips the PID
    std::array<uint8_t, 256> ignore_stream_type;  // non-zero: ... every PID of this stream type
};
