#include "web/apiJson.h"

#include <algorithm>

#include "basics/address.h"
#include "channels/channelAttributes.h"
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
    return static_cast<std::size_t>(std::ranges::count_if(
        channel.alarms, [](const Alarm& alarm) { return !alarm.acknowledged && !alarm.shelved; }));
}

// Of a measure, unknown while its source does not deliver the channel.
template <typename Value>
std::optional<Value> whileShown(const Measured& measured, Value value) {
    return measured.shown ? std::optional(value) : std::nullopt;
}

// By the place of a measure: the meter's that stands instead of it, or itself.
constexpr auto kByMeter = [] {
    std::array<const Measure*, kMeasures.size()> all{};
    for (std::size_t i = 0; i < kMeasures.size(); ++i) {
        const auto other = std::ranges::find(kMeasures, kMeasures[i].name, &Measure::insteadOf);
        all[i] = other == kMeasures.end() ? &kMeasures[i] : &*other;
    }
    return all;
}();

// The measure of the same by the source that judges the channel. REQUIRES: one of kMeasures.
const Measure& judged(const ChannelState& channel, const Measure& measure) {
    if (channel.judgedBy == Source::kMeter && channel.measured[Source::kMeter].shown) {
        return *kByMeter[static_cast<std::size_t>(&measure - kMeasures.data())];
    }
    return measure;
}

// What a channel's description tells of a measure: totals and what is.
void measuredValue(JsonWriter& json, const ChannelState& channel, const Measure& asked) {
    const Measure& measure = judged(channel, asked);
    const Measured& measured = channel.measured[measure.source];
    if (measure.kind == MeasureKind::kCounter) {
        const bool known = measured.sample.knows(measure, nullptr);
        json.value(known ? whileShown(measured, measured.sample.count(measure).total) : std::nullopt);
    } else {
        json.value(whileShown(measured, measured.sample.value(measure)));
    }
}

// What the wall shows of it: what came in the last minute, or what is.
void wallValue(JsonWriter& json, const ChannelState& channel, const Measure& asked) {
    if (asked.kind == MeasureKind::kCounter) {
        const Measure& measure = judged(channel, asked);
        const Measured& measured = channel.measured[measure.source];
        json.value(whileShown(measured, measured.lastMinute[measure.place]));
    } else {
        measuredValue(json, channel, asked);
    }
}

// Calls those functions for the measures of a row: first those that descriptions have, under their names,
// then what the wall shows beside them.
void forRow(const auto& listed, const auto& onWall) {
    for (const Measure& measure : kMeasures) {
        if (measure.listed) {
            listed(measure);
        }
    }
    for (const Measure& measure : kMeasures) {
        if (!measure.wall.field.empty() && !(measure.listed && measure.wall.field == measure.name)) {
            onWall(measure);
        }
    }
}

// What the meter says of what the channel is, under its names: null while it does not deliver it.
void forMeter(const MeterBrief& brief, const auto& tell) {
    const auto text = [&brief](std::string MeterFacts::*member) {
        return brief.facts ? json::textOrNull((*brief.facts).*member) : std::nullopt;
    };
    tell("serviceName", text(&MeterFacts::serviceName));
    tell("resolution", text(&MeterFacts::resolution));
    tell("codec", text(&MeterFacts::codec));
    tell("lastCue", brief.lastCue);
    tell("cueOut", brief.cueOut);
}

void channelMembers(JsonWriter& json, const ChannelState& state) {
    const Channel& channel = state.channel;
    json.member("group", channel.group.text()).member("name", channel.name);
    forEachChannelAttribute([&](const auto& attribute) {
        if constexpr (requires(JsonWriter & writer) { writer.value(channel.*attribute.member); }) {
            if (attribute.shown) {
                const auto& value = channel.*attribute.member;
                const bool set = value != typename std::decay_t<decltype(attribute)>::Value{};
                json.member(attribute.name, set ? std::optional(value) : std::nullopt);
            }
        }
    });
    json.name("labels").open('{');
    for (const auto& [label, value] : channel.labels) {
        json.value(label).colon().value(value);
    }
    json.close('}');
    json.member("profile", channel.profile).member("origin", originName(channel.origin));
    json.member("enabled", channel.enabled).member("state", channelStatusName(state.status));
    json.member("severity", json::severityOrNull(worst(state)));
    json.member("acknowledged", !state.alarms.empty() && unacknowledged(state) == 0);
    json.member("maintenance", state.maintenance).member("judgedBy", sourceName(state.judgedBy));
    for (const Measure& measure : kMeasures) {
        if (measure.listed) {
            json.name(measure.name);
            measuredValue(json, state, measure);
        }
    }
    json.member("lastSeen", state.lastSeen);
    forMeter(state.meter, [&json](std::string_view name, const auto& value) { json.member(name, value); });
}

