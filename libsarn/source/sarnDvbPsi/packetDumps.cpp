#include "sarn/packetDumps.h"

#include <array>
#include <cstddef>

#include "sarnDvbPsi/contextInternals.h"

namespace {

constexpr char kRuler[] = "\n\t---------------------------------------------------------\n";

const char* yesNo(bool value) {
    return value ? "yes" : "no";
}

double kilobits(uint64_t bitrate) {
    return static_cast<double>(bitrate) / 1000.0;
}

void dumpPid(DumpSink& sink, const ts_stream_t& stream, uint32_t number) {
    const ts_pid_t& pid = stream.pid[number];
    const double share = stream.i_packets == 0
                             ? 0
                             : static_cast<double>(pid.i_packets) / static_cast<double>(stream.i_packets);
    sink.print("\tFound PID: %4d (0x%4x), DRM: %s,", static_cast<int>(number), number,
               yesNo(pid.i_scrambled != 0));
    sink.print(" bitrate %0.4f kbit/s,", kilobits(stream.i_bitrate) * share);
    sink.print(" seen %lld packets", static_cast<long long>(pid.i_packets));
    if (pid.b_discontinuity != 0) {
        sink.print("\tPCR discontinuity was signalled for PID: %4d (0x%4x)\n", static_cast<int>(number),
                   number);
    }
    const auto first = static_cast<long long>(pid.i_first_pcr);
    const auto last = static_cast<long long>(pid.i_last_pcr);
    sink.print("\tPCR first: %lld, last: %lld, duration: %lld\n", first, last, last - first);
}

// ISO/IEC 13818-1 table 2-7, for video of 15 Mbit/s at most.
const char* spliceTypeText(unsigned int type) {
    constexpr std::array kTexts = {"splice_decoding_delay = 120 ms; max_splice_rate = 15.0 × 106 bit/s",
                                   "splice_decoding_delay = 150 ms; max_splice_rate = 12.0 × 106 bit/s",
                                   "splice_decoding_delay = 225 ms; max_splice_rate = 8.0 × 106 bit/s",
                                   "splice_decoding_delay = 250 ms; max_splice_rate = 7.2 × 106 bit/s"};
    return type < kTexts.size() ? kTexts[type] : "Reserved/User-defined";
}

// `offset` is where adaptation_field_extension_length stands.
void dumpExtension(DumpSink& sink, TsPacket packet, uint32_t offset) {
    const uint8_t length = tsByteAt(packet, offset++);
    sink.print("\tadaptation field extension, length: %d\n", length);
    if (length == 0) {
        return;
    }
    const uint8_t flags = tsByteAt(packet, offset++);
    sink.print("\tlegal time window (ltw): %s\n", yesNo(afeLtw(flags)));
    if (afeLtw(flags)) {
        const uint8_t high = tsByteAt(packet, offset++);
        sink.print("\tltw valid: %s\n", yesNo((high & 0x80) != 0));
        sink.print("\tlegal time window offset: %d\n", (high & 0x7F) << 8 | tsByteAt(packet, offset++));
    }
    sink.print("\tpiecewise rate: %s\n", yesNo(afePiecewiseRate(flags)));
    if (afePiecewiseRate(flags)) {
        sink.print("\tpiecewise rate: %d\n", (tsByteAt(packet, offset) & 0x3F) << 16 |
                                                 tsByteAt(packet, offset + 1) << 8 |
                                                 tsByteAt(packet, offset + 2));
        offset += 3;
    }
    sink.print("\tseamless splice: %s\n", yesNo(afeSeamlessSplice(flags)));
    if (afeSeamlessSplice(flags)) {
        const unsigned int type = tsByteAt(packet, offset) >> 4;
        sink.print("\tsplice type 0x%x (%s)\n", type, spliceTypeText(type));
    }
}

void dumpAdaptationField(DumpSink& sink, TsPacket packet, const ts_pid_t& pid) {
    const AdaptationFlags flags = tsAdaptationFlags(packet);
    const uint32_t clocksEnd =
        kAdaptationFlags + 1 + (flags.pcr ? kPcrFieldSize : 0) + (flags.opcr ? kPcrFieldSize : 0);
    uint32_t offset = clocksEnd + (flags.splicingPoint ? 1 : 0);
    sink.print("\tDiscontinuity indicator: %s\n", yesNo(flags.discontinuity));
    sink.print("\tRandom access indicator: %s\n", yesNo(flags.randomAccess));
    sink.print("\tElementary stream priority indicator: %s\n", yesNo(flags.esPriority));
    sink.print("\tTransport private data: %s\n", yesNo(flags.privateData));
    if (flags.privateData) {
        const uint8_t length = tsByteAt(packet, offset);
        sink.print("\tTransport private data length: %d\n", length);
        offset += 1U + length;
    }
    sink.print("\tSplicing point: %s\n", yesNo(flags.splicingPoint));
    if (flags.splicingPoint) {
        const uint8_t countdown = tsByteAt(packet, clocksEnd);
        sink.print("\tSplice countdown: %d (0x%x)\n", static_cast<int8_t>(countdown), countdown);
    }
    sink.print("\tOriginal PCR: %s\n", yesNo(flags.opcr));
    sink.print("\tPCR PID: %s\n", yesNo(pid.b_pcr_pid != 0));
    if (flags.pcr) {
        sink.print("\tPCR: %lld\n", static_cast<long long>(tsPcrNanoseconds(packet)));
    }
    if (flags.extension) {
        dumpExtension(sink, packet, offset);
    }
}

}  // namespace

void dumpHex(DumpSink& sink, std::span<const uint8_t> bytes) {
    sink.print("\n\tdump of %d bytes:", static_cast<int>(bytes.size()));
    for (std::size_t offset = 0; offset < bytes.size(); ++offset) {
        if (offset % 8 == 0) {
            sink.print(" ");
        }
        if (offset % 16 == 0) {
            sink.print("\n\t %.4x: ", static_cast<unsigned int>(offset));
        }
        sink.print("%.2x ", bytes[offset]);
    }
}

void dumpHex(std::span<const uint8_t> bytes) {
    dumpHex(logSink(), bytes);
}

void dumpPidSummary(DumpSink& sink, const ts_stream_t& stream) {
    forEachPid(stream.seen, [&](uint32_t number) { dumpPid(sink, stream, number); });
    sink.print("%s", kRuler);
    sink.print("\n\tNumber of packets: %lld, stuffing %lld packets, lost %lld bytes, bitrate: %0.4f kbit/s\n",
               static_cast<long long>(stream.i_packets), static_cast<long long>(stream.i_null_packets),
               static_cast<long long>(stream.i_lost_bytes), kilobits(stream.i_bitrate));
}

void dumpPacketHeader(DumpSink& sink, TsPacket packet, const ts_pid_t& pid) {
    const TsHeader header(packet.data());
    sink.print("\tPID 0x%x seen %s\n", header.pid(), yesNo(pid.b_seen != 0));
    sink.print("\tContinuity counter: %d\n", header.continuityCounter());
    sink.print("\tTransport Error indicator: %s\n", yesNo(header.transportErrorIndicator()));
    sink.print("\tPayload unit start indicator: %s\n", yesNo(header.payloadUnitStart()));
    sink.print("\tScrambling control: %s\n", yesNo(header.scramblingControl() != 0));
    sink.print("\tScrambling control word: 0x%x\n", header.scramblingControl());
    sink.print("\tAdaptation field control: %s\n", yesNo(header.hasAdaptationField()));
    if (header.hasAdaptationField() && tsAdaptationFieldLength(packet) != 0) {
        dumpAdaptationField(sink, packet, pid);
    }
}
