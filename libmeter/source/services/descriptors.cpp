#include "services/descriptors.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace meter {
namespace {

constexpr std::size_t kPagesLimit = 32;  // of a stream

// ISO 639-2 code at `offset`; empty where it is none.
std::string languageAt(Bytes content, std::size_t offset) {
    const Bytes code = bytesAt(content, offset, kLanguageSize);
    const auto isLetter = [](uint8_t c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
    if (code.size() < kLanguageSize || !std::ranges::all_of(code, isLetter))
        return {};
    return {code.begin(), code.end()};
}

void addLanguage(StreamDetails& details, const std::string& language) {
    if (language.empty())
        return;
    if (!details.language)
        details.language = language;
    else if (details.language->find(language) == std::string::npos)
        *details.language += ',' + language;
}

void addPage(StreamDetails& details, std::string page) {
    if (details.pages.size() < kPagesLimit)
        details.pages.push_back(std::move(page));
}

void readLanguages(Bytes content, StreamDetails& details) {
    constexpr std::size_t kEntrySize = 4;
    if (content.size() >= kEntrySize)
        details.audioType = content[kLanguageSize];
    for (std::size_t at = 0; at + kEntrySize <= content.size(); at += kEntrySize)
        addLanguage(details, languageAt(content, at));
}

// EN 300 468 6.2.43: type, magazine (0 is 8) and two BCD digits of the page.
void readTeletext(Bytes content, StreamDetails& details) {
    constexpr std::size_t kEntrySize = 5;
    for (std::size_t at = 0; at + kEntrySize <= content.size(); at += kEntrySize) {
        addLanguage(details, languageAt(content, at));
        const unsigned magazine = content[at + kLanguageSize] & 0x07U;
        std::array<char, 8> page;
        std::snprintf(page.data(), page.size(), "%u%02X", magazine == 0 ? 8 : magazine, content[at + 4]);
        addPage(details, page.data());
    }
}

// EN 300 468 6.2.41: subtitling_type, composition_page_id, ancillary_page_id.
void readSubtitling(Bytes content, StreamDetails& details) {
    constexpr std::size_t kEntrySize = 8;
    for (std::size_t at = 0; at + kEntrySize <= content.size(); at += kEntrySize) {
        addLanguage(details, languageAt(content, at));
        addPage(details, std::to_string(u16At(content, at + 4)));
    }
}

}  // namespace

std::optional<Bytes> findDescriptor(Bytes loop, DescriptorTag tag) {
    std::optional<Bytes> found;
    forEachDescriptor(loop, [&found, tag](uint8_t candidate, Bytes content) {
        if (!found && candidate == tag)
            found = content;
    });
    return found;
}

Bytes descriptorLoop(Bytes section, std::size_t offset) {
    return bytesAt(section, offset + 2, u16At(section, offset) & 0x0FFFU);
}

std::vector<CaReport> caDescriptors(Bytes loop, std::size_t limit) {
    constexpr std::size_t kLeastSize = 4;
    std::vector<CaReport> found;
    forEachDescriptor(loop, [&found, limit](uint8_t tag, Bytes content) {
        if (tag == kCaDescriptor && content.size() >= kLeastSize && found.size() < limit)
            found.push_back({u16At(content, 0), static_cast<uint16_t>(u16At(content, 2) & 0x1FFF)});
    });
    return found;
}

StreamDetails streamDetails(Bytes loop) {
    constexpr std::size_t kAvcFlags = 3;    // ISO/IEC 13818-1 2.6.64
    constexpr std::size_t kHevcFlags = 12;  // 2.6.95
    StreamDetails details;
    forEachDescriptor(loop, [&details](uint8_t tag, Bytes content) {
        switch (tag) {
            case kLanguageDescriptor:
                readLanguages(content, details);
                break;
            case kTeletextDescriptor:
            case kVbiTeletextDescriptor:
                readTeletext(content, details);
                break;
            case kSubtitlingDescriptor:
                readSubtitling(content, details);
                break;
            case kStreamIdentifierDescriptor:
                if (!content.empty())
                    details.componentTag = content[0];
                break;
            case kVideoStreamDescriptor:
                details.stillPicture |= (u8At(content, 0) & 0x01) != 0;
                break;
            case kAvcVideoDescriptor:
                details.stillPicture |= (u8At(content, kAvcFlags) & 0x80) != 0;
                break;
            case kHevcVideoDescriptor:
                details.stillPicture |= (u8At(content, kHevcFlags) & 0x40) != 0;
                break;
            case kMpeg4AudioDescriptor:
            case kAacDescriptor:
                if (!content.empty())
                    details.aacProfileLevel = content[0];
                break;
            default:
                break;
        }
    });
    return details;
}

}  // namespace meter
