// What is kept of PIDs from one datagram to the next: counters, the packet before, and many of them.
#include <gtest/gtest.h>

#include <functional>

#include "checks/presence.h"
#include "packets/synchronisation.h"
#include "support/meterStream.h"

namespace {

using psi::TsPacket;
using test::MeterStream;

class MeterPackets : public testing::Test {
  protected:
    void feed(const std::vector<TsPacket>& packets) {
        arrival_ += 1'000'000;
        const psi::Bytes payload = test::joined(packets);
        analyser_.feed(test::datagram(arrival_, payload));
    }
    static TsPacket packet(uint16_t pid, unsigned counter) {
        TsPacket packet = MeterStream::header(pid, false, static_cast<uint8_t>(0x10 | (counter & 0xF)));
        for (std::size_t i = 4; i < packet.size(); ++i) {
            packet[i] = psi::low8(i * 7 + pid);
        }
        return packet;
    }
    static TsPacket withPcr(uint16_t pid, unsigned counter, uint8_t value) {
        TsPacket made = packet(pid, counter);
        made[3] |= 0x20;
        made[4] = 7;
        made[5] = 0x10;
        for (std::size_t i = 6; i < 12; ++i) {
            made[i] = value;
        }
        return made;
    }
    uint64_t count(std::string_view id) const {
        return test::checkOf(analyser_.report(), id).count;
    }
    meter::PidReport pid(uint16_t pid) const {
        const meter::Report report = analyser_.report();
        const auto found = std::ranges::find(report.pids, pid, &meter::PidReport::pid);
        return found != report.pids.end() ? *found : meter::PidReport{};
    }

    meter::ChannelAnalyser analyser_{meter::Settings{}};

