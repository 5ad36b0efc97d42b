// Mutations of the frames target's input: the CRC_32 of what is damaged is made right again, so that sections
// reach the tables and not only the checksum. The tables themselves come from the corpus.
#include <map>

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

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(uint8_t* data, std::size_t size, std::size_t maxSize,
                                               unsigned int seed) {
    size = LLVMFuzzerMutate(data, size, maxSize);
    if (seed % 8 != 0)
        repairSections(data, size);
    return size;
}
