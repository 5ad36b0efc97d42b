#include "cues/segmentation.h"

#include <algorithm>
#include <array>
#include <string>
#include <string_view>

#include "cues/spliceInfo.h"
#include "fields/bitReader.h"

namespace meter {
namespace {

struct TypeName {
    uint8_t typeId;
    std::string_view name;
};

// Table 23.
constexpr TypeName kTypeNames[] = {
    {0x00, "Not Indicated"},
    {0x01, "Content Identification"},
    {0x02, "Call Ad Server"},
    {0x10, "Program Start"},
    {0x11, "Program End"},
    {0x12, "Program Early Termination"},
    {0x13, "Program Breakaway"},
    {0x14, "Program Resumption"},
    {0x15, "Program Runover Planned"},
    {0x16, "Program Runover Unplanned"},
    {0x17, "Program Overlap Start"},
    {0x18, "Program Blackout Override"},
    {0x19, "Program Join"},
    {0x1A, "Program Immediate Resumption"},
    {0x20, "Chapter Start"},
    {0x21, "Chapter End"},
    {0x22, "Break Start"},
    {0x23, "Break End"},
    {0x24, "Opening Credit Start"},
    {0x25, "Opening Credit End"},
    {0x26, "Closing Credit Start"},
    {0x27, "Closing Credit End"},
    {0x30, "Provider Advertisement Start"},
    {0x31, "Provider Advertisement End"},
    {0x32, "Distributor Advertisement Start"},
    {0x33, "Distributor Advertisement End"},
    {0x34, "Provider Placement Opportunity Start"},
    {0x35, "Provider Placement Opportunity End"},
    {0x36, "Distributor Placement Opportunity Start"},
    {0x37, "Distributor Placement Opportunity End"},
    {0x38, "Provider Overlay Placement Opportunity Start"},
    {0x39, "Provider Overlay Placement Opportunity End"},
    {0x3A, "Distributor Overlay Placement Opportunity Start"},
    {0x3B, "Distributor Overlay Placement Opportunity End"},
    {0x3C, "Provider Promo Start"},
    {0x3D, "Provider Promo End"},
    {0x3E, "Distributor Promo Start"},
    {0x3F, "Distributor Promo End"},
    {0x40, "Unscheduled Event Start"},
    {0x41, "Unscheduled Event End"},
    {0x42, "Alternate Content Opportunity Start"},
    {0x43, "Alternate Content Opportunity End"},
    {0x44, "Provider Ad Block Start"},
    {0x45, "Provider Ad Block End"},
    {0x46, "Distributor Ad Block Start"},
    {0x47, "Distributor Ad Block End"},
    {0x50, "Network Start"},
    {0x51, "Network End"},
};
static_assert(std::ranges::is_sorted(kTypeNames, {}, &TypeName::typeId));

// segmentation_upid_type values that are characters (table 22): user defined, ISCI, Ad-ID, TID, ADI, ADS,
// URI, SCR.
constexpr std::array<uint8_t, 8> kTextUpids = {0x01, 0x02, 0x03, 0x07, 0x09, 0x0E, 0x0F, 0x11};

bool isText(uint8_t upidType, Bytes upid) {
    return std::ranges::find(kTextUpids, upidType) != kTextUpids.end() &&
           std::ranges::all_of(upid, [](uint8_t c) { return c >= 0x20 && c < 0x7F; });
}

std::string hexadecimal(Bytes bytes) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const uint8_t byte : bytes) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0x0F];
    }
    return text;
}

}  // namespace

std::string_view segmentationTypeName(uint8_t typeId) {
    const auto row = std::ranges::lower_bound(kTypeNames, typeId, {}, &TypeName::typeId);
    return row != std::end(kTypeNames) && row->typeId == typeId ? row->name : std::string_view{};
}

bool isCueDescriptor(Bytes content) {
    constexpr uint32_t kIdentifier = 0x43554549;  // "CUEI"
    return content.size() >= 4 && u32At(content, 0) == kIdentifier;
}

std::optional<SegmentationReport> readSegmentation(Bytes content, bool& cancelled) {
    constexpr double kStampTicksPerMs = 90.0;
    constexpr std::size_t kComponentBits = 8 + 7 + 33;
    BitReader reader(content);
    reader.skip(32);  // identifier
    SegmentationReport report;
    report.eventId = reader.bits(32);
    cancelled = reader.flag();
    reader.skip(7);
    if (cancelled)
        return reader.overrun() ? std::nullopt : std::optional(report);
    const bool wholeProgram = reader.flag();
    const bool hasDuration = reader.flag();
    reader.skip(6);  // delivery restrictions
    if (!wholeProgram)
        reader.skip(reader.bits(8) * kComponentBits);
    if (hasDuration)
        report.durationMs = static_cast<double>(reader.longBits(40)) / kStampTicksPerMs;
    const auto upidType = static_cast<uint8_t>(reader.bits(8));
    const std::size_t upidLength = reader.bits(8);
    const Bytes upid = bytesAt(content, reader.position() / 8, upidLength);
    reader.skip(upidLength * 8);
    const auto typeId = static_cast<uint8_t>(reader.bits(8));
    report.typeId = typeId;
    report.upidType = upidType;
    report.number = static_cast<uint8_t>(reader.bits(8));
    report.expected = static_cast<uint8_t>(reader.bits(8));
    if (reader.overrun())
        return std::nullopt;
    if (!upid.empty())
        report.upid = isText(upidType, upid) ? std::string(upid.begin(), upid.end()) : hexadecimal(upid);
    if (const std::string_view name = segmentationTypeName(typeId); !name.empty())
        report.type = name;
    return report;
}

}  // namespace meter
