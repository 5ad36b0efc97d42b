// Payloads of table PIDs through section assembly, the tables' reader and the report.
#include <algorithm>
#include <array>
#include <bit>

#include "fuzz/fuzzing.h"
#include "sections/crc32.h"
#include "sections/sectionAssembler.h"
#include "services/services.h"

using namespace meter;

namespace {

// Sections of tables come to their reader however their CRC_32 is: damaged ones would end at the checksum.
class Reader : public SectionSink {
  public:
    void section(const Section& section) override {
        Section right = section;
        right.crcOk = true;
        services.section(right, changes);
        changes.clear();
    }
    Services services;
    std::vector<ChangeReport> changes;
};

constexpr std::array<uint16_t, 8> kPids = {kPatPid, kCatPid, kNitPid, kSdtPid,
                                           kEitPid, kTdtPid, 0x100,   0x101};

}  // namespace

// Records of a byte with PID (low 3 bits), unit start (0x08) and a drop before it (0x10), a byte of length,
// payload.
int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    std::vector<SectionAssembler> assemblers;
    for (const uint16_t pid : kPids)
        assemblers.emplace_back(pid);
    Reader reader;
    Bytes input(data, size);
    Moment moment{.wall = 1};
    while (input.size() > 2) {
        const uint8_t control = input[0];
        const std::vector<uint8_t> payload = fuzzing::exactly(input, 2, std::min<std::size_t>(input[1], 184));
        SectionAssembler& assembler = assemblers[control & 7];
        if ((control & 0x10) != 0)
            assembler.drop();
        moment.arrival += kNsPerMs;
        assembler.feed(payload, (control & 0x08) != 0, moment, reader);
        if (assembler.heldBytes() > 128 * 1024)
            __builtin_trap();
        input = input.subspan(2 + payload.size());
    }
    Report report;
    reader.services.fill(report);
    if (report.services.size() > kProgramsLimit || toJson(report).empty())
        __builtin_trap();
    return 0;
}
