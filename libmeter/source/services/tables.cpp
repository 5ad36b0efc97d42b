#include "services/tables.h"

#include <algorithm>

#include "fields/wallClock.h"
#include "services/dvbText.h"
#include "services/dvbTime.h"
#include "services/streamTypes.h"

namespace meter {
namespace {

constexpr uint16_t kPidMask = 0x1FFF;

std::optional<std::string> textAt(Bytes content, std::size_t lengthAt) {
    std::string text = decodeText(bytesAt(content, lengthAt + 1, u8At(content, lengthAt)));
    return text.empty() ? std::nullopt : std::optional(std::move(text));
}

}  // namespace

Bytes sectionBody(Bytes section) {
    if (!sectionSyntaxIndicator(section) || section.size() < kLongSectionHeaderSize + kCrcSize)
        return {};
    return section.subspan(kLongSectionHeaderSize, section.size() - kLongSectionHeaderSize - kCrcSize);
}

std::vector<ProgramEntry> readPat(Bytes section) {
    constexpr std::size_t kEntrySize = 4;
    const Bytes body = sectionBody(section);
    std::vector<ProgramEntry> programs;
    for (std::size_t at = 0; at + kEntrySize <= body.size(); at += kEntrySize)
        programs.push_back({u16At(body, at), static_cast<uint16_t>(u16At(body, at + 2) & kPidMask)});
    return programs;
}

std::optional<Pmt> readPmt(Bytes section) {
    constexpr std::size_t kFixedSize = 4;   // PCR_PID, program_info_length
    constexpr std::size_t kStreamSize = 5;  // stream_type, elementary_PID, ES_info_length
    const Bytes body = sectionBody(section);
    if (body.size() < kFixedSize)
        return std::nullopt;
    const Bytes programInfo = descriptorLoop(body, 2);
    Pmt pmt{.version = sectionVersionNumber(section),
            .pcrPid = static_cast<uint16_t>(u16At(body, 0) & kPidMask),
            .ca = caDescriptors(programInfo, kCaPidsLimit),
            .streams = {}};
    std::size_t at = kFixedSize + programInfo.size();
    while (at + kStreamSize <= body.size() && pmt.streams.size() < kStreamsPerProgramLimit) {
        const Bytes info = descriptorLoop(body, at + 3);
        const StreamIdentity identity = identifyStream(body[at], info);
        pmt.streams.push_back({.pid = static_cast<uint16_t>(u16At(body, at + 1) & kPidMask),
                               .streamType = body[at],
                               .codec = identity.codec,
                               .kind = identity.kind,
                               .details = streamDetails(info),
                               .ca = caDescriptors(info, kCaPidsLimit)});
        at += kStreamSize + info.size();
    }
    return pmt;
}

std::vector<ServiceEntry> readSdt(Bytes section) {
    constexpr std::size_t kFixedSize = 3;    // original_network_id and reserved bits
    constexpr std::size_t kServiceSize = 5;  // service_id, flags, descriptors_loop_length
    const Bytes body = sectionBody(section);
    std::vector<ServiceEntry> services;
    for (std::size_t at = kFixedSize; at + kServiceSize <= body.size();) {
        const Bytes loop = descriptorLoop(body, at + 3);
        ServiceEntry service{.id = u16At(body, at),
                             .name = {},
                             .provider = {},
                             .type = {},
                             .runningStatus = static_cast<uint8_t>(body[at + 3] >> 5)};
        if (const auto content = findDescriptor(loop, kServiceDescriptor); content && !content->empty()) {
            service.type = (*content)[0];
            service.provider = textAt(*content, 1);
            service.name = textAt(*content, 2U + u8At(*content, 1));
        }
        services.push_back(std::move(service));
        at += kServiceSize + loop.size();
    }
    return services;
}

std::optional<ProgrammeReport> readEvent(Bytes section) {
    constexpr std::size_t kFixedSize = 6;  // identifiers, segment and last table
    constexpr std::size_t kEventSize = 12;
    const Bytes body = sectionBody(section);
    if (body.size() < kFixedSize + kEventSize)
        return std::nullopt;
    const Bytes event = body.subspan(kFixedSize);
    ProgrammeReport programme;
    if (const auto begin = utcTime(event, 2))
        programme.begin = rfc3339(*begin);
    if (const auto seconds = bcdSeconds(event, 7))
        programme.durationMs = *seconds * 1000.0;
    if (const auto content = findDescriptor(descriptorLoop(event, kEventSize - 2), kShortEventDescriptor))
        programme.title = textAt(*content, kLanguageSize).value_or("");
    return programme;
}

}  // namespace meter
