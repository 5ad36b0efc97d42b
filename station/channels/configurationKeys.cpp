#include "channels/configurationKeys.h"

#include <array>

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

constexpr std::array kEventsKeys = {
    key<&C::keepDays>("keep_days", "integer", "days", "Events older than this are deleted",
                      {.from = 1, .to = 36'500}),
    key<&C::keepRows>("keep_rows", "integer", "events", "Beyond this number the oldest events are deleted",
                      {.from = 1000, .to = 100 * kMillion}),
};

constexpr std::array kMetricsKeys = {
    key<&C::metricsPids>("pids", "string", "",
                         R"(Which PIDs get metrics of their own: "none", "listed" (in a PMT) or "all")"),
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

constexpr std::array kChannelKeys = {
    key<&Channel::group>("group", "string", "", "IPv4 multicast address", {}, kRequired),
    key<&Channel::name>("name", "string", "", "Name to display", {.check = checkName}, "the group"),
    key<&Channel::labels>("labels", "table of strings", "",
                          "Labels of your own, for filters and notifications"),
    key<&Channel::profile>("profile", "string", "", "Alarm profile", {.filled = true, .check = checkName}),
    key<&Channel::source>("source", "string", "",
                          "Its sender's IPv4 address: kestor-meter joins the group for it alone",
                          {.check = checkSource}, "any"),
    key<&Channel::enabled>("enabled", "boolean", "", "Whether the channel is watched"),
};

using M = MeasureRules;
constexpr std::array kMeasureKeys = {
    key<&M::pidAbsenceMs>("pid_absence_ms", "integer", "ms",
                          "A video or audio PID without packets for so long is missing",
                          {.from = 500, .to = 60'000}),
    key<&M::pcrRepetitionMs>("pcr_repetition_ms", "integer", "ms",
                             "PCRs that are further apart are repeated too seldom", {.from = 20, .to = 1000}),
    key<&M::serviceInformation>(
        "service_information", "string", "",
        R"(Whether tables of service information that were never seen are missing: "seen" (no) or "required")"),
};

using R = AlarmRule;
constexpr std::string_view kOfTheType = "the alarm's";
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
    key<&R::window>("window_s", "integer", "s", "Counters: length of the window", {.from = 1, .to = 600},
                    kOfTheType),
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

std::span<const Key<Configuration>> eventsKeys() {
    return kEventsKeys;
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

bool ruleHasKey(AlarmKind kind, std::string_view key) {
    const bool level = kind == AlarmKind::kHigh || kind == AlarmKind::kLow;
    if (key == "raise_level" || key == "clear_level") {
        return level;
    }
    if (key == "count" || key == "error_seconds" || key == "window_s") {
        return kind == AlarmKind::kCounter;
    }
    if (key == "raise_delay_s") {
        return kind != AlarmKind::kEvent;
    }
    return true;
}

Channel blankChannel() {
    return {.group = *Group::parse("224.0.0.0")};
}

}  // namespace station
