// Mutations of the frames target's input that know sections: whole tables are put in, and the CRC_32 of what
// is damaged is made right again, so that sections reach the tables and not only the checksum.
#include <algorithm>
#include <map>
#include <random>
#include <utility>
#include <vector>

#include "fuzz/frames.h"
#include "support/spsBuilder.h"
#include "support/streamBuilder.h"

using namespace fuzzing;
using psi::concat;
using psi::loop12;
using psi::u16;

extern "C" std::size_t LLVMFuzzerMutate(uint8_t* data, std::size_t size, std::size_t maxSize);

namespace {

using Random = std::minstd_rand;

void repairCrc(std::vector<uint8_t*>& bytes) {
    std::vector<uint8_t> section;
    std::transform(bytes.begin(), bytes.end() - 4, std::back_inserter(section),
                   [](const uint8_t* byte) { return *byte; });
    const test::Bytes crc = psi::u32(psi::crc32Mpeg(section));
    for (std::size_t i = 0; i < 4; ++i)
        *bytes[section.size() + i] = crc[i];
}

// Where the bytes lie that a PID's packets have carried of the section that is not complete yet.
class SectionRepair {
  public:
    void packet(int group, uint8_t* packet) {
        const bool unitStart = (packet[1] & 0x40) != 0;
        const int control = packet[3] >> 4 & 3;
        std::size_t at = control == 3 ? 5U + packet[4] : 4U;
        if ((control & 1) == 0 || at >= 187)
            return;
        auto& bytes = pending_[{group, (packet[1] & 0x1F) << 8 | packet[2]}];
        if (unitStart) {
            const std::size_t start = std::min<std::size_t>(at + 1 + packet[at], 188);
            append(bytes, packet, at + 1, start);
            bytes.clear();
            append(bytes, packet, start, 188);
        } else if (!bytes.empty()) {
            append(bytes, packet, at, 188);
        }
    }

  private:
    static void append(std::vector<uint8_t*>& bytes, uint8_t* packet, std::size_t from, std::size_t to) {
        for (; from < to; ++from)
            bytes.push_back(packet + from);
        // The reserved bits tell a section from the start of a PES packet.
        while (bytes.size() >= 3 && (*bytes[1] & 0x30) == 0x30) {
            const std::size_t length = 3U + (*bytes[1] & 0x0FU) * 256U + *bytes[2];
            if (bytes.size() < length || length < 7)
                return;
            std::vector<uint8_t*> section(bytes.begin(), bytes.begin() + static_cast<long>(length));
            repairCrc(section);
            bytes.erase(bytes.begin(), bytes.begin() + static_cast<long>(length));
        }
    }

