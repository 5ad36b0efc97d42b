// The checks of TR 101 290: each planted fault is found as often as it is there, and nothing else is.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/meterStream.h"

namespace {

using psi::Bytes;
using psi::TsPacket;
using test::checkOf;
using test::kAudioPid;
using test::kPmtPid;
using test::kVideoPid;
using test::MeterStream;
using Counts = std::map<std::string, uint64_t>;
using Plant = std::function<void(double, TsPacket&)>;

// A fault of each packet of a PID from a time on, as long as there are some `left`.
Plant each(uint16_t pid, double fromMs, std::function<void(TsPacket&)> change, int left = INT_MAX) {
    return [=](double ms, TsPacket& packet) mutable {
        if (left > 0 && ms >= fromMs && MeterStream::pidOf(packet) == pid) {
            --left;
            change(packet);
        }
    };
}
Plant once(uint16_t pid, double fromMs, std::function<void(TsPacket&)> change) {
    return each(pid, fromMs, std::move(change), 1);
}

void leaveOut(TsPacket& packet) {
    packet = MeterStream::null();
}
void scramble(TsPacket& packet) {
    packet[3] |= 0x80;
}

Bytes sdt(uint8_t table = 0x42, uint8_t version = 0) {
    return psi::section(table, 1, version, psi::concat({psi::u16(1), {0xFF}}));
}
Bytes nit(uint8_t table = 0x40) {
    return psi::section(table, 1, 0, psi::concat({psi::loop12({}), psi::loop12({})}));
}
Bytes eit(uint8_t number, uint8_t table = 0x4E) {
    return psi::section(table, 1, 0, psi::concat({psi::u16(1), psi::u16(1), {1, table}}), number, 1);
}
Bytes tdt() {
    return psi::shortSection(0x70, {0xE0, 0, 0, 0, 0}, false);
}
Bytes broken(Bytes section) {
    section.back() ^= 1;
    return section;
}

struct Case {
    const char* name;
    Counts counts;
    test::StreamPlan plan = {};
    std::function<void(std::vector<TsPacket>&)> change = nullptr;
    bool required = false;  // service information
};

class MeterChecks : public testing::TestWithParam<Case> {};

TEST_P(MeterChecks, FindWhatIsPlantedAndNothingElse) {
    std::vector<TsPacket> packets = MeterStream(GetParam().plan).packets();
    if (GetParam().change) {
        GetParam().change(packets);
    }
    meter::Settings settings;
    settings.serviceInformationRequired = GetParam().required;
    EXPECT_EQ(test::countsOf(test::measureFile(packets, settings)), GetParam().counts);
}

// The first packet of a PID from a time on.
std::size_t find(const std::vector<TsPacket>& packets, uint16_t pid, double ms) {
    std::size_t i = MeterStream::at(ms);
    while (MeterStream::pidOf(packets[i]) != pid) {
        ++i;
    }
    return i;
}

const std::vector<test::Repeated> kWholeSi = {{0x10, nit(), 1000, 5},         {0x11, sdt(), 500, 6},
                                              {0x12, eit(0), 500, 7},         {0x12, eit(1), 500, 17},
                                              {0x14, tdt(), 10000, 8},        {0x12, eit(0, 0x4F), 4000, 9},
                                              {0x12, eit(1, 0x4F), 4000, 11}, {0x10, nit(0x41), 5000, 12}};
std::vector<test::Repeated> with(std::vector<test::Repeated> tables, test::Repeated more) {
    tables.push_back(std::move(more));
    return tables;
}

// The clock steps after two seconds.
int64_t ahead(int64_t t, int64_t step) {
    return t + (t > 54'000'000 ? step : 0);
}

const Case kCases[] = {
    {"Clean", {}},
    {"CleanAcrossTheClocksWrap",
     {},
     {.clock = [](int64_t t) { return (int64_t{300} << 33) - 54'000'000 + t; }}},
    {"CleanWithServiceInformation", {}, {.tables = kWholeSi}},
    {"OneWrongSyncByte",
     {{"1.2", 1}, {"1.4", 1}},
     {},
     [](std::vector<TsPacket>& p) { p[find(p, kVideoPid, 1010)][0] = 0; }},
    {"ThreeWrongSyncBytesTwice",
     {{"1.1", 2}, {"1.2", 6}, {"1.4", 3}},
     {},
     [](std::vector<TsPacket>& p) {
         for (const double ms : {1000.0, 2000.0}) {
             for (std::size_t i = MeterStream::at(ms); i < MeterStream::at(ms) + 3; ++i) {
                 p[i] = MeterStream::null();
                 p[i][0] = 0;
             }
         }
     }},
    {"PatMissing",
     {{"1.3.a", 1}},
     {.plant = each(0, 1000, leaveOut, 7)},
     [](std::vector<TsPacket>& p) {  // whose counters go on
         uint8_t counter = 0;
         for (TsPacket& packet : p)
             if (MeterStream::pidOf(packet) == 0)
                 packet[3] = static_cast<uint8_t>(0x10 | (counter++ & 15));
     }},
    {"PatOfAnotherVersionEachSecond",
     {},
     {.plant =
          [](double ms, TsPacket& p) {
              if (MeterStream::pidOf(p) == 0) {
                  const auto version = static_cast<uint8_t>(ms / 1000);
                  const Bytes pat =
                      psi::section(0, 1, version, psi::concat({psi::u16(1), psi::u16(0xE000 | kPmtPid)}));
                  std::ranges::copy(pat, p.begin() + 5);
              }
          }}},
    {"OtherTableOnThePatsPid", {{"1.3.a", 2}}, {.tables = {{0, sdt(), 2000, 1050}}}},
    {"ScrambledPatPacket", {{"1.3.a", 1}}, {.plant = once(0, 1000, scramble)}},
    {"NoPat", {{"1.3.a", 1}, {"3.4.a", 3}}, {.plant = each(0, 0, leaveOut)}},
    {"CounterJumps",
     {{"1.4", 2}},
     {},
     [](std::vector<TsPacket>& p) {
         for (const double ms : {1010.0, 2010.0})
             leaveOut(p[find(p, kVideoPid, ms)]);
     }},
    {"APacketThreeTimes",
     {{"1.4", 1}},
     {},
     [](std::vector<TsPacket>& p) {
         std::size_t found = find(p, kVideoPid, 1000);
         while (MeterStream::pidOf(p[found + 1]) != 0x1FFF || MeterStream::pidOf(p[found]) != kVideoPid)
             ++found;
         const TsPacket again = p[found];
         p.insert(p.begin() + static_cast<std::ptrdiff_t>(found) + 1, again);
         p[found + 2] = again;
     }},
    {"EqualCounterOtherContent",
     {{"1.4", 2}},
     {},
     [](std::vector<TsPacket>& p) {
         const std::size_t found = find(p, kVideoPid, 1010);
         const uint8_t counter = p[found][3];
         std::size_t next = found + 1;
         while (MeterStream::pidOf(p[next]) != kVideoPid)
             ++next;
         p[next][3] = counter;
     }},
    {"PmtMissing", {{"1.5.a", 1}, {"3.4.a", 2}}, {.pmt = false}},
    {"ScrambledPmtPacket", {{"1.5.a", 1}}, {.plant = once(kPmtPid, 1000, scramble)}},
    {"AudioSilentForEightSeconds",
     {{"1.6", 1}, {"2.5", 1}},
     {.seconds = 12, .audioSilentFromMs = 2000, .audioSilentUntilMs = 10000}},
    {"AudioSilentForFourSeconds",
     {{"2.5", 1}},
     {.seconds = 8, .audioSilentFromMs = 2000, .audioSilentUntilMs = 6000}},
    {"TransportErrorsHideAll",
     {{"2.1", 2}},
     {.plant = each(
          kVideoPid, 1000,
          [](TsPacket& p) {
              p[1] |= 0x80;
              p[3] = 0x1A;
          },
          2)}},
    {"BrokenSections", {{"2.2", 3}}, {.tables = {{0x11, broken(sdt()), 1000, 1050, 3500}}}},
    {"BrokenSectionsOfATableThatIsNotLookedAt",
     {},
     {.tables = {{kPmtPid, broken(psi::section(0x90, 1, 0, {1, 2, 3})), 1000, 1050}}}},
    {"ClocksSixtyMillisecondsApart", {}, {.pcrMs = 60}},
    {"ClocksTooFarApart",
     {{"2.3.a", 1}, {"2.3.b", 1}},
     {.plant =
          [](double ms, TsPacket& p) {
              if (MeterStream::pidOf(p) == kVideoPid && (p[3] & 0x20) != 0 && ms > 1000 && ms < 1080) {
                  const uint8_t counter = p[3] & 0xF;
                  p = MeterStream::header(kVideoPid, false, static_cast<uint8_t>(0x10 | counter));
              }
          }}},
    {"ClockStepsBackByOneSecond",
     {{"2.3.b", 1}},
     {.clock = [](int64_t t) { return ahead(t, -27'000'000) + 81'000'000; }}},
    {"ClockStepsAheadIsNoLoss",
     {{"1.3.a", 1}, {"1.5.a", 1}, {"2.3.a", 1}, {"2.3.b", 1}},
     {.clock = [](int64_t t) { return ahead(t, 13'500'000); }}},
    {"SignalledStep",
     {},
     {.plant =
          [done = false](double ms, TsPacket& p) mutable {
              if (!done && ms > 2000 && MeterStream::pidOf(p) == kVideoPid && (p[3] & 0x20) != 0) {
                  p[5] |= 0x80;
                  done = true;
              }
          },
      .clock = [](int64_t t) { return ahead(t, 270'000'000); }}},
    {"ClockOffByTwoMicroseconds",
     {{"2.4", 2}},
     {.clock =
          [](int64_t t) {
              const int64_t slot = t / (40 * 27000);
              return t + (slot == 40 ? 54 : slot == 80 ? -54 : 0);
          }}},
    {"ScrambledWithoutCat", {{"2.6", 1}}, {.plant = each(kAudioPid, 500, scramble)}},
    {"ScrambledWithCat",
     {},
     {.tables = {{1, psi::section(1, 0xFFFF, 0, {}), 400, 50}}, .plant = each(kAudioPid, 500, scramble)}},
    {"OneStrayScrambledPacket", {}, {.plant = once(kVideoPid, 1010, scramble)}},
    {"OtherTableOnTheCatsPid", {{"2.6", 4}}, {.tables = {{1, sdt(), 1000, 1050}}}},
    {"NitTooLate", {{"3.1.a", 1}, {"3.2", 1}}, {.seconds = 13, .tables = {{0x10, nit(), 10500, 50}}}},
    {"NitOpenAtTheEnd", {{"3.1.a", 1}, {"3.2", 1}}, {.seconds = 11, .tables = {{0x10, nit(), 20000, 50}}}},
    {"NitNeverButRequired",
     {{"3.1.a", 1}, {"3.2", 4}, {"3.5.a", 1}, {"3.6.a", 1}, {"3.8", 1}},
     {.seconds = 31},
     nullptr,
     true},
    {"NitOtherCountsWhenItComes",
     {{"3.1.b", 1}, {"3.2", 1}},
     {.seconds = 23, .tables = {{0x10, nit(0x41), 11000, 50, 12000}}}},
    {"ForeignTables",
     {{"3.1.a", 1}, {"3.5.a", 1}, {"3.6.a", 1}, {"3.7", 1}, {"3.8", 1}},
     {.tables = {{0x10, sdt(), 9000, 50},
                 {0x11, nit(), 9000, 60},
                 {0x12, nit(), 9000, 70},
                 {0x13, tdt(), 9000, 80},
                 {0x14, nit(), 9000, 90}}}},
    {"SectionsTooClose",
     {{"3.1.a", 1}, {"3.2", 4}, {"3.5.a", 1}, {"3.6.a", 1}, {"3.8", 1}},
     {.seconds = 1.5,
      .tables = {{0x10, nit(), 20, 50, 80},
                 {0x11, sdt(), 20, 50, 80},
                 {0x12, eit(0), 20, 50, 80},
                 {0x12, eit(1), 40, 50, 80},
                 {0x14, tdt(), 20, 50, 80}}}},
    {"EveryVersionOfATableCounts",
     {},
     {.tables = {{0x11, sdt(0x42, 0), 2000, 50}, {0x11, sdt(0x42, 1), 2000, 1050}}}},
    {"SdtTooLate", {{"3.2", 1}, {"3.5.a", 1}}, {.seconds = 4, .tables = {{0x11, sdt(), 2100, 50, 3000}}}},
    {"BatAndTotAreInTheRepetitionAlone",
     {{"3.2", 1}},
     {.seconds = 12,
      .tables = {{0x11, psi::section(0x4A, 1, 0, psi::concat({psi::loop12({}), psi::loop12({})})), 11000,
                  50}}}},
    {"TotTooLate",
     {{"3.2", 1}},
     {.seconds = 33,
      .tables = {{0x14, psi::shortSection(0x73, {0xE0, 0, 0, 0, 0, 0xF0, 0}, true), 31000, 50}}}},
    {"SdtOtherCountsWhenItComes",
     {{"3.2", 1}, {"3.5.b", 1}},
     {.seconds = 23, .tables = {{0x11, sdt(0x46), 11000, 50, 12000}}}},
    {"EitOtherCountsWhenItComes",
     {{"3.2", 2}, {"3.6.b", 2}},
     {.seconds = 23,
      .tables = {{0x12, eit(0, 0x4F), 11000, 50, 12000}, {0x12, eit(1, 0x4F), 11000, 60, 12000}}}},
    {"RunningStatusTooClose",
     {{"3.2", 1}, {"3.7", 1}},
     {.tables = {{0x13, psi::shortSection(0x71, {0, 1, 0, 1, 0, 1, 0, 1, 0xFC}, false), 20, 50, 80}}}},
    {"ScrambledAudioHasNoTimeStampsToMiss", {}, {.audioMs = 800, .plant = each(kAudioPid, 0, scramble)}},
    {"TimeStampsTooFarApart", {{"2.5", 6}}, {.audioMs = 750}},
    {"StillPicturesHaveFewTimeStamps",
     {},
     // video_stream_descriptor: MPEG_1_only_flag and still_picture_flag
     {.pcrMs = 90,
      .pmt = false,
      .tables = {{kPmtPid,
                  psi::pmtSection(1, 0, kVideoPid, {{0x02, kVideoPid, psi::descriptor(0x02, {0x07})}}), 100,
                  1}},
      .plant =
          [](double ms, TsPacket& p) {
              if (MeterStream::pidOf(p) == kAudioPid)
                  leaveOut(p);
              // PCRs go on, PES packets begin each 900 ms
              if (MeterStream::pidOf(p) == kVideoPid && (p[3] & 0x20) != 0 &&
                  static_cast<int>(ms / 90) % 10 != 0) {
                  p[1] &= 0xBF;
              }
          }}},
    {"FollowingEventMissing", {{"3.6.c", 1}}, {.tables = {{0x12, eit(0), 500, 50}}}},
    {"UnreferencedPid",
     {{"3.4.a", 1}},
     {.plant = once(0x1FFF, 1000, [](TsPacket& p) { p = MeterStream::header(0x999, false, 0x10); })}},
    {"SchedulesAreHeldToNothing", {}, {.tables = with(kWholeSi, {0x12, eit(0, 0x50), 10000, 30})}},
};
INSTANTIATE_TEST_SUITE_P(All, MeterChecks, testing::ValuesIn(kCases),
                         [](const auto& tested) { return tested.param.name; });

TEST(MeterChecks, TellSecondsLastAndWhatHolds) {
    const std::vector<TsPacket> packets =
        MeterStream({.seconds = 12, .audioSilentFromMs = 2100, .audioSilentUntilMs = 9500}).packets();
    const meter::Report whole = test::measureFile(packets);
    const meter::CheckReport& ended = checkOf(whole, "1.6");
    EXPECT_EQ(ended.count, 1);
    EXPECT_EQ(ended.seconds, 3);  // from 7 to 9.5
    EXPECT_NEAR(ended.last.value(), 9.5, 0.05);
    EXPECT_FALSE(ended.active);
    EXPECT_THAT(ended.pids, testing::ElementsAre(testing::Pair(kAudioPid, 1)));
    EXPECT_EQ(whole.checks.size(), 24);

    const meter::Report cut = test::measureFile(test::upTo(8500, packets));
    EXPECT_TRUE(checkOf(cut, "1.6").active);
    EXPECT_EQ(checkOf(cut, "1.6").seconds, 2);
    EXPECT_NEAR(checkOf(cut, "1.6").last.value(), 8.5, 0.01);
}

TEST(MeterScrambling, DamagedPacketsAndThoseWithoutPayloadAreNotTakenForClear) {
    MeterStream stream;
    int count = 0;
    stream.plant = [&](double, TsPacket& packet) {
        if (MeterStream::pidOf(packet) != kAudioPid) {
            return;
        }
        packet[3] |= 0x80;
        if (++count % 10 == 0) {
            packet[1] |= 0x80;  // transport_error_indicator: its other bits mean nothing
            packet[3] &= 0x3F;
        } else if (count % 10 == 5) {
            packet[3] &= 0x0F;  // neither adaptation field nor payload
        }
    };
    const meter::Report report = test::measureFile(stream.packets());
    const auto audio = std::ranges::find(report.pids, kAudioPid, &meter::PidReport::pid);
    ASSERT_NE(audio, report.pids.end());
    EXPECT_EQ(audio->scrambling, "even");
    EXPECT_EQ(audio->keyChanges, 0);
}

}  // namespace
