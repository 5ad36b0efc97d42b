// Datagrams of a channel through the whole of its analysis, up to the report.
#include <algorithm>
#include <array>

#include "fuzz/fuzzing.h"
#include "meter/channelAnalyser.h"
#include "meter/reportText.h"
#include "support/meterStream.h"

using psi::Bytes;

namespace {

constexpr std::size_t kPacketSize = 188;
constexpr uint8_t kVideo = 0x1B;
constexpr uint8_t kAudio = 0x03;
constexpr uint8_t kCue = 0x86;
// Tables, a program's streams, null packets and one that nobody knows.
constexpr std::array<uint16_t, 16> kPids = {0,     1,     16,    17,    18,    20,    0x100,  0x101,
                                            0x102, 0x103, 0x104, 0x200, 0x101, 0x101, 0x1FFF, 0x300};
// Those that carry sections.
constexpr std::array<uint16_t, 8> kTablePids = {0, 1, 16, 17, 18, 20, 0x100, 0x103};

// Reads the fuzzer's bytes; zeros behind their end.
class Input {
  public:
    Input(const uint8_t* data, std::size_t size) : at_(data), end_(data + size) {}
    bool empty() const {
        return at_ == end_;
    }
    uint8_t byte() {
        return at_ == end_ ? uint8_t{0} : *at_++;
    }
    uint32_t word() {
        const uint32_t high = byte();
        return high << 8 | byte();
    }
    // Overwrites the begin of `bytes`.
    void into(std::span<uint8_t> bytes) {
        const std::size_t count = std::min<std::size_t>(bytes.size(), static_cast<std::size_t>(end_ - at_));
        std::copy_n(at_, count, bytes.begin());
        at_ += count;
    }

