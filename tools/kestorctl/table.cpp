#include "table.h"

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <utility>

#include "basics/address.h"
#include "sarn/names.h"

using records::Record;

namespace {

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

// Without its port where it does not fit otherwise.
std::string source(const Record& stream, int width) {
    if (stream.integer("packetsReceived") == 0) {
        return "no packets";
    }
    const std::string address = basics::dottedRecordAddress(stream.integer("sourceAddress"));
    const bool other = stream.integer("wrongSource") != 0;
    std::string whole = formatted("%s:%" PRId64 "%s", address.c_str(), stream.integer("sourcePort"),
                                  other ? " and other" : "");
    return std::cmp_less_equal(whole.size(), width) ? whole : address + (other ? " +" : "");
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

constexpr int kGroupWidth = 21;  // 239.255.255.255:65535
constexpr int kWidestText = 32;  // of SOURCE and STREAM
constexpr int kLeastText = 17;   // an address, and that there is another

// A column behind the text: what it is called for channels and for their PIDs, and what it shows of either.
struct Column {
    const char* heading;
    const char* pidHeading;
    int width;    // with the space before it
    int leftOut;  // where not all fit: the lowest first; 0 for never
    std::string (*show)(const Record&);
    std::string (*showPid)(const Record&);
};

// Counters are signed in the parser's hands.
std::string counter(int64_t value) {
    return std::to_string(static_cast<uint64_t>(value));
}
std::string lost(const Record& record) {
    return counter(record.integer("packetsLost"));
}
std::string continuityErrors(const Record& record) {
    return counter(record.integer("Continuity_count_error"));
}
std::string clockErrors(const Record& record) {
    return counter(record.integer("PCR_error"));
}
std::string packets(const Record& record) {
    return counter(record.integer("packetsReceived"));
}
std::string syncErrors(const Record& record) {
    return counter(record.integer("Sync_byte_error"));
}
std::string bitRate(const Record& record) {
    return formatted("%.3f", megabits(record));
}
std::string delayFactor(const Record& record) {
    return formatted("%.2f", record.fraction("mdiDelayFactor"));
}
std::string quality(const Record& record) {
    return formatted("%.2f", record.fraction("transportQualityIndex"));
}
// A score of 0 means that nothing was scored yet.
std::string score(const Record& record) {
    return record.fraction("mosScore") > 0 ? formatted("%.2f", record.fraction("mosScore")) : "";
}

constexpr Column kColumns[] = {
    {"Mbit/s", "Mbit/s", 9, 0, bitRate, bitRate},
    {"PACKETS", "PACKETS", 11, 1, packets, packets},
    {"LOST", "LOST", 8, 0, lost, lost},
    {"CC ERR", "CC ERR", 9, 0, continuityErrors, continuityErrors},
    {"PCR ERR", "PCR ERR", 8, 3, clockErrors, clockErrors},
    {"SYNC ERR", "PICTURE", 10, 2, syncErrors, picture},
    {"DF ms", "GOP/B", 9, 4, delayFactor, gop},
    {"TQI", "MOS", 5, 0, quality, score},
};
constexpr int kMostLeftOut = 4;

// What fits.
struct Layout {
    int leftOut = 0;  // columns up to this are
    int text = kWidestText;

    bool shows(const Column& column) const {
        return column.leftOut == 0 || column.leftOut > leftOut;
    }
};

Layout layoutFor(int width) {
    Layout layout;
    for (;; ++layout.leftOut) {
        int rest = width - kGroupWidth - 1;
        for (const Column& column : kColumns) {
            rest -= layout.shows(column) ? column.width : 0;
        }
        if (rest >= kLeastText || layout.leftOut == kMostLeftOut) {
            layout.text = std::clamp(rest, kLeastText, kWidestText);
            return layout;
        }
    }
}

// A line: what stands under GROUP, what stands under SOURCE, and the rest by `show`.
template <typename Show>
std::string line(const Layout& layout, const std::string& key, const std::string& text, Show show) {
    std::string result =
        formatted("%-*s %-*.*s", kGroupWidth, key.c_str(), layout.text, layout.text, text.c_str());
    for (const Column& column : kColumns) {
        if (layout.shows(column)) {
            result += formatted(" %*s", column.width - 1, show(column).c_str());
        }
    }
    result.erase(result.find_last_not_of(' ') + 1);
    return result + "\n";
}

std::string recordLine(const Layout& layout, const Record& record) {
    if (record.kind() == records::Kind::kStream) {
        std::string group(record.text("group"));
        group.append(":").append(record.text("destinationPort"));
        return "\n" + line(layout, group, source(record, layout.text),
                           [&](const Column& column) { return column.show(record); });
    }
    const int64_t number = record.integer("pid");
    const std::string key =
        formatted("  %-3.*s %4" PRId64 " 0x%04" PRIx64, static_cast<int>(record.text("label").size()),
                  record.text("label").data(), number, static_cast<uint64_t>(number));
    return line(layout, key, content(record), [&](const Column& column) { return column.showPid(record); });
}

}  // namespace

std::string renderTable(const records::Snapshot& snapshot, int width) {
    if (snapshot.empty()) {
        return "no channels: kestorctl add GROUP... adds some\n";
    }
    const Layout layout = layoutFor(width);
    std::string table =
        line(layout, "GROUP", "SOURCE", [](const Column& column) { return std::string(column.heading); }) +
        line(layout, "      PID   hex", "STREAM",
             [](const Column& column) { return std::string(column.pidHeading); });
    for (const Record& record : snapshot) {
        table += recordLine(layout, record);
    }
    return table;
}
