// Sections that libdvbpsi would read past, and those it must go on to get.
#include "sarnDvbPsi/sectionGuard.h"

#include <gtest/gtest.h>

#include <random>

#include "sarnDvbPsi/dvbpsiHeaders.h"
#include "sarnDvbPsi/siSubtables.h"
#include "support/analysisContext.h"

namespace {

using psi::Bytes;
using psi::concat;
using psi::loop12;
using psi::u16;
using test::AnalysisContext;
using test::TsStream;

// Whether a section that comes twice shows: by the PCR PID that a PMT names, else by what is printed.
bool accepted(uint8_t tableId, uint16_t pid, const Bytes& payload, uint8_t number = 0) {
    AnalysisContext context;
    TsStream packets;
    context.feed(packets.pat({{1, 0x100}}));
    const Bytes section = psi::section(tableId, 1, 0, payload, number, 0);
    testing::internal::CaptureStdout();
    context.feed(packets.section(pid, section).section(pid, section));
    return !testing::internal::GetCapturedStdout().empty() || context->pid[0x101].b_pcr_pid;
}

TEST(SectionGuard, SectionsPassOnlyIfTheirLengthsFit) {
    const Bytes head = concat({u16(0xE101), loop12({})});
    const Bytes stream = concat({{0x1B}, u16(0xE101), loop12({0x52, 1, 7})});
    const std::pair<Bytes, bool> programMaps[] = {
        {head, true},
        {concat({head, stream, stream}), true},
        // A descriptor that leads out of its loop is the decoder's to leave out; a loop that leads out of the
        // section is not.
        {concat({head, {0x1B}, u16(0xE101), loop12({0x52, 200})}), true},
        {concat({head, {0x1B}, u16(0xE101), u16(0xF001)}), false},
        {concat({head, stream, {0x1B}}), false},
        {concat({u16(0xE101), u16(0xFFFF)}), false},
        {{}, false},
    };
    for (const auto& [payload, fits] : programMaps) {
        EXPECT_EQ(accepted(0x02, 0x100, payload), fits) << testing::PrintToString(payload);
    }
    EXPECT_FALSE(accepted(0x02, 0x100, head, 1)) << "a section behind the last one";

    // The library goes on behind the last of these descriptors, wherever it claims to end.
    const Bytes event = concat({u16(1), u16(9), {0, 0x4E}, Bytes(10)});
    const std::pair<Bytes, bool> loops[] = {
        {{}, true}, {{0x52, 1, 7}, true}, {{0x52, 2, 7}, false}, {{0x52, 0, 0x52}, false}};
    for (const auto& [descriptors, fits] : loops) {
        const Bytes loop = loop12(descriptors);
        EXPECT_EQ(accepted(0x40, 0x11, concat({loop, loop12({})})), fits);
        EXPECT_EQ(accepted(0x4A, 0x11, concat({loop12({}), loop12(concat({u16(1), u16(2), loop}))})), fits);
        EXPECT_EQ(accepted(0x4E, 0x12, concat({event, loop})), fits);
    }
}

struct Table {
    uint8_t id;
    uint16_t pid;
    Bytes payload;
};

// Every table well-formed, to be damaged.
std::vector<Table> sampleTables() {
    const Bytes loop = loop12(psi::descriptor(0x52, {1, 2, 3}));
    const Bytes network = concat({loop, loop12(concat({u16(1), u16(2), loop, u16(3), u16(4), loop}))});
    return {
        {0x00, 0, concat({u16(1), u16(0xE100), u16(2), u16(0xE200)})},
        {0x01, 1, psi::descriptor(9, {1, 2, 3, 4})},
        {0x02, 0x100, concat({u16(0xE101), loop, {0x1B}, u16(0xE101), loop, {0x03}, u16(0xE102), loop})},
        {0x40, 0x11, network},
        {0x42, 0x11, concat({u16(1), {0xFF}, u16(1), {0xFC}, loop, u16(2), {0xFC}, loop})},
        {0x4A, 0x11, network},
        {0x4E, 0x12, concat({u16(1), u16(2), {0, 0x4E}, Bytes(10), loop, Bytes(10), loop})},
        {0x70, 0x14, Bytes(5)},
        {0x73, 0x14, concat({Bytes(5), loop})},
    };
}

Bytes damagedSection(const Table& table, std::mt19937& random) {
    const auto below = [&random](std::size_t limit) { return random() % limit; };
    Bytes payload = table.payload;
    for (std::size_t count = below(4); count != 0; --count) {
        payload[below(payload.size())] = below(2) == 0 ? 0xFF : psi::low8(random());
    }
    if (below(4) == 0) {
        payload.resize(below(payload.size() + 1));
    }
    if ((table.id >= 0x70) != (below(20) == 0)) {
        return psi::shortSection(table.id, payload, table.id != 0x70);
    }
    return psi::section(table.id, static_cast<uint16_t>(1 + below(3)), psi::low8(below(3)), payload,
                        psi::low8(below(3)), psi::low8(below(3)), below(4) != 0);
}

// Feeds a whole context with damaged sections whose checksums are right. Sanitizers and valgrind see what the
// library does with those that pass; without them it at least must neither stop nor crash.
TEST(SectionGuard, DamagedSectionsLeaveTheContextSound) {
    const std::vector<Table> tables = sampleTables();
    AnalysisContext context;
    TsStream packets;
    std::mt19937 random(13818);
    testing::internal::CaptureStdout();
    for (int round = 0; round < 6000; ++round) {
        const Table& table = tables[random() % tables.size()];
        packets.section(table.pid, damagedSection(table, random));
        if (random() % 16 == 0) {  // an adaptation field, perhaps one that leads out of the packet
            packets.last()[3] |= 0x20;
            packets.last()[4] = psi::low8(random());
        }
        context.feed(packets, round);
    }
    const std::string printed = testing::internal::GetCapturedStdout();
    for (const char* heading : {"NIT: ", "SDT: ", "BAT: ", "Event id: ", "TDT: ", "TOT: "}) {
        EXPECT_NE(printed.find(heading), std::string::npos) << heading;
    }
}

TEST(SectionGuard, InventedTablesAreBounded) {
    AnalysisContext context;
    TsStream packets;
    const Bytes payload = concat({u16(1), u16(2), {0, 0x6F}});
    for (uint32_t table = 0; table < kMaxSubtables + 50U; ++table) {
        packets.section(0x12, psi::section(0x50, static_cast<uint16_t>(table), 0, payload, 0, 9));
    }
    context.feed(packets);
    int subtables = 0;
    for (const dvbpsi_demux_subdec_t* subtable =
             reinterpret_cast<dvbpsi_demux_t*>(context->eit_handle->p_decoder)->p_first_subdec;
         subtable != nullptr; subtable = subtable->p_next) {
        ++subtables;
    }
    EXPECT_EQ(subtables, kMaxSubtables);
    for (uint32_t number = 1; number < 9; ++number) {
        for (uint16_t table = 0; table < kMaxSubtables; table += 2) {
            packets.section(0x12, psi::section(0x50, table, 0, payload, psi::low8(number), 9));
        }
    }
    context.feed(packets);
    EXPECT_EQ(context->si_sections[1], kMaxHeldSections);
}

}  // namespace
