#include <algorithm>

#include "meter/reportText.h"
#include "report/textParts.h"
#include "report/textWords.h"

namespace meter {

namespace {

constexpr std::size_t kStructureShown = 60;

std::string videoText(const meter::VideoReport& video) {
    std::string text;
    if (video.width && video.height) {
        append(text, formatted("%ux%u", *video.width, *video.height), " ");
    }
    if (video.frameRate) {
        append(text, formatted("%.6g fps", *video.frameRate), " ");
    }
    if (video.interlaced) {
        append(text, *video.interlaced ? "interlaced" : "progressive", " ");
    }
    std::string profile = video.profile.value_or("");
    append(profile, video.level ? "level " + std::to_string(*video.level) : "", " ");
    append(text, profile);
    append(text, video.chroma.value_or(""));
    if (video.bitDepth && *video.bitDepth != 8) {
        append(text, std::to_string(*video.bitDepth) + " bit");
    }
    if (video.transfer && (*video.transfer == "HLG" || *video.transfer == "PQ")) {
        append(text, *video.transfer);
    }
    return text;
}

std::string audioText(const meter::AudioReport& audio) {
    std::string text;
    if (audio.sampleRate) {
        append(text, formatted("%g kHz", *audio.sampleRate / 1000.0), " ");
    }
    if (audio.channels) {
        append(text,
               *audio.channels == 1   ? "mono"
               : *audio.channels == 2 ? "stereo"
                                      : std::to_string(*audio.channels) + " channels",
               " ");
    }
    if (audio.bitrate) {
        append(text, formatted("%g kbit/s", static_cast<double>(*audio.bitrate) / 1000));
    }
    append(text, audio.profile.value_or(""));
    return text;
}

const char* kindText(StreamKind kind) {
    switch (kind) {
        case StreamKind::kVideo:
            return "video";
        case StreamKind::kAudio:
            return "audio";
        case StreamKind::kSubtitle:
            return "subtitles";
        case StreamKind::kTeletext:
            return "teletext";
        case StreamKind::kCue:
            return "cues";
        case StreamKind::kData:
            break;
    }
    return "data";
}

std::string streamText(const meter::StreamReport& stream) {
    std::string text = stream.codec
                           ? *stream.codec
                           : formatted("%s, stream type 0x%02X", kindText(stream.kind), stream.streamType);
    append(text, stream.video ? videoText(*stream.video) : "", ": ");
    append(text, stream.audio ? audioText(*stream.audio) : "", ": ");
    append(text, stream.language ? *stream.language : "");
    std::string pages;
    for (const std::string& page : stream.pages) {
        append(pages, page, " ");
    }
    append(text, pages.empty() ? "" : "page " + pages);
    for (const auto& ca : stream.ca) {
        append(text, formatted("CA 0x%04X on PID %u", ca.system, ca.pid));
    }
    return text;
}

std::string groupText(const meter::GopReport& gop) {
    std::string text = "group of pictures: ";
    text += shown(gop.pictures, [](uint32_t pictures) { return std::to_string(pictures); });
    if (gop.ms) {
        text += formatted(", %.0f ms", *gop.ms);
    }
    if (gop.structure) {
        text += ", " + fitted(*gop.structure, kStructureShown);
    }
    return text;
}

std::string programmeText(const meter::ProgrammeReport& programme) {
    std::string text = programme.title;
    append(text, programme.begin ? *programme.begin : "");
    if (programme.durationMs) {
        append(text, formatted("%.0f min", *programme.durationMs / 60000));
    }
    return text;
}

const meter::PidReport* findPid(const Report& report, uint16_t pid) {
    const auto found = std::find_if(report.pids.begin(), report.pids.end(),
                                    [&](const meter::PidReport& entry) { return entry.pid == pid; });
    return found == report.pids.end() ? nullptr : &*found;
}

std::string service(const Report& report, const meter::ServiceReport& service) {
    std::string line = "  " + std::to_string(service.program);
    line += " " + (service.name ? *service.name : std::string("without a name"));
    line += service.provider && !service.provider->empty() ? " (" + *service.provider + ")" : "";
    line += ", PMT " + std::to_string(service.pmtPid);
    line += service.pcrPid ? ", PCR " + std::to_string(*service.pcrPid) : "";
    line += service.scrambled.value_or(false) ? ", scrambled" : "";
    std::string text = fitted(line, kTextWidth) + "\n";
    Columns columns("    ", "rrl");
    for (const auto& stream : service.streams) {
        const auto* pid = findPid(report, stream.pid);
        columns.row({std::to_string(stream.pid), pid != nullptr ? shown(pid->bps, megabits) : kUnknown,
                     streamText(stream)});
        if (stream.gop && stream.gop->pictures) {
            columns.row({"", "", groupText(*stream.gop)});
        }
    }
    text += columns.text(kTextWidth);
    if (service.now) {
        text += fitted("    now:  " + programmeText(*service.now), kTextWidth) + "\n";
    }
    if (service.next) {
        text += fitted("    next: " + programmeText(*service.next), kTextWidth) + "\n";
    }
    return text;
}

}  // namespace

std::string servicesText(const Report& report) {
    if (report.services.empty()) {
        return "\nSERVICES\n  none: no program association table with its maps came\n";
    }
    std::string text = "\nSERVICES (PID, Mbit/s, stream)\n";
    for (const auto& entry : report.services) {
        text += service(report, entry);
    }
    return text;
}

}  // namespace meter
