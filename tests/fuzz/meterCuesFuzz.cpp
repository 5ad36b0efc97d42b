// Splice sections, whatever their CRC_32.
#include <vector>

#include "cues/cues.h"
#include "cues/spliceInfo.h"
#include "fuzz/fuzzing.h"

using namespace meter;

// Records of two bytes of length and a section.
int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    Cues cues;
    std::vector<CueReport> found;
    Bytes input(data, size);
    while (input.size() > 2) {
        const std::vector<uint8_t> bytes = fuzzing::exactly(input, 2, u16At(input, 0) & 0xFFF);
        const bool timed = (input[0] & 0x80) == 0;
        cues.section(
            {.pid = input[0], .bytes = bytes, .hasCrc = true, .moment = {.wall = timed ? kNsPerSecond : 0}},
            timed ? std::optional<Ticks>(input[1] * kTicksPerSecond) : std::nullopt, found);
        input = input.subspan(2 + bytes.size());
    }
    Report report;
    cues.fill(report);
    if (report.cues.size() > kCuesLimit || toJson(report).empty())
        __builtin_trap();
    for (const CueReport& cue : report.cues)
        if (cue.segmentation.size() > kSegmentationsLimit)
            __builtin_trap();
    return 0;
}
