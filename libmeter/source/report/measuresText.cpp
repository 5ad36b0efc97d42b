#include <algorithm>
#include <string_view>

#include "meter/reportText.h"
#include "report/textParts.h"
#include "report/textWords.h"

namespace meter {

namespace {

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

}  // namespace

std::string checksText(const Report& report) {
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

std::string clocksText(const Report& report) {
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

std::string networkText(const Report& report) {
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

}  // namespace meter