  private:
    const uint8_t* at_;
    const uint8_t* end_;
};

// A packet with a header of the input's making and as much of its body as the input says.
void appendPacket(Bytes& payload, Input& input, std::array<uint8_t, 16>& counters) {
    std::array<uint8_t, kPacketSize> packet{};
    packet.fill(0xFF);
    const uint8_t kind = input.byte();
    const uint8_t flags = input.byte();
    const uint16_t pid = kPids[kind & 0x0F];
    packet[0] = (kind & 0x80) != 0 ? input.byte() : 0x47;
    packet[1] = static_cast<uint8_t>((kind & 0x40) << 1 | (kind & 0x20) << 1 | pid >> 8);
    packet[2] = static_cast<uint8_t>(pid & 0xFF);
    uint8_t& counter = counters[kind & 0x0F];
    // Mostly the next counter; flags bit 0 leaves some out, bit 1 repeats.
    counter = static_cast<uint8_t>(counter + ((flags & 1) != 0 ? 3 : (flags & 2) != 0 ? 0 : 1));
    packet[3] = static_cast<uint8_t>((flags & 0xC0) | ((flags & 0x0C) << 2) | (counter & 0x0F));
    input.into(std::span(packet).subspan(4, std::min<std::size_t>(input.byte(), kPacketSize - 4)));
    payload.insert(payload.end(), packet.begin(), packet.end());
}

// A section of the input's making, but for its length and its CRC_32, which are right: what is behind the
// checksum is reached.
Bytes sectionPackets(Input& input, std::array<uint8_t, 8>& counters) {
    const unsigned which = input.byte();
    Bytes section(3 + ((which & 8) != 0 ? 4U : 1U) * input.byte());
    input.into(section);
    const std::size_t length = section.size() + 4 - 3;
    section[1] = static_cast<uint8_t>((section[1] & 0xF0) | length >> 8);
    section[2] = psi::low8(length);
    std::vector<psi::TsPacket> packets;
    test::MeterStream::addSection(packets, kTablePids[which & 7], psi::withCrc(section));
    for (psi::TsPacket& packet : packets) {
        packet[3] = static_cast<uint8_t>(packet[3] | (++counters[which & 7] & 0x0F));
    }
    return test::joined(packets);
}

// Packets with a PCR at even distances, of one PID or of one after the other: what needs seconds of a stream,
// or more PIDs than have a place.
struct Regular {
    explicit Regular(Input& input)
        : pid(input.word()), count(2U * input.byte()), gapMs(input.byte()), lateNs(input.word()) {}
    Bytes next() {
        pcr = (pcr + gapMs * 27'000) % (300ULL << 33);
        psi::TsPacket packet = test::MeterStream::header(pid & 0x1FFF, false, 0x20);
        std::ranges::copy(psi::concat({{183, 0x10}, test::MeterStream::pcrField(pcr)}), packet.begin() + 4);
        if ((pid & 0x2000) != 0) {
            pid = (pid & 0xE000) | ((pid + 1) & 0x1FFF);
        }
        return {packet.begin(), packet.end()};
    }
    unsigned pid;  // 13 bits, and whether the next one's is another
    unsigned count;
    unsigned gapMs;
    int64_t lateNs;  // every other one
    uint64_t pcr = 0;
};

// Tables that are right, so that there are programs, streams and a CAT.
Bytes tables() {
    const Bytes german = psi::descriptor(0x0A, {'d', 'e', 'u', 0});
    const Bytes pmt = psi::pmtSection(1, 0, 0x101, {{kVideo, 0x101}, {kAudio, 0x102, german}, {kCue, 0x103}});
    const Bytes pat = psi::section(0, 1, 0, psi::concat({psi::u16(1), psi::u16(0xE100)}));
    Bytes packets;
    for (const auto& [pid, section] : {std::pair<uint16_t, const Bytes&>{0, pat}, {0x100, pmt}}) {
        Bytes packet = psi::concat({{0x47}, psi::u16(0x4000U | pid), {0x10, 0}, section});
        packet.resize(kPacketSize, 0xFF);
        packets = psi::concat({packets, packet});
    }
    return packets;
}

Bytes rtpHeader(Input& input, uint16_t& sequence) {
    const uint8_t how = input.byte();
    sequence = static_cast<uint16_t>(sequence + ((how & 0x80) != 0 ? input.word() : 1));
    return psi::concat(
        {{0x80, 33}, psi::u16(sequence), psi::u32(input.word()), {0, 0, 0, static_cast<uint8_t>(how & 1)}});
}

}  // namespace

// A byte of settings, then records: a byte of kind (low 3 bits), a shift of the time (5 bits), the time, and
// what the kind wants.
int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    static const Bytes kTables = tables();
    Input input(data, size);
    const uint8_t how = input.byte();
    meter::Settings settings;
    settings.bare = (how & 1) != 0;
    settings.serviceInformationRequired = (how & 2) != 0;
    if ((how & 4) != 0) {
        settings.bitrate = 1 + input.word() * uint64_t{1000};
    }
    meter::ChannelAnalyser analyser(settings);
    if ((how & 8) != 0) {
        analyser.beginExcerpt(true);
    }
    meter::Datagram datagram;
    datagram.destination = 0xEF010101;
    datagram.destinationPort = 5000;
    std::array<uint8_t, 16> counters{};
    std::array<uint8_t, 8> tableCounters{};
    uint16_t sequence = 0;
    unsigned regularLeft = 600;
    const auto feed = [&](const Bytes& payload) {
        // In a block of its own size, so that a byte too many is noticed.
        const std::vector<uint8_t> bytes(payload);
        if (settings.bare) {
            analyser.feedPackets(bytes);
        } else {
            datagram.payload = bytes;
            analyser.feed(datagram);
        }
    };
    while (!input.empty()) {
        const uint8_t record = input.byte();
        // Up to three hours at once, and back.
        const int64_t step = static_cast<int64_t>(input.word()) << (record >> 3 & 0x1F);
        if (record == 0xFF || __builtin_add_overflow(datagram.arrival, step, &datagram.arrival)) {
            datagram.arrival = INT64_MAX - step;
        }
        datagram.wall = datagram.arrival;
        Bytes payload;
        switch (record & 7) {
            case 0:
                payload.resize(input.byte());
                input.into(payload);
                break;
            case 1:
                analyser.tick(datagram.arrival);
                continue;
            case 2:
                payload = kTables;
                break;
            case 3:
                datagram.source = input.byte();
                datagram.fragment = (datagram.source & 0x80) != 0;
                continue;
            case 5:
                payload = sectionPackets(input, tableCounters);
                break;
            case 7: {
                Regular regular(input);
                for (; regular.count > 0 && regularLeft > 0; --regular.count, --regularLeft) {
                    const int64_t gap = regular.gapMs * int64_t{1'000'000} +
                                        ((regular.count & 1) != 0 ? regular.lateNs : -regular.lateNs);
                    if (__builtin_add_overflow(datagram.arrival, gap, &datagram.arrival)) {
                        break;
                    }
                    datagram.wall = datagram.arrival;
                    feed(regular.next());
                }
                continue;
            }
            case 4:
                payload = rtpHeader(input, sequence);
                [[fallthrough]];
            default:
                for (unsigned left = 1 + (input.byte() & 7); left > 0; --left) {
                    appendPacket(payload, input, counters);
                }
        }
        feed(payload);
        if (record == 0x1D || analyser.excerptIsEnded()) {
            analyser.takeExcerpt();
            analyser.beginExcerpt((datagram.arrival & 1) != 0);
        }
    }
    meter::toJson(analyser.report());
    analyser.finish();
    const meter::Report report = analyser.report();
    meter::toJson(report);
    meter::reportText(report, "");
    analyser.takeEvents();
    return 0;
}
