#include "sarn/spliceSection.h"

#include <cstddef>
#include <optional>
#include <utility>

namespace {

using Bytes = std::span<const uint8_t>;

constexpr std::size_t kCommandStart = 14;  // bytes up to and with splice_command_type
constexpr std::size_t kLoopLengthSize = 2;
constexpr std::size_t kCrcSize = 4;
constexpr uint16_t kOpenCommandLength = 0xFFF;

enum SpliceCommand : uint8_t {
    kSpliceNull = 0x00,
    kSpliceSchedule = 0x04,
    kSpliceInsert = 0x05,
    kTimeSignal = 0x06,
    kBandwidthReservation = 0x07,
};

uint16_t read16(Bytes bytes, std::size_t offset) {
    return static_cast<uint16_t>(bytes[offset] << 8 | bytes[offset + 1]);
}

uint32_t read32(Bytes bytes, std::size_t offset) {
    return static_cast<uint32_t>(read16(bytes, offset)) << 16 | read16(bytes, offset + 2);
}

// CRC-32 of ISO/IEC 13818-1 annex A; 0 over a section with its CRC_32.
uint32_t crc32Mpeg(Bytes bytes) {
    constexpr uint32_t kPolynomial = 0x04C11DB7;
    uint32_t crc = 0xFFFFFFFF;
    for (const uint8_t byte : bytes) {
        crc ^= static_cast<uint32_t>(byte) << 24;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc << 1) ^ ((crc >> 31) * kPolynomial);
        }
    }
    return crc;
}

// Walks over the fields of a command; past the end everything reads 0 and overrun() tells.
class Cursor {
  public:
    explicit Cursor(Bytes bytes) : bytes_(bytes) {}
    uint8_t next() {
        const std::size_t offset = offset_++;
        return offset < bytes_.size() ? bytes_[offset] : uint8_t{0};
    }
    void skip(std::size_t count) {
        offset_ += count;
    }
    std::size_t offset() const {
        return offset_;
    }
    bool overrun() const {
        return offset_ > bytes_.size();
    }

  private:
    Bytes bytes_;
    std::size_t offset_ = 0;
};

constexpr uint8_t kCancelIndicator = 0x80;
constexpr uint8_t kProgramSpliceFlag = 0x40;
constexpr uint8_t kDurationFlag = 0x20;
constexpr uint8_t kImmediateFlag = 0x10;
constexpr std::size_t kEventIdSize = 4;
constexpr std::size_t kBreakDurationSize = 5;
constexpr std::size_t kAvailSize = 4;  // unique_program_id, avail_num, avails_expected

void skipSpliceTime(Cursor& cursor) {
    constexpr uint8_t kTimeSpecifiedFlag = 0x80;
    if ((cursor.next() & kTimeSpecifiedFlag) != 0) {
        cursor.skip(4);
    }
}

void skipSpliceInsert(Cursor& cursor) {
    cursor.skip(kEventIdSize);
    if ((cursor.next() & kCancelIndicator) != 0) {
        return;
    }
    const uint8_t flags = cursor.next();
    const bool timed = (flags & kImmediateFlag) == 0;
    if ((flags & kProgramSpliceFlag) == 0) {
        for (uint8_t components = cursor.next(); components != 0; --components) {
            cursor.skip(1);
            if (timed) {
                skipSpliceTime(cursor);
            }
        }
    } else if (timed) {
        skipSpliceTime(cursor);
    }
    cursor.skip(((flags & kDurationFlag) != 0 ? kBreakDurationSize : 0) + kAvailSize);
}

void skipSpliceSchedule(Cursor& cursor) {
    constexpr std::size_t kUtcTimeSize = 4;
    for (uint8_t events = cursor.next(); events != 0; --events) {
        cursor.skip(kEventIdSize);
        if ((cursor.next() & kCancelIndicator) != 0) {
            continue;
        }
        const uint8_t flags = cursor.next();
        if ((flags & kProgramSpliceFlag) != 0) {
            cursor.skip(kUtcTimeSize);
        } else {
            cursor.skip(cursor.next() * (1 + kUtcTimeSize));
        }
        cursor.skip(((flags & kDurationFlag) != 0 ? kBreakDurationSize : 0) + kAvailSize);
    }
}

