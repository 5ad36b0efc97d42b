// A transport stream of constant bit rate by construction, and faults planted in it: each test knows the
// truth.
#pragma once

#include <cmath>
#include <functional>
#include <map>
#include <string>

#include "meter/channelAnalyser.h"
#include "support/psiBuilder.h"

namespace test {

using psi::Bytes;
using psi::TsPacket;

inline constexpr uint16_t kPmtPid = 0x100;
inline constexpr uint16_t kVideoPid = 0x101;
inline constexpr uint16_t kAudioPid = 0x102;

// Sections of a PID, again and again; each goes into packets of its own.
struct Repeated {
    uint16_t pid;
    Bytes section;
    double everyMs;
    double fromMs = 0;
    double untilMs = 1e12;
};

// What goes into a stream, and when.
struct StreamPlan {
    double seconds = 5;
    double pcrMs = 40;
    double audioMs = 24;
    double audioSilentFromMs = 1e12;
    double audioSilentUntilMs = 1e12;
    bool pmt = true;
    std::vector<Repeated> tables = {};
    // Of a packet that goes out at a time: changes what it likes.
    std::function<void(double ms, TsPacket&)> plant = nullptr;
    // The clock's value in ticks, from the true one.
    std::function<int64_t(int64_t)> clock = [](int64_t ticks) { return ticks; };
};

struct MeterStream : StreamPlan {
    static constexpr int64_t kPacketTicks = 20304;  // 2 Mbit/s, in 27 MHz
    static constexpr double kPacketMs = kPacketTicks / 27000.0;

    MeterStream(StreamPlan plan = {}) : StreamPlan(std::move(plan)) {}

    // The packets, one each kPacketTicks.
    std::vector<TsPacket> packets() {
        const Bytes pat = psi::section(0, 1, 0, psi::concat({psi::u16(1), psi::u16(0xE000 | kPmtPid)}));
        const Bytes map = psi::pmtSection(1, 0, kVideoPid, {{0x1B, kVideoPid}, {0x03, kAudioPid}});
        constexpr double kTablesMs = 100;
        std::vector<Repeated> due = {{0, pat, kTablesMs}};
        if (pmt) {
            due.push_back({kPmtPid, map, kTablesMs, 1});
        }
        due.insert(due.end(), tables.begin(), tables.end());
        double nextVideo = 2;
        double nextAudio = 3;
        std::vector<TsPacket> waiting;
        std::vector<TsPacket> all;
        const auto count = static_cast<std::size_t>(std::llround(seconds * 27e6 / kPacketTicks));
        for (std::size_t i = 0; i < count; ++i) {
            const int64_t ticks = static_cast<int64_t>(i) * kPacketTicks;
            const double ms = static_cast<double>(ticks) / 27000;
            for (Repeated& table : due) {
                if (ms >= table.fromMs && ms < table.untilMs) {
                    table.fromMs += table.everyMs;
                    addSection(waiting, table.pid, table.section);
                }
            }
            TsPacket packet;
            if (!waiting.empty()) {
                packet = waiting.front();
                waiting.erase(waiting.begin());
                count4(packet);
            } else if (ms >= nextVideo) {
                nextVideo += pcrMs;
                packet = pes(kVideoPid, 0xE0, ticks, true);
            } else if (ms >= nextAudio) {
                nextAudio += audioMs;
                packet = pes(kAudioPid, 0xC0, ticks, false);
                if (ms >= audioSilentFromMs && ms < audioSilentUntilMs) {
                    counters_[kAudioPid] = (counters_[kAudioPid] - 1) & 0xF;
                    packet = null();
                }
            } else {
                packet = i % 2 == 0 ? more(kVideoPid) : null();
            }
            if (plant) {
                plant(ms, packet);
            }
            all.push_back(packet);
        }
        return all;
    }

    static TsPacket header(uint16_t pid, bool start, uint8_t control) {
        TsPacket packet;
        packet.fill(0xFF);
        packet[0] = 0x47;
        packet[1] = static_cast<uint8_t>((start ? 0x40 : 0) | pid >> 8);
        packet[2] = psi::low8(pid);
        packet[3] = control;
        return packet;
    }
    static TsPacket null() {
        return header(0x1FFF, false, 0x10);
    }
    // Of the packet that goes out then.
    static std::size_t at(double ms) {
        return static_cast<std::size_t>(ms / kPacketMs);
    }
    static uint16_t pidOf(const TsPacket& packet) {
        return static_cast<uint16_t>((packet[1] & 0x1F) << 8 | packet[2]);
    }

