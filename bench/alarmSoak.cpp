// What a recording that repeats for hours of stream time raises: the measuring library, the messages, samples
// and alarms, as fast as they go.
//
//     alarmSoak HOURS [JITTER_MS] FILE.ts...
//
// Each file is played end to end, again and again, with continuity counters, PCRs and time stamps that go on,
// in datagrams at the pace of its clock, whose arrival varies evenly by up to JITTER_MS. Prints what was
// raised, cleared and happened, and a summary; the status is 1 if there was anything.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "alarms/alarmEngine.h"
#include "measures/meterSample.h"
#include "meter/channelAnalyser.h"
#include "meter/meterFigures.h"
#include "reportMessages.h"

namespace {

using namespace std::chrono_literals;

constexpr std::size_t kPacket = 188;
constexpr std::size_t kPacketsPerDatagram = 7;
constexpr uint64_t kTicksPerStamp = 300;  // of 27 MHz in one of 90 kHz
constexpr uint64_t kStampModulus = 1ULL << 33;
constexpr uint64_t kClockModulus = kStampModulus * kTicksPerStamp;
constexpr int64_t kNsPerSecond = 1'000'000'000;
constexpr uint32_t kGroup = 0xEF010101;

uint16_t pidOf(const uint8_t* packet) {
    return static_cast<uint16_t>((packet[1] & 0x1F) << 8 | packet[2]);
}
bool hasPayload(const uint8_t* packet) {
    return (packet[3] & 0x10) != 0;
}
bool hasPcr(const uint8_t* packet) {
    return (packet[3] & 0x20) != 0 && packet[4] >= 7 && (packet[5] & 0x10) != 0;
}
uint64_t pcrOf(const uint8_t* packet) {
    const uint64_t base = static_cast<uint64_t>(packet[6]) << 25 | static_cast<uint64_t>(packet[7]) << 17 |
                          static_cast<uint64_t>(packet[8]) << 9 | static_cast<uint64_t>(packet[9]) << 1 |
                          packet[10] >> 7;
    return base * kTicksPerStamp + (static_cast<uint64_t>(packet[10] & 1) << 8 | packet[11]);
}
void setPcr(uint8_t* packet, uint64_t ticks) {
    const uint64_t base = ticks / kTicksPerStamp;
    const uint64_t extension = ticks % kTicksPerStamp;
    for (unsigned i = 0; i < 4; ++i) {
        packet[6 + i] = static_cast<uint8_t>(base >> (25 - 8 * i));
    }
    packet[10] = static_cast<uint8_t>((base & 1) << 7 | (packet[10] & 0x7E) | extension >> 8);
    packet[11] = static_cast<uint8_t>(extension);
}
void addToStamp(uint8_t* stamp, uint64_t more) {
    const uint64_t value =
        (static_cast<uint64_t>(stamp[0] >> 1 & 7) << 30 | static_cast<uint64_t>(stamp[1]) << 22 |
         static_cast<uint64_t>(stamp[2] >> 1) << 15 | static_cast<uint64_t>(stamp[3]) << 7 | stamp[4] >> 1);
    const uint64_t next = (value + more) % kStampModulus;
    stamp[0] = static_cast<uint8_t>((stamp[0] & 0xF1) | (next >> 30 & 7) << 1);
    stamp[1] = static_cast<uint8_t>(next >> 22);
    stamp[2] = static_cast<uint8_t>((next >> 15 & 0x7F) << 1 | 1);
    stamp[3] = static_cast<uint8_t>(next >> 7);
    stamp[4] = static_cast<uint8_t>((next & 0x7F) << 1 | 1);
}
// Where a PES header with time stamps begins; null where none does.
uint8_t* pesOf(uint8_t* packet) {
    const std::size_t at = (packet[3] & 0x20) != 0 ? 5U + packet[4] : 4U;
    const bool begins = (packet[1] & 0x40) != 0 && hasPayload(packet) && at + 19 <= kPacket;
    uint8_t* const pes = packet + at;
    return begins && pes[0] == 0 && pes[1] == 0 && pes[2] == 1 && (pes[6] & 0xC0) == 0x80 ? pes : nullptr;
}

// A recording that goes on when it is at its end.
class Loop {
  public:
    explicit Loop(const std::string& name) {
        std::ifstream file(name, std::ios::binary);
        bytes_.assign(std::istreambuf_iterator<char>(file), {});
        bytes_.resize(bytes_.size() / kPacket * kPacket);
        prepare();
    }
    std::size_t packets() const {
        return bytes_.size() / kPacket;
    }
    // Ticks of the clock at a packet, from the first clock reference on.
    uint64_t timeOf(std::size_t packet) const {
        return times_[packet];
    }
    uint64_t length() const {
        return length_;
    }
    void copy(std::size_t index, uint8_t* packet) {
        std::copy_n(bytes_.begin() + static_cast<std::ptrdiff_t>(index * kPacket), kPacket, packet);
        if (index == 0) {
            shift_ = begun_ ? shift_ + length_ : 0;
            begun_ = true;
        }
        const uint16_t pid = pidOf(packet);
        if (hasPayload(packet) && pid != 0x1FFF) {
            counters_[pid] = static_cast<uint8_t>((counters_[pid] + 1) & 0x0F);
        }
        packet[3] = static_cast<uint8_t>((packet[3] & 0xF0) | counters_[pid]);
        if (hasPcr(packet)) {
            setPcr(packet, (pcrOf(packet) + shift_) % kClockModulus);
        }
        if (uint8_t* const pes = pesOf(packet)) {
            const uint64_t more = shift_ / kTicksPerStamp % kStampModulus;
            if ((pes[7] & 0x80) != 0) {
                addToStamp(pes + 9, more);
            }
            if ((pes[7] & 0xC0) == 0xC0) {
                addToStamp(pes + 14, more);
            }
        }
    }

