#include "table.h"

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>

#include "basics/address.h"
#include "sarn/names.h"

using records::Record;

namespace {

// Channel lines, and below them their PIDs'.
constexpr const char* kChannelHeading =
    "GROUP               SOURCE                             Mbit/s    PACKETS    LOST   CC ERR PCR ERR SYNC "
    "ERR"
    "    DF ms  TQI\n";
constexpr const char* kPidHeading =
    "      PID   hex     STREAM                             Mbit/s    PACKETS    LOST   CC ERR PCR ERR  "
    "PICTURE"
    "    GOP/B  MOS\n";
constexpr int kTextWidth = 32;  // of SOURCE and STREAM

[[gnu::format(printf, 1, 2)]] std::string formatted(const char* format, ...) {
    char line[256];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    return line;
}

double megabits(const Record& record) {
    return static_cast<double>(record.integer("bitRate")) / 1e6;
}

// The stream type's text without what only repeats the standard it comes from.
std::string shortTypeName(int64_t streamType) {
    std::string_view name = GetTypeName(static_cast<unsigned>(streamType));
    for (const std::string_view prefix : {"ITU-T Rec H.222.0 | ISO/IEC 13818-1 ",
                                          "ITU-T Rec. H.222.0 | ISO/IEC 13818-1 ", "ITU-T Rec H.262 | "}) {
        if (name.starts_with(prefix)) {
            name.remove_prefix(prefix.size());
        }
    }
    for (const std::string_view end : {" as defined", " stream descriptor", " with ", " carried in ", ": "}) {
        name = name.substr(0, name.find(end));
    }
    return std::string(name);
}

std::string source(const Record& stream) {
    if (stream.integer("packetsReceived") == 0) {
        return "no packets";
    }
    return formatted("%s:%" PRId64 "%s", basics::dottedRecordAddress(stream.integer("sourceAddress")).c_str(),
                     stream.integer("sourcePort"), stream.integer("wrongSource") != 0 ? " and other" : "");
}

std::string content(const Record& pid) {
    switch (pid.kind()) {
        case records::Kind::kPat:
            return "programs";
        case records::Kind::kPmt:
            return "program map";
        case records::Kind::kKnownPid:
            return formatted("%.21s (PMT %" PRId64 ")", shortTypeName(pid.integer("streamType")).c_str(),
                             pid.integer("pmtPid"));
        default:
            return pid.integer("pid") == 8191 ? "null packets" : "";
    }
}

std::string picture(const Record& pid) {
    if (pid.integer("pictureWidth") == 0) {
        return "";
    }
    return formatted("%" PRId64 "x%" PRId64, pid.integer("pictureWidth"), pid.integer("pictureHeight"));
}

std::string gop(const Record& pid) {
    if (pid.integer("gopLength") == 0) {
        return "";
    }
    return formatted("%" PRId64 "/%" PRId64, pid.integer("gopLength"), pid.integer("gopBFrames"));
}

// The columns that channels and PIDs share.
std::string counters(const Record& record) {
    return formatted(" %8.3f %10" PRIu64 " %7" PRIu64 " %8" PRIu64 " %7" PRIu64, megabits(record),
                     static_cast<uint64_t>(record.integer("packetsReceived")),
                     static_cast<uint64_t>(record.integer("packetsLost")),
                     static_cast<uint64_t>(record.integer("Continuity_count_error")),
                     static_cast<uint64_t>(record.integer("PCR_error")));
}

std::string channelLine(const Record& stream) {
    std::string group(stream.text("group"));
    group.append(":").append(stream.text("destinationPort"));
    return formatted("%-19s %-*.*s", group.c_str(), kTextWidth, kTextWidth, source(stream).c_str()) +
           counters(stream) +
           formatted(" %8" PRIu64 " %8.2f %4.2f\n", static_cast<uint64_t>(stream.integer("Sync_byte_error")),
                     stream.fraction("mdiDelayFactor"), stream.fraction("transportQualityIndex"));
}

std::string pidLine(const Record& pid) {
    const int64_t number = pid.integer("pid");
    std::string line =
        formatted("  %-3.*s %4" PRId64 " 0x%04" PRIx64 "  %-*.*s", static_cast<int>(pid.text("label").size()),
                  pid.text("label").data(), number, static_cast<uint64_t>(number), kTextWidth, kTextWidth,
                  content(pid).c_str()) +
        counters(pid) + formatted(" %9s %8s", picture(pid).c_str(), gop(pid).c_str());
    // A score of 0 means that nothing was scored yet.
    if (pid.fraction("mosScore") > 0) {
        line += formatted(" %4.2f", pid.fraction("mosScore"));
    }
    line.erase(line.find_last_not_of(' ') + 1);
    return line + "\n";
}

}  // namespace

std::string renderTable(const records::Snapshot& snapshot) {
    if (snapshot.empty()) {
        return "no channels: kestorctl add GROUP... adds some\n";
    }
    std::string table = std::string(kChannelHeading) + kPidHeading;
    for (const Record& record : snapshot) {
        table += record.kind() == records::Kind::kStream ? "\n" + channelLine(record) : pidLine(record);
    }
    return table;
}
