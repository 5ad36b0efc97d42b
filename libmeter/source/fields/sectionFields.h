// Fields of sections (ISO/IEC 13818-1 2.4.4, ETSI EN 300 468 5.1) over bounded views: outside reads as 0.
#pragma once

#include "fields/bytes.h"

namespace meter {

inline constexpr uint8_t kPatTable = 0x00;
inline constexpr uint8_t kCatTable = 0x01;
inline constexpr uint8_t kPmtTable = 0x02;
inline constexpr uint8_t kNitActualTable = 0x40;
inline constexpr uint8_t kNitOtherTable = 0x41;
inline constexpr uint8_t kSdtActualTable = 0x42;
inline constexpr uint8_t kSdtOtherTable = 0x46;
inline constexpr uint8_t kBatTable = 0x4A;
inline constexpr uint8_t kEitActualPfTable = 0x4E;
inline constexpr uint8_t kEitOtherPfTable = 0x4F;
inline constexpr uint8_t kEitLastTable = 0x6F;  // of the schedules
inline constexpr uint8_t kTdtTable = 0x70;
inline constexpr uint8_t kRstTable = 0x71;
inline constexpr uint8_t kStuffingTable = 0x72;
inline constexpr uint8_t kTotTable = 0x73;
inline constexpr uint8_t kSpliceInfoTable = 0xFC;

inline constexpr uint16_t kPatPid = 0x0000;
inline constexpr uint16_t kCatPid = 0x0001;
inline constexpr uint16_t kNitPid = 0x0010;
inline constexpr uint16_t kSdtPid = 0x0011;
inline constexpr uint16_t kEitPid = 0x0012;
inline constexpr uint16_t kRstPid = 0x0013;
inline constexpr uint16_t kTdtPid = 0x0014;
inline constexpr uint16_t kLastReservedPid = 0x001F;

inline constexpr std::size_t kSectionHeaderSize = 3;
inline constexpr std::size_t kLongSectionHeaderSize = 8;
inline constexpr std::size_t kCrcSize = 4;

constexpr uint8_t sectionTableId(Bytes section) {
    return u8At(section, 0);
}
constexpr bool sectionSyntaxIndicator(Bytes section) {
    return (u8At(section, 1) & 0x80) != 0;
}
constexpr std::size_t sectionLength(Bytes section) {  // bytes behind this field
    return u16At(section, 1) & 0x0FFFU;
}
// Where section_syntax_indicator is 1:
constexpr uint16_t sectionTableIdExtension(Bytes section) {
    return u16At(section, 3);
}
constexpr uint8_t sectionVersionNumber(Bytes section) {
    return u8At(section, 5) >> 1 & 0x1F;
}
constexpr bool sectionCurrentNextIndicator(Bytes section) {
    return (u8At(section, 5) & 0x01) != 0;
}
constexpr uint8_t sectionNumber(Bytes section) {
    return u8At(section, 6);
}
constexpr uint8_t sectionLastNumber(Bytes section) {
    return u8At(section, 7);
}

}  // namespace meter