  private:
    int64_t arrival_ = 0;
};

TEST_F(MeterPackets, AreRepetitionsWhenEqualToTheLastOfTheDatagramBefore) {
    const auto flip = [](std::size_t at) { return [at](TsPacket& packet) { packet[at] ^= 1; }; };
    const auto swap = [](std::size_t one, std::size_t other) {
        return [=](TsPacket& packet) {
            std::swap_ranges(packet.begin() + static_cast<std::ptrdiff_t>(one),
                             packet.begin() + static_cast<std::ptrdiff_t>(one + 8),
                             packet.begin() + static_cast<std::ptrdiff_t>(other));
        };
    };
    const struct {
        const char* name;
        TsPacket packet;
        std::function<void(TsPacket&)> change;
        bool repetition;
    } rows[] = {
        {"equal", packet(0x100, 3), [](TsPacket&) {}, true},
        {"another byte in front", packet(0x100, 3), flip(4), false},
        {"another byte amid", packet(0x100, 3), flip(100), false},
        {"another byte at the end", packet(0x100, 3), flip(187), false},
        {"bytes change places", packet(0x100, 3), swap(8, 16), false},
        {"bytes far apart change places", packet(0x100, 3), swap(16, 80), false},
        {"another PCR", withPcr(0x100, 3, 1), [](TsPacket& packet) { packet[9] ^= 1; }, true},
        {"another byte behind the PCR", withPcr(0x100, 3, 1), flip(12), false},
        {"another flag in front of the PCR", withPcr(0x100, 3, 1),
         [](TsPacket& packet) { packet[5] |= 0x20; }, false},
    };
    for (const auto& row : rows) {
        for (const bool together : {false, true}) {
            SCOPED_TRACE(testing::Message() << row.name << (together ? ", in one datagram" : ""));
            analyser_ = meter::ChannelAnalyser(meter::Settings{});
            TsPacket again = row.packet;
            row.change(again);
            if (together) {
                feed({MeterStream::null(), row.packet, again});
            } else {
                feed({row.packet, MeterStream::null()});
                feed({MeterStream::null()});
                feed({again});
            }
            EXPECT_EQ(pid(0x100).repeated, row.repetition ? 1 : 0);
            EXPECT_EQ(count("1.4"), row.repetition ? 0 : 1);
        }
    }
}

// Places in tables are few, low bytes of PIDs are the same, and the PIDs beyond the bound have no record.
TEST_F(MeterPackets, OfManyPidsAreCountedEach) {
    constexpr uint16_t kFirst = 0x20;
    constexpr uint16_t kPids = 300;
    constexpr uint16_t kKept = 254 - 8;
    for (unsigned round = 0; round < 5; ++round) {
        for (uint16_t i = 0; i < kPids; ++i) {
            feed({packet(static_cast<uint16_t>(kFirst + i), round)});
        }
    }
    feed({packet(kFirst, 8), packet(kFirst + kKept - 1, 8)});  // 3 are missing of each
    const meter::Report report = analyser_.report();
    ASSERT_EQ(report.pids.size(), kKept);
    for (const meter::PidReport& one : report.pids) {
        const bool gap = one.pid == kFirst || one.pid == kFirst + kKept - 1;
        EXPECT_EQ(one.packets, gap ? 6 : 5) << one.pid;
        EXPECT_EQ(one.lost, gap ? 3 : 0) << one.pid;
    }
    EXPECT_EQ(report.packets.received, 5 * kPids + 2);
    EXPECT_EQ(count("1.4"), 2);
    // Null packets and tables have a place, however late they come; the others are still not held to
    // counters.
    feed({MeterStream::null(), MeterStream::null(), packet(0, 0), packet(0, 4)});
    feed({packet(kFirst + kPids - 1, 9), packet(kFirst + kPids - 2, 2), packet(kFirst + kPids - 1, 7)});
    EXPECT_EQ(analyser_.report().packets.null, 2);
    EXPECT_EQ(pid(0).lost, 3);
    EXPECT_EQ(count("1.4"), 3);
}

// A stream whose PMT moves from one PID to another after 2 s.
std::vector<TsPacket> withMovingPmt(double seconds, std::function<void(double, TsPacket&)> plant) {
    constexpr uint16_t kThere = 0x1F0;
    const auto move = [plant = std::move(plant)](double ms, TsPacket& packet) {
        const uint16_t pid = MeterStream::pidOf(packet);
        if (ms >= 2000 && pid == test::kPmtPid) {
            packet[1] = static_cast<uint8_t>((packet[1] & 0xE0) | kThere >> 8);
            packet[2] = psi::low8(kThere);
        } else if (ms >= 2000 && pid == 0) {
            const psi::Bytes pat = psi::concat(
                {{0}, psi::section(0, 1, 1, psi::concat({psi::u16(1), psi::u16(0xE000 | kThere)}))});
            std::ranges::copy(pat, packet.begin() + 4);
        } else if (pid == 0x1FFF) {
            plant(ms, packet);
        }
    };
    return MeterStream({.seconds = seconds, .plant = move}).packets();
}
// Null packets become packets of 1000 PIDs in turn.
std::function<void(double, TsPacket&)> otherPids(double untilMs, uint8_t flags) {
    return [=, next = 0U](double ms, TsPacket& packet) mutable {
        if (ms < untilMs) {
            const auto pid = static_cast<uint16_t>(0x400 + next++ % 1000);
            packet = MeterStream::header(pid, false, 0x10);
            packet[1] |= flags;
        }
    };
}
uint64_t tracked(const meter::Report& report) {
    uint64_t packets = report.packets.notTracked;
    std::ranges::for_each(report.pids, [&](const meter::PidReport& pid) { packets += pid.packets; });
    return packets;
}

// Packets with transport_error_indicator name PIDs that do not exist: they are counted, and take no place.
TEST(MeterPlaces, AreNotTakenByDamagedPackets) {
    const meter::Report report = test::measureFile(withMovingPmt(4, otherPids(1900, 0x80)));
    const auto counts = test::countsOf(report);
    ASSERT_EQ(counts.size(), 1);
    EXPECT_GT(counts.at("2.1"), 1000);
    EXPECT_EQ(report.packets.notTracked, counts.at("2.1"));
    EXPECT_EQ(tracked(report), report.packets.received);
    EXPECT_LT(report.pids.size(), 10);
}

// A full table has a place for what tables refer to all the same: a PMT that moves is no PMT that is missing.
TEST(MeterPlaces, AreThereForPidsThatTablesReferTo) {
    const meter::Report report = test::measureFile(withMovingPmt(4, otherPids(1e9, 0)));
    const auto counts = test::countsOf(report);
    EXPECT_FALSE(counts.contains("1.5.a"));
    EXPECT_FALSE(counts.contains("1.6"));
    EXPECT_EQ(std::ranges::count(report.pids, 0x1F0, &meter::PidReport::pid), 1);
    EXPECT_GT(report.packets.notTracked, 100);
    EXPECT_EQ(tracked(report), report.packets.received);
    EXPECT_LE(report.pids.size(), 254);
}

// PIDs that were there once give their places to others after a minute, and are still unreferenced.
TEST(MeterPlaces, AreGivenBackByPidsThatAreLongSilent) {
    constexpr uint16_t kLate = 0x1000;
    const meter::Report report =
        test::measureFile(withMovingPmt(70, [early = otherPids(1500, 0)](double ms, TsPacket& packet) {
            early(ms, packet);
            if (ms > 3000 && MeterStream::pidOf(packet) == 0x1FFF) {
                packet = MeterStream::header(kLate, false, 0x10);
            }
        }));
    const auto late = std::ranges::find(report.pids, kLate, &meter::PidReport::pid);
    ASSERT_NE(late, report.pids.end());
    EXPECT_GT(late->packets, 1000);
    EXPECT_GT(report.packets.notTracked, 30'000);
    EXPECT_EQ(tracked(report), report.packets.received);
    const meter::CheckReport& unreferenced = test::checkOf(report, "3.4.a");
    EXPECT_TRUE(unreferenced.active);
    EXPECT_GE(unreferenced.count, 200);
    EXPECT_LE(unreferenced.count, 248);  // each PID once
}

// Nothing but zeros is no packet, whatever is expected of a PID.
TEST_F(MeterPackets, WithoutSyncByteGoOnWithNothing) {
    TsPacket damaged = packet(0x100, 1);
    damaged[1] |= 0x80;
    feed({packet(0x100, 0), damaged});
    feed({MeterStream::null(), TsPacket{}});
    EXPECT_EQ(count("1.2"), 1);
    EXPECT_EQ(pid(0x100).packets, 2);
    feed({packet(0x100, 9)});
    EXPECT_EQ(count("1.4"), 0);
}

// Each letter a packet: '.' with a sync byte, 'x' without. Lost is told from the second x in a row to the
// fifth packet in a row with one (ETSI TR 101 290, 5.2.1, 1.1).
TEST(MeterSynchronisation, IsLostWithTwoAndFoundWithFive) {
    const struct {
        const char* packets;
        const char* lost;
    } rows[] = {
        {"..x..x..", "        "},
        {"..xx....", "   LLLLL"},
        {"..xx.....", "   LLLLL "},
        {"..xx....x.....", "   LLLLLLLLLL "},
        {"..xxxx.....x..", "   LLLLLLL    "},
    };
    for (const auto& row : rows) {
        meter::Synchronisation sync;
        std::string lost;
        for (const char* packet = row.packets; *packet != 0; ++packet) {
            sync.packet(*packet == '.');
            lost += sync.lost() ? 'L' : ' ';
        }
        EXPECT_EQ(lost, row.lost) << row.packets;
    }
}

// "For over" a time is not at it.
TEST(MeterAbsence, BeginsWhenTheLimitIsPassed) {
    meter::CheckBook book;
    meter::Absence absence{.last = 1000};
    const auto look = [&](meter::Ticks now) {
        return absence.look({now, 0, 0}, meter::kPatLimit, meter::Check::kPatError2, 0, book);
    };
    const meter::Ticks next = look(1000 + meter::kPatLimit);
    EXPECT_EQ(book.count(meter::Check::kPatError2), 0);
    EXPECT_EQ(next, 1000 + meter::kPatLimit + 1);
    look(next);
    EXPECT_EQ(book.count(meter::Check::kPatError2), 1);
}

}  // namespace
