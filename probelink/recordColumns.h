// The columns of the result records: the one place that names them.
//
// A record is one line of ';'-separated columns: a prefix that identifies stream and PID, then metrics. PID
// lines end with as many descriptor tags as their column descriptorCount says. The viewer names columns from
// here, and docs/records.md repeats these tables (a test compares them).
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string_view>

namespace records {

enum class Kind : uint8_t { kStream, kPat, kPmt, kKnownPid, kUnlistedPid };

// What a column holds, as printed: decimal integers, or a decimal fraction with six digits behind the point.
enum class Type : uint8_t { kText, kSigned, kUnsigned, kFraction };

struct Column {
    std::string_view name;  // unique within a record
    Type type;
    std::string_view unit;  // empty where there is none
    std::string_view meaning;
    // What a whole number can be at most, and of signed ones at least; a line with another is no record.
    uint64_t maximum = std::numeric_limits<uint64_t>::max();
    int64_t minimum = std::numeric_limits<int64_t>::min();
};
inline constexpr uint64_t kLargestPid = 0x1FFF;
inline constexpr uint64_t kLargestPort = 0xFFFF;
inline constexpr uint64_t kLargestByte = 0xFF;

// The label, column 4, tells the kind.
struct KindName {
    Kind kind;
    std::string_view label;
};
inline constexpr std::array<KindName, 5> kKinds = {{
    {Kind::kStream, "-1"},
    {Kind::kPat, "PAT"},
    {Kind::kPmt, "PMT"},
    {Kind::kKnownPid, "KP"},
    {Kind::kUnlistedPid, "UP"},
}};
inline constexpr std::size_t kLabelColumn = 3;  // counted from 0

inline constexpr std::array kCommonColumns = std::to_array<Column>({
    {"group", Type::kText, "", "multicast group, dotted quad"},
    {"kind", Type::kUnsigned, "", "0 for the stream, 1 for a PID"},
    {"pid", Type::kSigned, "", "PID; -1 for the stream", kLargestPid, -1},
    {"label", Type::kText, "",
     "-1 stream, PAT, PMT, KP elementary PID that a PMT lists, UP any other PID seen"},
});

inline constexpr Column kStreamTypeColumn = {
    "streamType", Type::kUnsigned, "", "stream_type from the last PMT that listed the PID; 0 without one",
    kLargestByte};
inline constexpr Column kPmtPidColumn = {"pmtPid", Type::kUnsigned, "",
                                         "PMT PID of the program that lists the PID", kLargestPid};

inline constexpr std::array kIdentityColumns = std::to_array<Column>({
    {"sourceAddress", Type::kSigned, "",
     "source IPv4 address of the first datagram; its bytes in network order read as a little-endian integer",
     INT32_MAX, INT32_MIN},
    {"destinationAddress", Type::kSigned, "", "destination IPv4 address of the first datagram, likewise",
     INT32_MAX, INT32_MIN},
    {"sourcePort", Type::kUnsigned, "", "UDP source port of the first datagram", kLargestPort},
    {"destinationPort", Type::kUnsigned, "", "UDP destination port of the first datagram", kLargestPort},
    {"firstPacketLength", Type::kUnsigned, "byte", "captured length of the first frame"},
    {"wrongSource", Type::kUnsigned, "",
     "1 once a datagram came from another source than the first; such datagrams are not analysed", 1},
    {"hasExtraHeader", Type::kUnsigned, "",
     "1 when the UDP length is no multiple of 188: headers precede the transport packets"},
});

// Counted since the stream was added or cleared, for the stream and for each PID alike.
inline constexpr std::array kCounterColumns = std::to_array<Column>({
    {"packetsLost", Type::kUnsigned, "packet", "transport packets missing by the continuity counter"},
    {"packetsOutOfSequence", Type::kUnsigned, "packet",
     "packets with payload whose continuity counter is not the expected one"},
    {"packetsDuplicated", Type::kUnsigned, "packet",
     "always 0: a repeated packet counts as 15 lost ones instead"},
    {"packetsReceived", Type::kUnsigned, "packet", "transport packets received"},
    {"packetsScrambled", Type::kUnsigned, "packet", "packets with transport_scrambling_control other than 0"},
    {"TS_sync_loss", Type::kUnsigned, "",
     "third failure in a row to find a packet where one should begin; five good packets end the loss"},
    {"Sync_byte_error", Type::kUnsigned, "",
     "skips to the next packet with sync byte 0x47, or to the datagram's end"},
    {"PAT_error", Type::kUnsigned, "",
     "PID 0 missing for over 500 ms, its packets as far apart, scrambled, or not decodable"},
    {"PAT_error_2", Type::kUnsigned, "",
     "decoded PATs over 500 ms apart, and the cases of PAT_error but its packets' spacing"},
    {"Continuity_count_error", Type::kUnsigned, "",
     "packets with payload and an unexpected continuity counter"},
    {"PMT_error", Type::kUnsigned, "",
     "PMT PID missing for over 500 ms, decoded PMTs as far apart, or scrambled"},
    {"PMT_error_2", Type::kUnsigned, "", "as PMT_error; scrambling and spacing for program numbers above 0"},
    {"PID_error", Type::kUnsigned, "", "seconds for which a PID was silent; always 0 with wall-clock times"},
    {"Transport_error", Type::kUnsigned, "", "packets with transport_error_indicator set"},
    {"CRC_error", Type::kUnsigned, "",
     "errors of the PSI decoder: checksums, lost or repeated packets, unfit sections; stream only"},
    {"PCR_error", Type::kUnsigned, "", "sum of PCR_repetition_error and PCR_discontinuity_indicator_error"},
    {"PCR_repetition_error", Type::kUnsigned, "", "PCRs that arrived over 40 ms after the one before"},
    {"PCR_discontinuity_indicator_error", Type::kUnsigned, "",
     "PCR steps over 100 ms forward without discontinuity_indicator"},
    {"PCR_accuracy_error", Type::kUnsigned, "", "PCRs over 500 ns off the value that the bit rate gives"},
    {"PTS_error", Type::kUnsigned, "", "PTSs over 700 ms after the one before"},
    {"CAT_error", Type::kUnsigned, "", "scrambled packets before any CAT, and undecodable CAT packets"},
});

inline constexpr Column kBitRateColumn = {
    "bitRate", Type::kUnsigned, "bit/s",
    "since the previous snapshot, lost packets included; 0 below 200 ms"};

inline constexpr std::array kStreamMeasureColumns = std::to_array<Column>({
    {"mdiDelayFactor", Type::kFraction, "ms", "delay factor of the Media Delivery Index (RFC 4445)"},
    {"mdiReserved", Type::kUnsigned, "", "always 0"},
    {"jitterVariance", Type::kFraction, "ms^2", "variance of the datagrams' inter-arrival times"},
    {"jitterVarianceMaximum", Type::kFraction, "ms^2", "highest jitterVariance"},
    {"jitterMeanInterArrival", Type::kUnsigned, "ms", "mean inter-arrival time of datagrams, whole ms"},
    {"transportQualityIndex", Type::kFraction, "",
     "1.0 (bad) to 5.0, from bit rate and loss since the previous snapshot"},
    {"ttl", Type::kUnsigned, "", "IPv4 time to live of the latest datagram", kLargestByte},
    {"dscp", Type::kUnsigned, "", "differentiated services code point of the latest datagram", 63},
    {"ecn", Type::kUnsigned, "", "congestion notification bits of the latest datagram", 3},
    {"igmpLatency", Type::kUnsigned, "ms",
     "from the join to the first packet; meaningless before the first packet or without a join time"},
});

inline constexpr std::array kPidMeasureColumns = std::to_array<Column>({
    {"gopLength", Type::kUnsigned, "frame", "estimated GOP length, running average; 0 while unknown"},
    {"gopLengthMinimum", Type::kUnsigned, "frame", "lowest gopLength"},
    {"gopLengthMaximum", Type::kUnsigned, "frame", "highest gopLength"},
    {"gopBFrames", Type::kUnsigned, "frame", "estimated B frames per anchor frame, running average"},
    {"mosScore", Type::kFraction, "", "mean opinion score, 1.0 (bad) to 5.0; 0 before the first"},
    {"mosMinimum", Type::kFraction, "", "lowest score so far; 5 before the first, 0 for a PID never seen"},
    {"mosMaximum", Type::kFraction, "", "highest score so far; 1 before the first, 0 for a PID never seen"},
    {"pictureHeight", Type::kUnsigned, "pixel", "from the H.264 sequence parameter set; 0 while unknown"},
    {"pictureWidth", Type::kUnsigned, "pixel", "likewise"},
    {"descriptorCount", Type::kUnsigned, "", "descriptor tags that follow"},
});

// Stands for all tags at the end of a PID line; there may be none.
inline constexpr Column kDescriptorTagsColumn = {"descriptorTags", Type::kUnsigned, "",
                                                 "tags of the PID's descriptors in its PMT, one column each",
                                                 kLargestByte};

namespace detail {

template <std::size_t... Sizes>
consteval auto join(const std::array<Column, Sizes>&... parts) {
    std::array<Column, (Sizes + ...)> all{};
    std::size_t next = 0;
    const auto append = [&](const auto& part) {
        for (const Column& column : part) {
            all[next++] = column;
        }
    };
    (append(parts), ...);
    return all;
}

inline constexpr std::array<Column, 1> kBitRate = {kBitRateColumn};
inline constexpr auto kPidMetrics = join(kBitRate, kCounterColumns, kPidMeasureColumns);

}  // namespace detail

inline constexpr auto kStreamColumns =
    detail::join(kCommonColumns, kIdentityColumns, detail::kBitRate, kCounterColumns, kStreamMeasureColumns);
// PAT and PMT lines.
inline constexpr auto kTablePidColumns = detail::join(kCommonColumns, kIdentityColumns, detail::kPidMetrics);
inline constexpr auto kKnownPidColumns = detail::join(
    kCommonColumns, std::array{kStreamTypeColumn, kPmtPidColumn}, kIdentityColumns, detail::kPidMetrics);
inline constexpr auto kUnlistedPidColumns =
    detail::join(kCommonColumns, std::array{kStreamTypeColumn}, kIdentityColumns, detail::kPidMetrics);

// No kind has more.
inline constexpr std::size_t kMostColumns = std::max(
    {kStreamColumns.size(), kTablePidColumns.size(), kKnownPidColumns.size(), kUnlistedPidColumns.size()});

// All columns of a kind in order, descriptor tags not included.
constexpr std::span<const Column> columnsOf(Kind kind) {
    switch (kind) {
        case Kind::kStream:
            return kStreamColumns;
        case Kind::kKnownPid:
            return kKnownPidColumns;
        case Kind::kUnlistedPid:
            return kUnlistedPidColumns;
        default:
            return kTablePidColumns;
    }
}

// The place of the column with that name, from 0; nothing where the kind has none.
constexpr std::optional<std::size_t> columnIndex(Kind kind, std::string_view name) {
    const auto columns = columnsOf(kind);
    for (std::size_t i = 0; i < columns.size(); ++i) {
        if (columns[i].name == name) {
            return i;
        }
    }
    return std::nullopt;
}

// A column by its name, found when the program is compiled: a name that no kind has does not compile.
class ColumnName {
  public:
    template <std::size_t Size>
    consteval ColumnName(const char (&name)[Size]) {  // implicit, so that a literal is one
        bool known = false;
        for (const KindName& kind : kKinds) {
            const auto index = columnIndex(kind.kind, name);
            indexes_[static_cast<std::size_t>(kind.kind)] = static_cast<uint8_t>(index.value_or(kNone));
            if (index) {
                known = true;
                type_ = columnsOf(kind.kind)[*index].type;
            }
        }
        if (!known) {
            throw "no kind of record has a column of that name";
        }
    }
    constexpr std::optional<std::size_t> indexIn(Kind kind) const {
        const uint8_t index = indexes_[static_cast<std::size_t>(kind)];
        return index == kNone ? std::nullopt : std::optional<std::size_t>(index);
    }
    // The same in every kind that has the column.
    constexpr Type type() const {
        return type_;
    }

  private:
    static constexpr uint8_t kNone = 0xFF;
    std::array<uint8_t, kKinds.size()> indexes_{};
    Type type_{};
};

constexpr std::string_view typeName(Type type) {
    constexpr std::array<std::string_view, 4> kNames = {"text", "signed", "unsigned", "fraction"};
    return kNames[static_cast<std::size_t>(type)];
}

}  // namespace records