// The newest picture and what it shows, of which the last turn may have had none.
void pictureMember(JsonWriter& json, const PictureBrief& picture) {
    json.name("picture");
    if (!picture.last) {
        json.value(nullptr);
        return;
    }
    const PictureFigures& last = *picture.last;
    const auto size = [](uint32_t number) { return number == 0 ? std::nullopt : std::optional(number); };
    json.open('{').member("taken", picture.taken).member("outcome", pictureOutcomeName(last.outcome));
    json.member("time", last.time).member("problem", json::textOrNull(picture.problem));
    json.member("leftOutUntil", picture.leftOutUntil);
    json.member("width", size(last.width)).member("height", size(last.height));
    json.member("luma", last.luma).member("spread", last.spread);
    json.member("difference", last.difference).member("change", last.change).member("since", last.since);
    json.member("loudness", last.loudness).close('}');
}

// In place of a picture on the wall; nothing where there is one, or nothing is known.
std::optional<std::string_view> pictureNote(const PictureBrief& picture) {
    return picture.last && picture.last->outcome != PictureOutcome::kTaken
               ? std::optional(whyNoPicture(picture.last->outcome))
               : std::nullopt;
}

void picturesValue(JsonWriter& json, const PictureState& pictures) {
    if (!pictures.configured) {
        json.value(nullptr);
        return;
    }
    json.open('{').member("connected", pictures.connected).member("silent", pictures.silent);
    json.member("problem", json::textOrNull(pictures.problem));
    json.member("version", json::textOrNull(pictures.version)).member("since", pictures.since);
    json.member("meter", pictures.meter).member("held", pictures.held).member("bytes", pictures.bytes);
    json.member("pictures", pictures.pictures).member("failures", pictures.failures);
    json.member("workersKilled", pictures.workersKilled).member("dropped", pictures.dropped);
    json.member("refused", pictures.refused).member("cpuSeconds", pictures.cpuSeconds);
    json.member("intervalSeconds", pictures.intervalSeconds).name("leftOut").open('[');
    for (const PictureState::LeftOut& one : pictures.leftOut) {
        json.open('{').member("group", basics::dotted(one.group)).member("until", one.until);
        json.member("why", one.why).close('}');
    }
    json.close(']').close('}');
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

void checkCounts(JsonWriter& json, const ChannelState& channel) {
    json.name("checks").open('[');
    if (const Measured& measured = channel.measured[Source::kProbe]; measured.shown) {
        for (const records::Check& check : records::kChecks) {
            const Measure& counter = measureOf(check.column);
            json.open('{').member("column", check.column);
            json.member("count", measured.sample.count(counter).total);
            json.member("lastMinute", measured.lastMinute[counter.place]);
            json.member("lastError", measured.lastError[counter.place]).close('}');
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
    json.member("group", json::groupOrNull(window.group)).name("groups").open('[');
    for (const Group& group : window.groups) {
        json.value(group.text());
    }
    json.close(']').member("about", json::textOrNull(window.about)).member("remark", window.remark);
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
    json.name("pictures");
    picturesValue(json, state.pictures);
    const auto count = [&state](auto&& counts) { return std::ranges::count_if(state.channels, counts); };
    json.name("channels").open('{').member("configured", state.channels.size());
    const auto ofProbe = [](const auto& one) -> const Measured& { return one->measured[Source::kProbe]; };
    json.member("watched",
                count([&](const auto& one) { return one->channel.enabled && ofProbe(one).shown; }));
    json.member("withSignal",
                count([&](const auto& one) { return ofProbe(one).shown && ofProbe(one).sample.signal; }));
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
    pictureMember(json, channel.picture);
    checkCounts(json, channel);
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
        alarmValue(json, state, alarm);
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
    for (const std::string_view field : {"group", "state", "severity"}) {
        json.value(field);
    }
    forRow([&](const Measure& measure) { json.value(measure.name); },
           [&](const Measure& measure) { json.value(measure.wall.field); });
    for (const std::string_view field : {"unacknowledged", "maintenance", "lastSeen"}) {
        json.value(field);
    }
    forMeter({}, [&json](std::string_view field, const auto&) { json.value(field); });
    json.value("pictureTaken").value("pictureNote");
    json.close(']').name("channels").open('[');
    for (const auto& channel : state.channels) {
        json.open('[').value(channel->channel.group.text()).value(channelStatusName(channel->status));
        json.value(json::severityOrNull(worst(*channel)));
        forRow([&](const Measure& measure) { measuredValue(json, *channel, measure); },
               [&](const Measure& measure) { wallValue(json, *channel, measure); });
        json.value(unacknowledged(*channel));
        json.value(channel->maintenance).value(channel->lastSeen);
        forMeter(channel->meter, [&json](std::string_view, const auto& value) { json.value(value); });
        json.value(channel->picture.taken).value(pictureNote(channel->picture));
        json.close(']');
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
                    const MinuteStore::Statistics& history,
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
    json.close('}').name("history").open('{').member("bytes", history.bytes);
    json.member("dropped", history.dropped).member("lastProblem", json::textOrNull(history.problem));
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