  private:
    void prepare() {
        std::vector<std::pair<std::size_t, uint64_t>> clocks;
        uint16_t pid = 0;
        for (std::size_t i = 0; i < packets(); ++i) {
            const uint8_t* packet = &bytes_[i * kPacket];
            if (hasPcr(packet) && (clocks.empty() || pidOf(packet) == pid)) {
                pid = pidOf(packet);
                clocks.emplace_back(i, pcrOf(packet));
            }
        }
        if (clocks.size() < 3) {
            std::fprintf(stderr, "no clock in there\n");
            std::exit(2);
        }
        // From the first clock reference to the last one; the next round begins where the last one stands.
        const std::size_t first = clocks.front().first;
        const std::size_t end = clocks.back().first;
        length_ = (clocks.back().second - clocks.front().second);
        for (std::size_t i = 0; i + 1 < clocks.size(); ++i) {
            const auto [from, ticks] = clocks[i];
            const auto [to, next] = clocks[i + 1];
            for (std::size_t at = from; at < to; ++at) {
                times_.push_back(ticks - clocks.front().second + (next - ticks) * (at - from) / (to - from));
            }
        }
        bytes_.erase(bytes_.begin() + static_cast<std::ptrdiff_t>(end * kPacket), bytes_.end());
        bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(first * kPacket));
    }

    std::vector<uint8_t> bytes_;
    std::vector<uint64_t> times_;
    uint64_t length_ = 0;
    uint64_t shift_ = 0;
    bool begun_ = false;
    std::array<uint8_t, 8192> counters_{};
};

// The station's way of a report.
class Station {
  public:
    Station() {
        engine_.configure({{"default", station::defaultRules()}},
                          {{group_, station::Channel{.group = group_}}}, now());
    }
    void look(const meter::Report& report, double second) {
        second_ = second;
        metering::GroupReport message;
        message.set_group(kGroup);
        message.set_epoch(1);
        metering::writeLevels(report, message);
        station::ChannelSample sample = reader_.read(message, {}, now()).sample;
        station::takeGrowth(sample, last_ ? &*last_ : nullptr, 1s);
        last_ = sample;
        std::vector<station::AlarmChange> changes;
        engine_.observe(group_, sample, now(), changes);
        engine_.tick({.silent = true, .notAsking = {}, .secondAsker = {}}, now(), changes);
        for (const station::AlarmChange& change : changes) {
            const auto& type = station::alarmTypes()[change.alarm.type];
            if (!type.ofSource) {
                std::printf("  %.0f s: %s %s\n", second, std::string(type.name).c_str(), change.text.c_str());
                ++changes_;
            }
        }
    }
    std::size_t changes() const {
        return changes_;
    }