bool hasKnownForm(uint8_t type) {
    return type == kSpliceNull || (type >= kSpliceSchedule && type <= kBandwidthReservation);
}

// Bytes that a command of known form takes whose length the sender left open; nothing for one that does not
// fit.
std::optional<std::size_t> measureCommand(uint8_t type, Bytes rest) {
    Cursor cursor(rest);
    switch (type) {
        case kSpliceSchedule:
            skipSpliceSchedule(cursor);
            break;
        case kSpliceInsert:
            skipSpliceInsert(cursor);
            break;
        case kTimeSignal:
            skipSpliceTime(cursor);
            break;
        default:  // the others have no fields
            break;
    }
    if (cursor.overrun()) {
        return std::nullopt;
    }
    return cursor.offset();
}

// Where an open length and an unknown form hide the command's end, the descriptors cannot be found.
bool endIsHidden(const SpliceInfo& info) {
    return info.commandLength == kOpenCommandLength && !hasKnownForm(info.commandType);
}

// The descriptor loop behind the command, which may be followed by alignment bytes. False when it does not
// fit.
bool decodeDescriptors(Bytes rest, DescriptorList& list) {
    if (rest.size() < kLoopLengthSize || read16(rest, 0) > rest.size() - kLoopLengthSize) {
        return false;
    }
    Bytes loop = rest.subspan(kLoopLengthSize, read16(rest, 0));
    while (!loop.empty()) {
        if (loop.size() < 2 || loop[1] > loop.size() - 2) {
            return false;
        }
        // The library copies the content, though it asks for a pointer to non-const.
        auto* descriptor =
            dvbpsi_NewDescriptor(loop[0], loop[1], const_cast<uint8_t*>(loop.subspan(2).data()));
        if (descriptor == nullptr) {
            return false;
        }
        list.reset(dvbpsi_AddDescriptor(list.release(), descriptor));
        loop = loop.subspan(std::size_t{2} + loop[1]);
    }
    return true;
}

bool lengthsFit(Bytes section) {
    constexpr uint8_t kSyntaxIndicator = 0x80;
    return section.size() >= kCommandStart + kLoopLengthSize + kCrcSize && section[0] == kSpliceTableId &&
           (section[1] & kSyntaxIndicator) == 0 && (read16(section, 1) & 0x0FFFU) + 3U == section.size();
}

}  // namespace

SpliceResult decodeSpliceInfo(std::span<const uint8_t> section, SpliceInfo& info) {
    if (!lengthsFit(section)) {
        return SpliceResult::malformed;
    }
    if (crc32Mpeg(section) != 0) {
        return SpliceResult::badCrc;
    }
    SpliceInfo result{};
    result.protocolVersion = section[3];
    result.encrypted = (section[4] & 0x80) != 0;
    result.encryptionAlgorithm = section[4] >> 1 & 0x3F;
    result.ptsAdjustment = static_cast<uint64_t>(section[4] & 0x01) << 32 | read32(section, 5);
    result.cwIndex = section[9];
    result.commandLength = read16(section, 11) & 0x0FFF;
    result.commandType = section[13];
    // Encryption covers what follows up to the CRC_32, splice_command_type included.
    if (!result.encrypted && !endIsHidden(result)) {
        const Bytes rest = section.subspan(kCommandStart, section.size() - kCommandStart - kCrcSize);
        const std::optional<std::size_t> commandSize = result.commandLength == kOpenCommandLength
                                                           ? measureCommand(result.commandType, rest)
                                                           : result.commandLength;
        if (!commandSize || *commandSize > rest.size() ||
            !decodeDescriptors(rest.subspan(*commandSize), result.descriptors)) {
            return SpliceResult::malformed;
        }
    }
    info = std::move(result);
    return SpliceResult::decoded;
}
