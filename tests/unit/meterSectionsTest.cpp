// Sections over packets: what is put together, what is dropped, what counts as having come before.
#include <gmock/gmock.h>

#include <string>

#include "sections/crc32.h"
#include "sections/sectionAssembler.h"
#include "support/psiBuilder.h"

namespace meter {
namespace {

using psi::concat;

class Collector : public SectionSink {
  public:
    struct Seen {
        psi::Bytes bytes;
        bool hasCrc;
        bool crcOk;
        bool repeated;
    };
    void section(const Section& section) override {
        seen.push_back(
            {{section.bytes.begin(), section.bytes.end()}, section.hasCrc, section.crcOk, section.repeated});
    }
    std::vector<Seen> seen;
};

psi::Bytes filled(std::size_t size, uint8_t table = 0x42, uint16_t extension = 1, uint8_t number = 0) {
    return psi::section(table, extension, 0, psi::Bytes(size - 12, 0x55), number, number);
}

psi::Bytes part(const psi::Bytes& bytes, std::size_t from, std::size_t to) {
    return {bytes.begin() + static_cast<std::ptrdiff_t>(from),
            bytes.begin() + static_cast<std::ptrdiff_t>(to)};
}

struct Payload {
    bool start;
    psi::Bytes bytes;
};

std::vector<Collector::Seen> assemble(const std::vector<Payload>& payloads) {
    SectionAssembler assembler(0x11);
    Collector collector;
    for (const auto& [start, bytes] : payloads)
        assembler.feed(bytes, start, {}, collector);
    return collector.seen;
}

TEST(MeterCrc32, AgreesWithTheBitwiseOneAtEveryLength) {
    psi::Bytes bytes;
    for (int i = 0; i < 70; ++i) {
        EXPECT_EQ(crc32(bytes), psi::crc32Mpeg(bytes)) << bytes.size();
        bytes.push_back(static_cast<uint8_t>(i * 37 + 11));
    }
}

TEST(MeterSections, ArePutTogetherOverPackets) {
    const psi::Bytes a = filled(30);
    const psi::Bytes b = filled(40, 0x42, 2);
    const psi::Bytes huge = psi::withCrc(concat({{0x80, 0xBF, 0xFF}, psi::Bytes(4091, 0x11)}));
    const psi::Bytes stuffing(20, 0xFF);
    struct Row {
        const char* name;
        std::vector<Payload> payloads;
        std::vector<psi::Bytes> expected;
    };
    const Row rows[] = {
        {"several in a packet", {{true, concat({{0}, a, b, stuffing})}}, {a, b}},
        {"over two packets", {{true, concat({{0}, part(a, 0, 10)})}, {false, part(a, 10, 30)}}, {a}},
        {"one ends and another begins",
         {{true, concat({{0}, part(a, 0, 10)})}, {true, concat({{20}, part(a, 10, 30), b})}},
         {a, b}},
        {"ends with the packet that pointer_field spans",
         {{true, concat({{0}, part(a, 0, 10)})}, {true, concat({{20}, part(a, 10, 30)})}},
         {a}},
        {"header split",
         {{true, concat({{0}, part(a, 0, 1)})}, {false, part(a, 1, 2)}, {false, part(a, 2, 30)}},
         {a}},
        {"stuffing behind the end is none",
         {{true, concat({{0}, part(a, 0, 29)})}, {false, concat({part(a, 29, 30), b})}},
         {a}},
        {"nothing is begun without unit start", {{false, concat({{0}, a})}}, {}},
        {"pointer_field beyond the packet drops",
         {{true, concat({{0}, part(a, 0, 10)})}, {true, {200, 1, 2, 3}}, {false, part(a, 10, 30)}},
         {}},
        {"unfinished where the next begins",
         {{true, concat({{0}, part(a, 0, 10)})}, {true, concat({{3}, part(a, 10, 13), b})}},
         {b}},
        {"the largest",
         {{true, concat({{0}, part(huge, 0, 2000)})}, {false, part(huge, 2000, 4098)}},
         {huge}},
        {"empty payloads", {{true, {}}, {false, {}}, {true, {0}}}, {}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const auto seen = assemble(row.payloads);
        ASSERT_EQ(seen.size(), row.expected.size());
        for (std::size_t i = 0; i < seen.size(); ++i) {
            EXPECT_EQ(seen[i].bytes, row.expected[i]);
            EXPECT_TRUE(seen[i].crcOk);
        }
    }
}

TEST(MeterSections, AnOpenOneIsDroppedWhereSomethingIsMissing) {
    const psi::Bytes a = filled(30);
    SectionAssembler assembler(0x11);
    Collector collector;
    assembler.feed(concat({{0}, part(a, 0, 10)}), true, {}, collector);
    assembler.drop();
    assembler.feed(part(a, 10, 30), false, {}, collector);
    EXPECT_TRUE(collector.seen.empty());
}

TEST(MeterSections, CrcIsCheckedWhereATableHasOne) {
    psi::Bytes broken = filled(30);
    broken[20] ^= 1;
    const psi::Bytes tdt = psi::shortSection(0x70, {0xC9, 0x57, 0x12, 0x34, 0x56}, false);
    psi::Bytes tot = psi::shortSection(0x73, {0xC9, 0x57, 0x12, 0x34, 0x56, 0xF0, 0}, true);
    psi::Bytes brokenTot = tot;
    brokenTot.back() ^= 1;
    const psi::Bytes withoutSyntax = psi::shortSection(0x00, {1, 2, 3}, false);
    const psi::Bytes privateShort = psi::shortSection(0x90, {1, 2, 3}, false);
    const auto seen = assemble(
        {{true, concat({{0}, broken, tdt, tot, brokenTot, withoutSyntax, privateShort, {0x42, 0xB0, 0}})}});
    ASSERT_EQ(seen.size(), 7U);
    const bool hasCrc[] = {true, false, true, true, true, false, true};
    const bool crcOk[] = {false, true, true, false, false, true, false};
    for (std::size_t i = 0; i < seen.size(); ++i) {
        EXPECT_EQ(seen[i].hasCrc, hasCrc[i]) << i;
        EXPECT_EQ(seen[i].crcOk, crcOk[i]) << i;
    }
}

TEST(MeterSections, OnesEqualToTheLastOfTheirSubTableAreRepeated) {
    const psi::Bytes a = filled(30, 0x42, 1, 0);
    const psi::Bytes b = filled(30, 0x42, 1, 1);
    const psi::Bytes other = filled(31, 0x42, 1, 0);
    psi::Bytes broken = a;
    broken[20] ^= 1;
    SectionAssembler assembler(0x11);
    Collector collector;
    std::string repeated;
    for (const psi::Bytes& section : {a, b, a, b, broken, a, other, a, a}) {
        assembler.feed(concat({{0}, section}), true, {}, collector);
        repeated += collector.seen.back().repeated ? '=' : '.';
    }
    EXPECT_EQ(repeated, "..==.=..=");
}

TEST(MeterSections, WhatIsKeptIsBounded) {
    SectionAssembler assembler(0x12);
    Collector collector;
    for (int service = 0; service < 3000; ++service) {
        const psi::Bytes section = filled(service % 2 == 0 ? 20 : 900, 0x4E, static_cast<uint16_t>(service));
        for (int time = 0; time < 2; ++time) {
            assembler.feed(concat({{0}, section}), true, {}, collector);
            ASSERT_TRUE(collector.seen.back().crcOk);
            ASSERT_EQ(collector.seen.back().repeated, time == 1);
        }
        ASSERT_LE(assembler.heldBytes(), kKeptBytesLimit + kKeptSectionsLimit * 2 * 32 + kSectionSizeLimit);
    }
}

}  // namespace
}  // namespace meter