    std::map<std::pair<int, int>, std::vector<uint8_t*>> pending_;
};

void repairSections(uint8_t* data, std::size_t size) {
    SectionRepair repair;
    for (std::size_t at = 0; at + kRecordHead <= size;) {
        const FrameRecord record = readRecord(data + at, size - at);
        at += kRecordHead;
        for (std::size_t i = 0; record.kind < FrameKind::video && i + 188 <= record.size; i += 188)
            repair.packet(record.group, data + at + i);
        at += record.size;
    }
}

struct Table {
    uint8_t id;
    uint16_t pid;
    test::Bytes payload;
};

// Well-formed apart from what chance makes of the descriptors.
Table sampleTable(Random& random) {
    const auto any = [&](std::size_t limit) { return psi::low8(random() / 16 % limit); };
    const auto loop = [&] {
        constexpr uint8_t kTags[] = {0x05, 0x0A, 0x0B, 0x0E, 0x28, 0x48, 0x4D, 0x52, 0x59, 0x8A};
        test::Bytes descriptors;
        for (int count = any(3); count > 0; --count) {
            test::Bytes content(any(12));
            for (uint8_t& byte : content)
                byte = any(256);
            descriptors = concat({descriptors, psi::descriptor(kTags[any(std::size(kTags))], content)});
        }
        return loop12(descriptors);
    };
    const test::Bytes cue = loop12(psi::descriptor(5, {'C', 'U', 'E', 'I'}));
    const test::Bytes kCommands[] = {{0},
                                     {4, 2, 0, 0, 0, 1, 0x7F, 0x40},
                                     {5, 0, 0, 0, 1, 0x7F, any(256), any(3), 0xFE, 0, 0, 0, 0},
                                     {6, 0xFE, 0, 0, 0, 0},
                                     {any(256)}};
    const test::Bytes command = kCommands[any(5)];
    const test::Bytes cues = concat({psi::descriptor(0, {'C', 'U', 'E', 'I', 0, 0, 0, 1}),
                                     psi::descriptor(1, {'C', 'U', 'E', 'I', 1, 0x5F, '1', '*'}),
                                     psi::descriptor(2, {'C', 'U', 'E', 'I', 'x'})});
    const Table tables[] = {
        {0x00, 0, concat({u16(1), u16(0xE100), u16(2), u16(0xE200), u16(0), u16(0xE010)})},
        {0x01, 1, psi::descriptor(9, {1, 2, 3, 4})},
        {0x02, 0x100,
         concat({u16(0xE101),
                 cue,
                 {0x1B},
                 u16(0xE000U | kVideoPid),
                 loop(),
                 {0x03},
                 u16(0xE102),
                 loop(),
                 {0x86},
                 u16(0xE103),
                 cue})},
        {0x02, 0x200,
         concat({u16(0xE201), loop(), {0x02}, u16(0xE201), loop(), {0x06}, u16(0xE102), loop()})},
        {0x40, 0x11, concat({loop(), loop12(concat({u16(1), u16(2), loop(), u16(3), u16(4), loop()}))})},
        {0x42, 0x11, concat({u16(1), {0xFF}, u16(1), {0xFC}, loop(), u16(2), {0xFC}, loop()})},
        {0x4A, 0x11, concat({loop(), loop12(concat({u16(1), u16(2), loop()}))})},
        {0x4E, 0x12, concat({u16(1), u16(2), {0, 0x4E}, test::Bytes(10), loop(), test::Bytes(10), loop()})},
        {0x70, 0x14, test::Bytes(5)},
        {0x73, 0x14, concat({test::Bytes(5), loop()})},
        {0xFC, 0x103, concat({{0, 0, 0, 0, 0, 0, 0, 0xFF}, u16(0xFFFF), command, u16(cues.size()), cues})},
    };
    return tables[any(std::size(tables))];
}

// A video PES packet that begins with a parameter set.
test::Bytes pictureStart(Random& random) {
    Sps sps{.profile = 100, .highFields = random() % 2 == 0};
    sps.pictureOrderCountType = random() % 3;
    sps.crop[random() % 4] = random() % 8;
    test::TsStream stream;
    std::ranges::copy(nalUnit(0x67, spsBody(sps)), stream.pes(kVideoPid, {.pts = 0}).last().begin() + 18);
    return stream.takeDatagrams().front();
}

// A table, perhaps damaged before its checksum is made.
test::Bytes tablePackets(Random& random) {
    const auto below = [&](unsigned int limit) { return static_cast<uint8_t>(random() / 8 % limit); };
    Table table = sampleTable(random);
    test::Bytes& payload = table.payload;
    for (int count = below(3); count > 0; --count)
        payload[random() % payload.size()] = below(2) == 0 ? 0xFF : below(256);
    if (below(8) == 0)
        payload.resize(random() % 900);
    const bool shortForm = table.id >= 0x70;
    const test::Bytes section =
        shortForm ? psi::shortSection(table.id, payload, table.id != 0x70)
                  : psi::section(table.id, 1 + below(2), below(4), payload, below(8) == 0 ? below(3) : 0,
                                 below(8) == 0 ? below(3) : 0, below(16) != 0);
    test::Bytes packets;
    for (const test::Bytes& datagram : test::TsStream().section(table.pid, section).takeDatagrams())
        packets = concat({packets, datagram});
    return packets;
}

test::Bytes newRecord(Random& random) {
    const test::Bytes packets = random() % 8 == 0 ? pictureStart(random) : tablePackets(random);
    // Mostly one group: what is to meet in a context has to come to the same.
    const auto group = static_cast<uint8_t>(random() % 4 == 0 ? random() % kGroups : 0);
    const auto head = static_cast<uint8_t>(group << 4);
    return concat(
        {{head, psi::low8(random() % 64), psi::low8(packets.size()), psi::low8(packets.size() >> 8)},
         packets});
}

// Puts a record in front of one chosen at random, or behind the last.
std::size_t insertRecord(uint8_t* data, std::size_t size, std::size_t maxSize, const test::Bytes& record,
                         Random& random) {
    if (size + record.size() > maxSize)
        return size;
    std::size_t at = 0;
    while (at + kRecordHead <= size && random() % 8 != 0)
        at += kRecordHead + readRecord(data + at, size - at).size;
    at = std::min(at, size);
    std::copy_backward(data + at, data + size, data + size + record.size());
    std::copy(record.begin(), record.end(), data + at);
    return size + record.size();
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(uint8_t* data, std::size_t size, std::size_t maxSize,
                                               unsigned int seed) {
    Random random(seed);
    random.discard(2);
    size = random() % 4 == 0 ? insertRecord(data, size, maxSize, newRecord(random), random)
                             : LLVMFuzzerMutate(data, size, maxSize);
    if (random() % 8 != 0)
        repairSections(data, size);
    return size;
}
