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
    key<&C::listen>("listen", "string", "", "Address and port for HTTP; empty for none",
                    {.check = checkListen}),
    key<&C::socket>("socket", "path", "", "Unix socket for HTTP; who may open it may change everything",
                    {.filled = true, .check = checkSocketPath}),
    key<&C::socketToken>("socket_token", "boolean", "",
                         "Whether a change over the Unix socket needs the token too"),
    key<&C::tokenFile>("token_file", "path", "",
                       "File with the token that a change over TCP needs; empty: none can be made"),
    key<&C::allowedHosts>(
        "allowed_hosts", "list of strings", "",
        "Host names that a request may name beside the listening address, localhost and this machine's",
        {.check = checkHost}),
    key<&C::instance>("instance", "string", "", "This probe's name in what is delivered and measured",
                      {.filled = true, .check = checkName}, "this machine's name"),
    key<&C::state>("state_dir", "path", "", "Directory for events and for channels added at run time",
                   kFilled),
    key<&C::pipe>("pipe", "path", "", "The probe's pipe", kFilled),
    key<&C::controllerEndpoint>("controller_endpoint", "string", "", "Where the probe asks what to watch",
                                {.filled = true, .check = checkEndpoint}),
    key<&C::page>("page", "path", "", "Directory of the page's files; empty: found by the program"),
    key<&C::passive>("passive", "boolean", "", "Whether the probe watches without joining groups", {},
                     "the probe is told nothing"),
    key<&C::igmpLatency>("igmp_latency_ms", "integer", "ms", "How long the probe's scans wait for a frame",
                         {.from = 1, .to = 60'000}, "the probe is told nothing"),
};

constexpr std::array kEventsKeys = {
    key<&C::keepDays>("keep_days", "integer", "days", "Older events are deleted", {.from = 1, .to = 36'500}),
    key<&C::keepRows>("keep_rows", "integer", "events", "With more of them the oldest are deleted",
                      {.from = 1000, .to = 100 * kMillion}),
};

constexpr std::array kMetricsKeys = {
    key<&C::metricsPids>("pids", "string", "",
                         R"(PIDs with metrics of their own: "none", "listed" (in a PMT) or "all")"),
};

using H = Configuration::Http;
constexpr std::array kHttpKeys = {
    key<&H::connections>("connections", "integer", "connections",
                         "Connections over TCP, and over the socket but for the places that are kept for it",
                         {.from = 16, .to = 800}),
    key<&H::connectionsPerAddress>("connections_per_address", "integer", "connections",
                                   "Connections from one address over TCP", {.from = 8, .to = 800}),
};

using I = Configuration::Influx;
constexpr std::array kInfluxKeys = {
    key<&I::url>("url", "string", "", "Write call of an InfluxDB, with its query; empty: nothing is written",
                 {.check = checkUrl}),
    key<&I::authorizationFile>("authorization_file", "path", "",
                               "File with the Authorization header to send; empty for none"),
    key<&I::timeout>("timeout_s", "number", "s", "A call that takes longer is given up", kTimeout),
};

using W = Webhook;
constexpr std::array kWebhookKeys = {
    key<&W::url>("url", "string", "", "Receiver; of an Alertmanager without /api/v2/alerts",
                 {.filled = true, .check = checkUrl}, kRequired),
    key<&W::format>("format", "string", "", R"("json" or "alertmanager")"),
    key<&W::minimumSeverity>("minimum_severity", "string", "",
                             R"(Less severe alarms are left out: "critical", "major", "minor" or "warning")"),
    key<&W::maxPerMinute>("max_per_minute", "integer", "messages", "More are summed up in one",
                          {.from = 1, .to = 6000}),
    key<&W::timeout>("timeout_s", "number", "s", "A call that takes longer has failed and is retried",
                     kTimeout),
    key<&W::caFile>("ca_file", "path", "", "PEM file with the authorities to trust; empty for the system's"),
    key<&W::authorizationFile>("authorization_file", "path", "",
                               "File with the Authorization header to send; empty for none"),
};

using P = PlaylistSource;
constexpr std::array kPlaylistKeys = {
    key<&P::file>("file", "path", "", "M3U playlist; it need not be there yet", kFilled, kRequired),
    key<&P::profile>("profile", "string", "", "Alarm profile of its channels",
                     {.filled = true, .check = checkName}),
    key<&P::labels>("labels", "table of strings", "",
                    "Labels of its channels, where the playlist says nothing else"),
};

constexpr std::array kChannelKeys = {
    key<&Channel::group>("group", "string", "", "IPv4 multicast address", {}, kRequired),
    key<&Channel::name>("name", "string", "", "Name to show", {.check = checkName}, "the group"),
    key<&Channel::labels>("labels", "table of strings", "", "Labels of your own, to filter and to deliver"),
    key<&Channel::profile>("profile", "string", "", "Alarm profile", {.filled = true, .check = checkName}),
    key<&Channel::enabled>("enabled", "boolean", "", "Whether it is watched"),
};

using R = AlarmRule;
constexpr std::string_view kOfTheType = "the alarm's";
constexpr std::array kRuleKeys = {
    key<&R::enabled>("enabled", "boolean", "", "Whether it is raised at all", {}, kOfTheType),
    key<&R::severity>("severity", "string", "", R"("critical", "major", "minor" or "warning")", {},
                      kOfTheType),
    key<&R::raiseLevel>("raise_level", "number", "the alarm's", "Levels: raised beyond it", kAnyLevel,
                        kOfTheType),
    key<&R::clearLevel>("clear_level", "number", "the alarm's", "Levels: cleared at it and on its good side",
                        kAnyLevel, kOfTheType),
    key<&R::count>("count", "integer", "the alarm's",
                   "Counters: so many in the window raise it; 0: they are not looked at",
                   {.from = 0, .to = 1000 * kMillion}, kOfTheType),
    key<&R::errorSeconds>(
        "error_seconds", "integer", "s",
        "Counters: so many seconds with any in the window raise it; 0: they are not looked at",
        {.from = 0, .to = 600}, kOfTheType),
    key<&R::window>("window_s", "integer", "s", "Counters: the window", {.from = 1, .to = 600}, kOfTheType),
    key<&R::raiseDelay>("raise_delay_s", "number", "s", "How long it has to be wrong to be raised", kDelay,
                        kOfTheType),
    key<&R::clearDelay>("clear_delay_s", "number", "s",
                        "How long it has to be right to be cleared; events: the shortest time between two",
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
