// What is absent, unreferenced or gone: when it begins to be so, and when it ends.
#include <gtest/gtest.h>

#include "support/meterStream.h"

namespace {

using psi::TsPacket;
using test::checkOf;
using test::kAudioPid;
using test::kPmtPid;
using test::kVideoPid;
using test::MeterStream;

TEST(MeterAbsences, EndAnUnreferencedPidOnceItIsReferredTo) {
    const auto pmt = [](uint8_t version, std::vector<psi::ElementaryStream> streams) {
        streams.insert(streams.begin(), {{0x1B, kVideoPid}, {0x03, kAudioPid}});
        return psi::pmtSection(1, version, kVideoPid, streams);
    };
    const auto stray = [done = false](double ms, TsPacket& packet) mutable {
        if (!done && ms >= 1000 && MeterStream::pidOf(packet) == 0x1FFF) {
            packet = MeterStream::header(0x999, false, 0x10);
            done = true;
        }
    };
    const std::vector<test::Repeated> tables = {{kPmtPid, pmt(0, {}), 100, 1, 3000},
                                                {kPmtPid, pmt(1, {{0x06, 0x999}}), 100, 3001}};
    const auto packets = MeterStream({.pmt = false, .tables = tables, .plant = stray}).packets();
    const meter::Report whole = test::measureFile(packets);
    const meter::CheckReport& ended = checkOf(whole, "3.4.a");
    EXPECT_EQ(ended.count, 1);
    EXPECT_EQ(ended.seconds, 3);  // from 1.5 to 3
    EXPECT_FALSE(ended.active);
    EXPECT_TRUE(checkOf(test::measureFile(test::upTo(2900, packets)), "3.4.a").active);
}

// A sub-table that went for good is absent for a while; one that should be there is absent until it comes.
TEST(MeterAbsences, EndTheAbsenceOfWhatIsGone) {
    const auto network = [](uint16_t id) {
        return psi::section(0x40, id, 0, psi::concat({psi::loop12({}), psi::loop12({})}));
    };
    const auto stream = [](uint16_t id) {
        return psi::section(0x42, id, 0, psi::concat({psi::u16(1), {0xFF}}));
    };
    const auto events = [](uint16_t service, uint8_t number) {
        return psi::section(0x4E, service, 0, psi::concat({psi::u16(1), psi::u16(1), {1, 0x4E}}), number, 1);
    };
    struct Gone {
        const char* what;
        const char* id;
        std::vector<test::Repeated> tables;
        bool active;
    };
    const Gone kGone[] = {
        {"another network",
         "3.1.a",
         {{0x10, network(1), 1000, 50, 3000}, {0x10, network(2), 1000, 3050}},
         false},
        {"no network", "3.1.a", {{0x10, network(1), 1000, 50, 3000}}, true},
        {"another stream", "3.5.a", {{0x11, stream(1), 500, 50, 3000}, {0x11, stream(2), 500, 3050}}, false},
        {"no services", "3.5.a", {{0x11, stream(1), 500, 50, 3000}}, true},
        {"a service that the PAT lists",
         "3.6.a",
         {{0x12, events(1, 0), 500, 50, 3000}, {0x12, events(1, 1), 500, 60, 3000}},
         true},
        {"a service that it does not list",
         "3.6.a",
         {{0x12, events(2, 0), 500, 50, 3000}, {0x12, events(2, 1), 500, 60, 3000}},
         false},
    };
    for (const Gone& gone : kGone) {
        SCOPED_TRACE(gone.what);
        const auto packets = MeterStream({.seconds = 75, .tables = gone.tables}).packets();
        EXPECT_TRUE(checkOf(test::measureFile(test::upTo(30000, packets)), gone.id).active);
        const meter::Report whole = test::measureFile(packets);
        const meter::CheckReport& ended = checkOf(whole, gone.id);
        EXPECT_GE(ended.count, 1);
        EXPECT_EQ(ended.active, gone.active);
    }
}

// However many sub-tables of other streams there are, the stream's own are held to their intervals.
TEST(MeterAbsences, HaveRoomForTheActualTables) {
    MeterStream stream;
    stream.seconds = 7;
    for (uint16_t i = 0; i < 1100; ++i) {
        stream.tables.push_back(
            {0x11, psi::section(0x46, i, 0, psi::concat({psi::u16(1), {0xFF}})), 1e9, 50 + 2.0 * i});
    }
    stream.tables.push_back(
        {0x11, psi::section(0x42, 1, 0, psi::concat({psi::u16(1), {0xFF}})), 500, 3000, 4000});
    EXPECT_EQ(checkOf(test::measureFile(stream.packets()), "3.5.a").count, 1);
}

}  // namespace
