#include "meter/reportText.h"

#include <algorithm>
#include <cinttypes>

#include "basics/address.h"
#include "report/textLines.h"

namespace meter {

namespace {

using basics::dotted;

constexpr std::size_t kCuesShown = 20;
constexpr std::size_t kChangesShown = 20;
constexpr std::size_t kStructureShown = 60;
constexpr const char* kUnknown = "-";

std::string megabits(uint64_t bps) {
    return formatted("%.3f", static_cast<double>(bps) / 1e6);
}

template <typename Value, typename Text>
std::string shown(const std::optional<Value>& maybe, Text&& text) {
    return maybe ? text(*maybe) : std::string(kUnknown);
}

std::string tenths(double value) {
    return formatted("%.1f", value);
}

// "3 bursts", "1 burst".
std::string counted(uint64_t count, const char* one, const char* many) {
    return grouped(count) + " " + (count == 1 ? one : many);
}

void append(std::string& list, const std::string& item, const char* separator = ", ") {
    if (!item.empty()) {
        list += (list.empty() ? "" : separator) + item;
    }
}

std::string heading(const char* text) {
    return std::string("\n") + text + "\n";
}

// A file without a clock, and nobody said its bit rate.
bool isTimeless(const Report& report) {
    return !report.flow && report.seconds == 0;
}

// What tells of loss, for people.
std::string basisName(const std::string& basis) {
    return basis == "rtp" ? "RTP" : basis == "clock" ? "the clock" : "continuity counters";
}

std::string titleLine(const Report& report, const std::string& path) {
    std::string line = report.group ? dotted(*report.group) : path;
    if (report.flow) {
        const auto& flow = *report.flow;
        if (flow.port) {
            line += ":" + std::to_string(*flow.port);
        }
        if (flow.source) {
            line += " from " + dotted(*flow.source) + ":" + std::to_string(flow.sourcePort.value_or(0));
        }
        if (flow.encapsulation) {
            line += *flow.encapsulation == "rtp" ? " over RTP" : " over UDP";
        }
    }
    line += isTimeless(report) ? ", duration unknown" : formatted(", %.1f s", report.seconds);
    if (report.begin) {
        line += " from " + *report.begin;
    }
    return fitted(line, kTextWidth) + "\n";
}

// What a live report says beside a recording's.
std::string liveLines(const Report& report) {
    std::string text;
    if (report.live && report.live->disturbed) {
        text += "this machine dropped frames a moment ago, or captured nothing: losses may be its own\n";
    }
    if (report.live && report.live->joinLatencyMs) {
        text += formatted("first datagram %.1f ms after the join\n", *report.live->joinLatencyMs);
    }
    return text;
}

std::string lossText(const Report& report) {
    const auto& lost = report.packets.lost;
    if (!lost.packets) {
        return kUnknown;
    }
    std::string text = grouped(*lost.packets);
    if (*lost.packets != 0 && lost.basis) {
        text += " by " + basisName(*lost.basis);
        text += ", in " + counted(lost.events, "run", "runs");
        text += lost.events > 1 ? ", the longest " + counted(lost.longest, "packet", "packets") : "";
        if (lost.longestMs) {
            text += formatted(" (%.1f ms)", *lost.longestMs);
        }
    }
    return text;
}

std::string overview(const Report& report) {
    Columns columns("  ", "ll");
    const auto& rate = report.bitrate;
    std::string rateText = isTimeless(report) ? "unknown: no program clock runs; --bitrate tells it"
                                              : shown(rate.byClock ? rate.byClock : rate.bps,
                                                      [](uint64_t bps) { return megabits(bps) + " Mbit/s"; });
    if (rate.lowest && rate.highest) {
        append(rateText, megabits(*rate.lowest) + " to " + megabits(*rate.highest) + " in a second");
    }
    if (rate.constant) {
        append(rateText, *rate.constant ? "constant" : "variable");
    }
    if (rate.nullShare) {
        append(rateText, formatted("%.1f %% null packets", 100 * *rate.nullShare));
    }
    columns.row({"bit rate", rateText});
    std::string packets = grouped(report.packets.received) + " received";
    if (report.packets.scrambled > 0) {
        append(packets, grouped(report.packets.scrambled) + " scrambled");
    }
    if (report.packets.repeated > 0) {
        append(packets, grouped(report.packets.repeated) + " repeated");
    }
    columns.row({"packets", packets});
    columns.row({"lost", lossText(report)});
    if (report.flow) {
        const auto& flow = *report.flow;
        std::string datagrams = grouped(flow.datagrams);
        if (flow.packetsPerDatagram) {
            append(datagrams, std::to_string(*flow.packetsPerDatagram) + " packets each");
        }
        const std::pair<uint64_t, const char*> others[] = {{flow.malformed, "malformed"},
                                                           {flow.fragments, "IP fragments"},
                                                           {flow.otherFlows, "of other flows"},
                                                           {flow.fec, "of FEC"}};
        for (const auto& [count, what] : others) {
            append(datagrams, count > 0 ? grouped(count) + " " + what : "");
        }
        append(datagrams, flow.ttl ? "TTL " + std::to_string(*flow.ttl) : "");
        append(datagrams, flow.dscp ? "DSCP " + std::to_string(*flow.dscp) : "");
        for (const uint16_t tag : flow.vlan) {
            append(datagrams, "VLAN " + std::to_string(tag));
        }
        columns.row({"datagrams", datagrams});
    }
    const auto& transport = report.transport;
    std::string stream;
    append(stream, transport.transportStreamId ? "id " + std::to_string(*transport.transportStreamId) : "");
    append(stream, transport.originalNetworkId
                       ? "original network " + std::to_string(*transport.originalNetworkId)
                       : "");
    append(stream, transport.network ? "network \"" + *transport.network + "\"" : "");
    append(stream, transport.utc ? "time " + *transport.utc : "");
    if (transport.utcOffsetMs) {
        append(stream, formatted("%+.0f ms off arrival", *transport.utcOffsetMs));
    }
    if (!stream.empty()) {
        columns.row({"transport", stream});
    }
    return columns.text(kTextWidth);
}

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

const char* kindName(StreamKind kind) {
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
                           : formatted("%s, stream type 0x%02X", kindName(stream.kind), stream.streamType);
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

std::string services(const Report& report) {
    if (report.services.empty()) {
        return "\nSERVICES\n  none: no program association table with its maps came\n";
    }
    std::string text = "\nSERVICES (PID, Mbit/s, stream)\n";
    for (const auto& entry : report.services) {
        text += service(report, entry);
    }
    return text;
}

std::string pidList(const CheckReport& check, std::size_t width) {
    auto pids = check.pids;
    std::stable_sort(pids.begin(), pids.end(),
                     [](const auto& a, const auto& b) { return a.second > b.second; });
    std::string text;
    for (std::size_t i = 0; i < pids.size(); ++i) {
        const std::string rest = i + 1 < pids.size() ? formatted(", %zu more", pids.size() - i - 1) : "";
        std::string longer = text;
        append(longer,
               std::to_string(pids[i].first) + (pids.size() > 1 ? " (" + grouped(pids[i].second) + ")" : ""));
        if (i > 0 && longer.size() + rest.size() > width) {
            return text + formatted(", %zu more", pids.size() - i);
        }
        text = longer;
    }
    return text;
}

// The checks that failed; empty where none did.
std::string failedChecks(const Report& report) {
    const auto table = [&](std::size_t pidsWidth) {
        Columns columns("  ", "llrrrrl");
        columns.row({"CHECK", "", "COUNT", "SECONDS", "FIRST s", "LAST s", "PIDs"});
        for (const CheckReport& check : report.checks) {
            if (check.count > 0) {
                columns.row({check.id, check.name, grouped(check.count), grouped(check.seconds),
                             shown(check.first, tenths), check.active ? "active" : shown(check.last, tenths),
                             pidList(check, pidsWidth)});
            }
        }
        return columns.text(kTextWidth);
    };
    if (std::ranges::none_of(report.checks, [](const CheckReport& check) { return check.count > 0; })) {
        return "";
    }
    // Once to see what the other columns leave of a line.
    const std::string_view title = "PIDs";
    const std::size_t end = table(0).find('\n');
    return table(kTextWidth - std::min(kTextWidth, end - title.size()));
}

std::string errors(const Report& report) {
    std::string notApplicable;
    for (const CheckReport& check : report.checks) {
        if (!check.applicable) {
            append(notApplicable, std::string(check.id) + " " + check.name);
        }
    }
    std::string text = heading("ERRORS (ETSI TR 101 290)");
    if (report.packets.received == 0) {
        return text + "  not measured: no transport packets came\n";
    }
    const std::string failed = failedChecks(report);
    text += failed.empty() ? "  none\n" : failed;
    text += isTimeless(report)
                ? "  no time is known: counts of what came too early or too late mean nothing\n"
                : "";
    if (!notApplicable.empty()) {
        text += fitted("  not applicable: " + notApplicable, kTextWidth) + "\n";
    }
    return text;
}

std::string clocks(const Report& report) {
    if (report.clocks.empty()) {
        return heading("CLOCKS") + "  none: no PCR came\n";
    }
    Columns columns("  ", "rrrrrrrrr");
    columns.row({"PID", "MEAN ms", "HIGHEST ms", "ACCURACY ns", "OVER 500", "OFFSET ppm", "JITTER us",
                 "ANNOUNCED", "STEPS"});
    std::string single;
    for (const auto& clock : report.clocks) {
        if (!clock.intervalMeanMs) {
            append(single, std::to_string(clock.pid));
            continue;
        }
        const auto nanoseconds = [](double ns) { return formatted("%.0f", ns); };
        columns.row({std::to_string(clock.pid), shown(clock.intervalMeanMs, tenths),
                     shown(clock.intervalHighestMs, tenths),
                     clock.accuracyApplicable ? shown(clock.worstNs, nanoseconds) : kUnknown,
                     clock.accuracyApplicable ? grouped(clock.over500) : kUnknown,
                     shown(clock.frequencyOffsetPpm, [](double ppm) { return formatted("%+.2f", ppm); }),
                     shown(clock.overallJitterNs, [](double ns) { return formatted("%.1f", ns / 1000); }),
                     grouped(clock.signalled), grouped(clock.unsignalled)});
    }
    std::string text = heading("CLOCKS") + columns.text(kTextWidth);
    if (!single.empty()) {
        text += fitted("  one PCR alone, which tells nothing: PID " + single, kTextWidth) + "\n";
    }
    return text;
}

std::string network(const Report& report) {
    if (!report.network) {
        return "";
    }
    const auto& net = *report.network;
    Columns columns("  ", "ll");
    const auto milliseconds = [](double ms) { return formatted("%.3f", ms); };
    if (!net.lossRateHighest) {
        columns.row({"arrivals", "not measured: less than a second"});
    } else {
        columns.row({"inter-arrival ms", "lowest " + shown(net.interArrivalLowestMs, milliseconds) +
                                             ", mean " + shown(net.interArrivalMeanMs, milliseconds) +
                                             ", 99 % below " + shown(net.interArrivalP99Ms, milliseconds) +
                                             ", highest " + shown(net.interArrivalHighestMs, milliseconds) +
                                             " (last second)"});
        columns.row({"delay factor ms", shown(net.delayFactorMs, tenths) + ", highest " +
                                            shown(net.delayFactorHighestMs, tenths)});
        const auto packets = [](uint64_t count) { return grouped(count); };
        columns.row({"media loss rate", shown(net.lossRate, packets) +
                                            " packets in the last second, highest " +
                                            shown(net.lossRateHighest, packets)});
    }
    if (net.rtp) {
        const auto& rtp = *net.rtp;
        std::string text = grouped(rtp.received) + " received, " + grouped(rtp.lost) + " lost";
        if (rtp.lossEvents > 0) {
            text += " in " + counted(rtp.lossEvents, "run", "runs");
        }
        append(text, rtp.lossEvents > 1 ? "the longest " + grouped(rtp.longestBurst) : "");
        append(text, grouped(rtp.repeated) + " repeated");
        append(text, grouped(rtp.outOfOrder) + " out of order");
        columns.row({"RTP datagrams", text});
        std::string more = formatted("payload type %u, SSRC 0x%08X", rtp.payloadType, rtp.ssrc);
        append(more, "jitter " + shown(rtp.jitterMs, milliseconds) + " ms");
        append(more, rtp.timestampSteps > 0
                         ? counted(rtp.timestampSteps, "step", "steps") + " of the time stamp"
                         : "");
        append(more, rtp.ssrcChanges > 0 ? counted(rtp.ssrcChanges, "change", "changes") + " of SSRC" : "");
        columns.row({"", more});
    }
    return heading("NETWORK") + columns.text(kTextWidth);
}

std::string cueText(const meter::CueReport& cue) {
    std::string text = cue.command;
    append(text, cue.eventId ? "event " + std::to_string(*cue.eventId) : "");
    append(text, cue.cancelled ? "cancelled" : "");
    append(text, cue.out ? (*cue.out ? "out" : "in") : "");
    append(text, cue.immediate.value_or(false) ? "at once" : "");
    append(text, cue.pts ? "PTS " + std::to_string(*cue.pts) : "");
    append(text, cue.aheadMs ? formatted("%.1f s ahead", *cue.aheadMs / 1000) : "");
    append(text, cue.durationMs ? formatted("for %.1f s", *cue.durationMs / 1000) : "");
    for (const auto& segment : cue.segmentation) {
        append(text,
               segment.type     ? *segment.type
               : segment.typeId ? formatted("segmentation type 0x%02X", *segment.typeId)
                                : formatted("segmentation event %u cancelled", segment.eventId),
               "; ");
        append(text, segment.upid ? *segment.upid : "", " ");
    }
    return text;
}

std::string cues(const Report& report) {
    if (report.cues.empty() && report.cuesEncrypted == 0 && report.cuesMalformed == 0) {
        return "";
    }
    std::string text = heading("CUES (SCTE 35)");
    Columns columns("  ", "rl");
    const std::size_t left = report.cues.size() > kCuesShown ? report.cues.size() - kCuesShown : 0;
    for (std::size_t i = left; i < report.cues.size(); ++i) {
        columns.row({std::to_string(report.cues[i].pid), cueText(report.cues[i])});
    }
    text += columns.text(kTextWidth);
    text +=
        left > 0 ? "  " + counted(left, "earlier one", "earlier ones") + " not shown; --json has more\n" : "";
    text += report.cuesEncrypted > 0 ? "  " + grouped(report.cuesEncrypted) + " encrypted\n" : "";
    text += report.cuesMalformed > 0 ? "  " + grouped(report.cuesMalformed) + " malformed\n" : "";
    return text;
}

std::string changes(const Report& report) {
    if (report.changes.empty()) {
        return "";
    }
    Columns columns("  ", "rl");
    const std::size_t left =
        report.changes.size() > kChangesShown ? report.changes.size() - kChangesShown : 0;
    for (std::size_t i = left; i < report.changes.size(); ++i) {
        columns.row({tenths(report.changes[i].at) + " s", report.changes[i].text});
    }
    std::string text = heading("CHANGES") + columns.text(kTextWidth);
    text +=
        left > 0 ? "  " + counted(left, "earlier one", "earlier ones") + " not shown; --json has more\n" : "";
    return text;
}

std::string otherPids(const Report& report) {
    Columns columns("  ", "rrrrl");
    columns.row({"PID", "Mbit/s", "PACKETS", "CC ERR", "KIND"});
    bool any = false;
    for (const auto& pid : report.pids) {
        const bool inService =
            std::any_of(report.services.begin(), report.services.end(), [&](const auto& service) {
                return std::any_of(service.streams.begin(), service.streams.end(),
                                   [&](const auto& stream) { return stream.pid == pid.pid; });
            });
        if (!inService) {
            columns.row({std::to_string(pid.pid), shown(pid.bps, megabits), grouped(pid.packets),
                         grouped(pid.continuityErrors), pid.kind});
            any = true;
        }
    }
    return any ? heading("OTHER PIDS") + columns.text(kTextWidth) : "";
}

}  // namespace

std::string reportText(const Report& report, const std::string& path) {
    return titleLine(report, path) + liveLines(report) + overview(report) + services(report) +
           errors(report) + clocks(report) + network(report) + cues(report) + changes(report) +
           otherPids(report);
}

}  // namespace meter
