// Sections that libdvbpsi would read past, and those it must go on to get.
#include "sarnDvbPsi/sectionGuard.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>

#include "sarn/sarnDvbPsi.h"
#include "sarnDvbPsi/dvbpsiHeaders.h"
#include "sarnDvbPsi/siSubtables.h"
#include "support/psiBuilder.h"

namespace {

using psi::Bytes;
using psi::concat;
using psi::loop12;
using psi::u16;

struct OpenHandle {
    dvbpsi_t* handle = dvbpsi_new(nullptr, DVBPSI_MSG_NONE);
    ~OpenHandle() {
        dvbpsi_delete(handle);
    }
};

void push(dvbpsi_t* handle, uint16_t pid, const Bytes& section, uint8_t& cc) {
    for (const psi::TsPacket& packet : psi::packetize(pid, section, cc)) {
        pushPsiPacket(handle, packet.data());
    }
}

TEST(SectionGuard, APushNeedsADecoder) {
    const OpenHandle open;
    const psi::TsPacket packet = {0x47};
    EXPECT_FALSE(pushPsiPacket(nullptr, packet.data()));
    EXPECT_FALSE(pushPsiPacket(open.handle, packet.data()));
}

// What the PMT decoder reports of a payload: -1 for nothing, else its number of elementary streams.
int reportedStreams(const Bytes& payload, uint8_t number = 0, uint8_t last = 0) {
    OpenHandle open;
    int streams = -1;
    const auto count = [](void* data, dvbpsi_pmt_t* pmt) {
        int& result = *static_cast<int*>(data);
        result = 0;
        for (const dvbpsi_pmt_es_t* es = pmt->p_first_es; es != nullptr; es = es->p_next) {
            ++result;
        }
        dvbpsi_pmt_delete(pmt);
    };
    dvbpsi_pmt_attach(open.handle, 1, count, &streams);
    guardSections(open.handle);
    uint8_t cc = 0;
    push(open.handle, 0x100, psi::section(0x02, 1, 0, payload, number, last), cc);
    dvbpsi_pmt_detach(open.handle);
    return streams;
}

TEST(SectionGuard, SectionsPassOnlyIfTheirLengthsFit) {
    const Bytes head = concat({u16(0xE101), loop12({})});
    const Bytes stream = concat({{0x1B}, u16(0xE101), loop12({0x52, 1, 7})});
    EXPECT_EQ(reportedStreams(head), 0);
    EXPECT_EQ(reportedStreams(concat({head, stream, stream})), 2);
    // A descriptor that leads out of its loop is the decoder's to leave out; a loop that leads out of the
    // section is not.
    EXPECT_EQ(reportedStreams(concat({head, {0x1B}, u16(0xE101), loop12({0x52, 200})})), 1);
    EXPECT_EQ(reportedStreams(concat({head, {0x1B}, u16(0xE101), u16(0xF001)})), -1);
    EXPECT_EQ(reportedStreams(concat({head, stream, {0x1B}})), -1);
    EXPECT_EQ(reportedStreams(concat({u16(0xE101), u16(0xFFFF)})), -1);
    EXPECT_EQ(reportedStreams({}), -1);
    EXPECT_EQ(reportedStreams(head, 1, 0), -1);
}

// Whether an SI section makes its demultiplexer print something when it comes twice.
bool prints(uint8_t tableId, const Bytes& payload) {
    const std::unique_ptr<ts_stream_t, decltype(&sarnDvbPsi_exit)> stream(sarnDvbPsi_init(0),
                                                                          sarnDvbPsi_exit);
    uint8_t cc = 0;
    testing::internal::CaptureStdout();
    for (int time = 0; time < 2; ++time) {
        push(stream->sdt_handle, 0x11, psi::section(tableId, 1, 0, payload), cc);
    }
    return !testing::internal::GetCapturedStdout().empty();
}

// The library goes on behind the last of these descriptors, wherever it claims to end.
TEST(SectionGuard, DescriptorsFillTheirLoopsInNetworksBouquetsAndEvents) {
    const Bytes event = concat({u16(1), u16(9), {0, 0x4E}, Bytes(10)});
    const std::pair<Bytes, bool> loops[] = {
        {{}, true}, {{0x52, 1, 7}, true}, {{0x52, 2, 7}, false}, {{0x52, 0, 0x52}, false}};
    for (const auto& [descriptors, fits] : loops) {
        const Bytes loop = loop12(descriptors);
        EXPECT_EQ(prints(0x40, concat({loop, loop12({})})), fits);
        EXPECT_EQ(prints(0x4A, concat({loop12({}), loop12(concat({u16(1), u16(2), loop}))})), fits);
        EXPECT_EQ(prints(0x4E, concat({event, loop})), fits);
    }
}

// Well-formed payloads of every table, to be damaged.
Bytes samplePayload(uint8_t tableId) {
    const Bytes loop = loop12(psi::descriptor(0x52, {1, 2, 3}));
    const Bytes transports = concat({u16(1), u16(2), loop, u16(3), u16(4), loop});
    switch (tableId) {
        case 0x00:
            return concat({u16(1), u16(0xE100), u16(2), u16(0xE200)});
        case 0x01:
            return psi::descriptor(9, {1, 2, 3, 4});
        case 0x02:
            return concat({u16(0xE101), loop, {0x1B}, u16(0xE101), loop, {0x03}, u16(0xE102), loop});
        case 0x42:
            return concat({u16(1), {0xFF}, u16(1), {0xFC}, loop, u16(2), {0xFC}, loop});
        case 0x4E:
            return concat({u16(1), u16(2), {0, 0x4E}, Bytes(10), loop, Bytes(10), loop});
        case 0x70:
            return Bytes(5);
        case 0x73:
            return concat({Bytes(5), loop});
        default:
            return concat({loop, loop12(transports)});
    }
}

Bytes damagedSection(uint8_t tableId, std::mt19937& random) {
    const auto below = [&random](std::size_t limit) { return random() % limit; };
    Bytes payload = samplePayload(tableId);
    for (std::size_t count = below(4); count != 0; --count) {
        payload[below(payload.size())] = below(2) == 0 ? 0xFF : psi::low8(random());
    }
    if (below(4) == 0) {
        payload.resize(below(payload.size() + 1));
    }
    if ((tableId >= 0x70) != (below(20) == 0)) {
        return psi::shortSection(tableId, payload, tableId != 0x70);
    }
    return psi::section(tableId, static_cast<uint16_t>(1 + below(3)), psi::low8(below(3)), payload,
                        psi::low8(below(3)), psi::low8(below(3)), below(4) != 0);
}

// Feeds a whole context with damaged sections whose checksums are right. Sanitizers and valgrind see what the
// library does with those that pass; without them it at least must neither stop nor crash.
TEST(SectionGuard, DamagedSectionsLeaveTheContextSound) {
    constexpr std::pair<uint8_t, uint16_t> kRoutes[] = {{0x00, 0},    {0x01, 1},    {0x02, 0x100},
                                                        {0x40, 0x11}, {0x42, 0x11}, {0x4A, 0x11},
                                                        {0x4E, 0x12}, {0x70, 0x14}, {0x73, 0x14}};
    const std::unique_ptr<ts_stream_t, decltype(&sarnDvbPsi_exit)> stream(sarnDvbPsi_init(0),
                                                                          sarnDvbPsi_exit);
    std::array<uint8_t, 0x101> cc{};
    std::mt19937 random(13818);
    int64_t now = 1000;
    testing::internal::CaptureStdout();
    for (int round = 0; round < 6000; ++round) {
        const auto& [tableId, pid] = kRoutes[random() % std::size(kRoutes)];
        for (auto& packet : psi::packetize(pid, damagedSection(tableId, random), cc[pid])) {
            if (random() % 16 == 0) {  // an adaptation field, perhaps one that leads out of the packet
                packet[3] |= 0x20;
                packet[4] = psi::low8(random());
            }
            sarnDvbPsi_process(stream.get(), packet.data(), static_cast<int32_t>(packet.size()), ++now, 0);
        }
    }
    const std::string printed = testing::internal::GetCapturedStdout();
    for (const char* heading : {"NIT: ", "SDT: ", "BAT: ", "Event id: ", "TDT: ", "TOT: "}) {
        EXPECT_NE(printed.find(heading), std::string::npos) << heading;
    }
}

TEST(SectionGuard, InventedTablesAreBounded) {
    const std::unique_ptr<ts_stream_t, decltype(&sarnDvbPsi_exit)> stream(sarnDvbPsi_init(0),
                                                                          sarnDvbPsi_exit);
    const Bytes payload = concat({u16(1), u16(2), {0, 0x6F}});
    uint8_t cc = 0;
    for (uint32_t table = 0; table < kMaxSubtables + 50U; ++table) {
        push(stream->eit_handle, 0x12, psi::section(0x50, static_cast<uint16_t>(table), 0, payload, 0, 9),
             cc);
    }
    int subtables = 0;
    for (const dvbpsi_demux_subdec_t* subtable =
             reinterpret_cast<dvbpsi_demux_t*>(stream->eit_handle->p_decoder)->p_first_subdec;
         subtable != nullptr; subtable = subtable->p_next) {
        ++subtables;
    }
    EXPECT_EQ(subtables, kMaxSubtables);
    for (uint32_t number = 1; number < 9; ++number) {
        for (uint16_t table = 0; table < kMaxSubtables; table += 2) {
            push(stream->eit_handle, 0x12, psi::section(0x50, table, 0, payload, psi::low8(number), 9), cc);
        }
    }
    EXPECT_EQ(stream->si_sections[1], kMaxHeldSections);
}

}  // namespace
