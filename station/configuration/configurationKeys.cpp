#include "configuration/configurationKeys.h"

#include <array>
#include <type_traits>
#include <utility>

#include "channels/channelAttributes.h"

namespace station {

namespace {

constexpr double kMillion = 1e6;

template <typename Type>
struct MemberTypes;
template <typename RecordType, typename ValueType>
struct MemberTypes<ValueType RecordType::*> {
    using Record = RecordType;
};
template <auto kMember>
using RecordOf = typename MemberTypes<decltype(kMember)>::Record;

template <auto kMember>
constexpr Key<RecordOf<kMember>> key(std::string_view name, std::string_view type, std::string_view unit,
                                     std::string_view meaning, Demand demand = {},
                                     std::string_view defaultWords = {}) {
    using Record = RecordOf<kMember>;
    return {name,
            type,
            unit,
            meaning,
            demand,
            defaultWords,
            [](const Value& value, Record& record) { readInto(value, record.*kMember); },
            [](const Record& record) { return written(record.*kMember); }};
}

constexpr Demand kFilled = {.filled = true};
constexpr Demand kAnyLevel = {.from = -1e15, .to = 1e15};
constexpr Demand kDelay = {.from = 0, .to = 86'400};
constexpr Demand kTimeout = {.from = 0.1, .to = 300};

using C = Configuration;
constexpr std::array kTopKeys = {
    key<&C::listen>("listen", "string", "", "Address and port to serve HTTP at; empty for none",
                    {.check = checkListen}),
    key<&C::socket>("socket", "path", "",
                    "Unix socket to serve HTTP on; whoever may open it may change everything",
                    {.filled = true, .check = checkSocketPath}),
    key<&C::meterSocket>("meter_socket", "path", "",
                         "Unix socket where kestor-meter connects; empty for none",
                         {.check = checkSocketPath}),
    key<&C::socketToken>("socket_token", "boolean", "",
                         "Whether changes over the Unix socket need the token as well"),
    key<&C::tokenFile>("token_file", "path", "",
                       "File with the token that changes over TCP need; empty: no changes over TCP"),
    key<&C::allowedHosts>(
        "allowed_hosts", "list of strings", "",
        "Host names that requests may use besides the listening address, localhost and this machine's name",
        {.check = checkHost}),
    key<&C::instance>("instance", "string", "", "This probe's name in notifications and InfluxDB points",
                      {.filled = true, .check = checkName}, "this machine's name"),
    key<&C::state>("state_dir", "path", "", "Directory for events and for channels added at run time",
                   kFilled),
    key<&C::pipe>("pipe", "path", "", "The probe's pipe", kFilled),
    key<&C::controllerEndpoint>("controller_endpoint", "string", "", "Where the station answers the probe",
                                {.filled = true, .check = checkEndpoint}),
    key<&C::page>("page", "path", "", "Directory of the web page's files; empty: those that were installed"),
    key<&C::passive>("passive", "boolean", "",
                     "Whether the probe receives groups without joining them (IGMP)", {},
                     "not sent to the probe"),
    key<&C::igmpLatency>("igmp_latency_ms", "integer", "ms", "How long the probe's scans wait for a frame",
                         {.from = 1, .to = 60'000}, "not sent to the probe"),
};

constexpr std::array kAlarmsKeys = {
    key<&C::alarmSource>(
        "source", "string", "",
        R"(What alarms go by that probe and meter both measure: "auto" (the meter where it delivers the channel) or "probe")"),
};

constexpr std::array kEventsKeys = {
    key<&C::keepDays>("keep_days", "integer", "days", "Events older than this are deleted",
                      {.from = 1, .to = 36'500}),
    key<&C::keepRows>("keep_rows", "integer", "events", "Beyond this number the oldest events are deleted",
                      {.from = 1000, .to = 100 * kMillion}),
};

constexpr std::array kHistoryKeys = {
    key<&C::historyDays>(
        "days", "integer", "days",
        "Minutes of all channels are kept on the disk for so long; 0: a restart empties the plots",
        {.from = 0, .to = 30}),
    key<&C::historyMegabytes>("max_mb", "integer", "MB",
                              "Beyond this size of the file the oldest minutes are deleted",
                              {.from = 10, .to = kMillion}),
};

constexpr std::array kMetricsKeys = {
    key<&C::metricsPids>("pids", "string", "",
                         R"(Which PIDs get metrics of their own: "none", "listed" (in a PMT) or "all")"),
};

using S = Configuration::Pictures;
constexpr std::array kPicturesKeys = {
    key<&S::socket>("socket", "path", "", "Unix socket where kestor-picture connects; empty for none",
                    {.check = checkSocketPath}),
    key<&S::cores>("cores", "number", "processors",
                   "Share of the machine that pictures may take; 0: none are taken", {.from = 0, .to = 64}),
};

using H = Configuration::Http;
constexpr std::array kHttpKeys = {
    key<&H::connections>(
        "connections", "integer", "connections",
        "Simultaneous connections over TCP and over the socket, apart from those reserved for the socket",
        {.from = 16, .to = 800}),
    key<&H::connectionsPerAddress>("connections_per_address", "integer", "connections",
                                   "Simultaneous connections from one address over TCP",
                                   {.from = 8, .to = 800}),
};

using I = Configuration::Influx;
constexpr std::array kInfluxKeys = {
    key<&I::url>("url", "string", "", "Write URL of an InfluxDB, with its query; empty: nothing is written",
                 {.check = checkUrl}),
    key<&I::authorizationFile>("authorization_file", "path", "",
                               "File with the Authorization header to send; empty for none"),
    key<&I::timeout>("timeout_s", "number", "s", "A request that takes longer is abandoned", kTimeout),
};

using W = Webhook;
constexpr std::array kWebhookKeys = {
    key<&W::url>("url", "string", "", "URL of the receiver; for an Alertmanager without /api/v2/alerts",
                 {.filled = true, .check = checkUrl}, kRequired),
    key<&W::name>("name", "string", "", "Its name in the log, the API and metrics", {.check = checkName},
                  "its number in the file"),
    key<&W::format>("format", "string", "", R"(Format of the messages: "json" or "alertmanager")"),
    key<&W::minimumSeverity>("minimum_severity", "string", "",
                             R"(Less severe alarms are not sent: "critical", "major", "minor" or "warning")"),
    key<&W::cues>("cues", "boolean", "", "Whether it is told the channels' cues (SCTE 35) as well"),
    key<&W::maxPerMinute>("max_per_minute", "integer", "messages",
                          "Beyond this, notifications are combined into one message",
                          {.from = 1, .to = 6000}),
    key<&W::timeout>("timeout_s", "number", "s", "A request that takes longer has failed and is retried",
                     kTimeout),
    key<&W::caFile>("ca_file", "path", "",
                    "PEM file with the certificate authorities to trust; empty for the system's"),
    key<&W::authorizationFile>("authorization_file", "path", "",
                               "File with the Authorization header to send; empty for none"),
};

using P = PlaylistSource;
constexpr std::array kPlaylistKeys = {
    key<&P::file>("file", "path", "", "M3U playlist; it need not exist yet", kFilled, kRequired),
    key<&P::profile>("profile", "string", "", "Alarm profile of its channels",
                     {.filled = true, .check = checkName}),
    key<&P::labels>("labels", "table of strings", "",
                    "Labels for its channels, unless the playlist sets them"),
};

template <typename Value>
constexpr std::string_view kTypeWords = "integer";
template <>
constexpr std::string_view kTypeWords<std::string> = "string";
template <>
constexpr std::string_view kTypeWords<Labels> = "table of strings";
template <>
constexpr std::string_view kTypeWords<bool> = "boolean";

template <std::size_t kIndex>
constexpr Key<Channel> attributeKey() {
    constexpr auto& attribute = std::get<kIndex>(kChannelAttributes);
    using AttributeValue = typename std::decay_t<decltype(attribute)>::Value;
    const Demand demand{.filled = attribute.filled,
                        .check = attribute.isAddress                           ? checkSource
                                 : std::is_same_v<AttributeValue, std::string> ? checkName
                                                                               : nullptr};
    return key<attribute.member>(attribute.name, kTypeWords<AttributeValue>, "", attribute.meaning, demand,
                                 attribute.unset);
}

// The group, and the attributes that are keys.
constexpr auto kChannelKeys = []<std::size_t... kIndexes>(std::index_sequence<kIndexes...>) {
    constexpr std::size_t kKeys =
        (std::size_t{!std::get<kIndexes>(kChannelAttributes).meaning.empty()} + ...);
    std::array<Key<Channel>, kKeys + 1> keys{
        key<&Channel::group>("group", "string", "", "IPv4 multicast address", {}, kRequired)};
    std::size_t next = 1;
    const auto add = [&]<std::size_t kIndex>(std::integral_constant<std::size_t, kIndex> /*index*/) {
        if constexpr (!std::get<kIndex>(kChannelAttributes).meaning.empty()) {
            keys[next++] = attributeKey<kIndex>();
        }
    };
    (add(std::integral_constant<std::size_t, kIndexes>{}), ...);
    return keys;
}
(std::make_index_sequence<std::tuple_size_v<decltype(kChannelAttributes)>>{});

constexpr std::string_view kOfTheType = "the alarm's";
using M = MeasureRules;
constexpr std::array kMeasureKeys = {
    key<&M::pidAbsenceMs>("pid_absence_ms", "integer", "ms",
                          "A video or audio PID without packets for so long is missing",
                          {.from = 500, .to = 60'000}),
    key<&M::pcrRepetitionMs>("pcr_repetition_ms", "integer", "ms",
                             "PCRs that are further apart are repeated too seldom", {.from = 20, .to = 1000}),
};
constexpr Key<MeasureRules> kTablesKey = key<&M::serviceInformation>(
    "tables", "string", "",
    R"(service_information: whether tables that were never seen are missing: "seen" (no) or "required")", {},
    kOfTheType);

using R = AlarmRule;
constexpr std::array kRuleKeys = {
    key<&R::enabled>("enabled", "boolean", "", "Whether the alarm is raised at all", {}, kOfTheType),
    key<&R::severity>("severity", "string", "", R"("critical", "major", "minor" or "warning")", {},
                      kOfTheType),
    key<&R::raiseLevel>("raise_level", "number", "the alarm's",
                        "Levels: the alarm is raised beyond this value", kAnyLevel, kOfTheType),
    key<&R::clearLevel>("clear_level", "number", "the alarm's",
                        "Levels: the alarm is cleared at this value or better", kAnyLevel, kOfTheType),
    key<&R::count>("count", "integer", "the alarm's",
                   "Counters: this many errors within the window raise the alarm; 0: not considered",
                   {.from = 0, .to = 1000 * kMillion}, kOfTheType),
    key<&R::errorSeconds>(
        "error_seconds", "integer", "s",
        "Counters: this many seconds with errors within the window raise the alarm; 0: not considered",
        {.from = 0, .to = 600}, kOfTheType),
    key<&R::window>("window_s", "integer", "s",
                    "Counters: length of the window, at most 600; absences: how long none may come",
                    {.from = 1, .to = 86'400}, kOfTheType),
    key<&R::raiseDelay>("raise_delay_s", "number", "s",
                        "How long the fault has to last before the alarm is raised", kDelay, kOfTheType),
    key<&R::clearDelay>("clear_delay_s", "number", "s",
                        "How long the fault has to be gone before the alarm is cleared; events: the shortest "
                        "time between two",
                        kDelay, kOfTheType),
};

}  // namespace

std::span<const Key<Configuration>> topKeys() {
    return kTopKeys;
}

std::span<const Key<Configuration>> alarmsKeys() {
    return kAlarmsKeys;
}

std::span<const Key<Configuration>> eventsKeys() {
    return kEventsKeys;
}

std::span<const Key<Configuration>> historyKeys() {
    return kHistoryKeys;
}
std::span<const Key<Configuration::Pictures>> picturesKeys() {
    return kPicturesKeys;
}

std::span<const Key<Configuration>> metricsKeys() {
    return kMetricsKeys;
}

std::span<const Key<Configuration::Http>> httpKeys() {
    return kHttpKeys;
}

std::span<const Key<Configuration::Influx>> influxKeys() {
    return kInfluxKeys;
}

std::span<const Key<Webhook>> webhookKeys() {
    return kWebhookKeys;
}

std::span<const Key<PlaylistSource>> playlistKeys() {
    return kPlaylistKeys;
}

std::span<const Key<Channel>> channelKeys() {
    return kChannelKeys;
}

std::span<const Key<MeasureRules>> measureKeys() {
    return kMeasureKeys;
}

std::span<const Key<AlarmRule>> ruleKeys() {
    return kRuleKeys;
}

const Key<MeasureRules>& tablesKey() {
    return kTablesKey;
}

bool ruleHasKey(AlarmKind kind, std::string_view key) {
    const bool level = kind == AlarmKind::kHigh || kind == AlarmKind::kLow;
    if (key == "raise_level" || key == "clear_level") {
        return level;
    }
    if (key == "count" || key == "error_seconds") {
        return kind == AlarmKind::kCounter;
    }
    if (key == "window_s") {
        return kind == AlarmKind::kCounter || kind == AlarmKind::kAbsence;
    }
    if (key == "raise_delay_s") {
        return kind != AlarmKind::kEvent && kind != AlarmKind::kAbsence;
    }
    if (key == "clear_delay_s") {
        return kind != AlarmKind::kAbsence;
    }
    return true;
}

Channel blankChannel() {
    return {.group = *Group::parse("224.0.0.0")};
}

}  // namespace station
