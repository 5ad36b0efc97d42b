#include "meter/reportText.h"

#include <algorithm>
#include <utility>

#include "basics/address.h"
#include "report/textParts.h"
#include "report/textWords.h"

namespace meter {

namespace {

using basics::dotted;

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
    if (!report.live) {
        return text;
    }
    if (report.live->disturbed) {
        text += "this machine dropped frames a moment ago, or captured nothing: losses may be its own\n";
    }
    if (report.live->disturbedSeconds > 0 && report.live->lastDisturbed) {
        text += formatted("%.0f s with such drops so far, the last at %.0f s\n",
                          static_cast<double>(report.live->disturbedSeconds), *report.live->lastDisturbed);
    }
    if (const auto& leftOut = report.live->leftOut) {
        text += "too large to be told whole: left out";
        for (const auto& [count, what] : {std::pair{leftOut->cues, "cues"},
                                          {leftOut->changes, "changes"},
                                          {leftOut->services, "services"},
                                          {leftOut->streams, "streams"},
                                          {leftOut->pids, "PIDs"},
                                          {leftOut->checkPids, "PIDs of checks"},
                                          {leftOut->clocks, "clocks"},
                                          {leftOut->serviceLevels, "levels of services"}}) {
            if (count > 0) {
                text += (text.ends_with("out") ? " " : ", ") + std::to_string(count) + " " + what;
            }
        }
        text += "\n";
    }
    if (report.live->joinLatencyMs) {
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
    if (report.packets.notTracked > 0) {
        append(packets, grouped(report.packets.notTracked) + " of PIDs not tracked");
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
    return titleLine(report, path) + liveLines(report) + overview(report) + servicesText(report) +
           checksText(report) + clocksText(report) + networkText(report) + cuesText(report) +
           changesText(report) + otherPids(report);
}

}  // namespace meter
