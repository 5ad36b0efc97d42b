#include "web/apiJson.h"

#include <algorithm>

#include "basics/address.h"
#include "recordColumns.h"
#include "recordValues.h"
#include "tr101290Checks.h"
#include "web/jsonValues.h"

namespace station {

namespace {

using json::alarmCounts;
using json::alarmValue;

// A join that took longer was none: the probe reckons from the epoch when it did not join itself.
constexpr int64_t kJoinLatencyLimitMs = 10 * 60 * 1000;

void probeMembers(JsonWriter& json, const ProbeState& probe, const MachineState& machine) {
    json.open('{').member("connected", probe.connected).member("asks", probe.asks);
    json.member("otherController", probe.otherController).member("secondAsker", probe.secondAsker);
    json.member("problem", json::textOrNull(probe.problem));
    json.member("lastRequest", probe.lastRequest).member("lastSnapshot", probe.lastSnapshot);
    json.member("sequence", probe.sequence < 0 ? std::nullopt : std::optional(probe.sequence));
    json.member("restarts", probe.restarts).member("requests", probe.requests);
    json.member("snapshots", probe.snapshots).member("droppedLines", probe.droppedLines);
    json.member("droppedSnapshots", probe.droppedSnapshots);
    json.member("tooLargeSnapshots", probe.tooLargeSnapshots);
    json.member("pipeProblem", probe.pipeProblem.empty() ? std::nullopt : std::optional(probe.pipeProblem));
    json.member("machineProblem", json::textOrNull(machine.worst()));
    json.close('}');
}

std::optional<Severity> worst(const ChannelState& channel) {
    return channel.alarms.empty() ? std::nullopt : std::optional(channel.alarms.front().severity);
}

std::size_t unacknowledged(const ChannelState& channel) {
    return static_cast<std::size_t>(
        std::ranges::count_if(channel.alarms, [](const Alarm& alarm) { return !alarm.acknowledged; }));
}

// A measure of the last snapshot, unknown while no snapshot shows the channel.
template <typename Value>
std::optional<Value> measured(const ChannelState& channel, Value value) {
    return channel.shown ? std::optional(value) : std::nullopt;
}

std::optional<std::string_view> severityText(std::optional<Severity> severity) {
    return severity ? std::optional(severityName(*severity)) : std::nullopt;
}

constexpr std::size_t kLost = sampleCounter("packetsLost");
constexpr std::size_t kContinuity = sampleCounter("Continuity_count_error");

void channelMembers(JsonWriter& json, const ChannelState& state) {
    const Channel& channel = state.channel;
    json.member("group", channel.group.text()).member("name", channel.name);
    json.member("number", channel.number == 0 ? std::nullopt : std::optional(channel.number));
    json.member("logo", json::textOrNull(channel.logo));
    json.name("labels").open('{');
    for (const auto& [label, value] : channel.labels) {
        json.value(label).colon().value(value);
    }
    json.close('}');
    json.member("profile", channel.profile).member("origin", originName(channel.origin));
    json.member("enabled", channel.enabled).member("state", channelStatusName(state.status));
    json.member("severity", severityText(worst(state)));
    json.member("acknowledged", !state.alarms.empty() && unacknowledged(state) == 0);
    json.member("maintenance", state.maintenance);
    json.member("bitRate", measured(state, state.sample.bitRate));
    json.member("packetsLost", measured(state, state.sample.totals[kLost]));
    json.member("Continuity_count_error", measured(state, state.sample.totals[kContinuity]));
    json.member("lastSeen", state.lastSeen);
}

void identityMember(JsonWriter& json, const ChannelState& channel, bool passive) {
    const Record* stream = channel.stream;
    // Only the first packet teaches the probe where packets come from.
    const bool known = stream != nullptr && stream->integer("sourceAddress") != 0;
    const auto number = [&](records::ColumnName column) {
        return known ? std::optional(stream->integer(column)) : std::nullopt;
    };
    std::optional<int64_t> latency = number("igmpLatency");
    if (passive || latency > kJoinLatencyLimitMs || latency < 0) {
        latency.reset();
    }
    json.name("identity").open('{');
    json.member("source", known ? std::optional(basics::dottedRecordAddress(stream->integer("sourceAddress")))
                                : std::nullopt);
    json.member("sourcePort", number("sourcePort")).member("destinationPort", number("destinationPort"));
    json.member("ttl", number("ttl")).member("dscp", number("dscp")).member("ecn", number("ecn"));
    json.member("joinLatencyMs", latency).member("listedSource", json::textOrNull(channel.channel.source));
    json.member("listedPort", channel.channel.port == 0 ? std::nullopt : std::optional(channel.channel.port));
    json.close('}');
}

void checksMember(JsonWriter& json, const ChannelState& channel) {
    json.name("checks").open('[');
    if (channel.shown) {
        for (const records::Check& check : records::kChecks) {
            const std::size_t counter = findSampleCounter(check.column).value();
            json.open('{').member("column", check.column).member("count", channel.sample.totals[counter]);
            json.member("lastMinute", channel.lastMinute[counter]);
            json.member("lastError", channel.lastError[counter]).close('}');
        }
    }
    json.close(']');
}

void recordValue(JsonWriter& json, const Record& record) {
    json.open('{');
    records::forEachValue(
        record, [&](const records::Column& column, const auto& value) { json.member(column.name, value); });
    if (record.kind() != records::Kind::kStream) {
        json.name(records::kDescriptorTagsColumn.name).open('[');
        for (const uint64_t tag : record.descriptorTags()) {
            json.value(tag);
        }
        json.close(']');
    }
    json.close('}');
}

void windowValue(JsonWriter& json, const Maintenance& window) {
    json.open('{').member("id", window.id).member("from", window.from).member("until", window.until);
    json.member("group", json::groupOrNull(window.group)).member("remark", window.remark);
    json.member("by", window.by).close('}');
}

constexpr std::size_t kBytesPerChannel = 400;  // of an answer, to begin with
constexpr std::size_t kBytesPerRow = 120;

}  // namespace

std::string statusJson(const StationState& state) {
    std::string text;
    JsonWriter json(text);
    json.open('{').member("version", KESTOR_VERSION).member("started", state.started);
    json.member("time", state.now.wall).member("number", state.number);
    json.name("probe");
    probeMembers(json, state.probe, state.machine);
    json.name("machine");
    json::machineValue(json, state.machine);
    json.name("meter");
    json::meterValue(json, state.meter);
    const auto count = [&state](auto&& counts) { return std::ranges::count_if(state.channels, counts); };
    json.name("channels").open('{').member("configured", state.channels.size());
    json.member("watched", count([](const auto& one) { return one->channel.enabled && one->shown; }));
    json.member("withSignal", count([](const auto& one) { return one->shown && one->sample.signal; }));
    json.close('}').name("alarms");
    alarmCounts(json, state.alarms);
    json.member("passive", state.passive);
    const auto latency = state.configuration ? state.configuration->igmpLatency : std::nullopt;
    json.member("igmpLatencyMs", latency ? std::optional(latency->count()) : std::nullopt);
    json.name("notes").open('[');
    for (const std::string& note : state.notes) {
        json.value(note);
    }
    json.close(']').close('}');
    return text;
}

std::string channelsJson(const StationState& state) {
    std::string text;
    text.reserve(state.channels.size() * kBytesPerChannel);
    JsonWriter json(text);
    json.open('[');
    for (const auto& channel : state.channels) {
        json.open('{');
        channelMembers(json, *channel);
        json.close('}');
    }
    json.close(']');
    return text;
}

std::string channelJson(const StationState& state, const ChannelState& channel) {
    std::string text;
    JsonWriter json(text);
    json.open('{');
    channelMembers(json, channel);
    json.member("time", state.now.wall);
    json.member("countsSince", channel.countsSince);
    json.member("note", json::textOrNull(channel.note));
    identityMember(json, channel, state.passive);
    checksMember(json, channel);
    json.name("stream");
    if (channel.stream != nullptr) {
        recordValue(json, *channel.stream);
    } else {
        json.value(nullptr);
    }
    json.name("pids").open('[');
    for (const Record& pid : channel.pids) {
        recordValue(json, pid);
    }
    json.close(']').name("alarms").open('[');
    for (const Alarm& alarm : channel.alarms) {
        alarmValue(json, alarm, channel.channel.name);
    }
    json.close(']').close('}');
    return text;
}

std::string maintenanceJson(const Maintenance& window) {
    std::string text;
    JsonWriter json(text);
    windowValue(json, window);
    return text;
}

std::string maintenanceListJson(const StationState& state) {
    std::string text;
    JsonWriter json(text);
    json.open('[');
    for (const Maintenance& window : state.maintenance) {
        windowValue(json, window);
    }
    json.close(']');
    return text;
}

std::string streamSnapshotJson(const StationState& state) {
    std::string text;
    text.reserve(1024 + state.channels.size() * kBytesPerRow);
    JsonWriter json(text);
    json.open('{').member("number", state.number).member("time", state.now.wall).name("probe");
    probeMembers(json, state.probe, state.machine);
    json.name("alarms");
    alarmCounts(json, state.alarms);
    json.name("fields").open('[');
    for (const std::string_view field :
         {"group", "state", "severity", "bitRate", "packetsLost", "Continuity_count_error", "lostLastMinute",
          "continuityLastMinute", "qualityIndex", "unacknowledged", "maintenance", "lastSeen"}) {
        json.value(field);
    }
    json.close(']').name("channels").open('[');
    for (const auto& channel : state.channels) {
        json.open('[').value(channel->channel.group.text()).value(channelStatusName(channel->status));
        json.value(severityText(worst(*channel))).value(measured(*channel, channel->sample.bitRate));
        json.value(measured(*channel, channel->sample.totals[kLost]));
        json.value(measured(*channel, channel->sample.totals[kContinuity]));
        json.value(measured(*channel, channel->lastMinute[kLost]));
        json.value(measured(*channel, channel->lastMinute[kContinuity]));
        json.value(measured(*channel, channel->sample.qualityIndex)).value(unacknowledged(*channel));
        json.value(channel->maintenance).value(channel->lastSeen).close(']');
    }
    json.close(']').close('}');
    return text;
}

std::string streamChannelsJson(const StationState& state) {
    std::string text;
    JsonWriter(text).open('{').member("version", state.channelsVersion).close('}');
    return text;
}

std::string useJson(const StationUse& use, const ProbeState& probe, const EventStore::Statistics& store,
                    std::span<const Delivery::ReceiverStatistics> delivery, const ServerStatistics& server) {
    std::string text;
    JsonWriter json(text);
    json.open('{').member("cpuSeconds", use.cpuSeconds).member("residentBytes", use.residentBytes);
    json.member("lastSnapshotCpuMs", use.lastSnapshotCpuMs).member("commandsRefused", use.commandsRefused);
    json.member("logDropped", use.logDropped);
    json.name("pipe").open('{').member("snapshotBytes", probe.snapshotBytes);
    json.member("longestWaitMs", probe.longestPipeWaitMs).close('}');
    json.name("store").open('{').member("written", store.written).member("dropped", store.dropped);
    json.member("waiting", store.waiting).member("bytes", store.bytes).member("failing", store.failing);
    json.close('}').name("delivery").open('[');
    for (const auto& receiver : delivery) {
        json.open('{').member("name", receiver.name).member("url", receiver.url);
        json.member("delivered", receiver.delivered);
        json.member("failed", receiver.failed).member("dropped", receiver.dropped);
        json.member("owed", receiver.owed);
        json.member("failingSince", receiver.failingSinceWall);
        json.member("lastProblem", json::textOrNull(receiver.lastProblem)).close('}');
    }
    json.close(']').name("influx").open('{').member("written", use.influxWritten);
    json.member("dropped", use.influxDropped).member("failed", use.influxFailed);
    json.member("lastProblem", json::textOrNull(use.influxProblem)).close('}');
    json.name("server").open('{').member("connections", server.connections);
    json.member("streams", server.streams).member("requests", server.requests);
    json.member("refused", server.refused).member("malformed", server.malformed);
    json.member("madeRoom", server.madeRoom).member("wrongTokens", server.wrongTokens);
    json.member("answerBytes", server.answerBytes).member("answersRefused", server.answersRefused);
    json.member("slowClosed", server.slowClosed).close('}').close('}');
    return text;
}

}  // namespace station