  private:
    station::Now now() const {
        const auto at = std::chrono::milliseconds(static_cast<int64_t>((1000 + second_) * 1000));
        return {station::SteadyTime(at), station::WallTime(1'700'000'000s + at)};
    }

    const station::Group group_ = *station::Group::parse("239.1.1.1");
    station::AlarmEngine engine_;
    station::ReportReader reader_;
    std::optional<station::ChannelSample> last_;
    double second_ = 0;
    std::size_t changes_ = 0;
};

bool play(const char* name, double hours, double jitterMs) {
    Loop loop(name);
    meter::Settings settings;
    settings.group = kGroup;
    meter::ChannelAnalyser analyser(settings);
    Station station;
    std::mt19937 random(1);
    std::uniform_real_distribution<double> jitter(0, jitterMs * 1e6);
    const auto end = static_cast<int64_t>(hours * 3600) * kNsPerSecond;
    std::array<uint8_t, kPacket * kPacketsPerDatagram> bytes{};
    std::size_t filled = 0;
    uint64_t base = 0;
    int64_t arrival = 0;
    int64_t nextSecond = kNsPerSecond;
    std::printf("%s\n", name);
    while (arrival < end) {
        for (std::size_t i = 0; i < loop.packets(); ++i) {
            loop.copy(i, &bytes[filled * kPacket]);
            if (++filled < kPacketsPerDatagram) {
                continue;
            }
            filled = 0;
            const uint64_t ticks = base + loop.timeOf(i);
            arrival = std::max(arrival, static_cast<int64_t>(ticks / 27 * 1000 + ticks % 27 * 1000 / 27) +
                                            static_cast<int64_t>(jitter(random)));
            meter::Datagram datagram;
            datagram.arrival = datagram.wall = kNsPerSecond + arrival;
            datagram.source = 0x0A000001;
            datagram.sourcePort = 1000;
            datagram.destination = kGroup;
            datagram.destinationPort = 5000;
            datagram.payload = bytes;
            analyser.feed(datagram);
            if (arrival >= nextSecond) {
                analyser.tick(kNsPerSecond + arrival);
                const auto second = nextSecond / kNsPerSecond;
                station.look(analyser.report(), static_cast<double>(second));
                analyser.takeEvents();
                nextSecond += kNsPerSecond;
            }
        }
        base += loop.length();
    }
    const meter::Report report = analyser.report();
    std::printf("  %.1f h of stream, %llu packets:", report.seconds / 3600,
                static_cast<unsigned long long>(report.packets.received));
    bool failed = false;
    for (const meter::CheckReport& check : report.checks) {
        if (check.count > 0) {
            std::printf(" %s %llu", check.name, static_cast<unsigned long long>(check.count));
            failed = true;
        }
    }
    std::printf("%s; %zu alarms raised or cleared\n", failed ? "" : " no check failed", station.changes());
    return station.changes() == 0;
}

}  // namespace

int main(int count, char** arguments) {
    if (count < 3) {
        std::fprintf(stderr, "usage: alarmSoak HOURS [JITTER_MS] FILE.ts...\n");
        return 2;
    }
    const double hours = std::atof(arguments[1]);
    const double jitter = std::atof(arguments[2]);
    bool quiet = true;
    for (int i = jitter > 0 || arguments[2][0] == '0' ? 3 : 2; i < count; ++i) {
        quiet = play(arguments[i], hours, jitter) && quiet;
    }
    return quiet ? 0 : 1;
}
