// Mutations of the frames target's input that know records and sections: records of two inputs are mixed, and
// the CRC_32 of what is damaged is made right again, so that sections reach the tables and not only the
// checksum. The tables themselves come from the corpus.
#include <map>
#include <random>

#include "fuzz/frames.h"
#include "support/psiBuilder.h"

using namespace fuzzing;

extern "C" std::size_t LLVMFuzzerMutate(uint8_t* data, std::size_t size, std::size_t maxSize);

namespace {

// Where the bytes lie that a PID's packets have carried of the section that is not complete yet.
using Pending = std::vector<uint8_t*>;

void append(Pending& bytes, uint8_t* packet, std::size_t from, std::size_t to) {
    for (; from < to; ++from)
        bytes.push_back(packet + from);
    // The reserved bits tell a section from the start of a PES packet.
    while (bytes.size() >= 3 && (*bytes[1] & 0x30) == 0x30) {
        const std::size_t length = 3U + (*bytes[1] & 0x0FU) * 256U + *bytes[2];
        if (bytes.size() < length || length < 7)
            return;
        psi::Bytes section;
        for (std::size_t i = 0; i < length - 4; ++i)
            section.push_back(*bytes[i]);
        section = psi::withCrc(section);
        for (std::size_t i = length - 4; i < length; ++i)
            *bytes[i] = section[i];
        bytes.erase(bytes.begin(), bytes.begin() + static_cast<long>(length));
    }
}

void repairPacket(Pending& bytes, uint8_t* packet) {
    const int control = packet[3] >> 4 & 3;
    const std::size_t at = control == 3 ? 5U + packet[4] : 4U;
    if ((control & 1) == 0 || at >= 187)
        return;
    if ((packet[1] & 0x40) != 0) {
        const std::size_t start = std::min<std::size_t>(at + 1 + packet[at], 188);
        append(bytes, packet, at + 1, start);
        bytes.clear();
        append(bytes, packet, start, 188);
    } else if (!bytes.empty()) {
        append(bytes, packet, at, 188);
    }
}

void repairSections(uint8_t* data, std::size_t size) {
    std::map<int, Pending> pending;  // by group and PID
    for (std::size_t at = 0; at + kRecordHead <= size;) {
        const FrameRecord record = readRecord(data + at, size - at);
        at += kRecordHead;
        for (std::size_t i = 0; record.kind < FrameKind::video && i + 188 <= record.size; i += 188) {
            uint8_t* packet = data + at + i;
            repairPacket(pending[record.group << 13 | (packet[1] & 0x1F) << 8 | packet[2]], packet);
        }
        at += record.size;
    }
}

// The beginning of one of the records, or the end of the last.
std::size_t anyRecord(std::span<const uint8_t> input, std::minstd_rand& random) {
    std::size_t at = 0;
    while (at + kRecordHead <= input.size() && random() % 8 != 0)
        at += kRecordHead + readRecord(input.data() + at, input.size() - at).size;
    return std::min(at, input.size());
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(uint8_t* data, std::size_t size, std::size_t maxSize,
                                               unsigned int seed) {
    size = LLVMFuzzerMutate(data, size, maxSize);
    if (seed % 8 != 0)
        repairSections(data, size);
    return size;
}

// Puts the second input's first records between two of the first one's.
extern "C" std::size_t LLVMFuzzerCustomCrossOver(const uint8_t* first, std::size_t firstSize,
                                                 const uint8_t* second, std::size_t secondSize, uint8_t* out,
                                                 std::size_t maxSize, unsigned int seed) {
    std::minstd_rand random(seed);
    random.discard(2);
    psi::Bytes mixed(first, first + firstSize);
    const auto place = mixed.begin() + static_cast<long>(anyRecord({first, firstSize}, random));
    mixed.insert(place, second, second + anyRecord({second, secondSize}, random));
    const std::size_t size = std::min(mixed.size(), maxSize);
    std::copy_n(mixed.begin(), size, out);
    return size;
}
