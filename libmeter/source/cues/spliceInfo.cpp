#include "cues/spliceInfo.h"

#include <algorithm>

#include "cues/segmentation.h"
#include "fields/bitReader.h"
#include "fields/sectionFields.h"

namespace meter {
namespace {

enum Command : uint8_t { kSpliceInsert = 0x05, kTimeSignal = 0x06 };

constexpr std::size_t kHeadSize = 14;  // up to and with splice_command_type
constexpr std::size_t kLoopLengthSize = 2;
constexpr uint32_t kOpenCommandLength = 0xFFF;  // the sender does not say how long the command is
constexpr uint64_t kPtsMask = (uint64_t{1} << 33) - 1;
constexpr double kPtsPerMs = 90.0;
constexpr unsigned kPtsBits = 33;

std::optional<uint64_t> readSpliceTime(BitReader& reader) {
    if (!reader.flag()) {
        reader.skip(7);
        return std::nullopt;
    }
    reader.skip(6);
    return reader.longBits(kPtsBits);
}

void readBreakDuration(BitReader& reader, CueReport& cue) {
    cue.autoReturn = reader.flag();
    reader.skip(6);
    cue.durationMs = static_cast<double>(reader.longBits(kPtsBits)) / kPtsPerMs;
}

void readSpliceInsert(BitReader& reader, CueReport& cue) {
    cue.eventId = reader.bits(32);
    cue.cancelled = reader.flag();
    reader.skip(7);
    if (cue.cancelled)
        return;
    cue.out = reader.flag();
    const bool wholeProgram = reader.flag();
    const bool hasDuration = reader.flag();
    const bool immediate = reader.flag();
    cue.immediate = immediate;
    reader.skip(4);
    if (wholeProgram) {
        if (!immediate)
            cue.pts = readSpliceTime(reader);
    } else {
        // Components splice at times of their own; the first one speaks for the event.
        for (uint32_t components = reader.bits(8); components > 0; --components) {
            reader.skip(8);
            if (immediate)
                continue;
            const auto time = readSpliceTime(reader);
            if (!cue.pts)
                cue.pts = time;
        }
    }
    if (hasDuration)
        readBreakDuration(reader, cue);
    reader.skip(16 + 8 + 8);  // unique_program_id, avail_num, avails_expected
}

void readTimeSignal(BitReader& reader, CueReport& cue) {
    cue.pts = readSpliceTime(reader);
    cue.immediate = !cue.pts;
}

// Each descriptor has to fit; of those that do, segmentation descriptors are read.
bool readDescriptors(Bytes loop, CueReport& cue) {
    constexpr uint8_t kSegmentationTag = 0x02;
    while (!loop.empty()) {
        if (loop.size() < 2 || loop[1] > loop.size() - 2)
            return false;
        const Bytes content = loop.subspan(2, loop[1]);
        if (loop[0] == kSegmentationTag && isCueDescriptor(content)) {
            bool cancelled = false;
            const auto segmentation = readSegmentation(content, cancelled);
            if (!segmentation)
                return false;
            cue.cancelled |= cancelled;
            if (cue.segmentation.size() < kSegmentationsLimit)
                cue.segmentation.push_back(*segmentation);
        }
        loop = loop.subspan(2 + content.size());
    }
    return true;
}

}  // namespace

SpliceResult readSpliceInfo(Bytes section, CueReport& cue) {
    if (section.size() < kHeadSize + kLoopLengthSize + kCrcSize || sectionSyntaxIndicator(section))
        return SpliceResult::kMalformed;
    BitReader head(section.subspan(kSectionHeaderSize));
    const uint32_t protocolVersion = head.bits(8);
    const bool encrypted = head.flag();
    head.skip(6);  // encryption_algorithm
    const uint64_t adjustment = head.longBits(kPtsBits);
    head.skip(8 + 12);  // cw_index, tier
    const uint32_t commandLength = head.bits(12);
    const uint32_t command = head.bits(8);
    if (protocolVersion != 0)
        return SpliceResult::kMalformed;
    if (encrypted)
        return SpliceResult::kEncrypted;
    const Bytes rest = section.subspan(kHeadSize, section.size() - kHeadSize - kCrcSize);
    if (commandLength != kOpenCommandLength && commandLength > rest.size() - kLoopLengthSize)
        return SpliceResult::kMalformed;
    if (command != kSpliceInsert && command != kTimeSignal)
        return SpliceResult::kOther;

    BitReader reader(commandLength == kOpenCommandLength ? rest : rest.first(commandLength));
    if (command == kSpliceInsert)
        readSpliceInsert(reader, cue);
    else
        readTimeSignal(reader, cue);
    cue.command = command == kSpliceInsert ? "splice_insert" : "time_signal";
    if (reader.overrun())
        return SpliceResult::kMalformed;
    if (cue.pts)
        cue.pts = (*cue.pts + adjustment) & kPtsMask;

    const std::size_t commandSize =
        commandLength == kOpenCommandLength ? reader.position() / 8 : commandLength;
    const std::size_t loopLength = u16At(rest, commandSize);
    const Bytes loop = bytesAt(rest, commandSize + kLoopLengthSize, loopLength);
    if (commandSize + kLoopLengthSize > rest.size() || loop.size() != loopLength ||
        !readDescriptors(loop, cue))
        return SpliceResult::kMalformed;
    return SpliceResult::kCue;
}

}  // namespace meter