    // Its packets; their counters are 0.
    static void addSection(std::vector<TsPacket>& waiting, uint16_t pid, const Bytes& section) {
        const Bytes bytes = psi::concat({{0}, section});
        for (std::size_t at = 0; at < bytes.size(); at += 184) {
            TsPacket packet = header(pid, at == 0, 0x10);
            std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                        std::min<std::size_t>(bytes.size() - at, 184), packet.begin() + 4);
            waiting.push_back(packet);
        }
    }
    // program_clock_reference in 27 MHz, of ISO/IEC 13818-1, 2.4.3.5.
    static Bytes pcrField(uint64_t value) {
        const uint64_t base = value / 300;
        return psi::concat({psi::u32(base >> 1), psi::u16(base << 15 | 0x7E00 | value % 300)});
    }

  private:
    void count4(TsPacket& packet) {
        packet[3] = static_cast<uint8_t>((packet[3] & 0xF0) | (counters_[pidOf(packet)]++ & 0xF));
    }
    TsPacket more(uint16_t pid) {
        TsPacket packet = header(pid, false, 0x10);
        count4(packet);
        for (std::size_t i = 4; i < packet.size(); ++i) {
            packet[i] = psi::low8(++content_);
        }
        return packet;
    }
    TsPacket pes(uint16_t pid, uint8_t streamId, int64_t ticks, bool pcr) {
        TsPacket packet = header(pid, true, pcr ? 0x30 : 0x10);
        std::size_t at = 4;
        if (pcr) {
            const Bytes field =
                psi::concat({{7, 0x10}, pcrField(static_cast<uint64_t>(clock(ticks)) % (300ULL << 33))});
            std::ranges::copy(field, packet.begin() + 4);
            at += field.size();
        }
        const uint64_t pts = static_cast<uint64_t>(ticks) / 300 + 45000;
        const Bytes stamp = {psi::low8(0x21 | (pts >> 29 & 0x0E)), psi::low8(pts >> 22),
                             psi::low8(pts >> 14 | 1), psi::low8(pts >> 7), psi::low8(pts << 1 | 1)};
        const Bytes start = psi::concat({{0, 0, 1, streamId, 0, 0, 0x80, 0x80, 5}, stamp});
        std::ranges::copy(start, packet.begin() + static_cast<std::ptrdiff_t>(at));
        count4(packet);
        return packet;
    }

    std::map<uint16_t, uint8_t> counters_;
    uint32_t content_ = 0;
};

inline Bytes joined(const std::vector<TsPacket>& packets, std::size_t from = 0,
                    std::size_t count = SIZE_MAX) {
    Bytes bytes;
    for (std::size_t i = from; i < packets.size() && i - from < count; ++i) {
        bytes.insert(bytes.end(), packets[i].begin(), packets[i].end());
    }
    return bytes;
}

inline std::vector<TsPacket> upTo(double ms, const std::vector<TsPacket>& packets) {
    return {packets.begin(), packets.begin() + static_cast<std::ptrdiff_t>(MeterStream::at(ms))};
}

inline meter::Report measureFile(const std::vector<TsPacket>& packets, meter::Settings settings = {}) {
    settings.bare = true;
    meter::ChannelAnalyser analyser(settings);
    for (std::size_t i = 0; i < packets.size(); i += 1000) {
        analyser.feedPackets(joined(packets, i, 1000));
    }
    analyser.finish();
    return analyser.report();
}

inline const meter::CheckReport& checkOf(const meter::Report& report, std::string_view id) {
    return *std::ranges::find(report.checks, id, &meter::CheckReport::id);
}

// How often each check failed that ever did, by its number.
inline std::map<std::string, uint64_t> countsOf(const meter::Report& report) {
    std::map<std::string, uint64_t> counts;
    for (const meter::CheckReport& check : report.checks) {
        if (check.count > 0) {
            counts[check.id] = check.count;
        }
    }
    return counts;
}

// A datagram of the flow that tests use.
inline meter::Datagram datagram(int64_t arrival, std::span<const uint8_t> payload) {
    meter::Datagram datagram;
    datagram.arrival = arrival;
    datagram.source = 0x0A000001;
    datagram.destination = 0xEF010101;
    datagram.sourcePort = 1234;
    datagram.destinationPort = 5000;
    datagram.ttl = 16;
    datagram.payload = payload;
    return datagram;
}

inline Bytes rtp(uint16_t sequence, uint32_t timestamp, const Bytes& payload, uint32_t ssrc = 7) {
    return psi::concat({{0x80, 33}, psi::u16(sequence), psi::u32(timestamp), psi::u32(ssrc), payload});
}

}  // namespace test
