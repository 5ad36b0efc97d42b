// Sections that libdvbpsi would read past, and those it must go on to get.
#include "sarnDvbPsi/sectionGuard.h"

#include <gtest/gtest.h>

#include <span>
#include <string>
#include <tuple>
#include <vector>

#include "sarn/dvbpsiHeaders.h"
#include "sarnDvbPsi/siSubtables.h"
#include "support/analysisContext.h"
#include "support/consoleText.h"

namespace {

using psi::Bytes;
using psi::concat;
using psi::loop12;
using psi::u16;
using psi::u32;
using test::AnalysisContext;
using test::TsStream;

// How often a section that came twice was dropped or cut for this reason, and what it left behind: what is
// printed, and the programs with their elementary PIDs.
struct Decoded {
    uint64_t drops;
    std::string all;
};
Decoded decoded(SectionDrop reason, uint8_t tableId, uint16_t pid, const Bytes& payload, uint8_t number = 0) {
    AnalysisContext context;
    TsStream packets;
    if (pid != 0)
        packets.pat({{1, 0x100}});
    const Bytes section = psi::section(tableId, 1, 0, payload, number, 0);
    std::string all =
        test::printedBy([&] { context.feed(packets.section(pid, section).section(pid, section)); });
    ChannelsInfo* info = sarnDvbPsi_getChannelsInfo(context.get());
    for (const ChannelInfo& channel : std::span(info->channels, info->count))
        all += testing::PrintToString(std::pair(
            channel.pmtPid,
            std::vector(channel.elementaryPids, channel.elementaryPids + channel.elementaryPidCount)));
    sarnDvbPsi_freeChannelsInfo(info);
    uint64_t drops = 0;
    for (const auto& table : context->section_drops)
        drops += table[static_cast<std::size_t>(reason)];
    return {drops, all + (context->b_cat_received ? "CAT" : "")};
}

TEST(SectionGuard, SectionsPassOnlyIfTheirLengthsFit) {
    const Bytes head = concat({u16(0xE101), loop12({})});
    const Bytes stream = concat({{0x1B}, u16(0xE101), loop12({0x52, 1, 7})});
    // The library goes on behind the last of these descriptors, wherever it claims to end.
    const Bytes tooLong = loop12({0x52, 2, 7}), noLength = loop12({0x52, 0, 0x52}),
                good = loop12({0x52, 1, 7});
    const auto bouquet = [](const Bytes& loop) {
        return concat({loop12({}), loop12(concat({u16(1), u16(2), loop}))});
    };
    const auto event = [](const Bytes& loop) { return concat({u16(1), u16(9), {0, 0x4E}, Bytes(10), loop}); };
    const std::tuple<uint8_t, uint16_t, Bytes, bool> cases[] = {
        {0x02, 0x100, head, true},
        {0x02, 0x100, concat({head, stream, stream}), true},
        // A descriptor that leads out of its loop is the decoder's to leave out; a loop that leads out of the
        // section is not.
        {0x02, 0x100, concat({head, {0x1B}, u16(0xE101), loop12({0x52, 200})}), true},
        {0x02, 0x100, concat({head, {0x1B}, u16(0xE101), u16(0xF001)}), false},
        {0x02, 0x100, concat({u16(0xE101), u16(0xFFFF)}), false},
        {0x02, 0x100, {}, false},
        {0x40, 0x11, concat({good, loop12({})}), true},
        {0x40, 0x11, concat({tooLong, loop12({})}), false},
        {0x40, 0x11, concat({loop12({}), u16(0xF001)}), false},
        {0x4A, 0x11, bouquet(good), true},
        {0x4A, 0x11, bouquet(tooLong), false},
        {0x4E, 0x12, event(good), true},
        {0x4E, 0x12, event(noLength), false},
    };
    for (const auto& [tableId, pid, payload, fits] : cases)
        EXPECT_EQ(decoded(SectionDrop::badLength, tableId, pid, payload).drops, fits ? 0U : 2U)
            << int{tableId} << testing::PrintToString(payload);
    EXPECT_EQ(decoded(SectionDrop::badNumber, 0x02, 0x100, head, 1).drops, 2U)
        << "a section behind the last one";
}

TEST(SectionGuard, BytesBehindTheLastWholeEntryAreLeftOut) {
    const Bytes loop = loop12({0x52, 1, 7});
    const Bytes transport = concat({u16(1), u16(2), loop});
    const Bytes service = concat({u16(7), {0xFC}, loop});
    const Bytes event = concat({u16(5), {0xC0, 0x79, 0x12, 0x45, 0}, {1, 0x30, 0}, loop});
    struct Table {
        uint8_t id;
        uint16_t pid;
        std::size_t entrySize;  // without its loop
        Bytes front, entries;
        bool counted = false;  // the entries' length stands before them
    };
    const Table tables[] = {
        {0x00, 0, 4, {}, concat({u16(1), u16(0xE100)})},
        {0x02, 0x100, 5, concat({u16(0xE101), loop}), concat({{2}, u16(0xE102), loop})},
        {0x40, 0x11, 6, loop, transport, true},
        {0x41, 0x11, 6, concat({loop, loop12(transport)}), {}},
        {0x4A, 0x11, 6, loop, transport, true},
        {0x42, 0x11, 5, concat({u16(9), {0xFF}}), concat({service, service})},
        {0x4E, 0x12, 12, concat({u16(1), u16(9), {0, 0x4E}}), event},
        // These have no entries; what is behind them is nobody's.
        {0x01, 1, 2, concat({{9, 4}, u32(0xBE1FF)}), {}},
    };
    std::string clean;
    for (const Table& table : tables)
        for (std::size_t size = 0; size < table.entrySize; ++size) {
            const Bytes entries = concat({table.entries, Bytes(size, 0xE1)});
            const Bytes payload = concat({table.front, table.counted ? loop12(entries) : entries});
            const Decoded found = decoded(SectionDrop::strayBytes, table.id, table.pid, payload);
            EXPECT_EQ(found.drops, table.id == 1 || size == 0 ? 0U : 2U) << int{table.id} << " + " << size;
            clean = size == 0 ? found.all : clean;
            EXPECT_EQ(found.all, clean) << int{table.id} << " + " << size;
            EXPECT_NE(found.all, "");
        }
}

TEST(SectionGuard, InventedTablesAreBounded) {
    AnalysisContext context;
    TsStream packets;
    const Bytes payload = concat({u16(1), u16(2), {0, 0x6F}});
    for (uint32_t table = 0; table < kMaxSubtables + 50U; ++table)
        packets.section(0x12, psi::section(0x50, static_cast<uint16_t>(table), 0, payload, 0, 9));
    context.feed(packets);
    int subtables = 0;
    const auto* subtable = reinterpret_cast<dvbpsi_demux_t*>(context->eit_handle->p_decoder)->p_first_subdec;
    for (; subtable != nullptr; subtable = subtable->p_next)
        ++subtables;
    EXPECT_EQ(subtables, kMaxSubtables);
    constexpr std::size_t kEit = 6;
    EXPECT_EQ(context->section_drops[kEit][static_cast<std::size_t>(SectionDrop::tooLarge)], 50U);
    for (uint32_t number = 1; number < 9; ++number)
        for (uint16_t table = 0; table < kMaxSubtables; table += 2)
            packets.section(0x12, psi::section(0x50, table, 0, payload, psi::low8(number), 9));
    context.feed(packets);
    EXPECT_EQ(context->si_sections[1], kMaxHeldSections);
}

TEST(SectionGuard, ATableOfMoreEntriesThanPidsIsDropped) {
    constexpr uint32_t kPerSection = 252;
    for (const auto& [sections, known] : {std::pair{32U, 8064U}, {33U, 0U}}) {
        AnalysisContext context;
        TsStream packets;
        for (uint32_t number = 0; number < sections; ++number) {
            Bytes payload;
            for (uint32_t i = 1; i <= kPerSection; ++i) {
                const uint32_t program = number * kPerSection + i;
                payload = concat({payload, u16(program), u16(0xE000U | (program % 0x1FFF))});
            }
            packets.section(0, psi::section(0, 1, 0, payload, psi::low8(number), psi::low8(sections - 1)));
        }
        context.feed(packets);
        EXPECT_EQ(HASH_CNT(hh, context->p_pmt_by_number), known);
    }
}

TEST(SectionGuard, DescriptorsOfATableAndStreamsOfAllProgramsAreBounded) {
    for (const bool second : {false, true}) {  // each section has 300, a loop may have 512
        AnalysisContext context;
        TsStream packets;
        for (uint8_t number = 0; number <= (second ? 1 : 0); ++number)
            packets.section(1, psi::section(1, 1, 0, Bytes(600), number, second));
        context.feed(packets);
        EXPECT_EQ(context->b_cat_received, !second);
    }
    AnalysisContext context;
    TsStream packets;
    const Bytes stream = concat({{2}, u16(0xE101), loop12({})});
    Bytes payload = concat({u16(0xE101), loop12({})});
    for (int i = 0; i < 190; ++i)
        payload = concat({payload, stream});
    packets.pat({{1, 0x101}, {2, 0x102}, {3, 0x103}, {4, 0x104}, {5, 0x105}, {6, 0x106}});
    for (uint16_t round = 0; round < 2; ++round)  // a new version takes the place of the old one
        for (uint16_t program = 1; program <= 6; ++program)
            for (uint8_t number = 0; number < kMaxPmtSections; ++number)
                packets.section(0x100 + program,
                                psi::section(2, program, psi::low8(round), payload, number, 7));
    context.feed(packets);
    EXPECT_EQ(context->listed_streams, 5 * kMaxPmtSections * 190);
    context.feed(packets.pat({{6, 0x106}}, 1));
    EXPECT_EQ(context->listed_streams, 0);
}

}  // namespace
