#include "web/reportText.h"

#include "common/text.h"
#include "web/csv.h"
#include "web/jsonValues.h"

namespace station {

namespace {

constexpr uint64_t kMinuteSeconds = 60;

double seconds(std::chrono::milliseconds time) {
    return std::chrono::duration<double>(time).count();
}

// Members of an object that is open.
void timesMembers(JsonWriter& json, const ReportTimes& times) {
    json.member("availabilityPercent", times.percent());
    json.member("availableSeconds", seconds(times.available));
    json.member("outageSeconds", seconds(times.outage));
    json.member("errorSeconds", seconds(times.withErrors));
    json.member("unknownSeconds", seconds(times.unknown));
    json.member("maintenanceSeconds", seconds(times.maintenance));
    json.member("notWatchedSeconds", seconds(times.notWatched));
}

void totalMembers(JsonWriter& json, const LabelTotal& total) {
    json.member("channels", total.channels);
    timesMembers(json, total.times);
    json.member("outages", total.outages);
}

void alarmsMember(JsonWriter& json, const std::vector<AlarmSum>& alarms) {
    json.name("alarms").open('[');
    for (const AlarmSum& sum : alarms) {
        const AlarmType& type = alarmTypes()[sum.type];
        json.open('{').member("alarm", type.name).member("count", sum.count);
        json.member("seconds", seconds(sum.total)).member("longestSeconds", seconds(sum.longest));
        json.member("worst", sum.worst).member("unit", json::textOrNull(type.unit)).close('}');
    }
    json.close(']');
}

void lossMember(JsonWriter& json, const std::optional<LossSum>& loss) {
    json.name("loss");
    if (!loss) {
        json.value(nullptr);
        return;
    }
    json.open('{').member("meanPercent", loss->meanPercent()).member("packetsLost", loss->lost);
    json.member("packetsReceived", loss->received).member("worstMinutePercent", loss->worstPercent);
    json.member("worstMinute", loss->worst).member("knownSeconds", loss->minutes * kMinuteSeconds).close('}');
}

void channelValue(JsonWriter& json, const ChannelReport& channel) {
    json.open('{').member("group", channel.channel.group.text()).member("name", channel.channel.name);
    json.name("labels").open('{');
    for (const auto& [label, value] : channel.channel.labels) {
        json.value(label).colon().value(value);
    }
    json.close('}').member("present", channel.present);
    timesMembers(json, channel.times);
    json.member("outages", channel.outages);
    json.member("longestOutageSeconds", seconds(channel.longestOutage));
    lossMember(json, channel.loss);
    json.name("outageList").open('[');
    for (const Outage& outage : channel.listed) {
        json.open('{').member("from", outage.from).member("until", outage.until);
        json.member("seconds", seconds(outage.counted)).close('}');
    }
    json.close(']');
    alarmsMember(json, channel.alarms);
    json.close('}');
}

std::string labelsText(const Labels& labels) {
    std::string text;
    for (const auto& [label, value] : labels) {
        text.append(text.empty() ? "" : "; ").append(label).append("=").append(value);
    }
    return text;
}

// "20261121T000000Z"
std::string compact(WallTime time) {
    std::string text = rfc3339(time);
    text = text.substr(0, text.find('.')) + "Z";
    std::erase_if(text, [](char c) { return c == '-' || c == ':'; });
    return text;
}

void csvSeconds(std::string& text, std::chrono::milliseconds time) {
    csvPlain(text, std::optional(seconds(time)));
}

void csvLoss(std::string& text, const std::optional<LossSum>& loss) {
    csvPlain(text, loss ? loss->meanPercent() : std::nullopt);
    csvPlain(text, loss ? std::optional(loss->worstPercent) : std::nullopt);
    csvCell(text, loss && loss->worst != WallTime{} ? rfc3339(loss->worst) : std::string());
    csvPlain(text, loss ? std::optional(loss->lost) : std::nullopt);
    csvPlain(text, loss ? std::optional(loss->minutes * kMinuteSeconds) : std::nullopt);
}

}  // namespace

std::string reportJson(const Report& report, const std::string& label) {
    std::string text;
    JsonWriter json(text);
    json.open('{').member("since", report.time.from).member("until", report.time.until);
    json.member("label", json::textOrNull(label)).name("total").open('{');
    totalMembers(json, report.total);
    json.close('}').name("byLabel").open('[');
    for (const LabelTotal& total : report.byLabel) {
        json.open('{').member("value", json::textOrNull(total.value));
        totalMembers(json, total);
        json.close('}');
    }
    json.close(']').name("channels").open('[');
    for (const ChannelReport& channel : report.channels) {
        channelValue(json, channel);
    }
    json.close(']').member("outagesLeftOut", report.outagesLeftOut);
    json.member("lossProblem", json::textOrNull(report.lossProblem));
    alarmsMember(json, report.alarms);
    json.close('}');
    return text;
}

std::string reportCsv(const Report& report) {
    std::string text =
        "group,channel,labels,since,until,availabilityPercent,availableSeconds,outageSeconds,outages,"
        "longestOutageSeconds,errorSeconds,unknownSeconds,maintenanceSeconds,notWatchedSeconds,"
        "lossMeanPercent,lossWorstMinutePercent,lossWorstMinute,packetsLost,lossKnownSeconds\r\n";
    for (const ChannelReport& channel : report.channels) {
        csvCell(text, channel.channel.group.text());
        csvCell(text, channel.channel.name);
        csvCell(text, labelsText(channel.channel.labels));
        csvCell(text, rfc3339(report.time.from));
        csvCell(text, rfc3339(report.time.until));
        csvPlain(text, channel.times.percent());
        csvSeconds(text, channel.times.available);
        csvSeconds(text, channel.times.outage);
        csvPlain(text, std::optional(channel.outages));
        csvSeconds(text, channel.longestOutage);
        csvSeconds(text, channel.times.withErrors);
        csvSeconds(text, channel.times.unknown);
        csvSeconds(text, channel.times.maintenance);
        csvSeconds(text, channel.times.notWatched);
        csvLoss(text, channel.loss);
        text += "\r\n";
    }
    return text;
}

std::string outagesCsv(const Report& report) {
    std::string text = "group,channel,labels,from,until,seconds\r\n";
    for (const ChannelReport& channel : report.channels) {
        for (const Outage& outage : channel.listed) {
            csvCell(text, channel.channel.group.text());
            csvCell(text, channel.channel.name);
            csvCell(text, labelsText(channel.channel.labels));
            csvCell(text, rfc3339(outage.from));
            csvCell(text, outage.until ? rfc3339(*outage.until) : std::string());
            csvSeconds(text, outage.counted);
            text += "\r\n";
        }
    }
    return text;
}

std::string reportFileName(std::string_view what, const Span& time) {
    return std::string(what) + "-" + compact(time.from) + "-" + compact(time.until) + ".csv";
}

}  // namespace station
